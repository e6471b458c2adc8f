/*
 * What is done with talks and look-ups when something has happened to them,
 * or when their time is up.
 */
#ifndef TOLVA2_FLEET_FLEET_SERVE_H
#define TOLVA2_FLEET_FLEET_SERVE_H

#include "tolva2/fleet/fleet_state.h"

/* Serves as many of the first talks as have been waited for, with what the
 * wait has found of each. */
void serve_talks(fleet_run *run, const pollfd *polls, int32_t polled,
                 int64_t now);

/* The same for all look-ups. */
void serve_lookups(fleet_run *run, const pollfd *polls, int64_t now);

/* Ends what is under way, and gives each host that has no result one. */
void finish_rest(fleet_run *run);

#endif
