/*
 * A cycle of the watch and what comes of each check: the endings of an
 * exchange, the not-alive script, and the server that is given up.
 */
#include "tolva2/listen/alive.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/settings.h"
#include "tolva2/listen/child.h"
#include "tolva2/net/kesdal.h"
#include "tolva2/net/sockets.h"

#include <cassert>
#include <cstring>

namespace {

constexpr size_t ALIVE_PARAMS = 128;

} // namespace

namespace alive {
namespace {

void cancel_connect(ux_list_element *node) {
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

void end_connect(ux_list_element *node) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    close_exchange(cn);
    cn->nerror = 0;
    report(event::server_alive, cn->ipaddr);
}

constexpr connect_ends ALIVE_ENDS{cancel_connect, end_connect};

start_result start_connect(ux_list_element *node) {
    trace_in();
    connection *cn = record_of(node);
    start_result startable = may_start(cn);
    if (startable != START_DONE) {
        return startable;
    }
    ux_fd fd = open_connect_socket(cn);
    if (!fd) {
        return START_FAILED;
    }
    set_close_on_exec(fd.get());
    begin_exchange(cn, std::move(fd), do_kesdal_send_logon, &ALIVE_ENDS);
    return START_DONE;
}

} // namespace

int32_t start_connections() {
    trace_in();
    assert(connections);
    for (ux_list_element *node : ux_nodes(connections)) {
        start_result started = start_connect(node);
        if (started == START_UNUSABLE) {
            unregister_connection(connections, node);
        } else if (started == START_FAILED) {
            cancel_connect(node);
        }
    }
    return static_cast<int32_t>(connections->size);
}

void cancel_connections() {
    trace_in();
    for (ux_list_element *node : ux_nodes(connections)) {
        const connection *cn = record_of(node);
        if (!cn) {
            continue;
        }
        debug_printf("DEBUG: cancel >%s< (>%d<)\n", cn->ipaddr, cn->fd.get());
        if (cn->fd) {
            cancel_connect(node);
        }
    }
}

} // namespace alive

void exec_aliveproc(connection *cn) {
    trace_in();
    char params[ALIVE_PARAMS];
    time_t now = time(nullptr);
    snprintf(params, sizeof params, "%s %s %s", cn->ipaddr, log_date_text(now),
             log_time_text(now));
    fork_and_exec(cn, rp->alive_prog.get(), params);
}

void check_alive_retries(ux_list_element *node) {
    trace_in();
    const connection *cn = record_of(node);
    if (rp->alive_retries > 0 && cn->nerror >= rp->alive_retries && !cn->busy) {
        report(event::server_dropped, cn->ipaddr);
        unregister_connection(connections, node);
    }
}

bool check_alive_single(const char *address) {
    trace_in();
    for (const connection *cn : records(connections)) {
        if (cn && strcmp(cn->ipaddr, address) == 0) {
            debug_printf("DEBUG: alive >%s< (>%d<) nerror = %d\n", cn->ipaddr,
                         cn->fd.get(), cn->nerror);
            return cn->fd.get() > 0 && cn->nerror <= 0;
        }
    }
    return false;
}
