/*
 * A thin layer over IPv4 sockets for both modes: every helper is one system
 * call or a short fixed sequence. None retries, logs or keeps state; after a
 * failure errno is that of the call that failed.
 */
#ifndef TOLVA2_NET_SOCKETS_H
#define TOLVA2_NET_SOCKETS_H

#include "tolva2/base/codes.h"
#include "unixtools/ux_owned.h"

#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>

constexpr int32_t LISTEN_BACKLOG = 128;

/* An IPv4 address as the system's calls want it. */
const sockaddr *generic_address(const sockaddr_in *address);
sockaddr *generic_address(sockaddr_in *address);

/* shutdown() of one direction. */
bool sock_shutdown_read(int32_t fd);
bool sock_shutdown_write(int32_t fd);

/* A new socket, or none. */
[[nodiscard]] ux_fd tcp_socket();
[[nodiscard]] ux_fd tcp_socket_nonblock();
[[nodiscard]] ux_fd udp_socket();
[[nodiscard]] ux_fd udp_socket_nonblock();
[[nodiscard]] ux_fd udp_broadcast_socket();
[[nodiscard]] ux_fd udp_broadcast_socket_nonblock();

/* Adds FD_CLOEXEC. */
bool set_close_on_exec(int32_t fd);

/* Whether the next socket may have its address and port while this one still
 * has them. */
bool set_reuse(int32_t fd, bool on);

/* Has the system look now and then whether the peer is still there. */
bool set_keep_alive(int32_t fd);

/* True when connected or under way (see sock_pending_error). */
[[nodiscard]] bool sock_connect(int32_t fd, const sockaddr_in *address);
[[nodiscard]] bool sock_connect_to(int32_t fd, uint16_t port,
                                   const char *dotted);

/* Bind, or bind and listen with a backlog of 128. */
[[nodiscard]] bool sock_bind_any(int32_t fd, uint16_t port);
[[nodiscard]] bool sock_bind_to(int32_t fd, uint16_t port, const char *dotted);
[[nodiscard]] bool sock_listen_any(int32_t fd, uint16_t port);
[[nodiscard]] bool sock_listen_to(int32_t fd, uint16_t port,
                                  const char *dotted);

/* Plain accept: the new socket, or none. */
[[nodiscard]] ux_fd sock_accept(int32_t fd, sockaddr_in *address,
                                socklen_t *length);

/* accept, with the peer's dotted address in buffer, at most size - 1
 * characters, always terminated. The new descriptor, which is the caller's,
 * or 0 on failure. */
[[nodiscard]] int32_t sock_accept_peer(int32_t fd, char *buffer, size_t size);

/* One send of a text of 1 to 4,095 characters, without or with its
 * terminator. The number of bytes sent when all were, else 0; a text of any
 * other length is not sent at all. */
[[nodiscard]] int32_t sock_send_text(int32_t fd, const char *text);
[[nodiscard]] int32_t sock_send_text0(int32_t fd, const char *text);

/* One sendto of 1 to 1,472 characters; as sock_send_text. */
[[nodiscard]] int32_t udp_send_text(int32_t fd, uint16_t port,
                                    const char *dotted, const char *text);

/* One recv of at most size - 1 bytes, terminated. Bytes received, which is 0
 * when the peer has closed and on error; a size of 0 or above 4,096 gives 0 at
 * once. */
int32_t sock_recv_text(int32_t fd, char *buffer, size_t size);

/* One recvfrom of at most size - 1 bytes, terminated. Bytes, 0 on error. */
[[nodiscard]] int32_t udp_recv_text(int32_t fd, sockaddr_in *from,
                                    socklen_t *fromlen, char *buffer,
                                    size_t size);

/* Reads SO_ERROR: the pending error, errno if it cannot be read, 0 if none. */
[[nodiscard]] int32_t sock_pending_error(int32_t fd);

/* True when inet_aton can read text, which must not be null. */
[[nodiscard]] bool is_dotted_address(const char *text);

/* True when inet_addr reads both texts as the same address. */
[[nodiscard]] bool same_address(const char *a, const char *b);

#endif
