/*
 * The daemon's body: what it opens and how it listens to signals, then one
 * pass after the other, each with a single wait and what comes of it.
 */
#include "tolva2/listen/tolva_receive.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/reserve.h"
#include "tolva2/listen/alive.h"
#include "tolva2/listen/client.h"
#include "tolva2/listen/command.h"
#include "tolva2/listen/readiness.h"
#include "tolva2/listen/redundancy.h"
#include "tolva2/listen/reply.h"
#include "tolva2/net/connection.h"
#include "tolva2/net/sockets.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <poll.h>

namespace {

constexpr int32_t FIRST_ALIVE_CYCLE = 5; /* seconds after the start */
constexpr int64_t RETRY_SECONDS = 1; /* while the system refuses something */

volatile sig_atomic_t running = 1;
volatile sig_atomic_t child_ended = 0;

/* What one pass of the loop hands to the next. */
struct listener_state {
    watched_fd tcp;
    watched_fd udp;
    const ux_list *allowed; /* who may send; empty: everybody */
    time_t now;             /* taken once a pass, after the wait */
    time_t last_alive;      /* when the last cycle of the watch began */
    accept_pause pause;
    bool datagram_refused;   /* the last one, by the system */
    time_t datagrams_failed; /* when that has happened again, last */
    sigset_t loop_mask;      /* everything handled here is held back */
    sigset_t wait_mask;      /* nothing is */
};

void handle_signal(int number) {
    if (number == SIGCHLD) {
        child_ended = 1;
    } else if (number == SIGINT || number == SIGQUIT || number == SIGTERM) {
        running = 0;
    }
}

void take_signals() {
    set_signal(SIGINT, debug_level < 0 ? SIG_IGN : handle_signal, 0);
    set_signal(SIGHUP, SIG_IGN, 0);
    set_signal(SIGPIPE, SIG_IGN, 0);
    set_signal(SIGCHLD, handle_signal, 0);
    set_signal(SIGTERM, handle_signal, 0);
    set_signal(SIGQUIT, handle_signal, 0);
    /* A log at the limit of what a process may write is a failed write, not
     * the end. Ignored it would be for scripts too, a handler is not. */
    set_signal(SIGXFSZ, handle_signal, 0);
}

/* Handled signals are held back except while waiting, so that none can slip
 * in between a look at its flag and the wait. */
void hold_signals_back(listener_state *state) {
    /* Whatever our parent held back: we must be able to hear a stop signal. */
    sigemptyset(&state->wait_mask);
    sigemptyset(&state->loop_mask);
    for (int number : {SIGCHLD, SIGINT, SIGTERM, SIGQUIT}) {
        sigaddset(&state->loop_mask, number);
    }
    sigprocmask(SIG_SETMASK, &state->loop_mask, nullptr);
}

/* A wait that finds a descriptor ready lets no signal in: do it here. */
void let_signals_in(const listener_state *state) {
    sigprocmask(SIG_SETMASK, &state->wait_mask, nullptr);
    sigprocmask(SIG_SETMASK, &state->loop_mask, nullptr);
}

/* What stops the start is for the terminal too, and for who looks after the
 * service, where there are words for it. */
void say_unopened(int32_t error, const char *kind) {
    log_system(error);
    const char *text = msgdb_peek(event::cannot_listen.number);
    if (!text) {
        return;
    }
    const char *address = rp->listen_address ? rp->listen_address.get() : "";
    char port[16];
    snprintf(port, sizeof port, "%d", rp->listenport);
    log_message(3, text, address, port, strerror(error));
    error_printf(
        stderr, ERROR_CONTINUE,
        "%s: cannot listen on ListenAddress=%s ListenPort=%s (%s): %s\n",
        progname, address, port, kind, strerror(error));
}

/* A socket that was bound or not: none after a log line, or closed to scripts
 * and shown to the developer. */
ux_fd bound_socket(ux_fd fd, bool bound, const char *kind) {
    if (!bound) {
        say_unopened(errno, kind);
        return {};
    }
    set_close_on_exec(fd.get());
    debug_printf("DEBUG: created %s socket [%d]\n", kind, fd.get());
    return fd;
}

ux_fd open_tcp_socket(int32_t port, const char *address) {
    trace_in();
    ux_fd fd = tcp_socket_nonblock();
    if (int32_t error = why_unwatchable(fd)) {
        say_unopened(error, "tcp");
        return {};
    }
    if (!set_reuse(fd.get(), true)) {
        log_system(errno);
    }
    bool bound = sock_listen_to(fd.get(), static_cast<uint16_t>(port), address);
    return bound_socket(std::move(fd), bound, "tcp");
}

ux_fd open_udp_socket(int32_t port, const char *address) {
    trace_in();
    /* A datagram that the wait reports may be gone when it is received. */
    ux_fd fd = udp_broadcast_socket_nonblock();
    if (int32_t error = why_unwatchable(fd)) {
        say_unopened(error, "udp");
        return {};
    }
    /* The former listener's, see tear_down; nobody may join this one. */
    set_reuse(fd.get(), true);
    bool bound = sock_bind_to(fd.get(), static_cast<uint16_t>(port), address);
    if (bound) {
        set_reuse(fd.get(), false);
    }
    return bound_socket(std::move(fd), bound, "udp");
}

watched_fd start_tcp_listener(int32_t port, const char *address) {
    trace_in();
    return {open_tcp_socket(port, address), EVENT_READABLE};
}

watched_fd start_udp_listener(int32_t port, const char *address) {
    trace_in();
    return {open_udp_socket(port, address), EVENT_READABLE};
}

/* Opens what is configured: false when anything of it failed. */
bool open_listeners(listener_state *state, const ux_list *alive) {
    state->tcp = start_tcp_listener(rp->listenport, rp->listen_address.get());
    if (!state->tcp) {
        return false;
    }
    report(event::tcp_listening);
    /* Datagrams are easily forged: none from just anybody. */
    if (setting_is_on(rp->listen_udp.get()) && state->allowed->size > 0) {
        state->udp =
            start_udp_listener(rp->listenport, rp->listen_address.get());
        if (!state->udp) {
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

/* True when clients cannot be accepted while one waits at the door. */
bool is_crowded(const listener_state *state) {
    if (accepting_clients(&state->pause, state->now) == accepting::yes) {
        return false;
    }
    pollfd door{state->tcp.get(), POLLIN, 0};
    return poll(&door, 1, 0) > 0;
}

/*
 * Seconds until the next cycle of the watch. A socket that stays readable
 * holds cycles back; so does a client that cannot be let in, without spinning.
 */
int64_t alive_timeout(const listener_state *state) {
    int64_t left = rp->alive_interval - (state->now - state->last_alive);
    return left > 0 ? left : is_crowded(state) ? RETRY_SECONDS : 0;
}

/* Seconds to wait at most, -1 for ever; drops clients that are too late. */
int64_t next_timeout(const listener_state *state) {
    int64_t timeout = -1;
    if (clients->size > 0 && rp->listen_timeout != 0) {
        timeout = check_timeout_clients(state->now, rp->listen_timeout);
    }
    debug_printf("DEBUG: timeout 1 = %d\n", static_cast<int>(timeout));
    if (connections->size > 0) {
        int64_t alive = alive_timeout(state);
        timeout = timeout < 0 ? alive : std::min(timeout, alive);
    }
    return timeout;
}

/* Takes the time of day. A clock that was set back is news, and nothing waits
 * for the old time to come again. */
void take_time(listener_state *state) {
    time_t before = state->now;
    state->now = time(nullptr);
    if (state->now < before) {
        char seconds[24];
        snprintf(seconds, sizeof seconds, "%lld",
                 static_cast<long long>(before - state->now));
        report(event::clock_set_back, seconds);
    }
    state->last_alive = std::min(state->last_alive, state->now);
}

/* Waits until something is ready, a signal comes or time is up. */
wait_result wait_for_events(listener_state *state) {
    int64_t timeout = next_timeout(state);
    accepting clients_may = accepting_clients(&state->pause, state->now);
    watch(state->tcp,
          clients_may == accepting::yes ? EVENT_READABLE : EVENT_NONE);
    bool datagrams_may = state->now != state->datagrams_failed;
    watch(state->udp, datagrams_may ? EVENT_READABLE : EVENT_NONE);
    if ((clients_may == accepting::paused || !datagrams_may) &&
        (timeout < 0 || timeout > RETRY_SECONDS)) {
        timeout = RETRY_SECONDS;
    }
    debug_printf("DEBUG: nclients = %d, nconnections = %d\n",
                 static_cast<int>(clients->size),
                 static_cast<int>(connections->size));
    debug_printf("DEBUG: calling select() maxfd=%d, max_fds=%d, nfds=%d\n\n",
                 highest_descriptor(), max_fds, open_descriptors());
    wait_result found = wait_for_descriptors(timeout, &state->wait_mask);
    take_time(state);
    debug_printf("DEBUG: select() returned nready = %d\n", found.ready);
    return found;
}

/* Time is up: a cycle of the alive watch, when it is due. */
void run_alive_cycle(listener_state *state) {
    if (connections->size > 0 &&
        state->now - state->last_alive >= rp->alive_interval &&
        !is_crowded(state)) {
        state->last_alive = state->now;
        alive::cancel_connections();
        alive::start_connections();
    }
}

/* Each returns how many ready descriptors are left to be served. */
int32_t serve_listeners(listener_state *state, int32_t nready) {
    if (ready(state->tcp)) {
        handle_tcp_connect(state->tcp.get(), state->allowed,
                           state->now + rp->listen_timeout, &state->pause);
        nready--;
    }
    if (nready > 0 && ready(state->udp)) {
        bool refused = !handle_udp_connect(state->udp.get(), state->allowed);
        /* One failure may be over at once; what repeats takes longer. */
        if (refused && state->datagram_refused) {
            state->datagrams_failed = state->now;
        }
        state->datagram_refused = refused;
        nready--;
    }
    return nready;
}

int32_t serve_clients(int32_t nready) {
    for (ux_list_element *node : ux_nodes(clients)) {
        if (nready <= 0) {
            break;
        }
        const connection *cn = record_of(node);
        event_bits events = cn ? ready(cn->fd) : EVENT_NONE;
        nready -= events ? 1 : 0;
        /* Never both: a client is read from first, then written to. */
        if (events & EVENT_READABLE) {
            handle_tcp_client(node);
        } else if (events && cn->want_reply) {
            handle_tcp_reply(node);
        } else if (events || !cn) {
            unregister_connection(clients, node);
        }
    }
    return nready;
}

void serve_connections(int32_t nready) {
    for (ux_list_element *node : ux_nodes(connections)) {
        if (nready <= 0) {
            break;
        }
        const connection *cn = record_of(node);
        if (!cn) {
            unregister_connection(connections, node);
            continue;
        }
        debug_printf("DEBUG: check >%s< (>%d<)\n", cn->ipaddr, cn->fd.get());
        event_bits events = ready(cn->fd);
        nready -= (events & EVENT_READABLE) ? 1 : 0;
        nready -= (events & EVENT_WRITABLE) ? 1 : 0;
        if (events && cn->handler) {
            cn->handler(node, events);
        }
    }
}

/* One wait and what comes of it: false when the loop must end. */
bool run_pass(listener_state *state) {
    wait_result found = wait_for_events(state);
    if (found.ready < 0) {
        if (found.error == EINTR) {
            return true;
        }
        log_system(found.error);
        return false;
    }
    if (found.ready == 0) {
        run_alive_cycle(state);
        return true;
    }
    int32_t nready = serve_listeners(state, found.ready);
    nready = serve_clients(nready);
    serve_connections(nready);
    return true;
}

void run_loop(listener_state *state) {
    for (;;) {
        let_signals_in(state);
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

/* A script that has not become a shell yet has both sockets as well, and the
 * next listener must not find its port in use: the one stops listening, the
 * other allows another beside it. */
void tear_down(listener_state *state) {
    if (connections->size > 0) {
        ux_list_destroy(connections);
        report(event::watch_stopped);
    }
    if (state->udp) {
        set_reuse(state->udp.get(), true);
        state->udp.reset();
        report(event::udp_stopped);
    }
    if (!state->tcp) {
        return;
    }
    shutdown(state->tcp.get(), SHUT_RD);
    state->tcp.reset();
    if (clients->size > 0) {
        ux_list_destroy(clients);
    }
    report(event::tcp_stopped);
}

} // namespace

int32_t recv_mode(receiver_params *settings, const ux_list *allowed,
                  const ux_list *alive, const ux_list *redundancy) {
    trace_in();
    listener_state state{};
    state.allowed = allowed;
    state.now = time(nullptr);
    ux_list client_list;
    ux_list connection_list;
    rp = settings;
    clients = ux_list_init(&client_list, destroy_connection);
    connections = ux_list_init(&connection_list, destroy_connection);
    init_redundant_shutdowns(settings, redundancy);
    take_signals();
    hold_signals_back(&state);
    reset_descriptors(0);
    fill_reserve();
    count_numbers();
    if (open_listeners(&state, alive)) {
        announce_ready();
        run_loop(&state);
        announce_stopping();
    }
    tear_down(&state);
    give_up_reserve();
    clients = nullptr;
    connections = nullptr;
    return running;
}
