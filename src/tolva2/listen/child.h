/*
 * Starting scripts, all of them. They are waited for where commands are
 * dispatched.
 */
#ifndef TOLVA2_LISTEN_CHILD_H
#define TOLVA2_LISTEN_CHILD_H

#include "tolva2/net/connection.h"

/* Runs "/bin/sh -c 'program params'" without waiting. Nothing is quoted.
 * program null or empty: nothing happens. params and cn may be null; with a
 * record, it becomes busy and owns the command line. True when a child was
 * started. */
bool fork_and_exec(connection *cn, const char *program, const char *params);

#endif
