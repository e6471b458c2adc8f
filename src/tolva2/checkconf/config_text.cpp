/*
 * Two walks over the file: one by its bytes, which tells whether it is text at
 * all, and one by its lines.
 */
#include "tolva2/checkconf/config_text.h"
#include "tolva2/checkconf/known_key.h"
#include "unixtools/ux_cfgline.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr size_t LONGEST_LINE = CONFIG_LINE_BUFFER - 1;
constexpr const char *BLANKS = " \t\r\n";

struct byte_mark {
    std::string_view bytes;
    const char *what;
};

constexpr byte_mark MARKS[] = {
    {"\xff\xfe", "is UTF-16"},
    {"\xfe\xff", "is UTF-16"},
    {"\xef\xbb\xbf", "begins with a byte order mark, a part of its first key"},
};

/* Lines of a stream, of any length and with any bytes. */
class line_reader {
  public:
    explicit line_reader(FILE *stream) : file(stream) {}
    ~line_reader() { free(buffer); }
    line_reader(const line_reader &) = delete;
    line_reader &operator=(const line_reader &) = delete;

    /* False at the end, when reading failed, and without memory. */
    bool next() {
        errno = 0;
        ssize_t got = getline(&buffer, &size, file);
        length = got > 0 ? static_cast<size_t>(got) : 0;
        number++;
        return got > 0;
    }
    /* Was everything read? Ends the process without memory. */
    bool at_end() const {
        if (errno == ENOMEM) {
            no_memory_to_check();
        }
        return feof(file) && !ferror(file);
    }
    char *text() const { return buffer; }
    std::string_view view() const { return {buffer, length}; }
    int32_t line() const { return number; }

  private:
    FILE *file;
    char *buffer = nullptr;
    size_t size = 0;
    size_t length = 0;
    int32_t number = 0;
};

ux_file open_text(const char *path) {
    /* It must not wait for somebody who writes. */
    ux_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) < 0) {
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    ux_file file(fdopen(fd.get(), "r"));
    if (file) {
        static_cast<void>(fd.release());
    }
    return file;
}

/* A finding when the line has bytes that no text has. */
bool is_text(int32_t line, std::string_view bytes, findings *found) {
    for (const byte_mark &mark : MARKS) {
        if (line == 1 && bytes.starts_with(mark.bytes)) {
            found->error(
                line,
                "the file %s: save it as plain UTF-8 without a byte order mark",
                mark.what);
            return false;
        }
    }
    if (bytes.find('\0') != bytes.npos) {
        found->error(
            line,
            "the file holds NUL bytes, behind which a line is not read: save it as plain UTF-8 without a byte order mark");
        return false;
    }
    return true;
}

void say_unreadable(const char *path, findings *found) {
    if (errno == ENOENT || errno == ENOTDIR) {
        found->error(
            NO_LINE,
            "there is no such file, so the defaults would hold, and they admit everybody: write %s",
            path);
    } else if (errno == EINVAL) {
        found->error(NO_LINE, "this is no regular file: name one");
    } else if (errno == EISDIR) {
        found->error(NO_LINE, "this is a directory: name a file");
    } else {
        found->error(NO_LINE, "the file cannot be read: %s", strerror(errno));
    }
}

/* The word in front of a blank or a ":", which may be a key. */
std::string_view first_word(std::string_view text) {
    return text.substr(0, text.find_first_of(" \t:="));
}

/* A line that has no known key in front of a "=", but something else. */
void say_what_is_meant(int32_t line, std::string_view words, bool is_setting,
                       findings *found) {
    std::string_view word = first_word(words);
    bool whole = is_setting && word.size() == words.size();
    int32_t key = key_in_any_case(word);
    auto shown = static_cast<int>(words.size());
    if (key != NO_KEY && !whole) {
        found->error(line, "`%.*s' is no setting: write %s=value", shown,
                     words.data(), key_name(key));
    } else if (key != NO_KEY) {
        found->error(
            line,
            "the key %.*s is ignored, since keys are case-sensitive: write %s",
            shown, words.data(), key_name(key));
    } else if (!is_setting) {
        found->error(
            line,
            "`%.*s' is no setting and is ignored: write Key=value, or put a # in front",
            shown, words.data());
    } else if (key = nearest_key(words); key != NO_KEY) {
        found->error(
            line,
            "the key %.*s is unknown and is ignored: write %s, if that is meant",
            shown, words.data(), key_name(key));
    } else {
        found->error(
            line,
            "the key %.*s is unknown and is ignored: take the line away, tolva.cfg(5) lists the keys",
            shown, words.data());
    }
}

ux_text copy_value(std::string_view value) {
    ux_text copy = ux_copy(value.data());
    if (value.data() && !copy) {
        no_memory_to_check();
    }
    return copy;
}

void take_setting(int32_t line, const config_line &parsed, config_text *text,
                  findings *found) {
    int32_t key = key_number(parsed.ident);
    if (key == NO_KEY) {
        say_what_is_meant(line, parsed.ident, true, found);
        return;
    }
    written_setting &setting = text->settings[key];
    if (setting.line != NO_LINE) {
        found->error(
            line,
            "%s stands in line %d already, and only this one counts: take one of the two away",
            key_name(key), setting.line);
    }
    setting = {line, copy_value(parsed.value)};
}

/* What the line says, without blanks around it. */
std::string_view trimmed(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    line.remove_suffix(line.size() - (line.find_last_not_of(BLANKS) + 1));
    return line;
}

void take_line(const line_reader &lines, config_text *text, findings *found) {
    if (lines.view().size() > LONGEST_LINE) {
        found->error(
            lines.line(),
            "the line is longer than %zu characters, and the rest is read as another line: make it shorter",
            LONGEST_LINE);
        lines.text()[LONGEST_LINE] = '\0';
    }
    /* The parser writes into it. */
    ux_text copy = copy_value(lines.text());
    config_line parsed;
    if (!parse_line(copy.get(), &parsed)) {
        std::string_view words = trimmed(lines.text());
        if (!words.empty()) {
            say_what_is_meant(lines.line(), words, false, found);
        }
    } else if (parsed.ident.data()) {
        take_setting(lines.line(), parsed, text, found);
    }
}

} // namespace

bool is_config_file(const char *path, findings *found) {
    ux_file file = open_text(path);
    if (!file) {
        if (errno == ENOMEM) {
            no_memory_to_check();
        }
        say_unreadable(path, found);
        return false;
    }
    line_reader lines(file.get());
    while (lines.next()) {
        if (!is_text(lines.line(), lines.view(), found)) {
            return false;
        }
    }
    if (!lines.at_end()) {
        found->error(NO_LINE, "the file cannot be read: %s", strerror(errno));
        return false;
    }
    if (lines.line() == 1) {
        found->error(
            NO_LINE,
            "the file is empty: write AllowedAddresses=<the hosts that send> into it");
        return false;
    }
    return true;
}

bool read_config_text(const char *path, config_text *text, findings *found) {
    ux_file file = open_text(path);
    if (!file) {
        return false;
    }
    line_reader lines(file.get());
    while (lines.next()) {
        take_line(lines, text, found);
    }
    return lines.at_end();
}
