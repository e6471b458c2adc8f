/*
 * Standard output and standard error, written to without ever waiting: who
 * does not read our lines must not keep a host from being told. Lines wait in
 * memory until there is room for them.
 */
#ifndef TOLVA2_FLEET_OUT_STREAM_H
#define TOLVA2_FLEET_OUT_STREAM_H

#include "tolva2/fleet/fleet_text.h"

struct out_stream {
    int fd = -1; /* not owned: 1 or 2 */
    bool terminal = false;
    int error = 0;       /* why nothing can be written any more; 0: it can */
    size_t written = 0;  /* bytes of waiting that are out */
    text_buffer waiting; /* whole lines, but for a progress line */
};

/* A stream of a standard descriptor. */
[[nodiscard]] out_stream open_out(int fd);

/* How many bytes wait that may still be written. */
[[nodiscard]] size_t left_to_write(const out_stream &out);

/* True when there are any. */
[[nodiscard]] bool has_waiting(const out_stream &out);

/* Writes what can be written at once, in pieces that end with a line where
 * one is in them, so that other writers do not come between. */
void write_waiting(out_stream *out);

#endif
