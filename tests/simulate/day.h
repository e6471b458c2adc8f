/*
 * One day: the listener lives it in a process of its own, then the model says
 * whether it has lived it well.
 */
#ifndef TESTS_SIMULATE_DAY_H
#define TESTS_SIMULATE_DAY_H

#include "plan.h"

#include <atomic>

namespace simulate {

/* What all days have come to, in memory that their processes share. */
struct totals {
    std::atomic<int64_t> days, sessions, datagrams, scripts, exchanges, lines,
        facts, failed_seed;
};

struct day_result {
    bool well = true;
    std::string why{};
};

/* Lives the day in a new process. trace: with every fact on standard output. */
day_result live(const day_plan &plan, totals *sums, bool trace);

} // namespace simulate

#endif
