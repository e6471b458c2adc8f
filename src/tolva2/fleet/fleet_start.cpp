/*
 * Beginning with hosts. A shortage of descriptors or memory is this host's and
 * says nothing of the other: it waits again.
 */
#include "tolva2/fleet/fleet_start.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr int32_t STARTED_IN_A_ROW = 256;
constexpr int64_t SHORTAGE_PAUSE = 50; /* milliseconds */

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
bool has_place(const fleet_run &run) {
    return run.to_connect.first != NO_HOST && run.active < run.window &&
           run.retry == 0;
}

/* Has a name looked up in that place: false when it has to wait. */
bool start_in(fleet_run *run, lookup *one, int64_t now) {
    int32_t at = dequeue(run, &run->to_look_up);
    fleet_host &host = run->list[at];
    begin_host(run, &host, now);
    if (start_lookup(one, host.host, run->options.connect, run->descriptors)) {
        one->host = at;
        one->deadline = host.began + host.connect_limit;
        return true;
    }
    if (now - host.began > host.connect_limit) {
        finish_host(run, at,
                    judged(outcome::unreachable, "cannot look the name up: %s",
                           strerror(errno)));
        return true;
    }
    put_in_front(run, &run->to_look_up, at);
    return false;
}

} // namespace

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

void start_talks(fleet_run *run, int64_t now) {
    if (now >= run->retry) {
        run->retry = 0;
        run->window = static_cast<int32_t>(run->talks.size());
    }
    for (int32_t n = 0; n < STARTED_IN_A_ROW && has_place(*run); n++) {
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
        if (one.child <= 0 && !start_in(run, &one, now)) {
            return;
        }
    }
}
