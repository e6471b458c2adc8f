#include "tolva2/net/connection.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/logfile.h"
#include "tolva2/net/sockets.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

ux_list *clients = nullptr;
ux_list *connections = nullptr;

fd_set readfds;
fd_set writefds;
fd_set ready_read;
fd_set ready_write;
int32_t maxfd = 0;
int32_t nfds = 0;

namespace
{

/* The log with its copy while it is cut, and the socket that is asked for. */
constexpr int32_t DESCRIPTORS_NEEDED = 3;

/* Listeners alone are never too many: under a limit of a handful, one client
 * at a time is better than none. */
constexpr int32_t LISTENERS_MAX = 2;

/* Whether the system would give us all that is needed, the first of it a
 * number that select() can watch. errno tells why not. */
bool descriptors_left()
{
    int32_t taken[DESCRIPTORS_NEEDED];
    int32_t opened = 0;
    int error = 0;
    while (opened < DESCRIPTORS_NEEDED && error == 0) {
        taken[opened] = udp_socket();
        if (taken[opened] < 0) {
            error = errno;
        } else {
            opened++;
        }
    }
    if (opened > 0 && taken[0] >= FD_SETSIZE) {
        error = EMFILE;
    }
    while (opened > 0) {
        close(taken[--opened]);
    }
    errno = error;
    return error == 0;
}

} // namespace

void reset_descriptors(int32_t first_maxfd)
{
    trace_in();
    FD_ZERO(&readfds);
    FD_ZERO(&writefds);
    FD_ZERO(&ready_read);
    FD_ZERO(&ready_write);
    maxfd = first_maxfd;
    nfds = 0;
}

void add_descriptor(int32_t fd, fd_set *set)
{
    trace_in();
    FD_SET(fd, set);
    if (fd > maxfd) {
        maxfd = fd;
    }
    nfds++;
}

void close_descriptor(int32_t *fd)
{
    trace_in();
    close(*fd);
    if (*fd < FD_SETSIZE) {
        FD_CLR(*fd, &readfds);
        FD_CLR(*fd, &writefds);
        FD_CLR(*fd, &ready_read);
        FD_CLR(*fd, &ready_write);
    }
    /* One less is still an upper bound, and needs no search. */
    if (*fd == maxfd) {
        maxfd--;
    }
    nfds--;
    *fd = -1;
}

event_bits ready_events(const connection *cn)
{
    if (cn->fd < 0) {
        return EVENT_NONE;
    }
    return (FD_ISSET(cn->fd, &ready_read) ? EVENT_READABLE : EVENT_NONE) |
           (FD_ISSET(cn->fd, &ready_write) ? EVENT_WRITABLE : EVENT_NONE);
}

int32_t room_for_descriptor()
{
    return nfds <= LISTENERS_MAX || descriptors_left();
}

int32_t keep_selectable(int32_t fd)
{
    if (fd < FD_SETSIZE) {
        return fd;
    }
    close(fd);
    errno = EMFILE;
    return -1;
}

connection *new_connection(mode_code mode, address_kind type)
{
    trace_in();
    assert(mode && type);
    auto *cn = static_cast<connection *>(calloc(1, sizeof(connection)));
    if (cn) {
        cn->mode = mode;
        cn->type = type;
        cn->fd = -1;
        cn->exitstatus = -1;
    }
    return cn;
}

void destroy_connection(void *data)
{
    trace_in();
    auto *cn = static_cast<connection *>(data);
    assert(cn);
    if (cn->fd >= 0) {
        close_descriptor(&cn->fd);
    }
    free(cn->cmdline);
    free(cn);
}

int32_t register_connection(ux_list *list, connection *cn)
{
    trace_in();
    assert(list && cn);
    return ux_list_ins_next(list, list->tail, cn) == 0;
}

int32_t register_connection(connection *cn)
{
    trace_in();
    assert(connections && cn);
    return ux_list_ins_next(connections, connections->tail, cn) == 0;
}

namespace
{

void remove_node(ux_list *list, ux_list_element *element)
{
    void *data = nullptr;
    if (ux_list_rem(list, element, &data) == 0 && data) {
        destroy_connection(data);
    }
}

} // namespace

void unregister_connection(ux_list *list, ux_list_element *element)
{
    trace_in();
    assert(list && element);
    remove_node(list, element);
}

void unregister_connection(ux_list_element *element)
{
    trace_in();
    assert(connections && element);
    remove_node(connections, element);
    debug_printf("DEBUG: nconnections = %d \n",
                 static_cast<int>(connections->size));
}

namespace
{

/* One address becomes one registered record: 1, or 0 after a log line. */
int32_t add_connection(inetaddr *entry, uint32_t default_port)
{
    connection *cn = new_connection(entry->mode, entry->kind);
    if (!cn) {
        log_system(errno);
        return 0;
    }
    if (entry->port == 0) {
        auto port = static_cast<uint16_t>(default_port);
        entry->port = static_cast<int16_t>(port);
        entry->addr.sin_port = htons(port);
    }
    cn->addr = entry->addr;
    memcpy(cn->ipaddr, entry->text, sizeof cn->ipaddr);
    /* The run's port even when the entry has its own, which addr keeps. */
    cn->port = default_port;
    if (!register_connection(cn)) {
        log_system(errno);
        destroy_connection(cn);
        return 0;
    }
    return 1;
}

} // namespace

int32_t set_connections(const ux_list *entries, uint32_t default_port)
{
    trace_in();
    for (const ux_list_element *node = entries->head; node; node = node->next) {
        auto *entry = static_cast<inetaddr *>(node->data);
        if (!entry) {
            log_error(EINVAL);
        } else if (!add_connection(entry, default_port)) {
            return 0;
        }
    }
    return static_cast<int32_t>(connections->size);
}

int32_t may_start(const connection *cn)
{
    if (nfds >= max_fds) {
        log_error(EMFILE);
        return 0;
    }
    if (!cn || cn->fd != -1) {
        log_error(EINVAL);
        return -1;
    }
    return 1;
}

void begin_exchange(connection *cn, int32_t fd, connection_handler handler,
                    const connect_ends *ends)
{
    cn->fd = fd;
    cn->handler = handler;
    cn->ends = ends;
    add_descriptor(fd, &writefds);
}

void wait_in(connection *cn, fd_set *from, fd_set *to, connection_handler next)
{
    FD_CLR(cn->fd, from);
    FD_SET(cn->fd, to);
    cn->handler = next;
}

void close_exchange(connection *cn)
{
    if (cn->fd >= 0) {
        close_descriptor(&cn->fd);
    }
    cn->handler = nullptr;
}

int32_t open_connect_socket(const connection *cn)
{
    trace_in();
    int32_t fd = keep_selectable(tcp_socket_nonblock());
    if (fd < 0) {
        log_system(errno);
        return -1;
    }
    if (!sock_connect(fd, &cn->addr)) {
        log_system(errno);
        close(fd);
        return -1;
    }
    return fd;
}
