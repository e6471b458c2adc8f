/*
 * The watch on the UPS management servers: at every cycle a logon and logoff
 * at each of them, with the not-alive script for those that fail. The main
 * loop runs the cycles, redundancy asks for one of its own.
 */
#ifndef TOLVA2_LISTEN_ALIVE_H
#define TOLVA2_LISTEN_ALIVE_H

#include "tolva2/net/connection.h"

/* The sender has namesakes of these, which start and end differently. */
namespace alive {

/* Opens a check at every server; how many records are left. */
int32_t start_connections();

/* Counts every check that is still open as failed. */
void cancel_connections();

} // namespace alive

/* Runs AliveProg with address, date and time. */
void exec_aliveproc(connection *cn);

/* Drops a server for good that has failed AliveRetries times in a row, unless
 * its script still runs. May free the node. */
void check_alive_retries(ux_list_element *node);

/* True when a check of the server with that address text is open and its last
 * one did not fail. */
[[nodiscard]] bool check_alive_single(const char *address);

#endif
