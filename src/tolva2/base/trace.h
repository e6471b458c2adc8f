/*
 * Two ways of speaking that every module shares: the developer's trace on
 * descriptor 1, switched by the trace level, and the user's error line, which
 * may end the process. The operator's log is elsewhere.
 */
#ifndef TOLVA2_BASE_TRACE_H
#define TOLVA2_BASE_TRACE_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>

/* Trace level. Negative: detach, no trace; 0: foreground, no trace; above 0
 * "DEBUG:" lines, above 5 "TRACEIN:" lines, above 9 "TRACEOUT:" lines. Settled
 * by start-up and by "-d". */
extern int32_t debug_level;

/* Writes one formatted text to descriptor 1 with a single write, cut to 1,023
 * characters, past any buffered stream. A null or empty format writes
 * nothing. Keeps errno. Does not look at the trace level. */
[[gnu::format(printf, 1, 2)]] void trace_printf(const char *format, ...);

/* trace_printf, but only when the trace level is above 0. */
[[gnu::format(printf, 1, 2)]] void debug_printf(const char *format, ...);

/* The entry and the exit line of the function that calls them. */
void trace_in(const char *function = __builtin_FUNCTION());
void trace_out(const char *function = __builtin_FUNCTION());

/* Exit codes of error_printf. */
constexpr int32_t ERROR_CONTINUE = 0;
constexpr int32_t ERROR_EXIT = 2; /* the process ends with status 1 */

/* Where error_printf sends its text: vfprintf to begin with. May be replaced
 * to catch every error line, or be null to drop them. */
using error_hook = int (*)(FILE *stream, const char *format, va_list args);
extern error_hook error_output_hook;

/* Hands a formatted error to the hook. exit_code 0 returns the hook's result,
 * or 1 without a hook; any other ends the process with status exit_code - 1. */
[[gnu::format(printf, 3, 4)]] int32_t
error_printf(FILE *stream, int32_t exit_code, const char *format, ...);

/* One error line on standard error, then the process ends with status 1. */
[[noreturn, gnu::format(printf, 1, 2)]] void fatal(const char *format, ...);

/* Opens the debug file for reading and appending, mode 0664, unless one is
 * open. A null path means "upsdebug.out". True when one is open. */
bool open_debug_file(const char *path);
void close_debug_file();

#endif
