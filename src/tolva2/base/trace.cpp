/*
 * Trace lines and error lines, each one formatted and handed over whole. What
 * they are for stands in the header; here is what keeps them out of the way:
 * a line that cannot be written changes nothing for the program.
 */
#include "tolva2/base/trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#ifdef NDEBUG
#error "assertions are part of the program's behaviour: build without NDEBUG"
#endif

int32_t debug_level = -1;
error_hook error_output_hook = vfprintf;

namespace {

constexpr size_t TRACE_LINE = 1024;
constexpr int32_t ENTRIES_ABOVE = 5;
constexpr int32_t EXITS_ABOVE = 9;

int32_t debug_fd = -1;

[[gnu::format(printf, 1, 0)]] void write_trace(const char *format,
                                               va_list args) {
    if (!format || !*format) {
        return;
    }
    char line[TRACE_LINE];
    int saved = errno;
    int length = vsnprintf(line, sizeof line, format, args);
    if (length > 0) {
        /* A lost trace line must not change what the program does. */
        [[maybe_unused]] ssize_t written =
            write(STDOUT_FILENO, line, strlen(line));
    }
    errno = saved;
}

[[gnu::format(printf, 2, 0)]] int32_t
call_hook(FILE *stream, const char *format, va_list args) {
    return error_output_hook ? error_output_hook(stream, format, args) : 1;
}

} // namespace

void trace_printf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    write_trace(format, args);
    va_end(args);
}

void debug_printf(const char *format, ...) {
    if (debug_level <= 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    write_trace(format, args);
    va_end(args);
}

void trace_in(const char *function) {
    if (debug_level > ENTRIES_ABOVE) {
        trace_printf("TRACEIN: %s\n", function);
    }
}

void trace_out(const char *function) {
    if (debug_level > EXITS_ABOVE) {
        trace_printf("TRACEOUT: %s\n", function);
    }
}

int32_t error_printf(FILE *stream, int32_t exit_code, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int32_t result = call_hook(stream, format, args);
    va_end(args);
    if (exit_code != ERROR_CONTINUE) {
        exit(exit_code - 1);
    }
    return result;
}

void fatal(const char *format, ...) {
    va_list args;
    va_start(args, format);
    call_hook(stderr, format, args);
    va_end(args);
    exit(ERROR_EXIT - 1);
}

bool open_debug_file(const char *path) {
    if (debug_fd < 0) {
        debug_fd = open(path ? path : "upsdebug.out",
                        O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0664);
    }
    return debug_fd >= 0;
}

void close_debug_file() {
    if (debug_fd >= 0) {
        /* By hand: the owners of descriptors stand on a floor above. */
        close(debug_fd);
        debug_fd = -1;
    }
}
