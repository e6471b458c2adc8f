/*
 * A client session: one command over TCP or in one datagram. Who is let in,
 * the reading and classifying of the command, and the time-out of those who
 * say nothing. Called by the main loop only.
 */
#ifndef TOLVA2_LISTEN_CLIENT_H
#define TOLVA2_LISTEN_CLIENT_H

#include "tolva2/net/connection.h"

/* True when the address is in the list; ports do not count. Asserts
 * "sin_addr && sin_addr->s_addr". */
[[nodiscard]] bool client_is_allowed(const ux_list *allowed,
                                     const in_addr *sin_addr);

/* What is remembered while clients cannot be accepted. */
struct accept_pause {
    bool waiting;      /* no attempt is worth it for now */
    bool told;         /* and the log says so */
    int32_t error;     /* of the last attempt; 0: none */
    int32_t open_then; /* descriptors at that attempt */
    time_t when;
};

/* Accepts one client that must send its command by deadline; refused ones are
 * logged and closed. When no descriptor can be had, or accepting fails again
 * and again, it says so once, and accepting_clients tells when to try again. */
void handle_tcp_connect(int32_t listener, const ux_list *allowed,
                        time_t deadline, accept_pause *pause);

/* Whether the listener is worth watching. */
enum class accepting {
    yes,
    no,     /* the budget is used up: a close will tell */
    paused, /* the system refuses: ask again within a second */
};
[[nodiscard]] accepting accepting_clients(const accept_pause *pause,
                                          time_t now);

/* Takes one datagram and runs its command. False when the system gave none
 * although it may have one: asked again at once, it would say the same. */
bool handle_udp_connect(int32_t udp_socket, const ux_list *allowed);

/* Reads a client's command and runs it. May free the node. */
void handle_tcp_client(ux_list_element *node);

/* Drops clients whose deadline has passed. Returns the seconds until the next
 * one, -1 when none waits; after the clock was set back, an absolute time. */
[[nodiscard]] int64_t check_timeout_clients(time_t now, int32_t timeout);

#endif
