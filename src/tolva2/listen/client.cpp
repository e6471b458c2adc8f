/*
 * From the listening sockets to a command: accept or receive, look at who it
 * is, take the one message, hand it on. A session ends here too, when nothing
 * comes.
 */
#include "tolva2/listen/client.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/reserve.h"
#include "tolva2/files/settings.h"
#include "tolva2/listen/command.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <poll.h>

namespace {

/* Listeners alone are never too many: under a limit of a handful, one client
 * at a time is better than none, even without a descriptor for the log. */
constexpr int32_t LISTENERS_MAX = 2;

void copy_address(char *text, const in_addr *address) {
    text[0] = '\0';
    strncat(text, inet_ntoa(*address), ADDRESS_TEXT - 1);
}

/* The process or the system has run out of descriptors or memory. */
bool is_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS ||
           error == ENOMEM;
}

/* One failure may be that of one client; what repeats is a shortage too. */
void note_refusal(accept_pause *pause, int error) {
    bool repeats = pause->error == error;
    if (!pause->told && !repeats) {
        log_system(error);
    }
    bool lasting = repeats || is_shortage(error);
    *pause = {lasting, lasting, error, open_descriptors(), time(nullptr)};
}

/* The shortage is over once nobody is left waiting. */
void note_accepted(accept_pause *pause, int32_t listener) {
    pause->waiting = false;
    pause->error = 0;
    if (pause->told) {
        pollfd waiting{listener, POLLIN, 0};
        pause->told = poll(&waiting, 1, 0) > 0;
    }
}

/* One accept: the new socket, or none with the failure dealt with. */
ux_fd accept_client(int32_t listener, sockaddr_in *address,
                    accept_pause *pause) {
    ux_fd fd;
    int32_t error = fill_reserve();
    if (error == 0 && !number_left()) {
        error = EMFILE;
    }
    bool nobody_in = open_descriptors() <= LISTENERS_MAX;
    if (error == 0 || nobody_in) {
        socklen_t length = sizeof *address;
        fd = sock_accept(listener, address, &length);
        error = why_unwatchable(fd);
        if (!fd && nobody_in && reserve_helps(error)) {
            fd = sock_accept(listener, address, &length);
            error = why_unwatchable(fd);
        }
    }
    if (error == 0) {
        note_accepted(pause, listener);
    } else {
        fd.reset();
        note_refusal(pause, error);
    }
    return fd;
}

/* A registered record for a peer; null after a log line. */
connection *add_client(address_kind type, const sockaddr_in *address,
                       ux_fd fd) {
    connection_owner owner = new_connection(MODE_LISTEN, type);
    connection *cn = owner.get();
    if (!cn) {
        log_system(errno);
        return nullptr;
    }
    cn->addr = *address;
    copy_address(cn->ipaddr, &address->sin_addr);
    cn->port = static_cast<uint32_t>(rp->listenport);
    if (fd) {
        set_close_on_exec(fd.get());
        /* A peer that lost its power says nothing, for ever. */
        set_keep_alive(fd.get());
        cn->fd = watched_fd(std::move(fd), EVENT_READABLE);
    }
    if (!register_connection(clients, std::move(owner))) {
        log_system(errno);
        return nullptr;
    }
    return cn;
}

/* Runs a request of that class. */
void run_request(connection *cn, request_class kind, char *text) {
    if (kind == REQUEST_V1) {
        exec_V1command(cn);
    } else {
        exec_V2command(cn, text + REQUEST_TEXT_OFFSET);
    }
}

/* One receive is the whole command: there is no framing. False when there was
 * nothing to receive after all, and the client is waited for as before. */
