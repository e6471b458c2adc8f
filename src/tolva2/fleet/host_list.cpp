/*
 * From a file to records. The C library would take "127.1", "010" and "0x7f"
 * for parts of an address, and other programs for other ones: here an address
 * has one form.
 */
#include "tolva2/fleet/host_list.h"
#include "tolva2/fleet/fleet_text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <strings.h>

namespace {

constexpr std::string_view BLANKS = " \t\r\v\f";
constexpr std::string_view DIGITS = "0123456789";
constexpr std::string_view NAME_LETTERS =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";
constexpr size_t LONGEST_NAME = 253;
constexpr size_t READ_SIZE = 65536;

std::string_view trimmed(std::string_view text) {
    size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) {
        return {};
    }
    return part_of(text, first, text.find_last_not_of(BLANKS) - first + 1);
}

/* A number without sign and leading zeros, or -1. */
int32_t exact_number(std::string_view text, int32_t most) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of(DIGITS) != std::string_view::npos ||
        (text[0] == '0' && text.size() > 1)) {
        return -1;
    }
    int32_t value = 0;
    for (char c : text) {
        value = value * 10 + (c - '0');
    }
    return value <= most ? value : -1;
}

const char *read_address(std::string_view text, parsed_target *target) {
    uint32_t value = 0;
    for (int32_t part = 0; part < 4; part++) {
        size_t dot = part < 3 ? text.find('.') : text.size();
        if (dot == std::string_view::npos) {
            return "an address has four numbers";
        }
        int32_t octet = exact_number(part_of(text, 0, dot), 255);
        if (octet < 0) {
            return "an address has four numbers of 0 to 255 without leading "
                   "zeros";
        }
        value = value << 8 | static_cast<uint32_t>(octet);
        text.remove_prefix(std::min(dot + 1, text.size()));
    }
    target->address.s_addr = htonl(value);
    return value == 0 ? "the address of no host" : nullptr;
}

/* A last label that is a number makes an address of it for the resolver. */
bool ends_in_number(std::string_view name) {
    if (name.back() == '.') {
        name.remove_suffix(1);
    }
    size_t dot = name.rfind('.');
    std::string_view last =
        dot == std::string_view::npos ? name : part_of(name, dot + 1);
    return last.find_first_not_of(DIGITS) == std::string_view::npos ||
           (last.size() >= 2 && last[0] == '0' &&
            (last[1] == 'x' || last[1] == 'X'));
}

const char *check_name(std::string_view name) {
    if (name.size() > LONGEST_NAME || name[0] == '-' || name[0] == '.' ||
        name.find_first_not_of(NAME_LETTERS) != std::string_view::npos) {
        return "neither an address nor a name";
    }
    return ends_in_number(name) ? "neither an address nor a name: it ends in "
                                  "a number"
                                : nullptr;
}

const char *read_host(std::string_view host, parsed_target *target) {
    if (host.empty()) {
        return "neither an address nor a name";
    }
    if (host.find_first_not_of("0123456789.") == std::string_view::npos) {
        return read_address(host, target);
    }
    target->by_name = true;
    return check_name(host);
}

/* What a target is found by: two spellings of a name, or of the usual port,
 * are one host. What is none is only the same as itself. */
struct host_key {
    std::string_view host;
    int32_t port;
};

host_key key_of(const parsed_target &target, std::string_view text) {
    return target.fault ? host_key{text, -1}
                        : host_key{target.host, target.port};
}

