/*
 * Sockets on the loopback addresses, and waiting for them with a bound.
 */
#ifndef TESTS_UNIT_LOOPBACK_H
#define TESTS_UNIT_LOOPBACK_H

#include "unixtools/ux_owned.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

constexpr int WAIT_LIMIT_MS = 20000;

/* Polls until condition holds; false when it does not in 20 seconds. */
template <typename condition_type> bool wait_until(condition_type condition) {
    for (int waited = 0; waited < WAIT_LIMIT_MS; waited += 10) {
        if (condition()) {
            return true;
        }
        usleep(10000);
    }
    return condition();
}

/* Waits for poll events on a descriptor; false when none came in time. */
inline bool wait_for(int fd, short events) {
    pollfd one{fd, events, 0};
    return poll(&one, 1, WAIT_LIMIT_MS) == 1;
}

inline sockaddr_in loopback(const char *dotted, uint16_t port) {
    sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_aton(dotted, &address.sin_addr);
    return address;
}

inline const sockaddr *generic(const sockaddr_in *address) {
    const void *any = address;
    return static_cast<const sockaddr *>(any);
}

inline sockaddr *generic(sockaddr_in *address) {
    void *any = address;
    return static_cast<sockaddr *>(any);
}

inline sockaddr_in local_name(int fd) {
    sockaddr_in address = loopback("0.0.0.0", 0);
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, generic(&address), &length), 0);
    return address;
}

inline uint16_t local_port(int fd) { return ntohs(local_name(fd).sin_port); }

/* A socket of that type, bound to a free port of a loopback address. */
inline int bound_socket(int type, const char *dotted = "127.0.0.1",
                        uint16_t port = 0) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(dotted, port);
    if (fd < 0 || bind(fd, generic(&address), sizeof address) < 0) {
        ADD_FAILURE() << "no socket on " << dotted << ": " << strerror(errno);
    }
    return fd;
}

/* A listening TCP socket. */
inline int listening_socket(const char *dotted = "127.0.0.1",
                            int backlog = 16) {
    int fd = bound_socket(SOCK_STREAM, dotted);
    EXPECT_EQ(listen(fd, backlog), 0) << strerror(errno);
    return fd;
}

/* A port of 127.0.0.1 on which nobody listens while the socket is held. */
inline uint16_t refusing_port(ux_fd *holder) {
    holder->reset(bound_socket(SOCK_STREAM));
    return local_port(holder->get());
}

/* A blocking TCP connection to a port, from a loopback address. */
inline int connected_socket(uint16_t port, const char *from = "127.0.0.1",
                            const char *to = "127.0.0.1") {
    int fd = bound_socket(SOCK_STREAM, from);
    sockaddr_in address = loopback(to, port);
    if (connect(fd, generic(&address), sizeof address) < 0) {
        ADD_FAILURE() << "no connection: " << strerror(errno);
    }
    return fd;
}

/* Both ends of a TCP connection. */
struct tcp_pair {
    ux_fd near;
    ux_fd far;
    tcp_pair() {
        ux_fd listener(listening_socket());
        near.reset(connected_socket(local_port(listener.get())));
        if (wait_for(listener.get(), POLLIN)) {
            far.reset(accept(listener.get(), nullptr, nullptr));
        }
        EXPECT_GE(far.get(), 0);
    }
};

inline void set_nonblocking(int fd) {
    EXPECT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
}

inline void send_bytes_to(int fd, const std::string &bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

/* At least one receive, then on until count bytes or the end are there. */
inline std::string receive(int fd, size_t count) {
    std::string bytes;
    char block[8192];
    while (bytes.size() < count && wait_for(fd, POLLIN)) {
        size_t room = count - bytes.size();
        ssize_t got = recv(fd, block, room < sizeof block ? room : sizeof block,
                           MSG_DONTWAIT);
        if (got <= 0) {
            break;
        }
        bytes.append(block, static_cast<size_t>(got));
    }
    return bytes;
}

/* Everything until the peer closes. */
inline std::string receive_all(int fd) { return receive(fd, 1 << 20); }

/* True when there is neither data nor an end to read now. */
inline bool is_silent(int fd) {
    char byte;
    return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           (errno == EAGAIN || errno == EWOULDBLOCK);
}

/* True when the peer has closed and nothing is left to read. */
inline bool is_closed(int fd) {
    char byte;
    return wait_for(fd, POLLIN) && recv(fd, &byte, 1, MSG_PEEK) == 0;
}

/* Closes a connection with a reset, so that the peer sees an error. */
inline void reset_connection(ux_fd *end) {
    linger abort{1, 0};
    setsockopt(end->get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    end->reset();
}

#endif
