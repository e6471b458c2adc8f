/*
 * Every text on the wire: what a request, a reply and the logon line look
 * like, how they are sent, and how what comes in is recognised. Both modes
 * use it; it knows sockets but no connection records.
 */
#ifndef TOLVA2_NET_WIRE_H
#define TOLVA2_NET_WIRE_H

#include "tolva2/files/request.h"

#include <cstddef>
#include <cstdint>

#define REPLY_HEADER "CONNECT TO TOLVA (REPLY)"

constexpr size_t REPLY_HEADER_LENGTH = sizeof(REPLY_HEADER) - 1;

/* Where the text of a reply begins: the byte between is never looked at. */
constexpr size_t REPLY_TEXT_OFFSET = REPLY_HEADER_LENGTH + 1;

/* Send a request: the header alone when command is null or empty, else header
 * and command. One that does not fit a message (4,095 bytes, 1,471 in a
 * datagram) is not sent: a cut command would be another command. Bytes sent,
 * 0 on failure. */
int32_t send_ok(int32_t fd, const char *command);
int32_t udp_send_ok(int32_t fd, uint16_t port, const char *dotted,
                    const char *command);

/* The logon and logoff lines, terminator included. Bytes sent, or 0. */
int32_t send_kesdal_logon(int32_t fd);
int32_t send_kesdal_logoff(int32_t fd);

/* One receive: its byte count when it begins digit, "|", digit, else 0. */
int32_t recv_kesdal(int32_t fd);

/* Formats into 4,096 bytes and sends the text. Bytes sent, 0 on failure. */
[[gnu::format(printf, 2, 3)]] int32_t send_reply(int32_t fd, const char *format,
                                                 ...);

/* True when text begins with the reply header, in any case. */
bool is_reply_header(const char *text);

/* Finds the first word of text that begins with key and copies what stands
 * behind its "=" into out, cut to size - 1 characters. Returns out, or null
 * when there is no such word or no value; out is then empty. */
char *get_key_value(const char *text, const char *key, char *out, size_t size);

/* A script's exit status as ours: 0 stays 0, failures become 128 to 255. */
int32_t map_remote_status(int32_t status);

#endif
