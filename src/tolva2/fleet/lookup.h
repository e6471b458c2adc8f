/*
 * Names looked up beside everything else: a child for each, because the C
 * library's resolver cannot be interrupted, and only so many at a time.
 */
#ifndef TOLVA2_FLEET_LOOKUP_H
#define TOLVA2_FLEET_LOOKUP_H

#include "unixtools/ux_owned.h"

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string_view>
#include <sys/types.h>

/* A look-up under way; one that goes takes its child with it. */
struct lookup {
    lookup() = default;
    lookup(const lookup &) = delete;
    lookup &operator=(const lookup &) = delete;
    ~lookup();
    ux_fd answer;
    pid_t child = -1; /* -1: none */
    int32_t host = -1;
    int64_t deadline = 0;
};

/* Starts the look-up of a name, which ends by itself after that many seconds.
 * False, with errno, when there is no child to be had. Descriptors below
 * descriptors are closed in the child. */
[[nodiscard]] bool start_lookup(lookup *one, std::string_view name,
                                int32_t seconds, int32_t descriptors);

/* The answer of a child whose pipe is readable; none without one. */
[[nodiscard]] std::optional<in_addr> take_answer(const lookup &one);

/* Ends the child, whatever it does. */
void end_lookup(lookup *one);

#endif
