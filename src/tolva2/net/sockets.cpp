/*
 * The calls themselves. What is common to several helpers stands in front: an
 * option or a flag that is added, an address that is filled, one send of a
 * whole text.
 */
#include "tolva2/net/sockets.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_portable.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

/* A socket as it is wanted, or none: what failed to become it is closed. */
ux_fd make_nonblocking(ux_fd fd) {
    int flags = fd ? fcntl(fd.get(), F_GETFL) : -1;
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        fd.reset();
    }
    return fd;
}

bool set_option(int32_t fd, int name, bool on) {
    int value = on ? 1 : 0;
    return setsockopt(fd, SOL_SOCKET, name, &value, sizeof value) == 0;
}

ux_fd allow_broadcast(ux_fd fd) {
    if (fd && !set_option(fd.get(), SO_BROADCAST, true)) {
        fd.reset();
    }
    return fd;
}

/* An AF_INET address; false when dotted is none, and the address is any. */
bool fill_address(sockaddr_in *address, uint16_t port, const char *dotted) {
    *address = sockaddr_in{};
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    return dotted && ux_dotted(dotted, &address->sin_addr);
}

/* What a call moved when that was all of it, else 0. */
int32_t all_or_nothing(ssize_t moved, size_t length) {
    return moved == static_cast<ssize_t>(length) ? static_cast<int32_t>(moved)
                                                 : 0;
}

/* Sends a text and as many bytes behind it, in one call. */
int32_t send_text(int32_t fd, const char *text, size_t behind) {
    size_t length = text ? strlen(text) : 0;
    if (length == 0 || length >= TEXT_BUFFER) {
        return 0;
    }
    length += behind;
    return all_or_nothing(send(fd, text, length, MSG_NOSIGNAL), length);
}

/* Terminates what was received: its length, 0 on error. */
int32_t end_text(char *buffer, ssize_t length) {
    buffer[length > 0 ? length : 0] = '\0';
    return length > 0 ? static_cast<int32_t>(length) : 0;
}

} // namespace

const sockaddr *generic_address(const sockaddr_in *address) {
    return static_cast<const sockaddr *>(static_cast<const void *>(address));
}

sockaddr *generic_address(sockaddr_in *address) {
    return static_cast<sockaddr *>(static_cast<void *>(address));
}

bool sock_shutdown_read(int32_t fd) {
    trace_in();
    return shutdown(fd, SHUT_RD) == 0;
}

bool sock_shutdown_write(int32_t fd) {
    trace_in();
    return shutdown(fd, SHUT_WR) == 0;
}

ux_fd tcp_socket() {
    trace_in();
    return ux_fd(socket(AF_INET, SOCK_STREAM, 0));
}

ux_fd tcp_socket_nonblock() {
    trace_in();
    return make_nonblocking(tcp_socket());
}

ux_fd udp_socket() {
    trace_in();
    return ux_fd(socket(AF_INET, SOCK_DGRAM, 0));
}

ux_fd udp_socket_nonblock() {
    trace_in();
    return make_nonblocking(udp_socket());
}

ux_fd udp_broadcast_socket() {
    trace_in();
    return allow_broadcast(udp_socket());
}

ux_fd udp_broadcast_socket_nonblock() {
    trace_in();
    return allow_broadcast(udp_socket_nonblock());
}

bool set_close_on_exec(int32_t fd) {
    trace_in();
    int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

bool set_reuse(int32_t fd, bool on) { return set_option(fd, SO_REUSEADDR, on); }

bool set_keep_alive(int32_t fd) { return set_option(fd, SO_KEEPALIVE, true); }

bool sock_connect(int32_t fd, const sockaddr_in *address) {
    trace_in();
    return connect(fd, generic_address(address), sizeof *address) == 0 ||
           errno == EINPROGRESS;
}

bool sock_connect_to(int32_t fd, uint16_t port, const char *dotted) {
    trace_in();
    sockaddr_in address;
    return fill_address(&address, port, dotted) && sock_connect(fd, &address);
}

bool sock_bind_any(int32_t fd, uint16_t port) {
    trace_in();
    return sock_bind_to(fd, port, "0.0.0.0");
}

bool sock_bind_to(int32_t fd, uint16_t port, const char *dotted) {
    trace_in();
    sockaddr_in address;
    /* An address that does not convert leaves 0.0.0.0. */
    fill_address(&address, port, dotted);
    return bind(fd, generic_address(&address), sizeof address) == 0;
}

bool sock_listen_any(int32_t fd, uint16_t port) {
    trace_in();
    return sock_bind_any(fd, port) && listen(fd, LISTEN_BACKLOG) == 0;
}

bool sock_listen_to(int32_t fd, uint16_t port, const char *dotted) {
    trace_in();
    return sock_bind_to(fd, port, dotted) && listen(fd, LISTEN_BACKLOG) == 0;
}

ux_fd sock_accept(int32_t fd, sockaddr_in *address, socklen_t *length) {
    trace_in();
    return ux_fd(accept(fd, generic_address(address), length));
}

int32_t sock_accept_peer(int32_t fd, char *buffer, size_t size) {
    trace_in();
    sockaddr_in address;
    socklen_t length = sizeof address;
    ux_fd peer = sock_accept(fd, &address, &length);
    if (!peer) {
        return 0;
    }
    if (buffer && size > 0) {
        buffer[0] = '\0';
        strncat(buffer, inet_ntoa(address.sin_addr), size - 1);
    }
    return peer.release();
}

int32_t sock_send_text(int32_t fd, const char *text) {
    trace_in();
    return send_text(fd, text, 0);
}

int32_t sock_send_text0(int32_t fd, const char *text) {
    trace_in();
    return send_text(fd, text, 1);
}

int32_t udp_send_text(int32_t fd, uint16_t port, const char *dotted,
                      const char *text) {
    trace_in();
    size_t length = text ? strlen(text) : 0;
    sockaddr_in address;
    if (length == 0 || length > DATAGRAM_TEXT ||
        !fill_address(&address, port, dotted)) {
        return 0;
    }
    return all_or_nothing(sendto(fd, text, length, MSG_NOSIGNAL,
                                 generic_address(&address), sizeof address),
                          length);
}

int32_t sock_recv_text(int32_t fd, char *buffer, size_t size) {
    trace_in();
    if (!buffer || size == 0 || size > TEXT_BUFFER) {
        return 0;
    }
    return end_text(buffer, recv(fd, buffer, size - 1, 0));
}

int32_t udp_recv_text(int32_t fd, sockaddr_in *from, socklen_t *fromlen,
                      char *buffer, size_t size) {
    trace_in();
    if (!buffer || size == 0) {
        return 0;
    }
    return end_text(buffer, recvfrom(fd, buffer, size - 1, 0,
                                     generic_address(from), fromlen));
}

int32_t sock_pending_error(int32_t fd) {
    trace_in();
    int error = 0;
    socklen_t length = sizeof error;
    errno = 0;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) < 0) {
        return errno;
    }
    return error;
}

bool is_dotted_address(const char *text) {
    trace_in();
    in_addr address;
    return ux_dotted(text, &address);
}

bool same_address(const char *a, const char *b) {
    trace_in();
    return inet_addr(a) == inet_addr(b);
}
