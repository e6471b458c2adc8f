#include "tolva2/files/logfile.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>

int32_t logged_pid = 0;
int32_t log_to_file = 0;

namespace
{

constexpr size_t LOG_TEXT = 1024;
constexpr size_t LOG_BLOCK = 8192;
constexpr size_t DATE_TEXT = 64; /* room for any year */

char *log_name = nullptr;
int64_t log_limit = 0; /* bytes; 0: unlimited */

/*
 * Copies what is left of from, a block at a time, back into the log file. The
 * result starts again from 0 at every second block, so it is 0 after an even
 * number of them: the line that caused the cut is then lost, and the next one
 * finds room.
 */
int64_t write_back(FILE *from, const char *path)
{
    FILE *log = fopen(path, "we");
    if (!log) {
        return 0;
    }
    char block[LOG_BLOCK];
    int64_t count = 0;
    size_t length = 0;
    while ((length = fread(block, 1, sizeof block, from)) > 0) {
        count += static_cast<int64_t>(fwrite(block, 1, length, log));
        if (count != static_cast<int64_t>(length)) {
            count = 0;
        }
    }
    /* What is still buffered may be what does not fit the disk. */
    return fclose(log) == 0 ? count : 0;
}

/* Copies the log from the first line behind offset on to another file. */
bool save_tail(const char *path, int64_t offset, FILE *to)
{
    FILE *log = fopen(path, "re");
    if (!log) {
        return false;
    }
    char block[LOG_BLOCK + 1];
    bool saved = fseek(log, static_cast<long>(offset), SEEK_SET) == 0;
    if (saved) {
        /* The rest of the line at the cut goes, to start at a whole one. */
        char *dropped = fgets(block, sizeof block, log);
        static_cast<void>(dropped);
        size_t length = 0;
        while (saved && (length = fread(block, 1, LOG_BLOCK, log)) > 0) {
            saved = fwrite(block, 1, length, to) == length;
        }
        saved = saved && !ferror(log);
    }
    fclose(log);
    return saved && fflush(to) == 0;
}

/* Cuts the head of the log file: non-zero when done, see write_back. */
int64_t cut_head(const char *path, int64_t offset)
{
    FILE *temporary = tmpfile();
    if (!temporary) {
        return 0;
    }
    int64_t count = 0;
    if (save_tail(path, offset, temporary)) {
        rewind(temporary);
        count = write_back(temporary, path);
    }
    fclose(temporary);
    return count;
}

/* Keeps the log file below allowed bytes: 0 when that failed. */
int64_t check_size(const char *path, int64_t allowed)
{
    struct stat status;
    if (stat(path, &status) < 0) {
        return 1;
    }
    int64_t excess = status.st_size - allowed;
    if (excess < 0) {
        return 1;
    }
    /* A tenth more than needed, so that not every new line costs a cut. */
    return cut_head(path, log_limit / 10 + excess);
}

int32_t append_line(const char *line)
{
    if (!log_name || !*line) {
        return 0;
    }
    auto length = static_cast<int64_t>(strlen(line));
    if (log_limit > 0 && !check_size(log_name, log_limit - length)) {
        return 0;
    }
    FILE *log = fopen(log_name, "a+e");
    if (!log) {
        return 0;
    }
    bool written = fputs(line, log) != EOF;
    return fclose(log) == 0 && written;
}

int32_t emit_line(const char *line)
{
    if (log_to_file) {
        return append_line(line);
    }
    if (daemonized) {
        return 1;
    }
    return fputs(line, stdout) != EOF && fflush(stdout) == 0;
}

const char *skip_space(const char *text)
{
    while (isspace(static_cast<unsigned char>(*text))) {
        text++;
    }
    return text;
}

/* True when text begins with a "%s" that takes an argument. */
bool is_directive(const char *text)
{
    return text[0] == '%' && text[1] == 's' &&
           !isalnum(static_cast<unsigned char>(text[2]));
}

} // namespace

const char *log_date_text(time_t t)
{
    static char text[DATE_TEXT];
    tm local;
    text[0] = '\0';
    if (localtime_r(&t, &local)) {
        snprintf(text, sizeof text, "%02d/%02d/%04d", local.tm_mon + 1,
                 local.tm_mday, local.tm_year + 1900);
    }
    return text;
}

const char *log_time_text(time_t t)
{
    static char text[DATE_TEXT];
    tm local;
    text[0] = '\0';
    if (localtime_r(&t, &local)) {
        snprintf(text, sizeof text, "%02d:%02d:%02d", local.tm_hour,
                 local.tm_min, local.tm_sec);
    }
    return text;
}

int32_t logfile_open(const char *name, int32_t size_kib)
{
    trace_in();
    if (!name || !*name || log_name) {
        return 0;
    }
    log_name = strdup(name);
    if (!log_name) {
        return 0;
    }
    log_limit = size_kib > 0 ? static_cast<int64_t>(size_kib) << 10 : 0;
    return 1;
}

void logfile_close()
{
    trace_in();
    free(log_name);
    log_name = nullptr;
    log_limit = 0;
}

int32_t logfile_trim()
{
    trace_in();
    if (!log_name) {
        return 0;
    }
    return log_limit > 0 ? static_cast<int32_t>(check_size(log_name, log_limit))
                         : 1;
}

int32_t log_write_line(const char *text)
{
    trace_in();
    if (!text || !*text) {
        return 0;
    }
    text = skip_space(text);
    if (strncasecmp(text, "TOLVA ", 6) == 0) {
        text = skip_space(text + 6);
    }
    const char *prefix = "";
    if (strncmp(text, "ERROR: ", 7) == 0) {
        prefix = "error: ";
        text += 7;
    }
    if (!*prefix && !*text) {
        return 0;
    }
    char line[LOG_TEXT];
    time_t now = time(nullptr);
    snprintf(line, sizeof line, "%s,%s, tolva[%05d]: %s%s\n",
             log_date_text(now), log_time_text(now), logged_pid, prefix, text);
    return emit_line(line);
}

int32_t log_message(int32_t count, const char *format, ...)
{
    trace_in();
    if (!format || !*format) {
        return 0;
    }
    debug_printf("DEBUG: arg= [%s]\n", format);
    char text[LOG_TEXT] = "";
    size_t length = 0;
    va_list args;
    va_start(args, format);
    while (*format && length < sizeof text - 1) {
        const char *argument = nullptr;
        if (count > 0 && is_directive(format)) {
            argument = va_arg(args, const char *);
            count--;
        }
        if (argument) {
            size_t room = sizeof text - 1 - length;
            size_t copied = strnlen(argument, room);
            memcpy(text + length, argument, copied);
            length += copied;
            format += 2;
        } else {
            text[length++] = *format++;
        }
    }
    va_end(args);
    text[length] = '\0';
    return log_write_line(text) != 0;
}

void log_system(int32_t error)
{
    log_message(1, "system: %s", strerror(error));
}

void log_error(int32_t error)
{
    log_message(1, "error: %s", strerror(error));
}
