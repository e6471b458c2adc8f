/*
 * The handlers of a request and of its reply, and the loop that drives all
 * connections of a run. What happens at a UPS server is elsewhere; here is
 * only how such an exchange ends.
 */
#include "tolva2/send/tolva_send.h"
#include "tolva2/base/signals.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/net/connection.h"
#include "tolva2/net/kesdal.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"
#include "unixtools/ux_number.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>
#include <sys/socket.h>

/* Not "send", which is the system's call. The listener has its own ways to
 * start, cancel and end a connection. */
namespace sender {
namespace {

constexpr size_t STATUS_TEXT = 16;

/* What the connections of the run share. */
struct {
    const char *command = nullptr; /* what every listener is sent */
    bool failed = false;           /* any connection has failed */
    int32_t remote_status = -1;    /* of the last reply, mapped; -1: none */
} run;

/* The message of a type of connection that failed; "%s" is its address. */
void log_failure(const connection *cn) {
    switch (cn->type) {
    case ADDR_KESDAL:
        report(event::server_not_alive, cn->ipaddr);
        break;
    case ADDR_PEER:
        report(event::send_failed, cn->ipaddr);
        break;
    case ADDR_BROADCAST:
        report(event::broadcast_failed);
        break;
    default:
        log_error(EINVAL);
        break;
    }
}

void cancel_connect(ux_list_element *node) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    close_exchange(cn);
    cn->nerror++;
    log_failure(cn);
    unregister_connection(node);
    run.failed = true;
}

void end_connect(ux_list_element *node) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    close_exchange(cn);
    cn->nerror = 0;
    report(cn->type == ADDR_KESDAL ? event::server_alive : event::command_sent,
           cn->ipaddr);
    unregister_connection(node);
}

constexpr connect_ends SEND_ENDS{cancel_connect, end_connect};

/* What a listener says is one line, and no part of it moves the cursor. */
const char *printable(std::string_view text, std::span<char> buffer) {
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    text = text.substr(0, buffer.size() - 1);
    char *end =
        std::ranges::replace_copy_if(
            text, buffer.data(),
            [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7f; },
            '?')
            .out;
    *end = '\0';
    return buffer.data();
}

/* A reply has come: its status becomes the run's, seen as our own. The byte
 * behind the header is not looked at. */
void take_reply(const connection *cn, const char *reply) {
    const char *text = reply + REPLY_HEADER_LENGTH;
    text += *text ? 1 : 0;
    char shown[TEXT_BUFFER];
    log_message(2, "server[%s]: %s", cn->ipaddr, printable(text, shown));
    char value[STATUS_TEXT];
    if (get_key_value(text, "EXITSTATUS", value, sizeof value)) {
        debug_printf("DEBUG: value = [%s]\n", value);
        run.remote_status = ux_atoi(value);
    }
    debug_printf("DEBUG: remote_status = [%d]\n", run.remote_status);
    run.remote_status = map_remote_status(run.remote_status);
}

/* One receive from a listener: true when it was a reply. */
bool receive_reply(const connection *cn) {
    char reply[TEXT_BUFFER];
    ssize_t length = recv(cn->fd.get(), reply, sizeof reply - 1, 0);
    if (length < 0) {
        log_system(errno);
        return false;
    }
    reply[length] = '\0';
    if (length == 0 || !is_reply_header(reply)) {
        report(event::not_understood);
        return false;
    }
    take_reply(cn, reply);
    return true;
}

/* The socket of a request with status is readable: true for a reply. */
bool handle_reply(const connection *cn) {
    debug_printf("DEBUG: cn->mode = %d \n", cn->mode);
    debug_printf("DEBUG: cn->type = %d \n", cn->type);
    if (cn->mode != MODE_SEND_STATUS || cn->type != ADDR_PEER) {
        log_error(EINVAL);
        return false;
    }
    int32_t err = sock_pending_error(cn->fd.get());
    debug_printf("DEBUG: err = %d \n", err);
    if (err != 0) {
        log_system(err);
        return false;
    }
    return receive_reply(cn);
}

void do_rcv_tolva(ux_list_element *node, event_bits events) {
    trace_in();
    const connection *cn = record_of(node);
    bool received = false;
    debug_printf("DEBUG: event = %d \n", events);
    if (events & EVENT_READABLE) {
        assert(cn);
        received = handle_reply(cn);
    } else {
        log_error(EINVAL);
    }
    if (!received) {
        report(event::reply_unusable, cn ? cn->ipaddr : "");
        run.failed = true;
    }
    unregister_connection(node);
}

/* Sends the request when the socket is fit for it: false on any failure. */
bool send_request(const connection *cn, event_bits events) {
    if (!(events & EVENT_WRITABLE)) {
        return false;
    }
    int32_t err = sock_pending_error(cn->fd.get());
    if (err != 0) {
        log_system(err);
        return false;
    }
    switch (cn->type) {
    case ADDR_PEER:
        return send_ok(cn->fd.get(), run.command) != 0;
    case ADDR_BROADCAST:
        return udp_send_ok(cn->fd.get(), static_cast<uint16_t>(cn->port),
                           cn->ipaddr, run.command) != 0;
    default:
        return true;
    }
}

