/*
 * The answer to a sender that asked for its script's exit status: sent once,
 * on the connection that brought the command, which it ends.
 */
#ifndef TOLVA2_LISTEN_REPLY_H
#define TOLVA2_LISTEN_REPLY_H

#include "tolva2/net/connection.h"

/* Sends the reply of a writable client and frees its node. */
void handle_tcp_reply(ux_list_element *node);

#endif
