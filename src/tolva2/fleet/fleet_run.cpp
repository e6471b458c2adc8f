/*
 * The loop of a run. Hosts wait in two queues, those with an address for a
 * connection and those with a name for a look-up; what is under way is in two
 * arrays. A host that does not take the connection at once gives its place to
 * one that waits for it, and has its full time later: so the dead do not hold
 * the living up where descriptors are few.
 */
#include "tolva2/fleet/fleet_run.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/fleet/fleet_clock.h"
#include "tolva2/fleet/lookup.h"
#include "tolva2/fleet/progress.h"
#include "tolva2/fleet/talk.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/resource.h>

namespace {

constexpr int32_t MOST_AT_ONCE = 16384; /* connections */
constexpr int32_t MOST_LOOKUPS = 64;    /* children */
constexpr int32_t KEPT_FOR_OTHERS = 16; /* descriptors */
constexpr int32_t STARTED_IN_A_ROW = 256;
constexpr int64_t FIRST_LOOK = 1000; /* milliseconds for a connection */
constexpr int64_t HANG_UP_LIMIT = 1000;
constexpr int64_t SHORTAGE_PAUSE = 50;
constexpr int64_t LAST_WORDS = 1000; /* for writing, behind -t */
constexpr int32_t CROWD = 512;       /* from here on, a wait is not short */
constexpr int64_t CROWD_PAUSE = 1;

volatile sig_atomic_t stop_signal = 0;

void note_signal(int number) { stop_signal = number; }

struct stop_name {
    int number;
    const char *name;
};
constexpr std::array<stop_name, 3> STOPS{
    {{SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}}};

const char *stop_text() {
    for (const stop_name &stop : STOPS) {
        if (stop.number == stop_signal) {
            return stop.name;
        }
    }
    return nullptr;
}

struct queue {
    int32_t first = NO_HOST;
    int32_t last = NO_HOST;
};

/* Everything that a run knows. */
struct fleet_run {
    host_list &list;
    const char *command;
    const fleet_options &options;
    result_lines lines{};
    out_stream out{};
    out_stream err{};
    progress shown{};
    int32_t total = 0;
    int64_t start = 0;
    int64_t end = 0; /* milliseconds; 0: no limit of the whole */
    queue to_connect{};
    queue to_look_up{};
    fleet_array<talk> talks{}; /* the first active are under way */
    int32_t active = 0;
    int32_t window = 0; /* how many may be under way */
    fleet_array<lookup> lookups{};
    int32_t descriptors = 0;
    bool stopped = false; /* by a signal */
    int64_t retry = 0;    /* no new connections before then: a shortage */
    fleet_array<pollfd> polls{};
    sigset_t wait_mask{};
};

/* --- queues --- */

void enqueue(fleet_run *run, queue *waiting, int32_t host) {
    run->list[host].next = NO_HOST;
    if (waiting->first == NO_HOST) {
        waiting->first = host;
    } else {
        run->list[waiting->last].next = host;
    }
    waiting->last = host;
}

void put_in_front(fleet_run *run, queue *waiting, int32_t host) {
    run->list[host].next = waiting->first;
    waiting->first = host;
    if (waiting->last == NO_HOST || run->list[host].next == NO_HOST) {
        waiting->last = host;
    }
}

int32_t dequeue(fleet_run *run, queue *waiting) {
    int32_t host = waiting->first;
    waiting->first = run->list[host].next;
    return host;
}

/* --- results --- */

void finish_host(fleet_run *run, int32_t at, const verdict &found) {
    fleet_host &host = run->list[at];
    host.finished = true;
    int64_t took = host.began ? milliseconds_now() - host.began : 0;
    append_result(&run->out.waiting, &run->lines, host, found, took);
}

/* The last of the array takes the place of one that has ended. */
void remove_talk(fleet_run *run, int32_t at) {
    size_t last = static_cast<size_t>(--run->active);
    run->talks[static_cast<size_t>(at)] = std::move(run->talks[last]);
    run->talks[last] = talk{};
}

void finish_talk(fleet_run *run, int32_t at, const verdict &found) {
    finish_host(run, run->talks[static_cast<size_t>(at)].host, found);
    remove_talk(run, at);
}

/* --- beginning --- */

/* Notes what a host is owed when it is begun with. */
void begin_host(fleet_run *run, fleet_host *host, int64_t now) {
    if (host->began == 0) {
        host->began = now;
        host->connect_limit = static_cast<int64_t>(run->options.connect) * 1000;
    }
}

/* This host has no descriptor or no memory left: the talks that are under way
 * give theirs back. Without any, it is tried again for as long as a connection
 * may take. True when the host waits again. */
bool wait_for_means(fleet_run *run, int32_t host, int64_t now) {
    if (run->active == 0 &&
        now - run->list[host].began > run->list[host].connect_limit) {
        return false;
    }
    put_in_front(run, &run->to_connect, host);
    run->window = std::max(run->active, 1);
    run->retry = now + SHORTAGE_PAUSE;
    return true;
}

/* Opens the connection to the next host: false when there are no means. */
bool start_talk(fleet_run *run, int64_t now) {
    int32_t at = dequeue(run, &run->to_connect);
    fleet_host &host = run->list[at];
    begin_host(run, &host, now);
    open_result opened = open_talk(host.address);
    if (opened.shortage && wait_for_means(run, at, now)) {
        return false;
    }
    if (opened.found.result != outcome::open) {
        finish_host(run, at, opened.found);
        return true;
    }
    talk &one = run->talks[static_cast<size_t>(run->active++)];
    one.socket = std::move(opened.socket);
    one.host = at;
    one.since = now;
    one.deadline = now + host.connect_limit;
    return true;
}

/* True when more connections may be opened. */
bool has_place(const fleet_run &run, int64_t now) {
    return run.to_connect.first != NO_HOST && run.active < run.window &&
           now >= run.retry;
}

void start_talks(fleet_run *run, int64_t now) {
    for (int32_t n = 0; n < STARTED_IN_A_ROW && has_place(*run, now); n++) {
        if (!start_talk(run, now)) {
            return;
        }
    }
}

void start_lookups(fleet_run *run, int64_t now) {
    for (lookup &one : run->lookups) {
        if (run->to_look_up.first == NO_HOST) {
            return;
        }
        if (one.child > 0) {
            continue;
        }
        int32_t at = dequeue(run, &run->to_look_up);
        fleet_host &host = run->list[at];
        begin_host(run, &host, now);
        if (start_lookup(&one, host.host, run->options.connect,
                         run->descriptors)) {
            one.host = at;
            one.deadline = host.began + host.connect_limit;
        } else if (now - host.began > host.connect_limit) {
            finish_host(run, at,
                        judged(outcome::unreachable,
                               "cannot look the name up: %s", strerror(errno)));
        } else {
            put_in_front(run, &run->to_look_up, at);
            return;
        }
    }
}

/* --- serving --- */

/* A look-up has ended: its host waits for a connection now. */
void serve_lookup(fleet_run *run, lookup *one, int64_t now) {
    int32_t at = one->host;
    fleet_host &host = run->list[at];
    std::optional<in_addr> address = take_answer(*one);
    end_lookup(one);
    if (!address) {
        finish_host(run, at,
                    judged(outcome::unreachable, "its name has no address"));
        return;
    }
    host.address.sin_addr = *address;
    host.connect_limit =
        std::max<int64_t>(host.connect_limit - (now - host.began), FIRST_LOOK);
    enqueue(run, &run->to_connect, at);
}

void serve_lookups(fleet_run *run, const pollfd *polls, int64_t now) {
    for (size_t n = 0; n < run->lookups.size(); n++) {
        lookup &one = run->lookups[n];
        if (one.child <= 0) {
            continue;
        }
        if (polls[n].revents != 0) {
            serve_lookup(run, &one, now);
        } else if (now >= one.deadline) {
            int32_t at = one.host;
            end_lookup(&one);
            finish_host(run, at,
                        judged(outcome::unreachable,
                               "its name was not looked up in time"));
        }
    }
}

/* The limit of a stage that has begun now. */
int64_t stage_limit(const fleet_run &run, talk_stage stage, int64_t now) {
    if (stage == talk_stage::hanging_up) {
        return now + HANG_UP_LIMIT;
    }
    return run.options.script > 0
               ? now + static_cast<int64_t>(run.options.script) * 1000
               : 0;
}

/* True when another host shall have the place of one that does not answer. */
bool gives_way(const fleet_run &run, const talk &one, int64_t now) {
    return one.stage == talk_stage::connecting &&
           run.to_connect.first != NO_HOST && run.active >= run.window &&
           now - one.since >= FIRST_LOOK &&
           one.deadline - one.since > FIRST_LOOK &&
           !run.list[one.host].second_try;
}

/* Looks after a talk that nothing has happened to: true when it goes. */
bool check_time(fleet_run *run, int32_t at, int64_t now) {
    const talk &one = run->talks[static_cast<size_t>(at)];
    if (gives_way(*run, one, now)) {
        int32_t host = one.host;
        run->list[host].second_try = true;
        remove_talk(run, at);
        enqueue(run, &run->to_connect, host);
        return true;
    }
    if (one.deadline == 0 || now < one.deadline) {
        return false;
    }
    finish_talk(run, at, expire_talk(one));
    return true;
}

/* Goes on with a talk that is ready: true when it has ended. */
bool serve_talk(fleet_run *run, int32_t at, int64_t now) {
    talk &one = run->talks[static_cast<size_t>(at)];
    talk_stage before = one.stage;
    verdict found = continue_talk(&one, run->command);
    if (found.result != outcome::open) {
        finish_talk(run, at, found);
        return true;
    }
    if (one.stage != before) {
        one.deadline = stage_limit(*run, one.stage, now);
    }
    return false;
}

/* From the last to the first: who takes the place of one that has ended has
 * been served already. */
void serve_talks(fleet_run *run, const pollfd *polls, int32_t polled,
                 int64_t now) {
    for (int32_t at = polled - 1; at >= 0; at--) {
        if (polls[at].revents != 0) {
            serve_talk(run, at, now);
        } else {
            check_time(run, at, now);
        }
    }
}

/* --- waiting --- */

short wanted_events(talk_stage stage) {
    switch (stage) {
    case talk_stage::connecting:
        return POLLOUT;
    case talk_stage::answering:
        return POLLIN;
    case talk_stage::hanging_up:
        break;
    }
    return 0;
}

int64_t earlier_of(int64_t limit, int64_t deadline) {
    return deadline > 0 ? std::min(limit, deadline) : limit;
}

/* Fills the array of what is waited for: out, err, look-ups, talks. Returns
 * when the wait has to end at the latest. */
int64_t prepare_wait(fleet_run *run, int64_t now) {
    size_t used = 0;
    for (const out_stream *stream : {&run->out, &run->err}) {
        run->polls[used++] = {has_waiting(*stream) ? stream->fd : -1, POLLOUT,
                              0};
    }
    int64_t limit = now + 1000;
    if (run->shown.wanted) {
        limit = earlier_of(limit, run->shown.next);
    }
    limit = earlier_of(limit, run->end);
    for (const lookup &one : run->lookups) {
        run->polls[used++] = {one.answer.get(), POLLIN, 0};
        limit = one.child > 0 ? earlier_of(limit, one.deadline) : limit;
    }
    bool crowded = run->to_connect.first != NO_HOST;
    for (int32_t at = 0; at < run->active; at++) {
        const talk &one = run->talks[static_cast<size_t>(at)];
        run->polls[used++] = {one.socket.get(), wanted_events(one.stage), 0};
        limit = earlier_of(limit, one.deadline);
        if (crowded && one.stage == talk_stage::connecting &&
            !run->list[one.host].second_try) {
            limit = earlier_of(limit, one.since + FIRST_LOOK);
        }
    }
    if (crowded && run->active < run->window) {
        limit = std::max(run->retry, now);
    }
    bool lookups_wait = run->to_look_up.first != NO_HOST;
    return lookups_wait ? std::min(limit, now + SHORTAGE_PAUSE) : limit;
}

timespec as_timespec(int64_t milliseconds) {
    milliseconds = std::max<int64_t>(milliseconds, 0);
    return {static_cast<time_t>(milliseconds / 1000),
            static_cast<long>(milliseconds % 1000 * 1000000)};
}

/* Waits once and serves what is ready. */
void serve_once(fleet_run *run) {
    int64_t now = milliseconds_now();
    timespec limit = as_timespec(prepare_wait(run, now) - now);
    size_t first = 2 + run->lookups.size();
    int32_t polled = run->active;
    int ready = ppoll(run->polls.begin(), first + static_cast<size_t>(polled),
                      &limit, &run->wait_mask);
    if (ready < 0) {
        for (pollfd &one : run->polls) {
            one.revents = 0;
        }
    }
    now = milliseconds_now();
    serve_talks(run, run->polls.begin() + first, polled, now);
    serve_lookups(run, run->polls.begin() + 2, now);
    if (polled >= CROWD && ready < polled / 16 && ready > 0) {
        /* Looking at so many for one answer costs more than to let some
         * answers come together. */
        timespec pause = as_timespec(CROWD_PAUSE);
        ppoll(nullptr, 0, &pause, &run->wait_mask);
    }
}

void write_results(fleet_run *run) {
    if (has_waiting(run->out)) {
        if (run->out.terminal) {
            clear_progress(&run->shown, &run->err);
        }
        write_waiting(&run->out);
    }
    write_waiting(&run->err);
}

/* --- a whole run --- */

void handle_signals(fleet_run *run) {
    sigset_t stops;
    sigemptyset(&stops);
    stop_signal = 0;
    for (const stop_name &stop : STOPS) {
        struct sigaction before {};
        sigaction(stop.number, nullptr, &before);
        /* Who has started us under nohup or in the background means it. */
        if (before.sa_handler != SIG_IGN) {
            sigaddset(&stops, stop.number);
            set_signal(stop.number, note_signal, 0);
        }
    }
    sigprocmask(SIG_BLOCK, &stops, &run->wait_mask);
    for (const stop_name &stop : STOPS) {
        sigdelset(&run->wait_mask, stop.number);
    }
}

/* How many descriptors there may be; the soft limit is raised for that. */
int32_t raise_descriptors(int32_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 64;
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

void queue_hosts(fleet_run *run) {
    for (size_t at = 0; at < run->list.count; at++) {
        int32_t number = static_cast<int32_t>(at);
        const fleet_host &host = run->list[number];
        if (host.skipped) {
            continue;
        }
        run->total++;
        if (host.fault) {
            finish_host(run, number,
                        judged(outcome::invalid, "%s", host.fault));
        } else {
            enqueue(run, host.by_name ? &run->to_look_up : &run->to_connect,
                    number);
        }
    }
}

/* Makes room for as many at a time as there are descriptors: false without
 * memory. */
bool make_room(fleet_run *run) {
    auto names = static_cast<int32_t>(std::count_if(
        run->list.begin(), run->list.end(), [](const fleet_host &host) {
            return host.by_name && !host.fault && !host.skipped;
        }));
    int32_t children = std::min(names, MOST_LOOKUPS);
    int32_t wanted =
        std::min(static_cast<int32_t>(run->list.count), MOST_AT_ONCE);
    run->descriptors = raise_descriptors(wanted + children + KEPT_FOR_OTHERS);
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
    return run.lines.total() >= run.total || stop_signal != 0 ||
           (run.end > 0 && milliseconds_now() >= run.end);
}

/* Those that have no result when a run is ended get one. */
void finish_rest(fleet_run *run) {
    const char *why = stop_signal ? stop_text() : "the limit of the whole";
    for (lookup &one : run->lookups) {
        end_lookup(&one);
    }
    while (run->active > 0) {
        bool told = run->talks[static_cast<size_t>(run->active - 1)].stage !=
                    talk_stage::connecting;
        finish_talk(run, run->active - 1,
                    judged(outcome::timeout,
                           told ? "told, but no answer before %s"
                                : "not told: no connection before %s",
                           why));
    }
    for (size_t at = 0; at < run->list.count; at++) {
        const fleet_host &host = run->list[static_cast<int32_t>(at)];
        if (!host.finished && !host.skipped) {
            finish_host(run, static_cast<int32_t>(at),
                        judged(outcome::timeout, "not told before %s", why));
        }
    }
}

/* When writing the rest has to end: with a limit of the whole, or when it was
 * told to end, nobody may wait for a reader; else there is no such time. */
int64_t end_of_writing(const fleet_run &run, int64_t now) {
    if (run.stopped) {
        return now + LAST_WORDS;
    }
    return run.end > 0 ? std::max(run.end, now) + LAST_WORDS : 0;
}

/* Writes what is left. With a limit, who takes nothing for a second is no
 * reader; a signal is the end of it. */
void write_rest(fleet_run *run) {
    stop_signal = 0;
    int64_t end = end_of_writing(*run, milliseconds_now());
    size_t left = 0;
    int64_t moved = 0;
    for (;;) {
        write_results(run);
        int64_t now = milliseconds_now();
        size_t still = left_to_write(run->out) + left_to_write(run->err);
        moved = still == left ? moved : now;
        left = still;
        bool late = end > 0 && (now >= end || now >= moved + LAST_WORDS);
        if (left == 0 || late || stop_signal != 0) {
            return;
        }
        pollfd both[2] = {
            {has_waiting(run->out) ? run->out.fd : -1, POLLOUT, 0},
            {has_waiting(run->err) ? run->err.fd : -1, POLLOUT, 0}};
        timespec limit = as_timespec(LAST_WORDS / 4);
        ppoll(both, 2, &limit, &run->wait_mask);
    }
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
    run->stopped = stop_signal != 0;
    finish_rest(run);
}

} // namespace

int32_t run_fleet(host_list *list, const fleet_command &command,
                  const fleet_options &options) {
    fleet_run run{*list, command.text.get(), options};
    run.out = open_out(STDOUT_FILENO);
    run.err = open_out(STDERR_FILENO);
    run.lines.form = options.form;
    run.lines.label = options.label;
    run.start = milliseconds_now();
    run.end = options.whole > 0
                  ? run.start + static_cast<int64_t>(options.whole) * 1000
                  : 0;
    run.shown.wanted = !options.quiet;
    run.shown.start = run.start;
    run.shown.end = run.end;
    run.shown.next = run.start + 250;
    if (!make_room(&run)) {
        fprintf(stderr, "%s: %s\n", progname, strerror(ENOMEM));
        return 2;
    }
    append_heading(&run.out.waiting, run.lines);
    handle_signals(&run);
    queue_hosts(&run);
    drive(&run);
    write_summary(&run, stop_signal ? stop_text() : nullptr);
    return run.lines.count(outcome::done) == run.total ? 0 : 1;
}

int32_t show_fleet(host_list *list, const fleet_command &command,
                   const fleet_options &options) {
    text_buffer text;
    bool faulty = false;
    for (const fleet_host &host : *list) {
        if (host.skipped) {
            continue;
        }
        faulty = faulty || host.fault;
        append_text(&text, options.label ? options.label : "");
        append_text(&text, options.label ? ": " : "");
        append_text(&text, host.fault ? "not sent to " : "would be sent to ");
        append_safe(&text, host.target, text_place::line);
        append_text(&text, host.name.empty() ? "" : "  ");
        append_safe(&text, host.name, text_place::line);
        append_text(&text, ": ");
        append_safe(&text, host.fault ? host.fault : command.shown(),
                    text_place::line);
        append_text(&text, "\n");
    }
    fwrite(text.bytes.get(), 1, text.length, stdout);
    fflush(stdout);
    return faulty ? 1 : 0;
}
