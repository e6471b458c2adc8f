/*
 * The table of the command words says of each what its parameters are, and
 * there is a function for each kind: a text as it stands, or the text of a
 * message filled with the parameters, and both again with a recipient in
 * front, for mail.
 */
#include "tolva2/files/command_params.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/msgdb.h"
#include "unixtools/ux_number.h"
#include "unixtools/ux_owned.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>
#include <strings.h>

namespace {

constexpr const char *RECIPIENT_END = " \t$";
constexpr const char *NAME_LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

const char *or_null_word(const char *text) { return text ? text : "NULL"; }

/* How long a placeholder at the start of text is; 0 when there is none. */
size_t placeholder_length(const char *text) {
    if (text[0] == '%') {
        bool ends =
            text[1] == 's' && !isalnum(static_cast<unsigned char>(text[2]));
        return ends ? 2 : 0;
    }
    size_t length = text[0] == '#' ? 1 + strspn(text + 1, NAME_LETTERS) : 0;
    /* The terminator is among those that end a name. */
    bool ends = strchr(PARAM_BLANKS, text[length]) ||
                ispunct(static_cast<unsigned char>(text[length]));
    return length > 1 && ends ? length : 0;
}

/* Takes so many characters, and the one that ends them, off the front of
 * *rest. The result is never null, so that it is some text even when empty. */
std::string_view take_front(std::string_view *rest, size_t length) {
    std::string_view front(rest->data(), std::min(length, rest->size()));
    rest->remove_prefix(std::min(front.size() + 1, rest->size()));
    return front;
}

/* The next parameter of *rest; null when none is left. Only a quote at the
 * very next character opens a quoted one, so two blanks before a quote make
 * it an ordinary character. */
std::string_view next_parameter(std::string_view *rest) {
    if (rest->starts_with('"')) {
        rest->remove_prefix(1);
        return take_front(rest, rest->find('"'));
    }
    size_t start = rest->find_first_not_of(PARAM_BLANKS);
    rest->remove_prefix(std::min(start, rest->size()));
    if (rest->empty()) {
        return {};
    }
    return take_front(rest, rest->find_first_of(PARAM_BLANKS));
}

void trace_parameter(std::string_view parameter) {
    std::string_view shown = parameter.data() ? parameter : "NULL";
    debug_printf("DEBUG: param = [%.*s]\n", static_cast<int>(shown.size()),
                 shown.data());
}

/* Fills the template's placeholders into buffer: the length written. */
size_t fill_template(char *buffer, size_t size, const char *text,
                     std::string_view rest) {
    size_t length = 0;
    while (*text && length < size) {
        size_t placeholder = placeholder_length(text);
        std::string_view parameter;
        if (placeholder > 0) {
            parameter = next_parameter(&rest);
            trace_parameter(parameter);
        }
        if (parameter.data()) {
            size_t copied = std::min(parameter.size(), size - length);
            memcpy(buffer + length, parameter.data(), copied);
            length += copied;
            text += placeholder;
        } else {
            buffer[length++] = *text++;
        }
    }
    buffer[length] = '\0';
    return length;
}

/* The message number in front of *rest; 0 when there is none. */
int32_t split_number(char **rest) {
    const char *word = split_word(rest, PARAM_BLANKS);
    return word ? ux_atoi(word) : 0;
}

int32_t free_text(std::span<char> out, char *text) {
    const char *stripped = strip_params(text);
    debug_printf("DEBUG: ptr3 = [%s]\n", or_null_word(stripped));
    if (stripped) {
        snprintf(out.data(), out.size() - 1, "%s", stripped);
    }
    return 1;
}

int32_t numbered_text(std::span<char> out, char *text) {
    int32_t number = split_number(&text);
    if (number == 0 || msgdb_get_into(number, out.data(), out.size()) <= 0) {
        return 0;
    }
    debug_printf("DEBUG: buffer = [%s]\n", out.data());
    debug_printf("DEBUG: ptrptr = [%s]\n", or_null_word(text));
    patch_msg_param(out.data(), out.size() - 1, strip_params(text));
    return 1;
}

/* The trace has always shown these parameters for one of the two words. */
int32_t traced_numbered_text(std::span<char> out, char *text) {
    debug_printf("DEBUG: params = [%s]\n", or_null_word(text));
    return numbered_text(out, text);
}

/* Appends the text in double quotes behind what out holds. A text that is too
 * long is cut, but never its closing quote: the shell would go on behind it. */
void append_quoted(std::span<char> out, const char *text) {
    std::span<char> rest = out.subspan(strlen(out.data()));
    constexpr size_t AROUND = sizeof " \"\"";
    if (rest.size() > AROUND) {
        snprintf(rest.data(), rest.size(), " \"%.*s\"",
                 static_cast<int>(rest.size() - AROUND), text);
    }
}

/* Appends the text of a message, filled: false when there is no such text. */
bool append_message(std::span<char> out, int32_t number, char *text,
                    char *scratch) {
    if (msgdb_get_into(number, scratch, out.size()) <= 0) {
        return false;
    }
    const char *stripped = strip_params(text);
    debug_printf("DEBUG: ptr5 = [%s]\n", or_null_word(stripped));
    if (patch_msg_param(scratch, out.size() - 1, stripped) != 0) {
        append_quoted(out, scratch);
    }
    return true;
}

/* Without its text the recipient alone is the argument string. */
int32_t numbered_mail(std::span<char> out, char *text) {
    int32_t number = split_number(&text);
    const char *recipient =
        number != 0 ? split_word(&text, RECIPIENT_END) : nullptr;
    if (!recipient) {
        return 0;
    }
    int length = snprintf(out.data(), out.size() - 1, "%s ", recipient);
    if (length < 0 || static_cast<size_t>(length) > out.size()) {
        return 0;
    }
    ux_text scratch(static_cast<char *>(malloc(out.size())));
    return scratch && append_message(out, number, text, scratch.get()) ? 1
                                                                       : length;
}

int32_t mail_text(std::span<char> out, char *text) {
    const char *recipient = split_word(&text, RECIPIENT_END);
    if (!recipient) {
        return 0;
    }
    int length = snprintf(out.data(), out.size(), "%s", recipient);
    if (length < 0 || static_cast<size_t>(length) > out.size()) {
        return 0;
    }
    const char *stripped = strip_params(text);
    if (stripped) {
        append_quoted(out, stripped);
    }
    return 1;
}

struct command_word {
    const char *word;
    /* Writes the argument string that the text comes to: non-zero when there
     * is one. out is empty and has room for one byte at least. */
    int32_t (*params)(std::span<char> out, char *text);
};

/* The place of a row is its word's command_index. */
constexpr command_word COMMAND_WORDS[] = {
    {"SHUTDOWN", free_text},          {"EXECUTE", free_text},
    {"MSG_ID", traced_numbered_text}, {"MSG_TEXT", free_text},
    {"MAIL_ID", numbered_mail},       {"MAIL_TEXT", mail_text},
    {"LOG_ID", numbered_text},        {"LOG_TEXT", free_text},
};
constexpr int32_t WORD_COUNT = std::size(COMMAND_WORDS);
static_assert(WORD_COUNT == COMMAND_LOG_TEXT + 1);

} // namespace

