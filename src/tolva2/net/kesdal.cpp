/*
 * One handler per step of the exchange: each looks at its event, says or hears
 * its line, and hands over to the next.
 */
#include "tolva2/net/kesdal.h"
#include "tolva2/base/trace.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"

#include <cassert>

namespace {

/* The event has come and the socket is in order. */
bool is_ready(const connection *cn, event_bits events, event_bits wanted) {
    return (events & wanted) && sock_pending_error(cn->fd.get()) == 0;
}

} // namespace

void do_kesdal_send_logon(ux_list_element *node, event_bits events) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    if (is_ready(cn, events, EVENT_WRITABLE) &&
        send_kesdal_logon(cn->fd.get())) {
        wait_in(cn, EVENT_READABLE, do_kesdal_recv_logon);
    } else {
        cn->ends->cancel(node);
    }
}

void do_kesdal_recv_logon(ux_list_element *node, event_bits events) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    if (is_ready(cn, events, EVENT_READABLE) && recv_kesdal(cn->fd.get())) {
        wait_in(cn, EVENT_WRITABLE, do_kesdal_send_logoff);
    } else {
        cn->ends->cancel(node);
    }
}

void do_kesdal_send_logoff(ux_list_element *node, event_bits events) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    if (is_ready(cn, events, EVENT_WRITABLE) &&
        send_kesdal_logoff(cn->fd.get())) {
        wait_in(cn, EVENT_READABLE, do_kesdal_recv_logoff);
        sock_shutdown_write(cn->fd.get());
    } else {
        cn->ends->cancel(node);
    }
}

void do_kesdal_recv_logoff(ux_list_element *node, event_bits events) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    if (is_ready(cn, events, EVENT_READABLE)) {
        /* Whatever it says: the server has answered before. */
        recv_kesdal(cn->fd.get());
    }
    cn->ends->end(node);
}
