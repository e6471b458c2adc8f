/*
 * Making, registering and removing records, and the steps of an exchange that
 * both modes take alike. What differs between them is handed in.
 */
#include "tolva2/net/connection.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/reserve.h"
#include "tolva2/net/sockets.h"

#include <cassert>
#include <cerrno>
#include <cstring>

ux_list *clients = nullptr;
ux_list *connections = nullptr;

connection_owner new_connection(mode_code mode, address_kind type) {
    trace_in();
    assert(mode && type);
    connection_owner cn(ux_new<connection>());
    if (cn) {
        cn->mode = mode;
        cn->type = type;
    }
    return cn;
}

void destroy_connection(void *data) {
    trace_in();
    auto *cn = static_cast<connection *>(data);
    assert(cn);
    ux_delete(cn);
}

namespace {

/* The list owns the record from now on, or nobody does. */
bool append(ux_list *list, connection_owner cn) {
    connection *record = cn.release();
    if (ux_list_ins_next(list, list->tail, record) != 0) {
        destroy_connection(record);
        return false;
    }
    return true;
}

void remove_node(ux_list *list, ux_list_element *element) {
    void *data = nullptr;
    if (ux_list_rem(list, element, &data) == 0 && data) {
        destroy_connection(data);
    }
}

} // namespace

bool register_connection(ux_list *list, connection_owner cn) {
    trace_in();
    assert(list && cn);
    return append(list, std::move(cn));
}

bool register_connection(connection_owner cn) {
    trace_in();
    assert(connections && cn);
    return append(connections, std::move(cn));
}

void unregister_connection(ux_list *list, ux_list_element *element) {
    trace_in();
    assert(list && element);
    remove_node(list, element);
}

void unregister_connection(ux_list_element *element) {
    trace_in();
    assert(connections && element);
    remove_node(connections, element);
    debug_printf("DEBUG: nconnections = %d \n",
                 static_cast<int>(connections->size));
}

namespace {

/* One address becomes one registered record: false after a log line. */
bool add_connection(inetaddr *entry, uint32_t default_port) {
    connection_owner cn = new_connection(entry->mode, entry->kind);
    if (!cn) {
        log_system(errno);
        return false;
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
    if (!register_connection(std::move(cn))) {
        log_system(errno);
        return false;
    }
    return true;
}

} // namespace

int32_t set_connections(const ux_list *entries, uint32_t default_port) {
    trace_in();
    for (inetaddr *entry : ux_records<inetaddr>(entries)) {
        if (!entry) {
            log_error(EINVAL);
        } else if (!add_connection(entry, default_port)) {
            return 0;
        }
    }
    return static_cast<int32_t>(connections->size);
}

start_result may_start(const connection *cn) {
    if (!descriptor_left()) {
        log_error(EMFILE);
        return START_FAILED;
    }
    if (!cn || cn->fd) {
        log_error(EINVAL);
        return START_UNUSABLE;
    }
    return START_DONE;
}

void begin_exchange(connection *cn, ux_fd fd, connection_handler handler,
                    const connect_ends *ends) {
    cn->handler = handler;
    cn->ends = ends;
    cn->fd = watched_fd(std::move(fd), EVENT_WRITABLE);
}

void wait_in(connection *cn, event_bits events, connection_handler next) {
    watch(cn->fd, events);
    cn->handler = next;
}

void close_exchange(connection *cn) {
    cn->fd.reset();
    cn->handler = nullptr;
}

ux_fd open_connect_socket(const connection *cn) {
    trace_in();
    ux_fd fd = tcp_socket_nonblock();
    if (!fd && reserve_helps(errno)) {
        fd = tcp_socket_nonblock();
    }
    int32_t error = why_unwatchable(fd);
    if (error == 0 && !sock_connect(fd.get(), &cn->addr)) {
        error = errno;
    }
    if (error != 0) {
        log_system(error);
        fd.reset();
    }
    return fd;
}
