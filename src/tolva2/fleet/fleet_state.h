/*
 * What a run knows: its hosts, who waits for what, what is under way, and what
 * has been written. One record, which the steps of a run are handed.
 */
#ifndef TOLVA2_FLEET_FLEET_STATE_H
#define TOLVA2_FLEET_FLEET_STATE_H

#include "tolva2/fleet/fleet_options.h"
#include "tolva2/fleet/host_list.h"
#include "tolva2/fleet/lookup.h"
#include "tolva2/fleet/progress.h"
#include "tolva2/fleet/talk.h"

#include <poll.h>

/* Milliseconds that a host is given for its connection while others wait for
 * the place; it has its full time later. */
constexpr int64_t FIRST_LOOK = 300;

/* Hosts that wait, linked by their records. */
struct host_queue {
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
    int64_t end = 0; /* milliseconds; 0: no limit of the whole */
    host_queue to_connect{};
    host_queue to_look_up{};
    fleet_array<talk> talks{}; /* the first active are under way */
    int32_t active = 0;
    int32_t window = 0; /* how many may be under way */
    fleet_array<lookup> lookups{};
    int32_t descriptors = 0; /* that may be open */
    bool stopped = false;    /* by a signal */
    int64_t retry = 0;       /* no new connections before then: a shortage */
    fleet_array<pollfd> polls{};
};

/* A host waits behind the others, or in front of them. */
void enqueue(fleet_run *run, host_queue *waiting, int32_t host);
void put_in_front(fleet_run *run, host_queue *waiting, int32_t host);

/* Takes the first of a queue that is not empty. */
[[nodiscard]] int32_t dequeue(fleet_run *run, host_queue *waiting);

/* A host has its result. */
void finish_host(fleet_run *run, int32_t at, const verdict &found);

/* So has that of a talk, which goes; its place stays until it is taken up. */
void finish_talk(fleet_run *run, int32_t at, const verdict &found);

/* Takes up the places of talks that are gone. */
void close_ranks(fleet_run *run);

#endif
