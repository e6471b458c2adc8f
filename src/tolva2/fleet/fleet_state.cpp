/*
 * The queues, and the end of a host.
 */
#include "tolva2/fleet/fleet_state.h"
#include "tolva2/fleet/fleet_clock.h"

void enqueue(fleet_run *run, host_queue *waiting, int32_t host) {
    run->list[host].next = NO_HOST;
    if (waiting->first == NO_HOST) {
        waiting->first = host;
    } else {
        run->list[waiting->last].next = host;
    }
    waiting->last = host;
}

void put_in_front(fleet_run *run, host_queue *waiting, int32_t host) {
    run->list[host].next = waiting->first;
    waiting->first = host;
    if (waiting->last == NO_HOST || run->list[host].next == NO_HOST) {
        waiting->last = host;
    }
}

int32_t dequeue(fleet_run *run, host_queue *waiting) {
    int32_t host = waiting->first;
    waiting->first = run->list[host].next;
    return host;
}

void finish_host(fleet_run *run, int32_t at, const verdict &found) {
    fleet_host &host = run->list[at];
    host.finished = true;
    int64_t took = host.began ? milliseconds_now() - host.began : 0;
    append_result(&run->out.waiting, &run->lines, host, found, took);
}

void finish_talk(fleet_run *run, int32_t at, const verdict &found) {
    talk &one = run->talks[static_cast<size_t>(at)];
    finish_host(run, one.host, found);
    one = talk{};
}

void close_ranks(fleet_run *run) {
    size_t kept = 0;
    for (size_t at = 0; at < static_cast<size_t>(run->active); at++) {
        if (run->talks[at].host == NO_HOST) {
            continue;
        }
        if (kept != at) {
            run->talks[kept] = std::move(run->talks[at]);
            run->talks[at] = talk{};
        }
        kept++;
    }
    run->active = static_cast<int32_t>(kept);
}
