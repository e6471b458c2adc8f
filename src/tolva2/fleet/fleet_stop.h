/*
 * The signals that end a run early. The handler notes the signal, and signals
 * come in only where the run waits.
 */
#ifndef TOLVA2_FLEET_FLEET_STOP_H
#define TOLVA2_FLEET_FLEET_STOP_H

#include <csignal>

/* Handles INT, TERM and HUP but those that are ignored already, blocks them,
 * and returns the mask to wait with. */
[[nodiscard]] sigset_t handle_stops();

/* True when one has come since they were last forgotten. */
[[nodiscard]] bool has_stopped();

/* The name of the last; null without one. */
[[nodiscard]] const char *stop_text();

void forget_stops();

#endif
