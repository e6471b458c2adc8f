/*
 * A run from its beginning to its summary. Hosts wait in two queues, those
 * with an address for a connection and those with a name for a look-up; what
 * is under way is in two arrays, and one loop serves both.
 */
#include "tolva2/fleet/fleet_run.h"
#include "tolva2/base/process_state.h"
#include "tolva2/fleet/fleet_clock.h"
#include "tolva2/fleet/fleet_serve.h"
#include "tolva2/fleet/fleet_start.h"
#include "tolva2/fleet/fleet_stop.h"
#include "tolva2/fleet/fleet_wait.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/resource.h>

namespace {

constexpr int32_t MOST_AT_ONCE = 16384; /* connections */
constexpr int32_t MOST_LOOKUPS = 64;    /* children */
constexpr int32_t KEPT_FOR_OTHERS = 4;  /* descriptors */
constexpr int32_t INHERITED = 64; /* descriptors, those of others among them */
constexpr int32_t FEW_DESCRIPTORS = 64; /* when nobody says how many */
constexpr int64_t FIRST_PROGRESS = 250; /* milliseconds */

/* How many descriptors there may be; the soft limit is raised for that. */
int32_t raise_descriptors(int32_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return FEW_DESCRIPTORS;
    }
    rlim_t enough = static_cast<rlim_t>(wanted);
    if (limit.rlim_cur < enough) {
        rlimit raised{std::min(enough, limit.rlim_max), limit.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    return static_cast<int32_t>(std::min(limit.rlim_cur, enough));
}

/* Hosts that have to be looked up. */
int32_t count_names(host_list *list) {
    return static_cast<int32_t>(
        std::count_if(list->begin(), list->end(), [](const fleet_host &host) {
            return host.by_name && !host.fault && !host.skipped;
        }));
}

/* Makes room for as many at a time as there are descriptors: false without
 * memory. */
bool make_room(fleet_run *run) {
    int32_t children = std::min(count_names(&run->list), MOST_LOOKUPS);
    int32_t wanted =
        std::min(static_cast<int32_t>(run->list.count), MOST_AT_ONCE);
    run->descriptors = raise_descriptors(wanted + children + INHERITED);
    children = std::min(children, std::max(run->descriptors / 8, 1));
    run->window = std::clamp(run->descriptors - children - KEPT_FOR_OTHERS, 1,
                             std::max(wanted, 1));
    run->talks = fleet_array<talk>(static_cast<size_t>(run->window));
    run->lookups = fleet_array<lookup>(static_cast<size_t>(children));
    run->polls =
        fleet_array<pollfd>(run->talks.size() + run->lookups.size() + 2);
    return run->talks && run->lookups && run->polls;
}

bool is_over(const fleet_run &run) {
    return run.lines.total() >= run.total || has_stopped() ||
           (run.end > 0 && milliseconds_now() >= run.end);
}

/* The summary stands below the lines for people; those for programs are
 * results alone. Where it cannot be written there, it goes to the other. */
void write_summary(fleet_run *run, const char *interrupted) {
    clear_progress(&run->shown, &run->err);
    write_waiting(&run->out);
    bool beside = run->lines.form != result_form::text || run->out.error != 0;
    append_summary(beside ? &run->err.waiting : &run->out.waiting, run->lines,
                   interrupted);
    write_rest(run);
    if (run->out.error != 0 || has_waiting(run->out)) {
        if (!beside) {
            append_summary(&run->err.waiting, run->lines, interrupted);
        }
        append_format(
            &run->err.waiting, "%s: results were lost: %s\n", progname,
            run->out.error ? strerror(run->out.error) : "nobody reads them");
        run->out.error = run->out.error ? run->out.error : EPIPE;
        write_waiting(&run->err);
    }
}

void drive(fleet_run *run) {
    while (!is_over(*run)) {
        int64_t now = milliseconds_now();
        start_lookups(run, now);
        start_talks(run, now);
        write_results(run);
        show_progress(&run->shown, &run->err, run->lines, run->total, now);
        if (!is_over(*run)) {
            serve_once(run);
        }
    }
    run->stopped = has_stopped();
    finish_rest(run);
}

/* What the options say of a run that begins now. */
void prepare_run(fleet_run *run, const fleet_options &options) {
    run->out = open_out(STDOUT_FILENO);
    run->err = open_out(STDERR_FILENO);
    run->lines.form = options.form;
    run->lines.label = options.label;
    int64_t now = milliseconds_now();
    if (options.whole > 0) {
        run->end = now + static_cast<int64_t>(options.whole) * 1000;
    }
    run->shown.wanted = !options.quiet;
    run->shown.start = now;
    run->shown.end = run->end;
    run->shown.next = now + FIRST_PROGRESS;
}

} // namespace

int32_t run_fleet(host_list *list, const fleet_command &command,
                  const fleet_options &options) {
    fleet_run run{*list, command.text.get(), options};
    prepare_run(&run, options);
    if (!make_room(&run)) {
        fprintf(stderr, "%s: %s\n", progname, strerror(ENOMEM));
        return 2;
    }
    append_heading(&run.out.waiting, run.lines);
    handle_stops();
    queue_hosts(&run);
    drive(&run);
    write_summary(&run, stop_text());
    return run.lines.count(outcome::done) == run.total ? 0 : 1;
}
