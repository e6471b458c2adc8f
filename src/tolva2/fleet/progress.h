/*
 * How far a run is, on standard error: a line that is rewritten in place on a
 * terminal, and a line each second elsewhere.
 */
#ifndef TOLVA2_FLEET_PROGRESS_H
#define TOLVA2_FLEET_PROGRESS_H

#include "tolva2/fleet/out_stream.h"
#include "tolva2/fleet/results.h"

struct progress {
    bool wanted = true;
    int64_t next = 0;  /* when the next line is due, milliseconds */
    size_t shown = 0;  /* characters that stand on the terminal's line */
    int64_t start = 0; /* of the run */
    int64_t end = 0;   /* of the run at the latest; 0: not limited */
};

/* Writes how far it is, when it is time to and there is room for it. */
void show_progress(progress *state, out_stream *err, const result_lines &lines,
                   int32_t total, int64_t now);

/* Takes the line off the terminal, so that others can be written there. */
void clear_progress(progress *state, out_stream *err);

#endif