command_index is_V2command(const char *word) {
    trace_in();
    if (ux_is_empty(word)) {
        return COMMAND_UNKNOWN;
    }
    for (int32_t index = 0; index < WORD_COUNT; index++) {
        const char *known = COMMAND_WORDS[index].word;
        debug_printf("DEBUG: compare = [%s]\n", known);
        if (strcasecmp(word, known) == 0) {
            return static_cast<command_index>(index);
        }
    }
    return COMMAND_UNKNOWN;
}

char *split_word(char **rest, const char *delimiters) {
    char *word = *rest;
    if (!word) {
        return nullptr;
    }
    word += strspn(word, delimiters);
    char *end = word + strcspn(word, delimiters);
    *rest = end;
    if (end == word) {
        return nullptr;
    }
    if (*end) {
        *end = '\0';
        *rest = end + 1;
    }
    return word;
}

char *strip_params(char *text) {
    trace_in();
    if (!text) {
        return nullptr;
    }
    text += strspn(text, PARAM_BLANKS);
    std::string_view words(text);
    auto quotes = std::count(words.begin(), words.end(), '"');
    words.remove_suffix(words.size() -
                        (words.find_last_not_of(PARAM_BLANKS) + 1));
    if (quotes == 2 && words.size() > 1 && words.starts_with('"') &&
        words.ends_with('"')) {
        words.remove_suffix(1);
        words.remove_prefix(1);
        text++;
    }
    text[words.size()] = '\0';
    return words.empty() ? nullptr : text;
}

int32_t patch_msg_param(char *buffer, size_t size, const char *params) {
    trace_in();
    ux_text text = ux_copy(buffer);
    if (!text) {
        return 0;
    }
    std::string_view rest(params ? params : "");
    return static_cast<int32_t>(fill_template(buffer, size, text.get(), rest));
}

int32_t get_V2command_params(char *out, size_t size, command_index index,
                             char *text) {
    trace_in();
    if (!out || size == 0) {
        return 0;
    }
    out[0] = '\0';
    out[size - 1] = '\0';
    if (index < 0 || index >= WORD_COUNT) {
        return 0;
    }
    return COMMAND_WORDS[index].params({out, size}, text);
}
