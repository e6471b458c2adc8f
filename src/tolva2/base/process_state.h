/*
 * The process-wide variables that start-up settles before any mode runs, but
 * for the trace level. main writes them, detaching changes two of them later,
 * and everybody else only reads them.
 */
#ifndef TOLVA2_BASE_PROCESS_STATE_H
#define TOLVA2_BASE_PROCESS_STATE_H

#include <cstdint>

/* Base name of argv[0], first word of every error; owned by main. */
extern const char *progname;

/* The home where $TOLVAHOME names none, chosen when the program was built;
 * empty: the directory of the executable. */
#ifdef TOLVA_HOME
constexpr const char *BUILT_IN_HOME = TOLVA_HOME;
#else
constexpr const char *BUILT_IN_HOME = "";
#endif

/* Absolute directory of settings, scripts and texts; owned by main. */
extern const char *home_dir;

/* This process's id; taken at start and again after detaching. */
extern int32_t own_pid;

/* Descriptors the connection loops may have open at once. */
extern int32_t max_fds;

/* max_fds less the descriptors kept for files; nobody reads it yet. */
extern int32_t fd_reserve;

/* True once the process has cut itself off from its terminal. */
extern bool daemonized;

#endif
