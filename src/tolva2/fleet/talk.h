/*
 * The talk with one host: a connection, one request, and an answer that is
 * read as the sender reads it. It never waits; the loop calls it when the
 * socket is ready, or when its time is up.
 */
#ifndef TOLVA2_FLEET_TALK_H
#define TOLVA2_FLEET_TALK_H

#include "tolva2/fleet/outcome.h"
#include "unixtools/ux_owned.h"

#include <netinet/in.h>

enum class talk_stage : uint8_t {
    connecting,
    answering,  /* the request is out */
    hanging_up, /* the other end has closed: a reset may follow */
};

struct talk {
    ux_fd socket;
    talk_stage stage = talk_stage::connecting;
    int32_t host = -1;
    int64_t since = 0;    /* when it was opened */
    int64_t deadline = 0; /* of the stage, milliseconds; 0: none */
    ux_text answer;       /* what has come of it, when that is not all */
    size_t length = 0;
};

/* Opens the connection. */
struct open_result {
    ux_fd socket;
    bool shortage = false; /* of this host's own means: try again later */
    verdict found;         /* open, unless it has failed for good */
};
[[nodiscard]] open_result open_talk(const sockaddr_in &address);

/* Goes on with a talk whose socket is ready. A verdict that is not open ends
 * it. The command is the text with its verb. */
[[nodiscard]] verdict continue_talk(talk *one, const char *command);

/* What the talk comes to when the time of its stage is up. */
[[nodiscard]] verdict expire_talk(const talk &one);

/* What the whole answer comes to; more may follow unless it is final. */
[[nodiscard]] verdict judge_answer(const char *answer, size_t length,
                                   bool final);

#endif
