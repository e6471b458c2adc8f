/*
 * Where a run waits: for its hosts, and at its end for the readers of its
 * results. Nowhere else does it, and signals come in only there.
 */
#ifndef TOLVA2_FLEET_FLEET_WAIT_H
#define TOLVA2_FLEET_FLEET_WAIT_H

#include "tolva2/fleet/fleet_state.h"

/* Waits until something happens or is due, and serves that. */
void serve_once(fleet_run *run);

/* Writes what results and errors there is room for. */
void write_results(fleet_run *run);

/* Writes the rest of them. With a limit of the whole, or after a signal, who
 * takes nothing for a second is no reader; else it waits for them. */
void write_rest(fleet_run *run);

#endif
