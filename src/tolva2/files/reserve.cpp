/*
 * The reserve itself: open directories, which is what every system has and
 * which keep nothing from anybody.
 */
#include "tolva2/files/reserve.h"
#include "tolva2/base/process_state.h"

#include <cerrno>
#include <fcntl.h>
#include <initializer_list>
#include <sys/resource.h>
#include <sys/select.h>

namespace {

/* The log, and its copy while its head is cut. */
constexpr int32_t RESERVE_SIZE = 2;

ux_fd reserve[RESERVE_SIZE];

/* One more descriptor, at a number that no socket can have or is likely to:
 * past what a wait can look at, behind the budget, or at its end. */
ux_fd take_descriptor() {
    ux_fd low(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!low) {
        return low;
    }
    for (int32_t number : {FD_SETSIZE, max_fds, max_fds - RESERVE_SIZE}) {
        ux_fd high(fcntl(low.get(), F_DUPFD_CLOEXEC, number));
        if (high) {
            return high;
        }
    }
    return low;
}

} // namespace

int32_t fill_reserve() {
    /* It may be lowered while we run: a number above cannot be had again. */
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    for (ux_fd &held : reserve) {
        if (held && static_cast<rlim_t>(held.get()) >= limit.rlim_cur) {
            held.reset();
        }
        if (!held) {
            held = take_descriptor();
        }
        if (!held) {
            return errno;
        }
    }
    return 0;
}

bool give_up_reserve() {
    bool any = false;
    for (ux_fd &held : reserve) {
        any = any || held;
        held.reset();
    }
    return any;
}

bool reserve_helps(int32_t error) {
    return (error == EMFILE || error == ENFILE) && give_up_reserve();
}

ux_file open_file(const char *path, const char *mode) {
    ux_file file(fopen(path, mode));
    if (!file && reserve_helps(errno)) {
        file.reset(fopen(path, mode));
    }
    return file;
}