void do_send_tolva(ux_list_element *node, event_bits events) {
    trace_in();
    connection *cn = record_of(node);
    assert(cn);
    if (!send_request(cn, events)) {
        cancel_connect(node);
    } else if (cn->mode == MODE_SEND_STATUS) {
        wait_in(cn, EVENT_READABLE, do_rcv_tolva);
    } else {
        end_connect(node);
    }
}

ux_fd open_connect_socket_bc(const connection *) {
    trace_in();
    ux_fd fd = udp_broadcast_socket_nonblock();
    if (int32_t error = why_unwatchable(fd)) {
        log_system(error);
        fd.reset();
    }
    return fd;
}

/* Opens the socket of a record's type, with the message before it. */
ux_fd open_by_type(const connection *cn) {
    switch (cn->type) {
    case ADDR_BROADCAST:
        report(event::broadcasting, cn->ipaddr);
        return open_connect_socket_bc(cn);
    case ADDR_KESDAL:
    case ADDR_PEER:
        report(event::connecting, cn->ipaddr);
        return open_connect_socket(cn);
    default:
        return {};
    }
}

start_result start_connect(ux_list_element *node) {
    trace_in();
    connection *cn = record_of(node);
    start_result startable = may_start(cn);
    if (startable != START_DONE) {
        return startable;
    }
    ux_fd fd = open_by_type(cn);
    if (!fd) {
        log_failure(cn);
        return START_FAILED;
    }
    begin_exchange(cn, std::move(fd),
                   cn->type == ADDR_KESDAL ? do_kesdal_send_logon
                                           : do_send_tolva,
                   &SEND_ENDS);
    return START_DONE;
}

int32_t start_connections() {
    trace_in();
    assert(connections);
    for (ux_list_element *node : ux_nodes(connections)) {
        if (start_connect(node) != START_DONE) {
            unregister_connection(node);
            run.failed = true;
        }
    }
    return static_cast<int32_t>(connections->size);
}

/* A clock that nobody sets, so that no run is cut short or drawn out by a
 * change of the time of day. */
timespec now_steady() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/* Whole seconds that have passed, wherever in a second they began. */
constexpr int64_t whole_seconds(const timespec &start, const timespec &end) {
    return end.tv_sec - start.tv_sec - (end.tv_nsec < start.tv_nsec ? 1 : 0);
}

/* Hands every ready connection to its handler. */
void serve_connections() {
    for (ux_list_element *node : ux_nodes(connections)) {
        const connection *cn = record_of(node);
        if (!cn) {
            unregister_connection(node);
            continue;
        }
        event_bits events = ready(cn->fd);
        if (events && cn->handler) {
            cn->handler(node, events);
        }
    }
}

/* Seconds that are left of a run; below 0: there is no limit. */
int64_t seconds_left(const timespec &start, int32_t timeout) {
    if (timeout == 0) {
        return -1;
    }
    return std::max<int64_t>(timeout - whole_seconds(start, now_steady()), 0);
}

/* Waits once and serves what is ready: false when the run is over. */
bool drive_connections(const timespec &start, int32_t timeout) {
    wait_result found =
        wait_for_descriptors(seconds_left(start, timeout), nullptr);
    if (found.ready < 0) {
        if (found.error == EINTR) {
            return true;
        }
        log_system(found.error);
        return false;
    }
    if (found.ready == 0) {
        log_error(ETIMEDOUT);
        for (const connection *cn : records(connections)) {
            report(event::no_answer, cn ? cn->ipaddr : "");
        }
        return false;
    }
    serve_connections();
    return true;
}

/* Starts all connections and drives them to their ends: false when the run
 * as a whole has failed. */
bool run_connections(const ux_list *addresses, int32_t port, int32_t timeout) {
    const timespec start = now_steady();
    if (!set_connections(addresses, static_cast<uint32_t>(port)) ||
        !start_connections()) {
        return false;
    }
    while (connections->size > 0) {
        if (!drive_connections(start, timeout)) {
            return false;
        }
    }
    return true;
}

} // namespace
} // namespace sender

int32_t send_mode(const ux_list *addresses, int32_t port, int32_t timeout,
                  const char *command_text) {
    trace_in();
    set_signal(SIGHUP, SIG_IGN, SA_RESTART);
    set_signal(SIGPIPE, SIG_IGN, SA_RESTART);
    reset_descriptors(-1);
    ux_list list;
    connections = ux_list_init(&list, destroy_connection);
    sender::run.command = command_text;
    bool driven = sender::run_connections(addresses, port, timeout);
    if (connections->size > 0) {
        ux_list_destroy(connections);
    }
    connections = nullptr;
    if (!driven || sender::run.failed) {
        return 1;
    }
    return std::max(sender::run.remote_status, 0);
}
