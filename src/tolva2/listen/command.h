/*
 * From a received command to the script that serves it, and from a finished
 * script to whoever waits for its status. Client sessions hand commands in,
 * the main loop hands SIGCHLD in.
 */
#ifndef TOLVA2_LISTEN_COMMAND_H
#define TOLVA2_LISTEN_COMMAND_H

#include "tolva2/net/connection.h"

/* The bare request: the shutdown script, unless redundancy withholds it. True
 * when it was started. */
bool exec_V1command(connection *cn);

/* A command text (cut up in place, may be null). True when a script was
 * started or the text logged. */
bool exec_V2command(connection *cn, char *text);

/* Serves the records of one list (clients or connections) whose scripts have
 * been collected; reap_children calls it. */
void handle_sigchld(ux_list *list);

/* Collects every child that has ended and serves the records of both lists
 * that follow them. A child that no record follows any more must not stay
 * behind as a zombie either. */
void reap_children();

#endif
