/*
 * The lines that say what has become of the hosts, one for each, in the form
 * that was asked for, and the count of them.
 */
#ifndef TOLVA2_FLEET_RESULTS_H
#define TOLVA2_FLEET_RESULTS_H

#include "tolva2/fleet/host_list.h"
#include "tolva2/fleet/out_stream.h"
#include "tolva2/fleet/outcome.h"

#include <array>

enum class result_form : uint8_t { text, table, json };

struct result_lines {
    result_form form = result_form::text;
    const char *label = nullptr; /* in front of each line of text; or null */
    std::array<int32_t, OUTCOME_WORDS.size()> counts{};
    int32_t count(outcome result) const {
        return counts[static_cast<size_t>(result)];
    }
    int32_t total() const;
};

/* The line above the others, where the form has one. */
void append_heading(text_buffer *out, const result_lines &lines);

/* Counts a result and appends its line; milliseconds since the host was begun
 * with. */
void append_result(text_buffer *out, result_lines *lines,
                   const fleet_host &host, const verdict &found,
                   int64_t milliseconds);

/* Appends "4 hosts: 2 done, 1 failed, 1 timeout" and a line feed. */
void append_summary(text_buffer *out, const result_lines &lines,
                    const char *interrupted);

/* What an earlier run has written, in either form for programs: marks the
 * hosts of the list that were done, by the last line of each. False when it
 * holds a line that is none of a result. */
[[nodiscard]] bool skip_done(host_list *list, std::string_view results);

#endif
