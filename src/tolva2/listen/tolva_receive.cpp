#include "tolva2/listen/tolva_receive.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/listen/alive.h"
#include "tolva2/listen/child.h"
#include "tolva2/listen/client.h"
#include "tolva2/listen/command.h"
#include "tolva2/listen/redundancy.h"
#include "tolva2/listen/reply.h"
#include "tolva2/net/connection.h"
#include "tolva2/net/sockets.h"

#include <cerrno>
#include <csignal>
#include <sys/select.h>
#include <unistd.h>

namespace
{

constexpr int32_t FIRST_ALIVE_CYCLE = 5; /* seconds after the start */
constexpr int64_t RETRY_SECONDS = 1;     /* while no descriptor can be had */

volatile sig_atomic_t running = 1;
volatile sig_atomic_t child_ended = 0;

sigset_t loop_mask;   /* everything handled here is held back */
sigset_t wait_mask;   /* nothing is */
sigset_t script_mask; /* what scripts start with: SIGCHLD held back */

/* What one pass of the loop hands to the next. */
struct listener_state {
    int32_t tcp_fd;
    int32_t udp_fd;
    const ux_list *allowed;
    time_t now;
    time_t last_alive;
};

void handle_signal(int number)
{
    switch (number) {
    case SIGINT:
    case SIGQUIT:
    case SIGTERM:
        running = 0;
        break;
    case SIGCHLD:
        child_ended = 1;
        break;
    default:
        break;
    }
}

/*
 * Handled signals are held back except while waiting, so that none can slip
 * in between a look at its flag and the wait.
 */
void prepare_signals()
{
    set_signal(SIGINT, debug_level < 0 ? SIG_IGN : handle_signal, 0);
    set_signal(SIGHUP, SIG_IGN, 0);
    set_signal(SIGPIPE, SIG_IGN, 0);
    set_signal(SIGCHLD, handle_signal, 0);
    set_signal(SIGTERM, handle_signal, 0);
    set_signal(SIGQUIT, handle_signal, 0);
    /* A log at the limit of what a process may write is a failed write, not
     * the end. Ignored it would be for scripts too, a handler is not. */
    set_signal(SIGXFSZ, handle_signal, 0);

    /* Whatever our parent held back: we must be able to hear a stop signal. */
    sigemptyset(&wait_mask);
    script_mask = wait_mask;
    sigaddset(&script_mask, SIGCHLD);
    child_mask = &script_mask;
    loop_mask = script_mask;
    sigaddset(&loop_mask, SIGINT);
    sigaddset(&loop_mask, SIGTERM);
    sigaddset(&loop_mask, SIGQUIT);
    sigprocmask(SIG_SETMASK, &loop_mask, nullptr);
}

/* A wait that finds a descriptor ready lets no signal in: do it here. */
void let_signals_in()
{
    sigprocmask(SIG_SETMASK, &wait_mask, nullptr);
    sigprocmask(SIG_SETMASK, &loop_mask, nullptr);
}

/* Logs why the last call failed and closes fd, if it was opened: -1. */
int32_t open_failed(int32_t fd)
{
    log_system(errno);
    if (fd >= 0) {
        close(fd);
    }
    return -1;
}

int32_t open_tcp_socket(int32_t port, const char *address)
{
    trace_in();
    int32_t fd = keep_selectable(tcp_socket_nonblock());
    if (fd < 0) {
        return open_failed(fd);
    }
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        log_system(errno);
    }
    if (!sock_listen_to(fd, static_cast<uint16_t>(port), address)) {
        return open_failed(fd);
    }
    set_close_on_exec(fd);
    debug_printf("DEBUG: created tcp socket [%d]\n", fd);
    return fd;
}

