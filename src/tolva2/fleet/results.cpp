/*
 * The three forms, and the reading of two of them.
 */
#include "tolva2/fleet/results.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::string_view TABLE_HEADING =
    "address\tname\toutcome\tstatus\tmilliseconds\treason\n";

void append_label(text_buffer *out, const char *label) {
    if (label) {
        append_safe(out, label, text_place::line);
        append_text(out, ": ");
    }
}

/* "failed       192.0.2.31 database: its script has ended with 3" */
void append_words(text_buffer *out, const fleet_host &host,
                  const verdict &found) {
    append_format(out, "%-11s  ", outcome_word(found.result));
    append_safe(out, host.target, text_place::line);
    if (!host.name.empty()) {
        append_text(out, "  ");
        append_safe(out, host.name, text_place::line);
    }
    if (found.reason[0]) {
        append_text(out, ": ");
        append_safe(out, found.reason, text_place::line);
    }
    append_text(out, "\n");
}

void append_row(text_buffer *out, const fleet_host &host, const verdict &found,
                int64_t milliseconds) {
    append_safe(out, host.target, text_place::table);
    append_text(out, "\t");
    append_safe(out, host.name, text_place::table);
    append_format(out, "\t%s\t", outcome_word(found.result));
    if (found.has_status) {
        append_format(out, "%d", found.status);
    } else {
        append_text(out, "-");
    }
    append_format(out, "\t%lld\t", static_cast<long long>(milliseconds));
    append_safe(out, found.reason, text_place::table);
    append_text(out, "\n");
}

void append_object(text_buffer *out, const fleet_host &host,
                   const verdict &found, int64_t milliseconds) {
    append_text(out, "{\"address\":\"");
    append_safe(out, host.target, text_place::json);
    append_text(out, "\",\"name\":\"");
    append_safe(out, host.name, text_place::json);
    append_format(
        out, "\",\"outcome\":\"%s\",\"status\":", outcome_word(found.result));
    if (found.has_status) {
        append_format(out, "%d", found.status);
    } else {
        append_text(out, "null");
    }
    append_format(out, ",\"milliseconds\":%lld,\"reason\":\"",
                  static_cast<long long>(milliseconds));
    append_safe(out, found.reason, text_place::json);
    append_text(out, "\"}\n");
}

/* What an earlier result says. */
struct earlier_result {
    std::string_view address;
    std::string_view outcome;
};

/* The text that a key of an object has. A quote inside a text stands behind a
 * backslash, so that no text can look like a key. */
std::string_view text_of(std::string_view object, std::string_view key) {
    size_t at = object.find(key);
    if (at == std::string_view::npos) {
        return {};
    }
    object.remove_prefix(at + key.size());
    object.remove_prefix(
        std::min(object.find_first_not_of(" :"), object.size()));
    if (object.empty() || object[0] != '"') {
        return {};
    }
    object.remove_prefix(1);
    return part_of(object, 0, object.find('"'));
}

earlier_result read_object(std::string_view line) {
    return {text_of(line, "\"address\""), text_of(line, "\"outcome\"")};
}

earlier_result read_row(std::string_view line) {
    std::array<std::string_view, 3> fields;
    for (std::string_view &field : fields) {
        size_t tab = std::min(line.find('\t'), line.size());
        field = part_of(line, 0, tab);
        line.remove_prefix(std::min(tab + 1, line.size()));
    }
    return {fields[0], fields[2]};
}

bool is_outcome(std::string_view word) {
    return std::find(OUTCOME_WORDS.begin(), OUTCOME_WORDS.end(), word) !=
           OUTCOME_WORDS.end();
}

/* Marks the host of a line: false when the line is no result. */
bool take_earlier(host_list *list, std::string_view line) {
    earlier_result earlier =
        line[0] == '{' ? read_object(line) : read_row(line);
    if (earlier.address.empty() || !is_outcome(earlier.outcome)) {
        return part_of(line, 0, 13) == part_of(TABLE_HEADING, 0, 13);
    }
    int32_t at = find_host(*list, earlier.address);
    if (at != NO_HOST) {
        (*list)[at].skipped = earlier.outcome == outcome_word(outcome::done);
    }
    return true;
}

} // namespace

int32_t result_lines::total() const {
    return std::accumulate(counts.begin(), counts.end(), 0);
}

void append_heading(text_buffer *out, const result_lines &lines) {
    if (lines.form == result_form::table) {
        append_text(out, TABLE_HEADING);
    }
}

void append_result(text_buffer *out, result_lines *lines,
                   const fleet_host &host, const verdict &found,
                   int64_t milliseconds) {
    lines->counts[static_cast<size_t>(found.result)]++;
    switch (lines->form) {
    case result_form::text:
        append_label(out, lines->label);
        append_words(out, host, found);
        break;
    case result_form::table:
        append_row(out, host, found, milliseconds);
        break;
    case result_form::json:
        append_object(out, host, found, milliseconds);
        break;
    }
}

void append_summary(text_buffer *out, const result_lines &lines,
                    const char *interrupted) {
    append_label(out, lines.label);
    if (interrupted) {
        append_format(out, "ended by %s: ", interrupted);
    }
    int32_t total = lines.total();
    append_format(out, "%d host%s: %d done", total, total == 1 ? "" : "s",
                  lines.count(outcome::done));
    for (size_t at = static_cast<size_t>(outcome::failed);
         at < OUTCOME_WORDS.size(); at++) {
        if (lines.counts[at] > 0) {
            append_format(out, ", %d %s", lines.counts[at], OUTCOME_WORDS[at]);
        }
    }
    append_text(out, "\n");
}

bool skip_done(host_list *list, std::string_view results) {
    while (!results.empty()) {
        size_t end = std::min(results.find('\n'), results.size());
        std::string_view line = part_of(results, 0, end);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        /* A run that was cut off may have left half a line at the end. */
        bool whole = end < results.size();
        if (!line.empty() && !take_earlier(list, line) && whole) {
            return false;
        }
        results.remove_prefix(std::min(end + 1, results.size()));
    }
    return true;
}
