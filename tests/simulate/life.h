/*
 * One life of the listener on the simulated system, in this process: from its
 * settings to its end, and what must be true then.
 */
#ifndef TESTS_SIMULATE_LIFE_H
#define TESTS_SIMULATE_LIFE_H

#include "plan.h"

namespace simulate {

/* In the world that is "here", which is new. Fails when something is left of
 * the listener, or when it has not done what the model says. */
void live_through(const day_plan &plan);

} // namespace simulate

#endif