int32_t open_udp_socket(int32_t port, const char *address)
{
    trace_in();
    /* A datagram that select() reports may be gone when it is received. */
    int32_t fd = keep_selectable(udp_broadcast_socket_nonblock());
    if (fd < 0 || !sock_bind_to(fd, static_cast<uint16_t>(port), address)) {
        return open_failed(fd);
    }
    set_close_on_exec(fd);
    debug_printf("DEBUG: created udp socket [%d]\n", fd);
    return fd;
}

int32_t start_tcp_listener(int32_t port, const char *address)
{
    trace_in();
    int32_t fd = open_tcp_socket(port, address);
    if (fd >= 0) {
        add_descriptor(fd, &readfds);
    }
    return fd;
}

int32_t start_udp_listener(int32_t port, const char *address)
{
    trace_in();
    int32_t fd = open_udp_socket(port, address);
    if (fd >= 0) {
        add_descriptor(fd, &readfds);
    }
    return fd;
}

/* Opens what is configured: false when anything of it failed. */
bool open_listeners(listener_state *state, const ux_list *alive)
{
    state->tcp_fd = start_tcp_listener(rp->listenport, rp->listen_address);
    if (state->tcp_fd < 0) {
        return false;
    }
    report(event::tcp_listening);
    /* Datagrams are easily forged: none from just anybody. */
    if (setting_is_on(rp->listen_udp) && state->allowed->size > 0) {
        state->udp_fd = start_udp_listener(rp->listenport, rp->listen_address);
        if (state->udp_fd < 0) {
            return false;
        }
        report(event::udp_listening);
    }
    if (alive->size > 0) {
        if (!set_connections(alive, static_cast<uint32_t>(rp->kesdalport))) {
            return false;
        }
        report(event::watch_started);
        state->last_alive = state->now - rp->alive_interval + FIRST_ALIVE_CYCLE;
    }
    return true;
}

/* Seconds to wait at most, -1 for ever; drops clients that are too late. */
int64_t next_timeout(const listener_state *state)
{
    int64_t timeout = -1;
    if (clients->size > 0 && rp->listen_timeout != 0) {
        timeout = check_timeout_clients(state->now, rp->listen_timeout);
    }
    debug_printf("DEBUG: timeout 1 = %d\n", static_cast<int>(timeout));
    if (connections->size > 0) {
        int64_t alive = rp->alive_interval - (state->now - state->last_alive);
        if (alive < 0) {
            alive = 0;
        }
        if (timeout < 0 || alive < timeout) {
            timeout = alive;
        }
    }
    return timeout;
}

/* Waits until something is ready, a signal comes or time is up. */
int wait_for_events(listener_state *state)
{
    int64_t timeout = next_timeout(state);
    ready_read = readfds;
    ready_write = writefds;
    int32_t retry = 0;
    if (!accepting_clients(state->now, &retry)) {
        FD_CLR(state->tcp_fd, &ready_read);
        if (retry && (timeout < 0 || timeout > RETRY_SECONDS)) {
            timeout = RETRY_SECONDS;
        }
    }
    debug_printf("DEBUG: nclients = %d, nconnections = %d\n",
                 static_cast<int>(clients->size),
                 static_cast<int>(connections->size));
    debug_printf("DEBUG: calling select() maxfd=%d, max_fds=%d, nfds=%d\n\n",
                 maxfd, max_fds, nfds);
    timespec limit{};
    limit.tv_sec = static_cast<time_t>(timeout);
    errno = 0;
    int nready = pselect(maxfd + 1, &ready_read, &ready_write, nullptr,
                         timeout < 0 ? nullptr : &limit, &wait_mask);
    int saved = errno;
    state->now = time(nullptr);
    debug_printf("DEBUG: select() returned nready = %d\n", nready);
    errno = saved;
    return nready;
}

/* Time is up: a cycle of the alive watch, when it is due. */
void run_alive_cycle(listener_state *state)
{
    if (connections->size > 0 &&
        state->now - state->last_alive >= rp->alive_interval) {
        state->last_alive = state->now;
        cancel_connections();
        start_connections();
    }
}

