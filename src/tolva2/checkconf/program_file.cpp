/*
 * The way the system goes from a command to what is run: the shell's first
 * word, the file it leads to, and the interpreter that the file begins with.
 */
#include "tolva2/checkconf/program_file.h"
#include "tolva2/checkconf/writers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr const char *BLANKS = " \t";
constexpr const char *SHELL_CHARACTERS = "$`\\\"'*?[]{}()<>|&;~!#=";
constexpr const char *IN_QUOTES = "$`\\";

constexpr size_t HEAD_SIZE = 512;

/* The first bytes of a file. */
struct file_head {
    char text[HEAD_SIZE];
    std::string_view view; /* of text; a null data(): it cannot be read */
};

void read_head(const char *path, file_head *head) {
    ux_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ssize_t got = fd ? read(fd.get(), head->text, sizeof head->text) : -1;
    head->view = got < 0
                     ? std::string_view()
                     : std::string_view(head->text, static_cast<size_t>(got));
}

bool can_be_run(const char *path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISREG(status.st_mode) &&
           access(path, X_OK) == 0;
}

ux_text joined(std::initializer_list<std::string_view> parts) {
    ux_text text = ux_join(parts);
    if (!text) {
        no_memory_to_check();
    }
    return text;
}

/* The program of that name in the search path of scripts, which begins with
 * the home; null: there is none. */
ux_text search(const checkup &all, std::string_view name) {
    ux_text path = joined({all.home, "/", name});
    std::string_view rest = ux_view(getenv("PATH"));
    while (!can_be_run(path.get())) {
        if (rest.empty()) {
            return nullptr;
        }
        std::string_view directory = rest.substr(0, rest.find(':'));
        rest.remove_prefix(std::min(rest.size(), directory.size() + 1));
        path = joined({directory, "/", name});
    }
    return path;
}

std::string_view next_word(std::string_view *rest) {
    rest->remove_prefix(
        std::min(rest->find_first_not_of(BLANKS), rest->size()));
    std::string_view word = rest->substr(0, rest->find_first_of(BLANKS));
    rest->remove_prefix(word.size());
    return word;
}

bool ends_with_name(std::string_view path, std::string_view name) {
    path.remove_prefix(path.rfind('/') + 1);
    return path == name;
}

/* The program that "env" is to find, or nothing. */
std::string_view word_for_env(std::string_view rest) {
    std::string_view word = next_word(&rest);
    while (word.starts_with('-') || word.find('=') != word.npos) {
        word = next_word(&rest);
    }
    return word;
}

/* What stands behind "#!". */
void check_interpreter(const checkup &all, int32_t line, const char *what,
                       std::string_view words) {
    if (words.ends_with('\r')) {
        all.found->error(
            line,
            "%s ends its lines as Windows does, so that its interpreter is not found: take the carriage returns away",
            what);
        return;
    }
    ux_text interpreter = joined({next_word(&words)});
    if (!can_be_run(interpreter.get())) {
        all.found->error(
            line,
            "%s is to be run by `%s', which is not there or not executable: write #!/bin/sh, or install it",
            what, interpreter.get());
    } else if (ends_with_name(interpreter.get(), "env")) {
        std::string_view name = word_for_env(words);
        if (!search(all, name)) {
            all.found->error(
                line,
                "%s is to be run by `%.*s', which is not in the search path: write #! and its whole path, or install it",
                what, static_cast<int>(name.size()), name.data());
        }
    }
}

void check_head(const checkup &all, int32_t line, const char *what,
                const char *path) {
    file_head head;
    read_head(path, &head);
    if (!head.view.data()) {
        all.found->error(line, "%s cannot be read: %s", what, strerror(errno));
    } else if (head.view.empty()) {
        all.found->error(
            line, "%s is empty and does nothing: write what is to be done",
            what);
    } else if (head.view.starts_with("\xef\xbb\xbf")) {
        all.found->error(
            line,
            "%s begins with a byte order mark, so that its first line is lost: save it as plain UTF-8 without one",
            what);
    } else if (head.view.starts_with("#!")) {
        head.view.remove_prefix(2);
        check_interpreter(all, line, what,
                          head.view.substr(0, head.view.find('\n')));
    }
}

/* A path that does not depend on where the listener is started, or null after
 * a finding. */
ux_text find_program(const checkup &all, int32_t line, const char *key,
                     std::string_view word) {
    if (word.starts_with('/')) {
        return joined({word});
    }
    ux_text found = word.find('/') == word.npos ? search(all, word) : nullptr;
    if (!found) {
        all.found->error(
            line, "%s: `%.*s' is not found: write the whole path, from / on",
            key, static_cast<int>(word.size()), word.data());
    }
    return found;
}

/* Is a quote open at the end? */
bool is_open(const char *command) {
    char quote = '\0';
    for (const char *at = command; *at; at++) {
        if (*at == '\\' && quote != '\'' && at[1]) {
            at++;
        } else if (quote) {
            quote = *at == quote ? '\0' : quote;
        } else if (*at == '"' || *at == '\'') {
            quote = *at;
        }
    }
    return quote;
}

/* A quoted word must be one as a whole. */
command_word quoted_word(std::string_view text) {
    char quote = text[0];
    text.remove_prefix(1);
    std::string_view word = text.substr(0, text.find(quote));
    std::string_view rest = text;
    rest.remove_prefix(word.size() + 1);
    bool whole = rest.empty() || strchr(BLANKS, rest[0]);
    bool changed = quote == '"' && word.find_first_of(IN_QUOTES) != word.npos;
    return {whole && !changed ? command_kind::plain : command_kind::opaque,
            word};
}

} // namespace

command_word first_of_command(const char *command) {
    if (is_open(command)) {
        return {command_kind::open, {}};
    }
    std::string_view rest(command);
    std::string_view word = next_word(&rest);
    if (word.starts_with('"') || word.starts_with('\'')) {
        return quoted_word(command + strspn(command, BLANKS));
    }
    bool opaque = word.find_first_of(SHELL_CHARACTERS) != word.npos;
    return {opaque ? command_kind::opaque : command_kind::plain, word};
}

void check_program(const checkup &all, int32_t line, const char *what,
                   const char *path) {
    struct stat status;
    check_writers(all.found, line, path);
    if (stat(path, &status) < 0) {
        all.found->error(line, "%s: %s: put a script there, or write another",
                         what, strerror(errno));
    } else if (!S_ISREG(status.st_mode)) {
        all.found->error(line, "%s is no file: write the path of a script",
                         what);
    } else if (access(path, X_OK) < 0) {
        all.found->error(line, "%s cannot be run (%s): chmod +x %s", what,
                         strerror(errno), path);
    } else {
        check_head(all, line, what, path);
    }
}

void check_command(const checkup &all, const char *key, const char *command) {
    int32_t line = written(all, key).line;
    command_word first = first_of_command(command);
    if (first.kind == command_kind::open) {
        all.found->error(
            line,
            "%s: `%s' has a quote without its end, so that nothing is run: close it",
            key, command);
        return;
    }
    if (first.kind == command_kind::opaque) {
        all.found->warning(
            line,
            "%s: what the shell makes of `%s' cannot be checked: write the path of one script",
            key, command);
        return;
    }
    ux_text path = find_program(all, line, key, first.word);
    if (path) {
        check_program(all, line, joined({key, ": ", path.get()}).get(),
                      path.get());
    }
}
