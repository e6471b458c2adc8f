/*
 * A sender's request as a text: what it begins with, and the one place where
 * it is taken apart. Text in, record out: what becomes of a request, and who
 * has sent it, is not known here.
 */
#ifndef TOLVA2_FILES_REQUEST_H
#define TOLVA2_FILES_REQUEST_H

#include "tolva2/base/codes.h"
#include "tolva2/files/command_params.h"

#include <cstddef>
#include <cstdint>

constexpr char REQUEST_HEADER[] = "CONNECT TO TOLVA (SEND)";
constexpr char VERB_EXECUTE[] = "MSG_EXECUTE";
constexpr char VERB_EXECSTATUS[] = "MSG_EXECSTATUS";
constexpr char VERB_SCAN[] = "MSG_SCAN";

constexpr size_t REQUEST_HEADER_LENGTH = sizeof REQUEST_HEADER - 1;

/* Where a command's text begins: the byte between is never looked at. */
constexpr size_t REQUEST_TEXT_OFFSET = REQUEST_HEADER_LENGTH + 1;

enum request_class : int32_t {
    REQUEST_NONE = 0,
    REQUEST_V1 = 1, /* the bare header: shut down */
    REQUEST_V2 = 2, /* the header and a command text */
};

/* What kind of request text is; text may be null. */
[[nodiscard]] request_class classify_request(const char *text);

/* What is wrong with a command text. */
enum class command_fault {
    none,
    not_understood, /* no verb in front, or no command word behind it */
    unknown,        /* empty, or a command word that is not in the table */
};

/* A command text, taken apart. */
struct command_request {
    command_fault fault = command_fault::none;
    bool wants_status = false; /* its verb asks for a reply; also in a fault */
    command_index index = COMMAND_UNKNOWN; /* in the table, unless a fault */
    char params[TEXT_BUFFER] = ""; /* the argument string; may be empty */
};

/* Takes apart what stands at REQUEST_TEXT_OFFSET of a request, and cuts it up
 * in place; text may be null. */
[[nodiscard]] command_request parse_command(char *text);

#endif
