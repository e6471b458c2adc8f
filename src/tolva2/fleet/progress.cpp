/*
 * The line of progress. It is overwritten with blanks instead of control
 * sequences, which not every terminal has.
 */
#include "tolva2/fleet/progress.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int64_t TERMINAL_INTERVAL = 250;
constexpr int64_t LINE_INTERVAL = 1000;
constexpr size_t LINE_SIZE = 160;

void write_line(progress *state, out_stream *err, const char *line,
                size_t length) {
    if (!err->terminal) {
        append_format(&err->waiting, "%s\n", line);
        return;
    }
    size_t rest = state->shown > length ? state->shown - length : 0;
    append_format(&err->waiting, "\r%s%*s", line, static_cast<int>(rest), "");
    state->shown = length;
}

} // namespace

void show_progress(progress *state, out_stream *err, const result_lines &lines,
                   int32_t total, int64_t now) {
    if (!state->wanted || now < state->next) {
        return;
    }
    state->next = now + (err->terminal ? TERMINAL_INTERVAL : LINE_INTERVAL);
    if (has_waiting(*err)) {
        return; /* nobody reads it */
    }
    int32_t ended = lines.total();
    int32_t good = lines.count(outcome::done);
    bool limited = state->end > 0;
    int64_t seconds =
        limited ? (std::max<int64_t>(state->end - now, 0) + 999) / 1000
                : (now - state->start) / 1000;
    char line[LINE_SIZE];
    int length =
        snprintf(line, sizeof line,
                 "%s%s%d of %d done, %d failed, %d waiting, "
                 "%lld s %s",
                 lines.label ? lines.label : "", lines.label ? ": " : "", good,
                 total, ended - good, total - ended,
                 static_cast<long long>(seconds), limited ? "left" : "so far");
    write_line(state, err, line,
               std::min(static_cast<size_t>(length), sizeof line - 1));
    write_waiting(err);
}

void clear_progress(progress *state, out_stream *err) {
    if (state->shown > 0) {
        append_format(&err->waiting, "\r%*s\r", static_cast<int>(state->shown),
                      "");
        state->shown = 0;
        write_waiting(err);
    }
}
