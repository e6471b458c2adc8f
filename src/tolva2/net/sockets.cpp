#include "tolva2/net/sockets.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/* Closes fd, which failed to become what was wanted; errno tells why. */
int32_t close_failed(int32_t fd)
{
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
}

int32_t make_nonblocking(int32_t fd)
{
    if (fd < 0) {
        return -1;
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return close_failed(fd);
    }
    return fd;
}

int32_t allow_broadcast(int32_t fd)
{
    int on = 1;
    if (fd >= 0 &&
        setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) < 0) {
        return close_failed(fd);
    }
    return fd;
}

/* An AF_INET address; 0 when dotted is none. */
int32_t fill_address(sockaddr_in *address, uint16_t port, const char *dotted)
{
    memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    return dotted && inet_aton(dotted, &address->sin_addr) != 0;
}

int32_t bind_address(int32_t fd, const sockaddr_in *address)
{
    const void *any = address;
    return bind(fd, static_cast<const sockaddr *>(any), sizeof *address) == 0;
}

/* One send of length bytes: all of them, or 0. */
int32_t send_bytes(int32_t fd, const char *bytes, size_t length)
{
    ssize_t sent = send(fd, bytes, length, MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(length) ? static_cast<int32_t>(sent)
                                                : 0;
}

/* The length of a text that may be sent, 0 for one that may not. */
size_t sendable_length(const char *text)
{
    size_t length = text ? strlen(text) : 0;
    return length < STREAM_TEXT_MAX ? length : 0;
}

} // namespace

int32_t sock_shutdown_read(int32_t fd)
{
    trace_in();
    return shutdown(fd, SHUT_RD) == 0;
}

int32_t sock_shutdown_write(int32_t fd)
{
    trace_in();
    return shutdown(fd, SHUT_WR) == 0;
}

int32_t tcp_socket()
{
    trace_in();
    return socket(AF_INET, SOCK_STREAM, 0);
}

int32_t tcp_socket_nonblock()
{
    trace_in();
    return make_nonblocking(tcp_socket());
}

int32_t udp_socket()
{
    trace_in();
    return socket(AF_INET, SOCK_DGRAM, 0);
}

int32_t udp_socket_nonblock()
{
    trace_in();
    return make_nonblocking(udp_socket());
}

int32_t udp_broadcast_socket()
{
    trace_in();
    return allow_broadcast(udp_socket());
}

int32_t udp_broadcast_socket_nonblock()
{
    trace_in();
    return allow_broadcast(udp_socket_nonblock());
}

int32_t set_close_on_exec(int32_t fd)
{
    trace_in();
    int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

int32_t sock_connect(int32_t fd, const sockaddr_in *address)
{
    trace_in();
    const void *any = address;
    return connect(fd, static_cast<const sockaddr *>(any), sizeof *address) ==
               0 ||
           errno == EINPROGRESS;
}

int32_t sock_connect_to(int32_t fd, uint16_t port, const char *dotted)
{
    trace_in();
    sockaddr_in address;
    return fill_address(&address, port, dotted) && sock_connect(fd, &address);
}

int32_t sock_bind_any(int32_t fd, uint16_t port)
{
    trace_in();
    return sock_bind_to(fd, port, "0.0.0.0");
}

int32_t sock_bind_to(int32_t fd, uint16_t port, const char *dotted)
{
    trace_in();
    sockaddr_in address;
    /* An address that does not convert leaves 0.0.0.0. */
    fill_address(&address, port, dotted);
    return bind_address(fd, &address);
}

int32_t sock_listen_any(int32_t fd, uint16_t port)
{
    trace_in();
    return sock_bind_any(fd, port) && listen(fd, LISTEN_BACKLOG) == 0;
}

int32_t sock_listen_to(int32_t fd, uint16_t port, const char *dotted)
{
    trace_in();
    return sock_bind_to(fd, port, dotted) && listen(fd, LISTEN_BACKLOG) == 0;
}

int32_t sock_accept(int32_t fd, sockaddr_in *address, socklen_t *length)
{
    trace_in();
    void *any = address;
    return accept(fd, static_cast<sockaddr *>(any), length);
}

int32_t sock_accept_peer(int32_t fd, char *buffer, size_t size)
{
    trace_in();
    sockaddr_in address;
    socklen_t length = sizeof address;
    int32_t peer = sock_accept(fd, &address, &length);
    if (peer < 0) {
        return 0;
    }
    if (buffer && size > 0) {
        buffer[0] = '\0';
        strncat(buffer, inet_ntoa(address.sin_addr), size - 1);
    }
    return peer;
}

int32_t sock_send_text(int32_t fd, const char *text)
{
    trace_in();
    size_t length = sendable_length(text);
    return length > 0 ? send_bytes(fd, text, length) : 0;
}

int32_t sock_send_text0(int32_t fd, const char *text)
{
    trace_in();
    size_t length = sendable_length(text);
    return length > 0 ? send_bytes(fd, text, length + 1) : 0;
}

int32_t udp_send_text(int32_t fd, uint16_t port, const char *dotted,
                      const char *text)
{
    trace_in();
    size_t length = text ? strlen(text) : 0;
    sockaddr_in address;
    if (length == 0 || length > DATAGRAM_TEXT_MAX ||
        !fill_address(&address, port, dotted)) {
        return 0;
    }
    const void *any = &address;
    ssize_t sent = sendto(fd, text, length, MSG_NOSIGNAL,
                          static_cast<const sockaddr *>(any), sizeof address);
    return sent == static_cast<ssize_t>(length) ? static_cast<int32_t>(sent)
                                                : 0;
}

int32_t sock_recv_text(int32_t fd, char *buffer, size_t size)
{
    trace_in();
    if (!buffer || size == 0 || size > STREAM_TEXT_MAX) {
        return 0;
    }
    ssize_t length = recv(fd, buffer, size - 1, 0);
    buffer[length > 0 ? length : 0] = '\0';
    return length > 0 ? static_cast<int32_t>(length) : 0;
}

int32_t udp_recv_text(int32_t fd, sockaddr_in *from, socklen_t *fromlen,
                      char *buffer, size_t size)
{
    trace_in();
    if (!buffer || size == 0) {
        return 0;
    }
    void *any = from;
    ssize_t length = recvfrom(fd, buffer, size - 1, 0,
                              static_cast<sockaddr *>(any), fromlen);
    buffer[length > 0 ? length : 0] = '\0';
    return length > 0 ? static_cast<int32_t>(length) : 0;
}

int32_t sock_pending_error(int32_t fd)
{
    trace_in();
    int error = 0;
    socklen_t length = sizeof error;
    errno = 0;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) < 0) {
        return errno;
    }
    return error;
}

int32_t is_dotted_address(const char *text)
{
    trace_in();
    in_addr address;
    return inet_aton(text, &address);
}

int32_t same_address(const char *a, const char *b)
{
    trace_in();
    return inet_addr(a) == inet_addr(b);
}
