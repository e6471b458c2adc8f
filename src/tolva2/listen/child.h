/*
 * Starting scripts, all of them. They are waited for where commands are
 * dispatched.
 */
#ifndef TOLVA2_LISTEN_CHILD_H
#define TOLVA2_LISTEN_CHILD_H

#include "tolva2/net/connection.h"

#include <csignal>

/*
 * The mask that scripts start with; listen mode sets it before its first
 * script. Without it they start with the mask of the moment.
 */
extern const sigset_t *child_mask;

/*
 * Runs "/bin/sh -c 'program params'" without waiting. Nothing is quoted.
 * program null or empty: nothing happens. params and cn may be null; with a
 * record, it becomes busy and owns the command line. Returns 1 when a child
 * was started, else 0.
 */
int32_t fork_and_exec(connection *cn, const char *program, const char *params);

#endif
