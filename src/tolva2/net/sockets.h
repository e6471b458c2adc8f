/*
 * A thin layer over IPv4 sockets for both modes: every helper is one system
 * call or a short fixed sequence. None retries, logs or keeps state; after a
 * failure errno tells why.
 */
#ifndef TOLVA2_NET_SOCKETS_H
#define TOLVA2_NET_SOCKETS_H

#include "tolva2/base/trace.h"

#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>

constexpr int32_t LISTEN_BACKLOG = 128;
constexpr size_t STREAM_TEXT_MAX = 4096;   /* a text must be shorter */
constexpr size_t DATAGRAM_TEXT_MAX = 1472; /* what fits an Ethernet frame */

/* shutdown() of one direction: 1 done, 0 failed. */
int32_t sock_shutdown_read(int32_t fd);
int32_t sock_shutdown_write(int32_t fd);

/* A new socket, or -1 with nothing left open. */
int32_t tcp_socket();
int32_t tcp_socket_nonblock();
int32_t udp_socket();
int32_t udp_socket_nonblock();
int32_t udp_broadcast_socket();
int32_t udp_broadcast_socket_nonblock();

/* Adds FD_CLOEXEC: 1 done, 0 failed. */
int32_t set_close_on_exec(int32_t fd);

/* 1 when connected or under way (see sock_pending_error), else 0. */
int32_t sock_connect(int32_t fd, const sockaddr_in *address);
int32_t sock_connect_to(int32_t fd, uint16_t port, const char *dotted);

/* Bind, or bind and listen with a backlog of 128: 1 done, 0 failed. */
int32_t sock_bind_any(int32_t fd, uint16_t port);
int32_t sock_bind_to(int32_t fd, uint16_t port, const char *dotted);
int32_t sock_listen_any(int32_t fd, uint16_t port);
int32_t sock_listen_to(int32_t fd, uint16_t port, const char *dotted);

/* Plain accept: the new descriptor or -1. */
int32_t sock_accept(int32_t fd, sockaddr_in *address, socklen_t *length);

/*
 * accept, with the peer's dotted address in buffer, at most size - 1
 * characters, always terminated. The new descriptor, or 0 on failure.
 */
int32_t sock_accept_peer(int32_t fd, char *buffer, size_t size);

/*
 * One send of a text of 1 to 4,095 characters, without or with its
 * terminator. The number of bytes sent when all were, else 0; a text of any
 * other length is not sent at all.
 */
int32_t sock_send_text(int32_t fd, const char *text);
int32_t sock_send_text0(int32_t fd, const char *text);

/* One sendto of 1 to 1,472 characters; as sock_send_text. */
int32_t udp_send_text(int32_t fd, uint16_t port, const char *dotted,
                      const char *text);

/*
 * One recv of at most size - 1 bytes, terminated. Bytes
 * received, which is 0 when the peer has closed and on error; a size of 0 or
 * above 4,096 gives 0 at once.
 */
int32_t sock_recv_text(int32_t fd, char *buffer, size_t size);

/* One recvfrom of at most size - 1 bytes, terminated. Bytes, 0 on error. */
int32_t udp_recv_text(int32_t fd, sockaddr_in *from, socklen_t *fromlen,
                      char *buffer, size_t size);

/* Reads SO_ERROR: the pending error, errno if it cannot be read, 0 if none. */
int32_t sock_pending_error(int32_t fd);

/* Non-zero when inet_aton can read text, which must not be null. */
int32_t is_dotted_address(const char *text);

/* 1 when inet_addr reads both texts as the same address, else 0. */
int32_t same_address(const char *a, const char *b);

#endif
