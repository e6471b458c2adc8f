/*
 * Lines of the log: how a message and its texts become one, and the choice of
 * where it goes. How the file is kept below its limit is not known here.
 */
#include "tolva2/files/logfile.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/bounded_file.h"
#include "unixtools/ux_owned.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <strings.h>

namespace {

constexpr size_t LOG_TEXT = 1024;
constexpr size_t DATE_TEXT = 64; /* room for any year */

constexpr std::string_view OWN_NAME = "TOLVA ";
constexpr std::string_view ERROR_WORD = "ERROR: ";

struct {
    ux_text name;
    int64_t limit;  /* bytes; 0: unlimited */
    bool into_file; /* where lines go, whether a file is open or not */
    int32_t shown_pid;
} operator_log;

/* A text that grows up to LOG_TEXT - 1 characters and loses the rest. */
struct log_text {
    char text[LOG_TEXT] = "";
    size_t length = 0;

    bool is_full() const { return length == sizeof text - 1; }
    void add(std::string_view more) {
        size_t copied = std::min(more.size(), sizeof text - 1 - length);
        memcpy(text + length, more.data(), copied);
        length += copied;
        text[length] = '\0';
    }
};

bool emit_line(const char *line) {
    if (operator_log.into_file) {
        return operator_log.name && append_bounded(operator_log.name.get(),
                                                   operator_log.limit, line);
    }
    if (daemonized) {
        return true;
    }
    return fputs(line, stdout) != EOF && fflush(stdout) == 0;
}

const char *skip_space(const char *text) {
    return text + strspn(text, " \t\n\v\f\r");
}

/* True when text begins with a "%s" that takes a text. */
bool is_directive(const char *text) {
    return text[0] == '%' && text[1] == 's' &&
           !isalnum(static_cast<unsigned char>(text[2]));
}

/* Fills format into out, with at most count of the texts. */
void fill_in(log_text *out, int32_t count, const char *format, va_list texts) {
    while (*format && !out->is_full()) {
        const char *text = nullptr;
        if (count > 0 && is_directive(format)) {
            text = va_arg(texts, const char *);
            count--;
        }
        out->add(text ? text : std::string_view(format, 1));
        format += text ? 2 : 1;
    }
}

/* A moment as lines show it; both empty when no calendar has it. */
struct moment_text {
    char date[DATE_TEXT];
    char time[DATE_TEXT];
};

moment_text text_of(time_t t) {
    moment_text text{};
    tm local;
    /* Of the zone of now: an administrator may have changed it. */
    tzset();
    if (localtime_r(&t, &local)) {
        snprintf(text.date, sizeof text.date, "%02d/%02d/%04d",
                 local.tm_mon + 1, local.tm_mday, local.tm_year + 1900);
        snprintf(text.time, sizeof text.time, "%02d:%02d:%02d", local.tm_hour,
                 local.tm_min, local.tm_sec);
    }
    return text;
}

} // namespace

const char *log_date_text(time_t t) {
    static moment_text shown;
    shown = text_of(t);
    return shown.date;
}

const char *log_time_text(time_t t) {
    static moment_text shown;
    shown = text_of(t);
    return shown.time;
}

bool logfile_open(const char *name, int32_t size_kib) {
    trace_in();
    if (ux_is_empty(name) || operator_log.name) {
        return false;
    }
    operator_log.name = ux_copy(name);
    operator_log.limit =
        size_kib > 0 ? static_cast<int64_t>(size_kib) << 10 : 0;
    return operator_log.name != nullptr;
}

void logfile_close() {
    trace_in();
    operator_log.name.reset();
    operator_log.limit = 0;
}

void log_into_file(bool on) { operator_log.into_file = on; }

void log_as(int32_t pid) { operator_log.shown_pid = pid; }

bool logfile_trim() {
    trace_in();
    int64_t limit = operator_log.limit;
    return operator_log.name &&
           (limit <= 0 || check_size(operator_log.name.get(), limit, limit));
}

bool log_write_line(const char *text) {
    trace_in();
    if (ux_is_empty(text)) {
        return false;
    }
    const char *said = skip_space(text);
    if (strncasecmp(said, OWN_NAME.data(), OWN_NAME.size()) == 0) {
        said = skip_space(said + OWN_NAME.size());
    }
    const char *prefix = "";
    if (strncmp(said, ERROR_WORD.data(), ERROR_WORD.size()) == 0) {
        prefix = "error: ";
        said += ERROR_WORD.size();
    } else if (!*said) {
        return false;
    }
    char line[LOG_TEXT];
    moment_text now = text_of(time(nullptr));
    snprintf(line, sizeof line, "%s,%s, tolva[%05d]: %s%s\n", now.date,
             now.time, operator_log.shown_pid, prefix, said);
    return emit_line(line);
}

bool log_message(int32_t count, const char *format, ...) {
    trace_in();
    if (ux_is_empty(format)) {
        return false;
    }
    debug_printf("DEBUG: arg= [%s]\n", format);
    log_text message;
    va_list texts;
    va_start(texts, format);
    fill_in(&message, count, format, texts);
    va_end(texts);
    return log_write_line(message.text);
}

void log_system(int32_t error) {
    log_message(1, "system: %s", strerror(error));
}

void log_error(int32_t error) { log_message(1, "error: %s", strerror(error)); }