/* Both return how many ready descriptors are left to be served. */
int serve_listeners(const listener_state *state, int nready)
{
    if (FD_ISSET(state->tcp_fd, &ready_read)) {
        handle_tcp_connect(state->tcp_fd, state->allowed,
                           state->now + rp->listen_timeout);
        nready--;
    }
    if (nready > 0 && state->udp_fd >= 0 &&
        FD_ISSET(state->udp_fd, &ready_read)) {
        handle_udp_connect(state->udp_fd, state->allowed);
        nready--;
    }
    return nready;
}

int serve_clients(int nready)
{
    ux_list_element *next = nullptr;
    for (ux_list_element *node = clients->head; node && nready > 0;
         node = next) {
        next = node->next;
        const connection *cn = record_of(node);
        if (!cn) {
            unregister_connection(clients, node);
            continue;
        }
        /* Never both: a client is read from first, then written to. */
        event_bits events = ready_events(cn);
        if (events & EVENT_READABLE) {
            handle_tcp_client(node);
            nready--;
        } else if (events & EVENT_WRITABLE) {
            if (cn->want_reply) {
                handle_tcp_reply(node);
            } else {
                unregister_connection(clients, node);
            }
            nready--;
        }
    }
    return nready;
}

void serve_connections(int nready)
{
    ux_list_element *next = nullptr;
    for (ux_list_element *node = connections->head; node && nready > 0;
         node = next) {
        next = node->next;
        const connection *cn = record_of(node);
        if (!cn) {
            unregister_connection(connections, node);
            continue;
        }
        debug_printf("DEBUG: check >%s< (>%d<)\n", cn->ipaddr, cn->fd);
        event_bits events = ready_events(cn);
        nready -= (events & EVENT_READABLE) ? 1 : 0;
        nready -= (events & EVENT_WRITABLE) ? 1 : 0;
        if (events && cn->handler) {
            cn->handler(node, events);
        }
    }
}

/* One wait and what comes of it: false when the loop must end. */
bool run_pass(listener_state *state)
{
    int nready = wait_for_events(state);
    if (nready < 0) {
        if (errno == EINTR) {
            return true;
        }
        log_system(errno);
        return false;
    }
    if (nready == 0) {
        run_alive_cycle(state);
        return true;
    }
    nready = serve_listeners(state, nready);
    nready = serve_clients(nready);
    serve_connections(nready);
    return true;
}

void run_loop(listener_state *state)
{
    for (;;) {
        let_signals_in();
        if (!running) {
            return;
        }
        if (child_ended) {
            reap_children();
            child_ended = 0;
        }
        if (!run_pass(state)) {
            return;
        }
    }
}

void tear_down(listener_state *state)
{
    if (connections->size > 0) {
        ux_list_destroy(connections);
        report(event::watch_stopped);
    }
    if (state->udp_fd >= 0) {
        close_descriptor(&state->udp_fd);
        report(event::udp_stopped);
    }
    if (state->tcp_fd < 0) {
        return;
    }
    close_descriptor(&state->tcp_fd);
    if (clients->size > 0) {
        ux_list_destroy(clients);
    }
    report(event::tcp_stopped);
}

} // namespace

int32_t recv_mode(receiver_params *settings, const ux_list *allowed,
                  const ux_list *alive, const ux_list *redundancy)
{
    trace_in();
    listener_state state{-1, -1, allowed, time(nullptr), 0};
    ux_list client_list;
    ux_list connection_list;
    rp = settings;
    clients = ux_list_init(&client_list, destroy_connection);
    connections = ux_list_init(&connection_list, destroy_connection);
    init_redundant_shutdowns(settings, redundancy);
    prepare_signals();
    reset_descriptors(0);
    if (open_listeners(&state, alive)) {
        run_loop(&state);
    }
    tear_down(&state);
    clients = nullptr;
    connections = nullptr;
    return running;
}
