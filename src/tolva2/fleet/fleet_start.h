/*
 * The beginning of talks and look-ups: as many as there is room for, and what
 * becomes of them when this host has no means left.
 */
#ifndef TOLVA2_FLEET_FLEET_START_H
#define TOLVA2_FLEET_FLEET_START_H

#include "tolva2/fleet/fleet_state.h"

/* Puts every host that is not skipped into its queue; the invalid get their
 * result. */
void queue_hosts(fleet_run *run);

/* Opens connections for hosts that wait, some hundreds at most. */
void start_talks(fleet_run *run, int64_t now);

/* Starts look-ups for names that wait. */
void start_lookups(fleet_run *run, int64_t now);

#endif
