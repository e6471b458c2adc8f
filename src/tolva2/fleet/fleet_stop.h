/*
 * The signals that end a run early. The handler notes the signal, and ends the
 * wait that is under way; no wait is so long that one that came just before it
 * would be answered late.
 */
#ifndef TOLVA2_FLEET_FLEET_STOP_H
#define TOLVA2_FLEET_FLEET_STOP_H

/* Handles INT, TERM and HUP, but those that are ignored already. */
void handle_stops();

/* True when one has come since they were last forgotten. */
[[nodiscard]] bool has_stopped();

/* The name of the last; null without one. */
[[nodiscard]] const char *stop_text();

void forget_stops();

#endif
