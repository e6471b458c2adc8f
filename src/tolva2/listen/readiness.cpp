/*
 * One datagram for each state, to the socket that the environment variable
 * NOTIFY_SOCKET names: a path, or an abstract name behind an "@".
 */
#include "tolva2/listen/readiness.h"
#include "tolva2/files/logfile.h"
#include "unixtools/ux_owned.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace {

constexpr timeval PATIENCE{5, 0}; /* with a manager that is busy */

struct {
    sockaddr_un address;
    socklen_t length; /* 0: there is no manager */
} manager;

void find_manager(std::string_view name) {
    if (name.size() > sizeof manager.address.sun_path) {
        log_system(ENAMETOOLONG);
        return;
    }
    manager.address.sun_family = AF_UNIX;
    name.copy(manager.address.sun_path, name.size());
    if (name.starts_with('@')) {
        manager.address.sun_path[0] = '\0';
    }
    manager.length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

bool send_state(std::string_view state) {
    ux_fd fd(socket(AF_UNIX, SOCK_DGRAM, 0));
    return fd &&
           setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &PATIENCE,
                      sizeof PATIENCE) == 0 &&
           sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL,
                  static_cast<const sockaddr *>(
                      static_cast<const void *>(&manager.address)),
                  manager.length) >= 0;
}

void announce(std::string_view state) {
    if (manager.length > 0 && !send_state(state)) {
        log_system(errno);
    }
}

} // namespace

void announce_ready() {
    const char *name = getenv("NOTIFY_SOCKET");
    if (ux_is_empty(name)) {
        return;
    }
    find_manager(name);
    unsetenv("NOTIFY_SOCKET");
    announce("READY=1");
}

void announce_stopping() { announce("STOPPING=1"); }