bool receive_command(connection *cn) {
    char text[TEXT_BUFFER];
    ssize_t length = recv(cn->fd.get(), text, sizeof text - 1, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    /* One message is all that a client can say. */
    watch(cn->fd, EVENT_NONE);
    if (length < 0) {
        log_system(errno);
    }
    if (length <= 0) {
        report(event::nothing_received);
        return true;
    }
    text[length] = '\0';
    report(event::message_received);
    report(event::request_from, cn->ipaddr);
    debug_printf("DEBUG: received = [%s]\n", text);
    request_class kind = classify_request(text);
    if (kind == REQUEST_NONE) {
        report(event::not_understood);
        return true;
    }
    run_request(cn, kind, text);
    return true;
}

/* Runs what a datagram asks for, if its source may ask. */
void run_datagram(const sockaddr_in *from, char *text, const ux_list *allowed) {
    char peer[ADDRESS_TEXT];
    copy_address(peer, &from->sin_addr);
    report(event::datagram_received, peer);
    /* The source of a datagram can be forged, to 0.0.0.0 too. */
    if (!from->sin_addr.s_addr ||
        !client_is_allowed(allowed, &from->sin_addr)) {
        report(event::refused, peer);
        return;
    }
    request_class kind = classify_request(text);
    if (kind == REQUEST_NONE) {
        report(event::not_understood);
        return;
    }
    connection *cn = add_client(ADDR_BROADCAST, from, ux_fd());
    if (!cn) {
        return;
    }
    run_request(cn, kind, text);
    if (!cn->busy) {
        unregister_connection(clients, clients->tail);
    }
}

/* Without a list everybody may send; with one that holds nothing that can be
 * used, nobody. */
bool is_admitted(const ux_list *allowed, const in_addr *address) {
    return allowed->size > 0 ? client_is_allowed(allowed, address)
                             : ux_is_empty(rp->allowed_addresses.get());
}

} // namespace

bool client_is_allowed(const ux_list *allowed, const in_addr *sin_addr) {
    trace_in();
    assert(sin_addr && sin_addr->s_addr);
    for (const inetaddr *entry : ux_records<inetaddr>(allowed)) {
        if (!entry) {
            return false;
        }
        if (entry->addr.sin_addr.s_addr == sin_addr->s_addr) {
            return true;
        }
    }
    return false;
}

accepting accepting_clients(const accept_pause *pause, time_t now) {
    if (!descriptor_left()) {
        return accepting::no;
    }
    /* One of ours closed, or a second gone by: worth another attempt. */
    if (pause->waiting && open_descriptors() >= pause->open_then &&
        now == pause->when) {
        return accepting::paused;
    }
    return accepting::yes;
}

void handle_tcp_connect(int32_t listener, const ux_list *allowed,
                        time_t deadline, accept_pause *pause) {
    trace_in();
    if (!descriptor_left()) {
        return;
    }
    sockaddr_in address;
    ux_fd fd = accept_client(listener, &address, pause);
    if (!fd) {
        return;
    }
    if (!is_admitted(allowed, &address.sin_addr)) {
        char text[ADDRESS_TEXT];
        copy_address(text, &address.sin_addr);
        fd.reset();
        report(event::refused, text);
        return;
    }
    connection *cn = add_client(ADDR_PEER, &address, std::move(fd));
    if (cn) {
        cn->deadline = deadline;
    }
}

bool handle_udp_connect(int32_t udp_socket, const ux_list *allowed) {
    trace_in();
    char text[TEXT_BUFFER];
    sockaddr_in from;
    socklen_t fromlen = sizeof from;
    errno = 0;
    if (!udp_recv_text(udp_socket, &from, &fromlen, text, sizeof text)) {
        /* An empty one has come, or a damaged one was thrown away. */
        bool answered = errno == 0 || errno == EAGAIN || errno == EINTR;
        report(event::datagram_failed);
        return answered;
    }
    run_datagram(&from, text, allowed);
    return true;
}

void handle_tcp_client(ux_list_element *node) {
    trace_in();
    connection *cn = record_of(node);
    if (!receive_command(cn)) {
        return;
    }
    cn->deadline = 0;
    if (!cn->busy) {
        unregister_connection(clients, node);
    } else if (!cn->want_reply) {
        /* The record stays until its script has been collected. */
        cn->fd.reset();
    }
}

int64_t check_timeout_clients(time_t now, int32_t timeout) {
    trace_in();
    int64_t result = -1;
    int64_t limit = static_cast<int64_t>(now) + timeout;
    for (ux_list_element *node : ux_nodes(clients)) {
        connection *cn = record_of(node);
        assert(cn);
        if (cn->deadline == 0) {
            continue;
        }
        if (now >= cn->deadline) {
            log_error(ETIMEDOUT);
            unregister_connection(clients, node);
        } else if (limit < cn->deadline) {
            /* The clock was set back: nobody waits longer than before, and
             * the absolute time that is returned wakes nobody too early. */
            cn->deadline = static_cast<time_t>(limit);
            result = limit;
        } else {
            return cn->deadline - now;
        }
    }
    return result;
}
