/*
 * The listener's loop once more: one that was stopped starts again, as if its
 * process were a new one.
 */
#include "tolva2/listen/tolva_receive.cpp"

void listener_begins_anew();

void listener_begins_anew() {
    running = 1;
    child_ended = 0;
}
