/*
 * One line of a key=value file, taken apart into views of itself. Nothing is
 * copied and nothing is kept: the views live as long as the line does.
 */
#ifndef UNIXTOOLS_UX_CFGLINE_H
#define UNIXTOOLS_UX_CFGLINE_H

#include <cstddef>
#include <cstdint>
#include <string_view>

/* Bytes a line is read into; what is longer is read as several lines. */
constexpr size_t CONFIG_LINE_BUFFER = 4096;

/* The pieces of a line, each with a NUL behind its last character. A piece
 * that is absent has a null data(). */
struct config_line {
    std::string_view ident;
    std::string_view value;
    std::string_view comment;
};

/* Cuts blanks at the front and blanks, CR, LF at the end; null if nothing. */
[[nodiscard]] char *strip(char *text);

/* Cuts CR and LF at the end; null when nothing is left. */
[[nodiscard]] char *strip_newline(char *text);

/* Takes one line apart, in place; result points into it. Returns 1 for a
 * usable line (setting, comment, blank), 0 for an invalid one. */
[[nodiscard]] int32_t parse_line(char *line, config_line *result);

#endif
