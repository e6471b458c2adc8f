/*
 * The waits, and how long they may be.
 */
#include "tolva2/fleet/fleet_wait.h"
#include "tolva2/fleet/fleet_clock.h"
#include "tolva2/fleet/fleet_serve.h"
#include "tolva2/fleet/fleet_stop.h"

#include <algorithm>

namespace {

/* Milliseconds. */
constexpr int64_t LONGEST_WAIT = 250; /* a signal may just have come */
constexpr int64_t CHILD_PAUSE = 50;
constexpr int64_t LAST_WORDS = 1000; /* for writing, behind the end */

/* With so many, a wait is not short, whatever comes. */
constexpr int32_t CROWD = 512;
constexpr int32_t FEW_OF_A_CROWD = 16; /* one of so many */
constexpr int64_t CROWD_PAUSE = 1;

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

/* Fills the place of a talk in what is waited for: when it is due. */
int64_t prepare_talk(const fleet_run &run, const talk &one, pollfd *poll) {
    *poll = {one.socket.get(), wanted_events(one.stage), 0};
    bool may_give_way = one.stage == talk_stage::connecting &&
                        run.to_connect.first != NO_HOST &&
                        !run.list[one.host].second_try;
    return may_give_way ? earlier_of(one.since + FIRST_LOOK, one.deadline)
                        : one.deadline;
}

/* When a wait has to end for what is to be begun or shown. */
int64_t limit_of_wait(const fleet_run &run, int64_t now) {
    int64_t limit = earlier_of(now + LONGEST_WAIT, run.end);
    if (run.shown.wanted) {
        limit = earlier_of(limit, run.shown.next);
    }
    if (run.to_look_up.first != NO_HOST) {
        limit = std::min(limit, now + CHILD_PAUSE);
    }
    if (run.to_connect.first != NO_HOST && run.active < run.window) {
        limit = now;
    }
    if (run.retry > 0) {
        limit = std::max(run.retry, now);
    }
    return limit;
}

/* Fills the array of what is waited for: out, err, look-ups, talks. Returns
 * when the wait has to end at the latest. */
int64_t prepare_wait(fleet_run *run, int64_t now) {
    int64_t limit = limit_of_wait(*run, now);
    size_t used = 0;
    for (const out_stream *stream : {&run->out, &run->err}) {
        run->polls[used++] = {has_waiting(*stream) ? stream->fd : -1, POLLOUT,
                              0};
    }
    for (const lookup &one : run->lookups) {
        run->polls[used++] = {one.answer.get(), POLLIN, 0};
        limit = one.child > 0 ? earlier_of(limit, one.deadline) : limit;
    }
    for (size_t at = 0; at < static_cast<size_t>(run->active); at++) {
        limit = earlier_of(
            limit, prepare_talk(*run, run->talks[at], &run->polls[used++]));
    }
    return limit;
}

/* Waits for so many milliseconds. What it has found is in the array; after a
 * signal nothing is. */
int wait_for(pollfd *polls, size_t count, int64_t milliseconds) {
    int ready = poll(polls, static_cast<nfds_t>(count),
                     static_cast<int>(std::max<int64_t>(milliseconds, 0)));
    for (size_t at = 0; ready < 0 && at < count; at++) {
        polls[at].revents = 0;
    }
    return ready;
}

/* When writing the rest has to end: with a limit of the whole, or when it was
 * told to end, nobody may wait for a reader; else there is no such time. */
int64_t end_of_writing(const fleet_run &run, int64_t now) {
    if (run.stopped) {
        return now + LAST_WORDS;
    }
    return run.end > 0 ? std::max(run.end, now) + LAST_WORDS : 0;
}

} // namespace

void serve_once(fleet_run *run) {
    int64_t now = milliseconds_now();
    int64_t limit = prepare_wait(run, now) - now;
    size_t first = 2 + run->lookups.size();
    int32_t polled = run->active;
    int ready = wait_for(run->polls.begin(),
                         first + static_cast<size_t>(polled), limit);
    now = milliseconds_now();
    serve_talks(run, run->polls.begin() + first, polled, now);
    serve_lookups(run, run->polls.begin() + 2, now);
    if (polled >= CROWD && ready < polled / FEW_OF_A_CROWD && ready > 0) {
        /* Looking at so many for one answer costs more than to let some
         * answers come together. */
        wait_for(nullptr, 0, CROWD_PAUSE);
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

void write_rest(fleet_run *run) {
    forget_stops();
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
        if (left == 0 || late || has_stopped()) {
            return;
        }
        pollfd both[2] = {
            {has_waiting(run->out) ? run->out.fd : -1, POLLOUT, 0},
            {has_waiting(run->err) ? run->err.fd : -1, POLLOUT, 0}};
        wait_for(both, 2, LONGEST_WAIT);
    }
}
