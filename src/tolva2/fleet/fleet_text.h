/*
 * Texts that are put together piece by piece, and the safe forms in which what
 * others have written is shown: no control character of theirs ever reaches a
 * terminal, a table or an object as itself.
 */
#ifndef TOLVA2_FLEET_FLEET_TEXT_H
#define TOLVA2_FLEET_FLEET_TEXT_H

#include "unixtools/ux_owned.h"

#include <cstddef>
#include <string_view>

/* A part of a text, or what there is of it: unlike that of the library it
 * needs nobody to catch anything. */
[[nodiscard]] constexpr std::string_view
part_of(std::string_view text, size_t from,
        size_t count = std::string_view::npos) {
    text.remove_prefix(from < text.size() ? from : text.size());
    return {text.data(), count < text.size() ? count : text.size()};
}

/* A text that grows. What memory has no room for is left out, and said. */
struct text_buffer {
    ux_text bytes; /* not terminated */
    size_t length = 0;
    size_t room = 0;
    bool incomplete = false;
    std::string_view view() const { return {bytes.get(), length}; }
};

/* Makes room for more bytes behind the text: null when there is none. */
[[nodiscard]] char *reserve_text(text_buffer *text, size_t more);

void append_text(text_buffer *text, std::string_view more);
[[gnu::format(printf, 2, 3)]] void append_format(text_buffer *text,
                                                 const char *format, ...);

/* Takes that many bytes from the front. */
void drop_front(text_buffer *text, size_t count);

/* Where a foreign text is going to stand. */
enum class text_place {
    line,  /* \x0a for a line feed */
    table, /* as a line, and \\ for a backslash */
    json,  /* \u000a, \" and \\ */
};

/* Appends a foreign text in its safe form. UTF-8 that is well formed stays,
 * but for the control characters in it; any other byte is shown by number. */
void append_safe(text_buffer *text, std::string_view foreign, text_place place);

/* Writes the safe form of what somebody has answered into out, cut to its
 * size: ASCII only. */
void show_answer(char *out, size_t size, std::string_view answer);

#endif
