/*
 * Two ways of speaking that every module shares: the developer's trace on
 * descriptor 1, switched by the trace level, and the user's error line, which
 * may end the process. The operator's log is elsewhere.
 */
#ifndef TOLVA2_BASE_TRACE_H
#define TOLVA2_BASE_TRACE_H

#ifdef NDEBUG
#error "assertions are part of the program's behaviour: build without NDEBUG"
#endif

#include "tolva2/base/process_state.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>

/* Exit codes of error_printf. */
constexpr int32_t ERROR_CONTINUE = 0;
constexpr int32_t ERROR_EXIT = 2; /* the process ends with status 1 */

/*
 * Writes one formatted text to descriptor 1 with a single write, cut to 1,023
 * characters, past any buffered stream. A null or empty format writes
 * nothing. Keeps errno. Does not look at the trace level.
 */
[[gnu::format(printf, 1, 2)]] void trace_printf(const char *format, ...);

/* trace_printf, but only when the trace level is above 0. */
[[gnu::format(printf, 1, 2)]] void debug_printf(const char *format, ...);

/* The entry and exit lines of a function, under its own name. */
#define TRACE_IN()                                                             \
    do {                                                                       \
        if (debug_level > 5) {                                                 \
            trace_printf("TRACEIN: %s\n", __func__);                           \
        }                                                                      \
    } while (0)
#define TRACE_OUT()                                                            \
    do {                                                                       \
        if (debug_level > 9) {                                                 \
            trace_printf("TRACEOUT: %s\n", __func__);                          \
        }                                                                      \
    } while (0)

/*
 * Where error_printf sends its text: vfprintf to begin with. May be replaced
 * to catch every error line, or be null to drop them.
 */
using error_hook = int (*)(FILE *stream, const char *format, va_list args);
extern error_hook error_output_hook;

/*
 * Hands a formatted error to the hook. exit_code 0 returns the hook's result,
 * or 1 without a hook; any other ends the process with status exit_code - 1.
 */
[[gnu::format(printf, 3, 4)]] int32_t
error_printf(FILE *stream, int32_t exit_code, const char *format, ...);

/*
 * Opens the debug file for reading and appending, mode 0664, unless one is
 * open. A null path means "upsdebug.out". Returns 1 when one is open, else 0.
 */
int32_t open_debug_file(const char *path);
void close_debug_file();

#endif
