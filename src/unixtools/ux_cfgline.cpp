/*
 * Takes a line apart with a function for each place in it: before the key, in
 * it, behind the "=". A piece is ended by writing a NUL over what stands behind
 * it.
 */
#include "unixtools/ux_cfgline.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_owned.h"

#include <cstring>

namespace {

constexpr size_t KEY_MINIMUM = 2;

/* Cuts those characters at the end; null when nothing is left. */
char *cut_end(char *text, const char *characters) {
    size_t length = strlen(text);
    while (length > 0 && strchr(characters, text[length - 1])) {
        text[--length] = '\0';
    }
    return length > 0 ? text : nullptr;
}

char *skip_blanks(char *text) { return text + strspn(text, " \t"); }

/* What ends the value at text: the "#" of a comment, a line feed or the NUL. */
char *end_of_value(char *text) {
    bool quoted = false;
    bool escaped = false;
    for (; *text && *text != '\n'; text++) {
        if (*text == '"' && !escaped) {
            quoted = !quoted;
        } else if (*text == '\\') {
            /* Only another backslash ends an escape. */
            escaped = !escaped;
        } else if (*text == '#' && !quoted && !escaped) {
            break;
        }
    }
    return text;
}

/* Behind the "=": a value, a comment, both or nothing. */
void parse_after_key(char *text, config_line *result) {
    text = skip_blanks(text);
    char *end = end_of_value(text);
    bool commented = *end == '#';
    *end = '\0';
    if (commented) {
        result->comment = ux_view(strip_newline(end + 1));
    }
    if (end > text) {
        result->value = ux_view(strip(text));
    }
}

/* In the key, which starts at text; false when it is none. */
bool parse_key(char *text, config_line *result) {
    size_t length = strcspn(text, "=#\n");
    if (text[length] != '=' || length < KEY_MINIMUM) {
        return false;
    }
    text[length] = '\0';
    result->ident = ux_view(strip(text));
    parse_after_key(text + length + 1, result);
    return true;
}

} // namespace

char *strip(char *text) {
    trace_in();
    return cut_end(skip_blanks(text), "\n\r\t ");
}

char *strip_newline(char *text) {
    trace_in();
    return cut_end(text, "\n\r");
}

int32_t parse_line(char *line, config_line *result) {
    trace_in();
    *result = config_line{};
    char *text = skip_blanks(line);
    switch (*text) {
    case '#':
        result->comment = ux_view(strip_newline(line));
        return 1;
    case '\n':
        return 1;
    case '=':
    case '\0':
        return 0;
    default:
        return parse_key(text, result);
    }
}
