/*
 * The record behind every socket and running script of either mode, the two
 * lists that own such records, and the only code that counts descriptors. Who
 * waits for what stands in the sets for select(), which handlers change.
 */
#ifndef TOLVA2_NET_CONNECTION_H
#define TOLVA2_NET_CONNECTION_H

#include "tolva2/base/codes.h"
#include "tolva2/net/address.h"
#include "unixtools/ux_list.h"

#include <ctime>
#include <netinet/in.h>
#include <sys/select.h>

/* Called with the record's node and event bits when its socket is ready. */
using connection_handler = void (*)(ux_list_element *node, event_bits events);

/* How one outbound exchange finishes; each mode has its own pair. */
struct connect_ends {
    void (*cancel)(ux_list_element *node);
    void (*end)(ux_list_element *node);
};

struct connection {
    int32_t fd; /* -1 when there is none */
    mode_code mode;
    address_kind type; /* 1 TCP, 2 UDP, 4 UPS management server */
    char ipaddr[ADDRESS_TEXT];
    uint32_t port;      /* the run's default port */
    sockaddr_in addr;   /* where to connect to, or who came */
    time_t deadline;    /* when a client that sent nothing goes; 0: never */
    int32_t nerror;     /* failed checks in a row */
    int32_t busy;       /* 1: a script runs, or a result waits for its reply */
    char *cmdline;      /* what the shell was given; owned */
    int32_t pid;        /* the script's process id, kept for the reply */
    int32_t child_owed; /* 1: waitpid(pid) can still tell something */
    int32_t want_reply; /* 1: the sender asked for the exit status */
    int32_t exitstatus; /* what to reply; -1 at first */
    connection_handler handler; /* the state of an outbound exchange */
    const connect_ends *ends;   /* how that exchange finishes */
};

/* The record of a node; may be null. */
inline connection *record_of(const ux_list_element *node)
{
    return static_cast<connection *>(node->data);
}

/* The lists; null until their mode has created them. */
extern ux_list *clients;     /* senders of commands, listen mode only */
extern ux_list *connections; /* outbound: listeners or servers */

/* What to wait for, and of the current pass what is ready. */
extern fd_set readfds;
extern fd_set writefds;
extern fd_set ready_read;
extern fd_set ready_write;

extern int32_t maxfd; /* at least the highest open descriptor */
extern int32_t nfds;  /* open descriptors */

/* Nothing open: clears all sets and nfds; the modes differ in maxfd. */
void reset_descriptors(int32_t first_maxfd);

/* Counts a newly opened descriptor and puts it into one master set. */
void add_descriptor(int32_t fd, fd_set *set);

/*
 * Closes *fd, takes it out of all four sets so that a number opened again
 * within the pass starts clean, counts it off and stores -1.
 */
void close_descriptor(int32_t *fd);

/* The event bits that the current pass has found for cn's socket. */
event_bits ready_events(const connection *cn);

/*
 * 1 when one more descriptor may be opened with enough left for the log and
 * the texts; else 0 with errno set.
 */
int32_t room_for_descriptor();

/*
 * Passes a new descriptor on if select() can watch it. Otherwise closes it
 * and returns -1 with EMFILE; a negative one comes back with errno kept.
 */
int32_t keep_selectable(int32_t fd);

/* A zeroed record without socket; null when memory is exhausted. Asserts
 * "mode && type". */
connection *new_connection(mode_code mode, address_kind type);

/* Closes its socket, frees what it owns and itself. Asserts "cn". */
void destroy_connection(void *data);

/*
 * Append a record to a list (or to connections): 1, or 0 when memory is
 * exhausted and the caller still owns it. Assert "list && cn" and
 * "connections && cn".
 */
int32_t register_connection(ux_list *list, connection *cn);
int32_t register_connection(connection *cn);

/*
 * Remove a node from a list (or from connections) and destroy its record.
 * Assert "list && element" and "connections && element".
 */
void unregister_connection(ux_list *list, ux_list_element *element);
void unregister_connection(ux_list_element *element);

/*
 * Builds one record in connections per address; an address without a port
 * gets the default port. Returns the number of records, 0 on failure.
 */
int32_t set_connections(const ux_list *entries, uint32_t default_port);

/*
 * Whether an exchange may be started on a record: 1; 0 when no more sockets
 * may be open, -1 for no record or one that has a socket, both logged.
 */
int32_t may_start(const connection *cn);

/* Gives the record its socket and first handler; it waits to be writable. */
void begin_exchange(connection *cn, int32_t fd, connection_handler handler,
                    const connect_ends *ends);

/* From now on the record waits in the other set, for the next handler. */
void wait_in(connection *cn, fd_set *from, fd_set *to, connection_handler next);

/* Takes socket and handler from the record. */
void close_exchange(connection *cn);

/*
 * A non-blocking TCP socket with a connect to cn->addr under way, or -1; a
 * failure is logged.
 */
int32_t open_connect_socket(const connection *cn);

#endif
