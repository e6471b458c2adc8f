/*
 * The command that every host is sent, made of the words of the command line
 * and looked over before anything is sent.
 */
#ifndef TOLVA2_FLEET_FLEET_COMMAND_H
#define TOLVA2_FLEET_FLEET_COMMAND_H

#include "unixtools/ux_owned.h"

#include <span>
#include <string_view>

/* A command text, verb included, or what is wrong with the words. */
struct fleet_command {
    ux_text text;  /* null when there is a fault */
    ux_text fault; /* null too when memory is exhausted */
    /* The text without its verb: what the user has asked for. */
    const char *shown() const;
};

/*
 * One word is sent as it is. Further ones become parameters: each is quoted
 * where a shell reads them at the host (SHUTDOWN, EXECUTE, MSG_TEXT), stands
 * as it is where none does (LOG_TEXT, LOG_ID), and is a fault elsewhere unless
 * it needs no quotes.
 */
[[nodiscard]] fleet_command make_command(std::span<char *const> words);

/* A word in single quotes, as a shell reads it back; null without memory. */
[[nodiscard]] ux_text shell_quoted(const char *word);

/* The command word that is most like a word; any case. */
[[nodiscard]] const char *nearest_command(std::string_view word);

#endif
