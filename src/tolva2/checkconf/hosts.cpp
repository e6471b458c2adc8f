/*
 * What is wrong with a word is looked for in its letters first, since a name
 * that cannot be one costs ten seconds where no name server answers.
 */
#include "tolva2/checkconf/hosts.h"
#include "tolva2/base/trace.h"
#include "tolva2/checkconf/values.h"
#include "unixtools/ux_nodes.h"
#include "unixtools/ux_number.h"
#include "unixtools/ux_portable.h"

#include <algorithm>
#include <arpa/inet.h>

namespace {

constexpr const char *SPACE = " \t\n\v\f\r";
constexpr const char *NAME_LETTERS =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
constexpr uint32_t FIRST_MULTICAST = 0xe0000000;

/* A name that was looked up; no address: it was not found. */
struct looked_up {
    ux_text name;
    ux_owner<inetaddr> address;
};

void destroy_looked_up(void *data) {
    ux_delete(static_cast<looked_up *>(data));
}

/* Each name that stands in the settings, once. */
ux_list names = {0, destroy_looked_up, nullptr, nullptr};

bool not_resolved; /* what the listener would have said */

/* In the place of the listener's message that a name does not resolve. */
int note_message(FILE *, const char *, va_list) {
    not_resolved = true;
    return 1;
}

/* Shows on a terminal what may take long; an empty text takes it away. */
void show_progress(const char *what, const char *name) {
    if (isatty(STDERR_FILENO)) {
        fprintf(stderr, "\r\033[K%s%s", what, name);
        fflush(stderr);
    }
}

/* As the listener finds it, but without its messages. */
ux_owner<inetaddr> look_up(const char *name) {
    bool dotted = as_understood(name).text[0];
    if (!dotted) {
        show_progress("looking up ", name);
    }
    error_hook hook = std::exchange(error_output_hook, note_message);
    not_resolved = false;
    ux_owner<inetaddr> found = new_inetaddr(name, 0, ADDR_PEER, MODE_LISTEN);
    error_output_hook = hook;
    if (!dotted) {
        show_progress("", "");
    }
    if (!found && !not_resolved) {
        no_memory_to_check();
    }
    return found;
}

/* The address of a name, or null: there is none. */
inetaddr *find_host(const char *name) {
    for (const looked_up *one : ux_records<looked_up>(&names)) {
        if (strcmp(one->name.get(), name) == 0) {
            return one->address.get();
        }
    }
    ux_owner<looked_up> fresh(ux_new<looked_up>());
    if (!fresh) {
        no_memory_to_check();
    }
    fresh->name = ux_copy(name);
    fresh->address = look_up(name);
    if (!fresh->name ||
        ux_list_ins_next(&names, names.tail, fresh.get()) != 0) {
        no_memory_to_check();
    }
    const looked_up *lists_own = fresh.release();
    return lists_own->address.get();
}

/* A word of a list, and where to complain about it. */
struct host_word {
    const checkup &all;
    const named_hosts_kind &kind;
    int32_t line;
    const char *word; /* as it stands there */
    char *host;       /* the same without a port */
    const char *port; /* or null */

    [[gnu::format(printf, 2, 3)]] void complain(const char *format, ...) const;
};

void host_word::complain(const char *format, ...) const {
    va_list args;
    va_start(args, format);
    ux_text text = ux_format(format, args);
    va_end(args);
    if (!text) {
        no_memory_to_check();
    }
    all.found->error(line, "%s: `%s' %s", kind.key, word, text.get());
}

/* True when the letters alone tell that it can be no host. */
bool has_wrong_letters(const host_word &one) {
    std::string_view word(one.word);
    if (word.find_first_of(",;") != word.npos) {
        one.complain(
            "holds a comma or semicolon: put blanks between addresses, and nothing else");
    } else if (word.find_first_of("\"'`") != word.npos) {
        one.complain(
            "holds a quote, which becomes part of the name: take it away");
    } else if (word.find('/') != word.npos) {
        one.complain(
            "is no host, and networks cannot be named: write each host by itself");
    } else if (word.starts_with('[') || std::ranges::count(word, ':') > 1) {
        one.complain(
            "is an IPv6 address, which is not understood: write the IPv4 address");
    } else if (strspn(one.host, NAME_LETTERS) != strlen(one.host)) {
        one.complain(
            "is no name of a host, and stands for none: write the hosts that are meant");
    } else {
        return false;
    }
    return true;
}

void check_port(const host_word &one) {
    if (!one.port) {
        return;
    }
    if (!one.kind.ports) {
        one.complain("has a port, which means nothing here: write %s",
                     one.host);
    } else if (int32_t port = ux_atoi(one.port);
               !is_number(one.port) || port < 1 || port > UINT16_MAX) {
        one.complain("has no port from 1 to 65535: write %s:%s", one.host,
                     "<port>");
    }
}

/* An address that nobody has, or in another writing. */
void check_address(const host_word &one) {
    dotted_text dotted = as_understood(one.host);
    if (!*dotted.text) {
        if (one.kind.listed) {
            one.complain(
                "is a name, and a member is compared by its address: write its IPv4 address");
        }
        return;
    }
    in_addr address{};
    inet_pton(AF_INET, dotted.text, &address);
    uint32_t bits = ntohl(address.s_addr);
    if (bits == 0 || bits >= FIRST_MULTICAST) {
        one.complain(
            "is the address of no host: write the hosts that are meant");
    } else if (strcmp(dotted.text, one.host) != 0) {
        one.complain("is taken as %s: write an address of four decimal numbers",
                     dotted.text);
    }
}

/* The record of a word, or null after a finding. */
inetaddr *check_host(const host_word &one) {
    if (has_wrong_letters(one)) {
        return nullptr;
    }
    if (!*one.host) {
        one.complain("names no host: write one in front of the `:'");
        return nullptr;
    }
    check_port(one);
    check_address(one);
    inetaddr *found = find_host(one.host);
    if (!found) {
        one.complain(
            "is the name of no host that can be found, and is left out: write its IPv4 address");
    }
    return found;
}

/* Cuts word at its last ":", as the listener does. */
inetaddr *check_word(const checkup &all, const named_hosts_kind &kind,
                     const char *word) {
    ux_text copy = ux_copy(word);
    if (!copy) {
        no_memory_to_check();
    }
    char *colon = strrchr(copy.get(), ':');
    if (colon) {
        *colon++ = '\0';
    }
    return check_host(
        {all, kind, written(all, kind.key).line, word, copy.get(), colon});
}

} // namespace

void check_hosts(const checkup &all, const named_hosts_kind &kind,
                 const char *text, named_hosts *hosts) {
    ux_text copy = ux_copy(text);
    if (text && !copy) {
        no_memory_to_check();
    }
    char *rest = copy.get();
    for (const char *word = rest ? strtok_r(rest, SPACE, &rest) : nullptr; word;
         word = strtok_r(nullptr, SPACE, &rest)) {
        hosts->named++;
        inetaddr *found = check_word(all, kind, word);
        if (found &&
            ux_list_ins_next(&hosts->list, hosts->list.tail, found) != 0) {
            no_memory_to_check();
        }
    }
}

bool lists_address(const named_hosts &hosts, const inetaddr *one) {
    for (const inetaddr *host : ux_records<inetaddr>(&hosts.list)) {
        if (host->addr.sin_addr.s_addr == one->addr.sin_addr.s_addr) {
            return true;
        }
    }
    return false;
}