char lowered(char c) {
    return static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

bool same_key(const host_key &a, const host_key &b) {
    return a.port == b.port &&
           std::equal(a.host.begin(), a.host.end(), b.host.begin(),
                      b.host.end(), [](char one, char other) {
                          return lowered(one) == lowered(other);
                      });
}

size_t hash_of(const host_key &key) {
    uint32_t hash = 2166136261u ^ static_cast<uint32_t>(key.port);
    for (char c : key.host) {
        hash = (hash ^ static_cast<unsigned char>(lowered(c))) * 16777619u;
    }
    return hash;
}

host_key key_of(const fleet_host &host) {
    return host.fault ? host_key{host.target, -1}
                      : host_key{host.host, ntohs(host.address.sin_port)};
}

/* The slot of the index where a key is, or where it would be. */
size_t find_slot(const host_list &list, const host_key &key) {
    size_t slots = list.index.size();
    size_t slot = hash_of(key) % slots;
    while (list.index[slot] != NO_HOST &&
           !same_key(key_of(list.room[static_cast<size_t>(list.index[slot])]),
                     key)) {
        slot = (slot + 1) % slots;
    }
    return slot;
}

void add_host(host_list *list, std::string_view text, std::string_view name) {
    parsed_target target = parse_target(text, list->default_port);
    size_t slot = find_slot(*list, key_of(target, text));
    if (list->index[slot] != NO_HOST) {
        return;
    }
    list->index[slot] = static_cast<int32_t>(list->count);
    fleet_host &host = list->room[list->count++];
    host.target = text;
    host.name = name;
    host.host = target.host;
    host.fault = target.fault;
    host.by_name = target.by_name;
    host.address.sin_family = AF_INET;
    host.address.sin_addr = target.address;
    host.address.sin_port = htons(target.port);
}

void take_line(host_list *list, std::string_view line) {
    line = trimmed(part_of(line, 0, line.find('#')));
    if (line.empty()) {
        return;
    }
    size_t end = std::min(line.find_first_of(BLANKS), line.size());
    add_host(list, part_of(line, 0, end), trimmed(part_of(line, end)));
}

} // namespace

parsed_target parse_target(std::string_view text, uint16_t default_port) {
    parsed_target target;
    target.port = default_port;
    size_t colon = text.find(':');
    target.host = part_of(text, 0, colon);
    target.fault = read_host(target.host, &target);
    if (target.fault || colon == std::string_view::npos) {
        return target;
    }
    int32_t port = exact_number(part_of(text, colon + 1), 65535);
    if (port <= 0) {
        target.fault = "a port is a number of 1 to 65535";
    }
    target.port = static_cast<uint16_t>(std::max(port, 0));
    return target;
}

host_list parse_hosts(ux_text text, size_t length, uint16_t default_port) {
    host_list list;
    std::string_view rest(text.get(), length);
    size_t lines =
        static_cast<size_t>(std::count(rest.begin(), rest.end(), '\n')) + 1;
    list.text = std::move(text);
    list.default_port = default_port;
    list.room = fleet_array<fleet_host>(lines);
    list.index = fleet_array<int32_t>(2 * lines + 1);
    if (!list.room || !list.index) {
        list.room = {};
        return list;
    }
    std::fill(list.index.begin(), list.index.end(), NO_HOST);
    if (part_of(rest, 0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK) {
        rest.remove_prefix(BYTE_ORDER_MARK.size());
    }
    while (!rest.empty()) {
        size_t end = std::min(rest.find('\n'), rest.size());
        take_line(&list, part_of(rest, 0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return list;
}

int32_t find_host(const host_list &list, std::string_view target) {
    host_key key = key_of(parse_target(target, list.default_port), target);
    return list.index[find_slot(list, key)];
}

file_text read_file(const char *path) {
    ux_fd file(strcmp(path, "-") == 0 ? dup(STDIN_FILENO)
                                      : open(path, O_RDONLY | O_CLOEXEC));
    text_buffer read_so_far;
    ssize_t length = file ? 1 : -1;
    while (length > 0) {
        char *end = reserve_text(&read_so_far, READ_SIZE);
        if (!end) {
            errno = ENOMEM;
            return {};
        }
        length = read(file.get(), end, READ_SIZE - 1);
        if (length < 0 && errno == EINTR) {
            length = 1;
            continue;
        }
        read_so_far.length += static_cast<size_t>(std::max<ssize_t>(length, 0));
    }
    if (length < 0) {
        return {};
    }
    read_so_far.bytes.get()[read_so_far.length] = '\0';
    return {std::move(read_so_far.bytes), read_so_far.length};
}
