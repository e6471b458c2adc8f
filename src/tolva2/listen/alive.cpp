#include "tolva2/listen/alive.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/settings.h"
#include "tolva2/listen/child.h"
#include "tolva2/net/kesdal.h"
#include "tolva2/net/sockets.h"

#include <cassert>
#include <cerrno>
#include <cstring>

namespace
{

constexpr size_t ALIVE_PARAMS = 128;

void cancel_connect(ux_list_element *node)
{
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    close_exchange(cn);
    cn->nerror++;
    report(event::server_not_alive, cn->ipaddr);
    /* At every failure, not only when the retries are used up. */
    exec_aliveproc(cn);
    check_alive_retries(node);
}

void end_connect(ux_list_element *node)
{
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    close_exchange(cn);
    cn->nerror = 0;
    report(event::server_alive, cn->ipaddr);
}

constexpr connect_ends ALIVE_ENDS{cancel_connect, end_connect};

/* 1 started, 0 could not connect, -1 the record is of no use. */
int32_t start_connect(ux_list_element *node)
{
    trace_in();
    connection *cn = record_of(node);
    int32_t startable = may_start(cn);
    if (startable != 1) {
        return startable;
    }
    if (!room_for_descriptor()) {
        log_system(errno);
        return 0;
    }
    int32_t fd = open_connect_socket(cn);
    if (fd < 0) {
        return 0;
    }
    set_close_on_exec(fd);
    begin_exchange(cn, fd, do_kesdal_send_logon, &ALIVE_ENDS);
    return 1;
}

} // namespace

int32_t start_connections()
{
    trace_in();
    assert(connections);
    ux_list_element *next = nullptr;
    for (ux_list_element *node = connections->head; node; node = next) {
        next = node->next;
        int32_t started = start_connect(node);
        if (started < 0) {
            unregister_connection(connections, node);
        } else if (started == 0) {
            cancel_connect(node);
        }
    }
    return static_cast<int32_t>(connections->size);
}

void cancel_connections()
{
    trace_in();
    ux_list_element *next = nullptr;
    for (ux_list_element *node = connections->head; node; node = next) {
        next = node->next;
        const connection *cn = record_of(node);
        if (!cn) {
            continue;
        }
        debug_printf("DEBUG: cancel >%s< (>%d<)\n", cn->ipaddr, cn->fd);
        if (cn->fd != -1) {
            cancel_connect(node);
        }
    }
}

void exec_aliveproc(connection *cn)
{
    trace_in();
    char params[ALIVE_PARAMS];
    time_t now = time(nullptr);
    snprintf(params, sizeof params, "%s %s %s", cn->ipaddr, log_date_text(now),
             log_time_text(now));
    fork_and_exec(cn, rp->alive_prog, params);
}

void check_alive_retries(ux_list_element *node)
{
    trace_in();
    const connection *cn = record_of(node);
    if (rp->alive_retries > 0 && cn->nerror >= rp->alive_retries && !cn->busy) {
        report(event::server_dropped, cn->ipaddr);
        unregister_connection(connections, node);
    }
}

int32_t check_alive_single(const char *address)
{
    trace_in();
    for (const ux_list_element *node = connections->head; node;
         node = node->next) {
        const connection *cn = record_of(node);
        if (cn && strcmp(cn->ipaddr, address) == 0) {
            debug_printf("DEBUG: alive >%s< (>%d<) nerror = %d\n", cn->ipaddr,
                         cn->fd, cn->nerror);
            return cn->fd > 0 && cn->nerror <= 0;
        }
    }
    return 0;
}
