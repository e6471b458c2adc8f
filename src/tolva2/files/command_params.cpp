#include "tolva2/files/command_params.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/msgdb.h"
#include "unixtools/ux_number.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace
{

constexpr const char *RECIPIENT_END = " \t$";

/* Its own index is a command's number; the empty word ends the table. */
constexpr const char *COMMAND_WORDS[] = {
    "SHUTDOWN",  /* ShutdownProg */
    "EXECUTE",   /* ExecProg */
    "MSG_ID",    /* MsgProg, a text of the database */
    "MSG_TEXT",  /* MsgProg */
    "MAIL_ID",   /* MailProg, a text of the database */
    "MAIL_TEXT", /* MailProg */
    "LOG_ID",    /* the log, a text of the database */
    "LOG_TEXT",  /* the log */
    "",
};

const char *or_null_word(const char *text)
{
    return text ? text : "NULL";
}

bool is_name_character(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/* How many characters of text are a placeholder; 0 when it is none. */
size_t placeholder_length(const char *text)
{
    if (text[0] == '%') {
        bool ends =
            text[1] == 's' && !isalnum(static_cast<unsigned char>(text[2]));
        return ends ? 2 : 0;
    }
    if (text[0] != '#') {
        return 0;
    }
    size_t length = 1;
    while (is_name_character(text[length])) {
        length++;
    }
    char end = text[length];
    bool ends = end == '\0' || end == ' ' || end == '\t' ||
                ispunct(static_cast<unsigned char>(end));
    return length > 1 && ends ? length : 0;
}

/*
 * The next parameter of *rest, in place; null when none is left. Only a quote
 * at the very next character opens a quoted one, so two blanks before a quote
 * make it an ordinary character.
 */
const char *next_parameter(char **rest)
{
    char *parameter = *rest;
    if (!parameter) {
        return nullptr;
    }
    if (*parameter != '"') {
        return split_word(rest, PARAM_BLANKS);
    }
    parameter++;
    char *end = strchr(parameter, '"');
    if (end) {
        *end = '\0';
        *rest = end + 1;
    } else {
        *rest = parameter + strlen(parameter);
    }
    return parameter;
}

/* Fills the template's placeholders into buffer: the length written. */
size_t fill_template(char *buffer, size_t size, const char *text, char *rest)
{
    size_t length = 0;
    while (*text && length < size) {
        size_t placeholder = placeholder_length(text);
        const char *parameter = nullptr;
        if (placeholder > 0) {
            parameter = next_parameter(&rest);
            debug_printf("DEBUG: param = [%s]\n", or_null_word(parameter));
        }
        if (parameter) {
            size_t copied = strnlen(parameter, size - length);
            memcpy(buffer + length, parameter, copied);
            length += copied;
            text += placeholder;
        } else {
            buffer[length++] = *text++;
        }
    }
    buffer[length] = '\0';
    return length;
}

} // namespace

int32_t is_V2command(const char *word)
{
    trace_in();
    if (!word || !*word) {
        return COMMAND_UNKNOWN;
    }
    for (int32_t index = 0; *COMMAND_WORDS[index]; index++) {
        debug_printf("DEBUG: compare = [%s]\n", COMMAND_WORDS[index]);
        if (strcasecmp(word, COMMAND_WORDS[index]) == 0) {
            return index;
        }
    }
    return COMMAND_UNKNOWN;
}

char *split_word(char **rest, const char *delimiters)
{
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

char *strip_params(char *text)
{
    trace_in();
    if (!text) {
        return nullptr;
    }
    text += strspn(text, PARAM_BLANKS);
    int32_t quotes = 0;
    for (const char *c = text; *c; c++) {
        quotes += *c == '"';
    }
    size_t length = strlen(text);
    while (length > 0 && strchr(PARAM_BLANKS, text[length - 1])) {
        text[--length] = '\0';
    }
    if (quotes == 2 && length > 1 && text[0] == '"' &&
        text[length - 1] == '"') {
        text[length - 1] = '\0';
        text++;
    }
    return *text ? text : nullptr;
}

int32_t patch_msg_param(char *buffer, size_t size, const char *params)
{
    trace_in();
    char *text = strdup(buffer);
    char *copy = params ? strdup(params) : nullptr;
    size_t length = 0;
    if (text && (copy || !params)) {
        length = fill_template(buffer, size, text, copy);
    }
    free(copy);
    free(text);
    return static_cast<int32_t>(length);
}

namespace
{

/* The message number in front of *rest; 0 when there is none. */
int32_t split_number(char **rest)
{
    const char *word = split_word(rest, PARAM_BLANKS);
    return word ? ux_atoi(word) : 0;
}

int32_t free_text_params(char *out, size_t size, char *text)
{
    const char *stripped = strip_params(text);
    debug_printf("DEBUG: ptr3 = [%s]\n", or_null_word(stripped));
    if (stripped) {
        snprintf(out, size - 1, "%s", stripped);
    }
    return 1;
}

int32_t message_params(char *out, size_t size, int32_t index, char *text)
{
    if (index == COMMAND_MSG_ID) {
        debug_printf("DEBUG: params = [%s]\n", or_null_word(text));
    }
    int32_t number = split_number(&text);
    if (number == 0 || msgdb_get_into(number, out, size) <= 0) {
        return 0;
    }
    debug_printf("DEBUG: buffer = [%s]\n", out);
    debug_printf("DEBUG: ptrptr = [%s]\n", or_null_word(text));
    patch_msg_param(out, size - 1, strip_params(text));
    return 1;
}

/* Appends the text in double quotes behind what out holds. */
void append_quoted(char *out, size_t size, const char *text)
{
    size_t length = strlen(out);
    snprintf(out + length, size - length, " \"%s\"", text);
}

int32_t mail_message_params(char *out, size_t size, char *text)
{
    int32_t number = split_number(&text);
    const char *recipient =
        number != 0 ? split_word(&text, RECIPIENT_END) : nullptr;
    if (!recipient) {
        return 0;
    }
    int length = snprintf(out, size - 1, "%s ", recipient);
    if (length < 0 || static_cast<size_t>(length) > size) {
        return 0;
    }
    char *scratch = static_cast<char *>(malloc(size));
    if (!scratch) {
        return length;
    }
    int32_t result = length;
    if (msgdb_get_into(number, scratch, size) > 0) {
        const char *stripped = strip_params(text);
        debug_printf("DEBUG: ptr5 = [%s]\n", or_null_word(stripped));
        if (patch_msg_param(scratch, size - 1, stripped) != 0) {
            append_quoted(out, size, scratch);
        }
        result = 1;
    }
    free(scratch);
    return result;
}

int32_t mail_text_params(char *out, size_t size, char *text)
{
    const char *recipient = split_word(&text, RECIPIENT_END);
    if (!recipient) {
        return 0;
    }
    int length = snprintf(out, size, "%s", recipient);
    if (length < 0 || static_cast<size_t>(length) > size) {
        return 0;
    }
    const char *stripped = strip_params(text);
    if (stripped) {
        append_quoted(out, size, stripped);
    }
    return 1;
}

} // namespace

int32_t get_V2command_params(char *out, size_t size, int32_t index, char *text)
{
    trace_in();
    if (!out || size == 0) {
        return 0;
    }
    out[0] = '\0';
    out[size - 1] = '\0';
    switch (index) {
    case COMMAND_SHUTDOWN:
    case COMMAND_EXECUTE:
    case COMMAND_MSG_TEXT:
    case COMMAND_LOG_TEXT:
        return free_text_params(out, size, text);
    case COMMAND_MSG_ID:
    case COMMAND_LOG_ID:
        return message_params(out, size, index, text);
    case COMMAND_MAIL_ID:
        return mail_message_params(out, size, text);
    case COMMAND_MAIL_TEXT:
        return mail_text_params(out, size, text);
    default:
        return 0;
    }
}
