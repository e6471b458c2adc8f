/*
 * A client session: one command over TCP or in one datagram. Who is let in,
 * the reading and classifying of the command, and the time-out of those who
 * say nothing. Called by the main loop only.
 */
#ifndef TOLVA2_LISTEN_CLIENT_H
#define TOLVA2_LISTEN_CLIENT_H

#include "tolva2/net/connection.h"

/*
 * 1 when the address is in the list, else 0; ports do not count. Asserts
 * "sin_addr && sin_addr->s_addr".
 */
int32_t client_is_allowed(const ux_list *allowed, const in_addr *sin_addr);

/*
 * Accepts one client that must send its command by deadline; refused ones are
 * logged and closed. When no descriptor can be had it says so once, and
 * accepting_clients tells when to try again.
 */
void handle_tcp_connect(int32_t listener, const ux_list *allowed,
                        time_t deadline);

/*
 * 1 when the listener is worth watching. 0 while the descriptor budget is
 * used up, or the system refuses a descriptor; *retry is then set to 1 when
 * only time can tell and the caller should ask again within a second.
 */
int32_t accepting_clients(time_t now, int32_t *retry);

/* Takes one datagram and runs its command. */
void handle_udp_connect(int32_t udp_socket, const ux_list *allowed);

/* Reads a client's command and runs it. May free the node. */
void handle_tcp_client(ux_list_element *node);

/*
 * Drops clients whose deadline has passed. Returns the seconds until the next
 * one, -1 when none waits; after the clock was set back, an absolute time.
 */
int64_t check_timeout_clients(time_t now, int32_t timeout);

#endif
