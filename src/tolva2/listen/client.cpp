#include "tolva2/listen/client.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/settings.h"
#include "tolva2/listen/command.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace
{

/* What is remembered while the system gives no more descriptors. */
struct {
    bool waiting;      /* the last attempt was refused */
    bool told;         /* and the log says so */
    int32_t open_then; /* nfds at that attempt */
    time_t when;
} refusal;

void copy_address(char *text, const in_addr *address)
{
    text[0] = '\0';
    strncat(text, inet_ntoa(*address), ADDRESS_TEXT - 1);
}

/* The process or the system has run out of descriptors or memory. */
bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS ||
           error == ENOMEM;
}

void note_refusal(int error)
{
    if (!refusal.told) {
        log_system(error);
    }
    refusal = {true, true, nfds, time(nullptr)};
}

/* The shortage is over once nobody is left waiting. */
void note_accepted(int32_t listener)
{
    refusal.waiting = false;
    if (refusal.told) {
        pollfd waiting{listener, POLLIN, 0};
        refusal.told = poll(&waiting, 1, 0) > 0;
    }
}

/* One accept: the new descriptor, or -1 with the failure dealt with. */
int32_t accept_client(int32_t listener, sockaddr_in *address)
{
    socklen_t length = sizeof *address;
    int32_t fd = -1;
    if (room_for_descriptor()) {
        fd = keep_selectable(sock_accept(listener, address, &length));
    }
    if (fd >= 0) {
        note_accepted(listener);
    } else if (is_shortage(errno)) {
        note_refusal(errno);
    } else {
        log_system(errno);
    }
    return fd;
}

/* A registered record for a peer; null after a log line. */
connection *add_client(address_kind type, const sockaddr_in *address,
                       int32_t fd)
{
    connection *cn = new_connection(MODE_LISTEN, type);
    if (!cn) {
        log_system(errno);
        if (fd >= 0) {
            close(fd);
        }
        return nullptr;
    }
    cn->addr = *address;
    copy_address(cn->ipaddr, &address->sin_addr);
    cn->port = static_cast<uint32_t>(rp->listenport);
    if (fd >= 0) {
        cn->fd = fd;
        set_close_on_exec(fd);
        add_descriptor(fd, &readfds);
    }
    if (!register_connection(clients, cn)) {
        log_system(errno);
        destroy_connection(cn);
        return nullptr;
    }
    return cn;
}

/* Runs what a received text asks for. */
void run_request(connection *cn, char *text)
{
    switch (classify_request(text)) {
    case REQUEST_V1:
        exec_V1command(cn);
        break;
    case REQUEST_V2:
        exec_V2command(cn, text + REQUEST_TEXT_OFFSET);
        break;
    default:
        report(event::not_understood);
        break;
    }
}

/* One receive is the whole command: there is no framing. */
void receive_command(connection *cn)
{
    char text[TEXT_BUFFER];
    ssize_t length = recv(cn->fd, text, sizeof text - 1, 0);
    if (length < 0) {
        log_system(errno);
    }
    if (length <= 0) {
        report(event::nothing_received);
        return;
    }
    text[length] = '\0';
    report(event::message_received);
    debug_printf("DEBUG: received = [%s]\n", text);
    run_request(cn, text);
}

} // namespace

int32_t client_is_allowed(const ux_list *allowed, const in_addr *sin_addr)
{
    trace_in();
    assert(sin_addr && sin_addr->s_addr);
    for (const ux_list_element *node = allowed->head; node && node->data;
         node = node->next) {
        const auto *entry = static_cast<const inetaddr *>(node->data);
        if (entry->addr.sin_addr.s_addr == sin_addr->s_addr) {
            return 1;
        }
    }
    return 0;
}

int32_t accepting_clients(time_t now, int32_t *retry)
{
    *retry = 0;
    if (nfds >= max_fds) {
        return 0;
    }
    /* One of ours closed, or a second gone by: worth another attempt. */
    if (refusal.waiting && nfds >= refusal.open_then && now == refusal.when) {
        *retry = 1;
        return 0;
    }
    return 1;
}

void handle_tcp_connect(int32_t listener, const ux_list *allowed,
                        time_t deadline)
{
    trace_in();
    if (nfds >= max_fds) {
        return;
    }
    sockaddr_in address;
    int32_t fd = accept_client(listener, &address);
    if (fd < 0) {
        return;
    }
    if (allowed->size > 0 && !client_is_allowed(allowed, &address.sin_addr)) {
        char text[ADDRESS_TEXT];
        copy_address(text, &address.sin_addr);
        close(fd);
        report(event::refused, text);
        return;
    }
    connection *cn = add_client(ADDR_PEER, &address, fd);
    if (cn) {
        cn->deadline = deadline;
    }
}

void handle_udp_connect(int32_t udp_socket, const ux_list *allowed)
{
    trace_in();
    char text[TEXT_BUFFER];
    char peer[ADDRESS_TEXT];
    sockaddr_in from;
    socklen_t fromlen = sizeof from;
    if (!udp_recv_text(udp_socket, &from, &fromlen, text, sizeof text)) {
        report(event::datagram_failed);
        return;
    }
    copy_address(peer, &from.sin_addr);
    report(event::datagram_received, peer);
    /* The source of a datagram can be forged, to 0.0.0.0 too. */
    if (!from.sin_addr.s_addr || !client_is_allowed(allowed, &from.sin_addr)) {
        report(event::refused, peer);
        return;
    }
    if (classify_request(text) == REQUEST_NONE) {
        report(event::not_understood);
        return;
    }
    connection *cn = add_client(ADDR_BROADCAST, &from, -1);
    if (!cn) {
        return;
    }
    run_request(cn, text);
    if (!cn->busy) {
        unregister_connection(clients, clients->tail);
    }
}

void handle_tcp_client(ux_list_element *node)
{
    trace_in();
    connection *cn = record_of(node);
    receive_command(cn);
    cn->deadline = 0;
    if (!cn->busy) {
        unregister_connection(clients, node);
    } else if (cn->want_reply) {
        FD_CLR(cn->fd, &readfds);
    } else {
        /* The record stays until its script has been collected. */
        close_descriptor(&cn->fd);
    }
}

int64_t check_timeout_clients(time_t now, int32_t timeout)
{
    trace_in();
    int64_t result = -1;
    int64_t limit = static_cast<int64_t>(now) + timeout;
    ux_list_element *next = nullptr;
    for (ux_list_element *node = clients->head; node; node = next) {
        next = node->next;
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
