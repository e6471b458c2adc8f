/*
 * The record behind every socket and running script of either mode, the two
 * lists that own such records, and the life of an outbound exchange on one:
 * begun, handed from handler to handler, closed.
 */
#ifndef TOLVA2_NET_CONNECTION_H
#define TOLVA2_NET_CONNECTION_H

#include "tolva2/base/codes.h"
#include "tolva2/net/address.h"
#include "tolva2/net/descriptors.h"
#include "unixtools/ux_nodes.h"
#include "unixtools/ux_owned.h"

#include <ctime>
#include <netinet/in.h>

/* Called with the record's node when its socket is ready. */
using connection_handler = void (*)(ux_list_element *node, event_bits events);

/* How one outbound exchange finishes; each mode has its own pair. */
struct connect_ends {
    void (*cancel)(ux_list_element *node);
    void (*end)(ux_list_element *node);
};

struct connection {
    watched_fd fd;
    mode_code mode = MODE_NONE;
    address_kind type = ADDR_NONE; /* a UDP conversation: ADDR_BROADCAST */
    char ipaddr[ADDRESS_TEXT] = "";
    uint32_t port = 0;   /* the run's default port */
    sockaddr_in addr{};  /* where to connect to, or who came */
    time_t deadline = 0; /* when a client that sent nothing goes; 0: never */
    int32_t nerror = 0;  /* failed checks in a row */
    bool busy = false;   /* a script runs, or a result waits for its reply */
    ux_text cmdline;     /* what the shell was given */
    int32_t pid = 0;     /* the script's process id, kept for the reply */
    bool child_owed = false; /* waitpid(pid) can still tell something */
    bool want_reply = false; /* the sender asked for the exit status */
    int32_t exitstatus = -1; /* what to reply */
    connection_handler handler = nullptr; /* state of an outbound exchange */
    const connect_ends *ends = nullptr;   /* how that exchange finishes */
};

/* The record of a node; may be null. */
inline connection *record_of(ux_list_element *node) {
    return ux_record<connection>(node);
}

/* for (connection *cn : records(clients)) */
inline ux_records<connection> records(const ux_list *list) {
    return ux_records<connection>(list);
}

/* The lists; null until their mode has created them. */
extern ux_list *clients;     /* senders of commands, listen mode only */
extern ux_list *connections; /* outbound: listeners or servers */

/* Closes its socket, frees what it owns and itself. Asserts "cn". */
void destroy_connection(void *data);

struct connection_destroyer {
    void operator()(connection *cn) const { destroy_connection(cn); }
};
using connection_owner = std::unique_ptr<connection, connection_destroyer>;

/* A record without socket; null when memory is exhausted. Asserts
 * "mode && type". */
[[nodiscard]] connection_owner new_connection(mode_code mode,
                                              address_kind type);

/* Append a record to a list (or to connections), which then owns it. False
 * when memory is exhausted: the record is gone. Assert "list && cn" and
 * "connections && cn". */
[[nodiscard]] bool register_connection(ux_list *list, connection_owner cn);
[[nodiscard]] bool register_connection(connection_owner cn);

/* Remove a node from a list (or from connections) and destroy its record.
 * Assert "list && element" and "connections && element". */
void unregister_connection(ux_list *list, ux_list_element *element);
void unregister_connection(ux_list_element *element);

/* Builds one record in connections per address; an address without a port
 * gets the default port. Returns the number of records, 0 on failure. */
[[nodiscard]] int32_t set_connections(const ux_list *entries,
                                      uint32_t default_port);

/* What became of the attempt to start an exchange. */
enum start_result : int32_t {
    START_UNUSABLE = -1, /* there is no record, or it has a socket */
    START_FAILED = 0,
    START_DONE = 1,
};

/* Whether one may be started on a record: START_DONE, or a failure that has
 * been logged. */
[[nodiscard]] start_result may_start(const connection *cn);

/* Gives the record its socket and first handler; it waits to be writable. */
void begin_exchange(connection *cn, ux_fd fd, connection_handler handler,
                    const connect_ends *ends);

/* From now on the record waits for that event, for the next handler. */
void wait_in(connection *cn, event_bits events, connection_handler next);

/* Takes socket and handler from the record. */
void close_exchange(connection *cn);

/* A non-blocking TCP socket with a connect to cn->addr under way, or none; a
 * failure is logged. */
[[nodiscard]] ux_fd open_connect_socket(const connection *cn);

#endif
