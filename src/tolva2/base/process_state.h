/*
 * The process-wide variables that start-up settles before any mode runs.
 * main writes them, daemonising and "-d" change some of them later, and
 * everybody else only reads them.
 */
#ifndef TOLVA2_BASE_PROCESS_STATE_H
#define TOLVA2_BASE_PROCESS_STATE_H

#include <cstdint>

/*
 * Trace level. Negative: detach, no trace; 0: foreground, no trace; above 0
 * "DEBUG:" lines, above 5 "TRACEIN:" lines, above 9 "TRACEOUT:" lines.
 */
extern int32_t debug_level;

/* Base name of argv[0], first word of every error; owned by main. */
extern char *progname;

/* Absolute directory of settings, scripts and texts; owned by main. */
extern char *home_dir;

/* This process's id; taken at start and again after detaching. */
extern int32_t own_pid;

/* The id that log lines show: 0 until the process has detached. */
extern int32_t logged_pid;

/* Descriptors the connection loops may have open at once. */
extern int32_t max_fds;

/* max_fds less the descriptors kept for files; nobody reads it yet. */
extern int32_t fd_reserve;

/* 1 once the process has cut itself off from its terminal. */
extern int32_t daemonized;

#endif
