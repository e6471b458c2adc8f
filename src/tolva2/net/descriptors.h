/*
 * The sockets that a mode's loop waits for: which events each is watched for,
 * how many there are, and the one wait of both modes. A watched socket has an
 * owner; when it closes, nothing of the socket is left in any set or count.
 */
#ifndef TOLVA2_NET_DESCRIPTORS_H
#define TOLVA2_NET_DESCRIPTORS_H

#include "tolva2/base/codes.h"
#include "unixtools/ux_owned.h"

#include <csignal>

/* A socket that is counted and may be watched, or none: -1. */
class watched_fd {
  public:
    watched_fd() = default;
    /* Counts a newly opened socket, if it is one, and watches it. */
    watched_fd(ux_fd opened, event_bits events);
    watched_fd(watched_fd &&other) noexcept;
    watched_fd &operator=(watched_fd &&other) noexcept;
    ~watched_fd();

    explicit operator bool() const { return fd >= 0; }
    int32_t get() const { return fd; }
    /* Closes the socket and takes it out of the pass that is running too, so
     * that a number opened again within it starts clean. */
    void reset();

  private:
    int32_t fd = -1;
};

/* From now on the socket, if there is one, is watched for just these. */
void watch(const watched_fd &fd, event_bits events);

/* What the socket is watched for; nothing for none. */
[[nodiscard]] event_bits watched(const watched_fd &fd);

/* What the last wait has found for the socket; nothing for none. */
[[nodiscard]] event_bits ready(const watched_fd &fd);

/* Nothing open: before a mode's loop, which differ in their first maxfd. */
void reset_descriptors(int32_t first_maxfd);

/* How many are open, and a number that none of them is above. */
[[nodiscard]] int32_t open_descriptors();
[[nodiscard]] int32_t highest_descriptor();

/* True while the budget, max_fds, allows one more. */
[[nodiscard]] bool descriptor_left();

/* Counts, before anything is open, the numbers that a wait can look at and
 * that nobody else has; number_left is false once they are used up. */
void count_numbers();
[[nodiscard]] bool number_left();

/* Why a new socket cannot be watched: errno when there is none, EMFILE for a
 * number past what the wait can look at; 0 when it can. */
[[nodiscard]] int32_t why_unwatchable(const ux_fd &fd);

struct wait_result {
    int32_t ready; /* sockets and directions; 0: time is up; -1: see error */
    int32_t error;
};

/* Waits until a watched socket is ready, a signal comes or so many seconds
 * have passed; below 0: without limit. mask (may be null) holds while waiting
 * only. See ready() for what was found. */
[[nodiscard]] wait_result wait_for_descriptors(int64_t seconds,
                                               const sigset_t *mask);

#endif
