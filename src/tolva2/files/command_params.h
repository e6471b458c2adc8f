/*
 * What stands behind a command word: the word table, and the rewriting of the
 * free text that follows into one argument string for a script. Works on
 * texts, in place where said; keeps nothing.
 */
#ifndef TOLVA2_FILES_COMMAND_PARAMS_H
#define TOLVA2_FILES_COMMAND_PARAMS_H

#include <cstddef>
#include <cstdint>

/* Command words by their place in the table. */
enum command_index : int32_t {
    COMMAND_UNKNOWN = -1,
    COMMAND_SHUTDOWN = 0,
    COMMAND_EXECUTE = 1,
    COMMAND_MSG_ID = 2,
    COMMAND_MSG_TEXT = 3,
    COMMAND_MAIL_ID = 4,
    COMMAND_MAIL_TEXT = 5,
    COMMAND_LOG_ID = 6,
    COMMAND_LOG_TEXT = 7,
};

/* What separates words. */
constexpr const char *PARAM_BLANKS = " \t";

/* The place of word in the table, any case; COMMAND_UNKNOWN when it is null,
 * empty or not there. */
[[nodiscard]] command_index is_V2command(const char *word);

/* Cuts the next word off *rest, in place, at the characters in delimiters;
 * *rest then stands behind the one delimiter that ended it, or at the end.
 * Returns the word, or null when none is left. */
[[nodiscard]] char *split_word(char **rest, const char *delimiters);

/* Trims blanks and tabs and one pair of quotes around the whole, in place.
 * Returns the text, or null when nothing is left or text is null. */
[[nodiscard]] char *strip_params(char *text);

/* Replaces the placeholders (#NAME, %s) of the template in buffer by the
 * parameters, one after the other; those without a parameter stay. Writes at
 * most size characters and a terminator, so buffer holds size + 1 bytes.
 * params may be null, and no part of buffer. Returns the length; 0, with
 * buffer as it was, when memory is exhausted. */
int32_t patch_msg_param(char *buffer, size_t size, const char *params);

/* Builds the argument string of command index from the text behind its word
 * (cut up in place, may be null) into out of size bytes. Returns non-zero
 * when out holds one, 0 when there is none. */
[[nodiscard]] int32_t get_V2command_params(char *out, size_t size,
                                           command_index index, char *text);

#endif
