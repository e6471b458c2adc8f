#include "tolva2/base/trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr size_t TRACE_LINE = 1024;

int32_t debug_fd = -1;

[[gnu::format(printf, 1, 0)]] void write_trace(const char *format, va_list args)
{
    char line[TRACE_LINE];
    int saved = errno;
    int length = vsnprintf(line, sizeof line, format, args);
    if (length > 0) {
        /* A lost trace line must not change what the program does. */
        ssize_t written = write(STDOUT_FILENO, line, strlen(line));
        static_cast<void>(written);
    }
    errno = saved;
}

} // namespace

error_hook error_output_hook = vfprintf;

void trace_printf(const char *format, ...)
{
    if (!format || !*format) {
        return;
    }
    va_list args;
    va_start(args, format);
    write_trace(format, args);
    va_end(args);
}

void debug_printf(const char *format, ...)
{
    if (debug_level <= 0 || !format || !*format) {
        return;
    }
    va_list args;
    va_start(args, format);
    write_trace(format, args);
    va_end(args);
}

int32_t error_printf(FILE *stream, int32_t exit_code, const char *format, ...)
{
    int32_t result = 1;
    if (error_output_hook) {
        va_list args;
        va_start(args, format);
        result = error_output_hook(stream, format, args);
        va_end(args);
    }
    if (exit_code != ERROR_CONTINUE) {
        exit(exit_code - 1);
    }
    return result;
}

int32_t open_debug_file(const char *path)
{
    if (debug_fd < 0) {
        debug_fd = open(path ? path : "upsdebug.out",
                        O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0664);
    }
    return debug_fd >= 0;
}

void close_debug_file()
{
    if (debug_fd >= 0) {
        close(debug_fd);
        debug_fd = -1;
    }
}
