/*
 * The reserve itself: open directories, which is what every system has and
 * which keep nothing from anybody.
 */
#include "tolva2/files/reserve.h"
#include "tolva2/base/process_state.h"

#include <cerrno>
#include <fcntl.h>

namespace
{

/* The log, and its copy while its head is cut. */
constexpr int32_t RESERVE_SIZE = 2;

ux_fd reserve[RESERVE_SIZE];

/* One more descriptor, at a number above those of the sockets if there is
 * one. */
ux_fd take_descriptor()
{
    ux_fd low(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!low) {
        return low;
    }
    ux_fd high(fcntl(low.get(), F_DUPFD_CLOEXEC, max_fds - RESERVE_SIZE));
    return high ? std::move(high) : std::move(low);
}

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE;
}

} // namespace

int32_t fill_reserve()
{
    for (ux_fd &held : reserve) {
        if (!held) {
            held = take_descriptor();
        }
        if (!held) {
            return errno;
        }
    }
    return 0;
}

bool give_up_reserve()
{
    bool any = false;
    for (ux_fd &held : reserve) {
        any = any || held;
        held.reset();
    }
    return any;
}

ux_file open_file(const char *path, const char *mode)
{
    ux_file file(fopen(path, mode));
    if (!file && is_shortage(errno) && give_up_reserve()) {
        file.reset(fopen(path, mode));
    }
    return file;
}
