/*
 * The sets that the wait takes, and their counters. Nobody else sees them:
 * what is watched, found and closed goes through the functions here.
 */
#include "tolva2/net/descriptors.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/select.h>

namespace {

/* What a wait is for, and what the last one has found. */
struct {
    fd_set readfds;
    fd_set writefds;
    fd_set ready_read;
    fd_set ready_write;
    int32_t maxfd;   /* at least the highest open descriptor */
    int32_t nfds;    /* open descriptors */
    int32_t numbers; /* that there are for them */
} state;

void put(int32_t fd, fd_set *set, bool in) {
    if (in) {
        FD_SET(fd, set);
    } else {
        FD_CLR(fd, set);
    }
}

void watch_number(int32_t fd, event_bits events) {
    put(fd, &state.readfds, events & EVENT_READABLE);
    put(fd, &state.writefds, events & EVENT_WRITABLE);
}

void add_descriptor(int32_t fd, event_bits events) {
    trace_in();
    watch_number(fd, events);
    state.maxfd = std::max(state.maxfd, fd);
    state.nfds++;
}

void close_descriptor(int32_t fd) {
    trace_in();
    ux_fd closes_it(fd);
    watch_number(fd, EVENT_NONE);
    FD_CLR(fd, &state.ready_read);
    FD_CLR(fd, &state.ready_write);
    /* One less is still an upper bound, and needs no search. */
    if (fd == state.maxfd) {
        state.maxfd--;
    }
    state.nfds--;
}

event_bits found_in(const watched_fd &fd, const fd_set *readable,
                    const fd_set *writable) {
    if (!fd) {
        return EVENT_NONE;
    }
    return (FD_ISSET(fd.get(), readable) ? EVENT_READABLE : EVENT_NONE) |
           (FD_ISSET(fd.get(), writable) ? EVENT_WRITABLE : EVENT_NONE);
}

} // namespace

watched_fd::watched_fd(ux_fd opened, event_bits events) : fd(opened.release()) {
    if (fd >= 0) {
        add_descriptor(fd, events);
    }
}

watched_fd::watched_fd(watched_fd &&other) noexcept
    : fd(std::exchange(other.fd, -1)) {}

watched_fd &watched_fd::operator=(watched_fd &&other) noexcept {
    if (this != &other) {
        reset();
        fd = std::exchange(other.fd, -1);
    }
    return *this;
}

watched_fd::~watched_fd() { reset(); }

void watched_fd::reset() {
    if (fd >= 0) {
        close_descriptor(std::exchange(fd, -1));
    }
}

void watch(const watched_fd &fd, event_bits events) {
    if (fd) {
        watch_number(fd.get(), events);
    }
}

event_bits watched(const watched_fd &fd) {
    return found_in(fd, &state.readfds, &state.writefds);
}

event_bits ready(const watched_fd &fd) {
    return found_in(fd, &state.ready_read, &state.ready_write);
}

void reset_descriptors(int32_t first_maxfd) {
    trace_in();
    state = {};
    state.maxfd = first_maxfd;
    state.numbers = FD_SETSIZE;
}

int32_t open_descriptors() { return state.nfds; }

int32_t highest_descriptor() { return state.maxfd; }

bool descriptor_left() { return state.nfds < max_fds; }

void count_numbers() {
    state.numbers = 0;
    for (int32_t fd = 0; fd < FD_SETSIZE; fd++) {
        state.numbers += fcntl(fd, F_GETFD) < 0 ? 1 : 0;
    }
}

bool number_left() { return state.nfds < state.numbers; }

int32_t why_unwatchable(const ux_fd &fd) {
    if (!fd) {
        return errno;
    }
    return fd.get() < FD_SETSIZE ? 0 : EMFILE;
}

wait_result wait_for_descriptors(int64_t seconds, const sigset_t *mask) {
    state.ready_read = state.readfds;
    state.ready_write = state.writefds;
    timespec limit{};
    limit.tv_sec = static_cast<time_t>(seconds);
    int found = pselect(state.maxfd + 1, &state.ready_read, &state.ready_write,
                        nullptr, seconds < 0 ? nullptr : &limit, mask);
    int32_t error = found < 0 ? errno : 0;
    if (found < 0) {
        /* They still say what was asked for. */
        FD_ZERO(&state.ready_read);
        FD_ZERO(&state.ready_write);
    }
    return {found, error};
}
