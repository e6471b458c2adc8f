/*
 * The lists of both modes and the records in them, with what a session needs
 * around it: sockets, the operator's log, children.
 */
#ifndef TESTS_UNIT_SESSIONS_H
#define TESTS_UNIT_SESSIONS_H

#include "capture.h"
#include "children.h"
#include "descriptor_numbers.h"
#include "loopback.h"
#include "operator_log.h"

#include "tolva2/base/process_state.h"
#include "tolva2/net/connection.h"

#include <chrono>
#include <cstring>
#include <utility>

/* Both lists, empty, with nothing counted as open. */
class session_lists {
  public:
    explicit session_lists(int32_t first_maxfd = 0) {
        ux_list_init(&client_list, destroy_connection);
        ux_list_init(&connection_list, destroy_connection);
        clients = &client_list;
        connections = &connection_list;
        budget = max_fds;
        max_fds = 256;
        reset_descriptors(first_maxfd);
    }
    ~session_lists() {
        ux_list_destroy(&client_list);
        ux_list_destroy(&connection_list);
        clients = nullptr;
        connections = nullptr;
        max_fds = budget;
        reset_descriptors(0);
    }
    session_lists(const session_lists &) = delete;
    session_lists &operator=(const session_lists &) = delete;

  private:
    ux_list client_list;
    ux_list connection_list;
    int32_t budget;
};

/*
 * Nothing is left in what a wait is for: a number that has been closed would
 * make it fail. Leaves its mark on the highest descriptor.
 */
inline bool nothing_is_watched() {
    watched_fd highest(socket_with_number(FD_SETSIZE - 1), EVENT_NONE);
    return wait_for_descriptors(0, nullptr).ready == 0;
}

/* A new record at the end of a list, with an open socket or -1. */
inline connection *add_record(ux_list *list, mode_code mode, address_kind type,
                              const char *address, int fd = -1,
                              event_bits events = EVENT_READABLE) {
    connection_owner owner = new_connection(mode, type);
    connection *cn = owner.get();
    strncpy(cn->ipaddr, address, sizeof cn->ipaddr - 1);
    cn->addr = loopback(address, 0);
    if (fd >= 0) {
        cn->fd = watched_fd(ux_fd(fd), events);
    }
    EXPECT_TRUE(register_connection(list, std::move(owner)));
    return cn;
}

#endif
