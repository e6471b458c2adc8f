/*
 * The growing of a text, and the one place that decides which bytes are shown
 * as they are.
 */
#include "tolva2/fleet/fleet_text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t FIRST_ROOM = 1024;
constexpr size_t LINE_ROOM = 1024;

bool is_continuation(unsigned char byte) { return (byte & 0xc0) == 0x80; }

/* How long the sequence is that begins with byte; 0: none begins so. */
size_t sequence_length(unsigned char byte) {
    if (byte < 0x80) {
        return 1;
    }
    if (byte >= 0xc2 && byte <= 0xdf) {
        return 2;
    }
    if (byte >= 0xe0 && byte <= 0xef) {
        return 3;
    }
    return byte >= 0xf0 && byte <= 0xf4 ? 4 : 0;
}

/* False for what is longer than it need be, a surrogate, or past the end. */
bool second_is_right(unsigned char first, unsigned char second) {
    switch (first) {
    case 0xe0:
        return second >= 0xa0;
    case 0xed:
        return second <= 0x9f;
    case 0xf0:
        return second >= 0x90;
    case 0xf4:
        return second <= 0x8f;
    case 0xc2: /* U+0080 to U+009F are control characters */
        return second >= 0xa0;
    default:
        return true;
    }
}

/* True for what changes the direction of the text around it, or its lines. */
bool is_layout(std::string_view sequence) {
    return sequence >= "\xe2\x80\xa8" && sequence <= "\xe2\x80\xae";
}

/* How many bytes at the front of text may be shown as they are: 0 or those of
 * one character. */
size_t harmless(std::string_view text) {
    auto byte = [text](size_t at) {
        return static_cast<unsigned char>(text[at]);
    };
    size_t length = sequence_length(byte(0));
    if (length <= 1) {
        return length == 1 && byte(0) >= 0x20 && byte(0) != 0x7f ? 1 : 0;
    }
    if (length > text.size() || !second_is_right(byte(0), byte(1))) {
        return 0;
    }
    for (size_t at = 1; at < length; at++) {
        if (!is_continuation(byte(at))) {
            return 0;
        }
    }
    return is_layout(part_of(text, 0, length)) ? 0 : length;
}

bool needs_backslash(char c, text_place place) {
    return (c == '\\' && place != text_place::line) ||
           (c == '"' && place == text_place::json);
}

} // namespace

char *reserve_text(text_buffer *text, size_t more) {
    if (text->room - text->length >= more) {
        return text->bytes.get() + text->length;
    }
    size_t room = std::max(FIRST_ROOM, text->room);
    while (room - text->length < more) {
        room *= 2;
    }
    char *grown = static_cast<char *>(realloc(text->bytes.get(), room));
    if (!grown) {
        text->incomplete = true;
        return nullptr;
    }
    /* realloc has freed or kept what was there. */
    [[maybe_unused]] char *former = text->bytes.release();
    text->bytes.reset(grown);
    text->room = room;
    return grown + text->length;
}

void append_text(text_buffer *text, std::string_view more) {
    if (more.empty()) {
        return;
    }
    if (char *end = reserve_text(text, more.size())) {
        memcpy(end, more.data(), more.size());
        text->length += more.size();
    }
}

void append_format(text_buffer *text, const char *format, ...) {
    char line[LINE_ROOM];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (length > 0) {
        append_text(text, {line, std::min<size_t>(static_cast<size_t>(length),
                                                  sizeof line - 1)});
    }
}

void drop_front(text_buffer *text, size_t count) {
    count = std::min(count, text->length);
    text->length -= count;
    if (text->length > 0) {
        memmove(text->bytes.get(), text->bytes.get() + count, text->length);
    }
}

void append_safe(text_buffer *text, std::string_view foreign,
                 text_place place) {
    const char *by_number = place == text_place::json ? "\\u%04x" : "\\x%02x";
    while (!foreign.empty()) {
        size_t length = harmless(foreign);
        if (length == 0) {
            append_format(text, by_number,
                          static_cast<unsigned char>(foreign[0]));
        } else {
            if (needs_backslash(foreign[0], place)) {
                append_text(text, "\\");
            }
            append_text(text, part_of(foreign, 0, length));
        }
        foreign.remove_prefix(std::max<size_t>(length, 1));
    }
}

void show_answer(char *out, size_t size, std::string_view answer) {
    size_t used = 0;
    out[0] = '\0';
    for (char c : answer) {
        bool plain = c >= 0x20 && c < 0x7f;
        size_t wanted = plain ? 1 : 4;
        if (used + wanted + 4 > size) {
            snprintf(out + used, size - used, "...");
            return;
        }
        used += static_cast<size_t>(
            plain ? snprintf(out + used, size - used, "%c", c)
                  : snprintf(out + used, size - used, "\\x%02x",
                             static_cast<unsigned char>(c)));
    }
}
