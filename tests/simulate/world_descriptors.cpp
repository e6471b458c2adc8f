/*
 * The table of descriptors, and what each of them is.
 */
#include "world.h"

#include <cerrno>

namespace simulate {

int world::open_number(holds what, int from, bool close_on_exec) {
    if (shortage_error == EMFILE || shortage_error == ENFILE) {
        errno = shortage_error;
        return -1;
    }
    if (from >= descriptor_limit && from > 0) {
        errno = EINVAL;
        return -1;
    }
    auto number = static_cast<size_t>(from);
    while (number < table.size() && table[number].what != holds::nothing) {
        number++;
    }
    if (static_cast<int>(number) >= descriptor_limit) {
        errno = EMFILE;
        return -1;
    }
    if (number >= table.size()) {
        table.resize(number + 1);
    }
    table[number] = {what, close_on_exec, 0};
    return static_cast<int>(number);
}

int world::held() const {
    int count = 0;
    for (const descriptor &one : table) {
        count += one.what == holds::reserve ? 1 : 0;
    }
    return count;
}

/* What is held back helps only at numbers that can be had again. */
void world::check_reserve() const {
    for (size_t fd = 0; fd < table.size(); fd++) {
        if (table[fd].what == holds::reserve &&
            limit_asked == descriptor_limit &&
            static_cast<int>(fd) >= descriptor_limit) {
            fail("accepts with a reserve above the limit of descriptors");
        }
    }
}

simulated_socket *world::socket_of(int fd) {
    if (fd < 0 || static_cast<size_t>(fd) >= table.size() ||
        table[static_cast<size_t>(fd)].what != holds::socket) {
        return nullptr;
    }
    return &sockets[table[static_cast<size_t>(fd)].socket];
}

void world::close_number(int fd) {
    if (fd < 0 || static_cast<size_t>(fd) >= table.size() ||
        table[static_cast<size_t>(fd)].what == holds::nothing ||
        table[static_cast<size_t>(fd)].what == holds::inherited) {
        fail("closes descriptor " + std::to_string(fd) + ", which is not its");
    }
    descriptor *one = &table[static_cast<size_t>(fd)];
    if (one->what == holds::socket) {
        listener = listener == one->socket ? 0 : listener;
        datagram_socket = datagram_socket == one->socket ? 0 : datagram_socket;
        sockets.erase(one->socket);
    }
    *one = descriptor{};
}

} // namespace simulate
