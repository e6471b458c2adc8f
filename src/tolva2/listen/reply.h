/*
 * The answer to a sender that asked for its script's exit status: sent once,
 * on the connection that brought the command, which it ends.
 */
#ifndef TOLVA2_LISTEN_REPLY_H
#define TOLVA2_LISTEN_REPLY_H

#include "tolva2/net/connection.h"

/* The reply with that status goes out as soon as the client's socket takes
 * it; the record waits for nothing else from now on. */
void expect_reply(connection *cn, int32_t exitstatus);

/* Sends the reply of a writable client and frees its node. */
void handle_tcp_reply(ux_list_element *node);

#endif
