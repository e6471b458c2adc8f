/*
 * The listener's calls for descriptors and sockets. A name that is added here
 * is added to the list in calls.cmake too.
 */
#include "calls.h"
#include "world.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <utility>

using namespace simulate;

namespace simulate {

namespace {

simulated_socket *must_be_socket(int fd, const char *call) {
    here->call();
    simulated_socket *one = here->socket_of(fd);
    if (!one) {
        fail(std::string(call) + " of descriptor " + std::to_string(fd) +
             ", which is no open socket");
    }
    return one;
}

bool refused(const char *name) {
    int error = 0;
    if (here->fails(name, &error)) {
        errno = error;
        return true;
    }
    return false;
}

void fill_peer(sockaddr *address, uint32_t peer) {
    sockaddr_in filled{};
    filled.sin_family = AF_INET;
    filled.sin_port = htons(40000);
    filled.sin_addr.s_addr = htonl(peer);
    memcpy(address, &filled, sizeof filled);
}

sockaddr_in read_address(const sockaddr *address) {
    sockaddr_in found;
    memcpy(&found, address, sizeof found);
    return found;
}

/* Takes from the front of what has come in. */
std::string take(simulated_socket *one, size_t size) {
    size_t length = std::min(size, one->incoming.size());
    if (one->half_received && length > 1) {
        length /= 2;
        one->half_received = false;
    }
    std::string taken = one->incoming.substr(0, length);
    one->incoming.erase(0, length);
    return taken;
}

/* What a receive from a stream comes to; below 0 with errno. */
ssize_t receive(simulated_socket *one, std::string *text, size_t size) {
    one->looks_ready = false;
    if (refused("recv")) {
        return -1;
    }
    if (one->receive_error != 0) {
        errno = std::exchange(one->receive_error, 0);
        return -1;
    }
    if (!one->incoming.empty()) {
        *text = take(one, size);
        return static_cast<ssize_t>(text->size());
    }
    if (one->error != 0) {
        errno = std::exchange(one->error, 0);
        one->ended = true;
        return -1;
    }
    if (one->ended) {
        return 0;
    }
    errno = EAGAIN;
    return -1;
}

} // namespace
} // namespace simulate

extern "C" {

int __wrap_socket(int, int type, int) {
    here->call();
    int error = here->shortage_error;
    int fd = -1;
    if (refused("socket")) {
        error = errno;
    } else if (error == ENOBUFS || error == ENOMEM) {
        errno = error;
    } else {
        fd = here->open_number(holds::socket, 0, false);
        error = errno;
    }
    int number = 0;
    if (fd >= 0) {
        number = here->next_socket++;
        simulated_socket one;
        one.number = number;
        one.fd = fd;
        one.stream = type == SOCK_STREAM;
        here->sockets[number] = one;
        here->table[static_cast<size_t>(fd)].socket = number;
    }
    fact *told = here->note(act::socket);
    told->who = number;
    told->result = fd;
    told->error = fd < 0 ? error : 0;
    told->limit = type;
    errno = error;
    return fd;
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t) {
    simulated_socket *one = must_be_socket(fd, "bind");
    int error = refused("bind") ? errno : 0;
    sockaddr_in to = read_address(address);
    fact *told = here->note(act::bind);
    told->who = one->number;
    told->peer = ntohl(to.sin_addr.s_addr);
    told->port = ntohs(to.sin_port);
    told->error = error;
    if (error == 0 && !one->stream) {
        one->kind = socket_kind::datagrams;
        here->datagram_socket = one->number;
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

int __wrap_listen(int fd, int backlog) {
    simulated_socket *one = must_be_socket(fd, "listen");
    int error = refused("listen") ? errno : 0;
    fact *told = here->note(act::listen);
    told->who = one->number;
    told->limit = backlog;
    told->error = error;
    if (error == 0) {
        one->kind = socket_kind::listener;
        here->listener = one->number;
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

int __wrap_accept(int fd, sockaddr *address, socklen_t *) {
    simulated_socket *door = must_be_socket(fd, "accept");
    if (door->kind != socket_kind::listener || !door->nonblocking) {
        fail("accept of a socket that does not listen, or may block");
    }
    int who = door->number;
    int error = std::exchange(here->accept_error, 0);
    bool lost = error == ECONNABORTED || error == EPROTO;
    if (error == 0 && refused("accept")) {
        error = errno;
    }
    if (error == 0 && here->backlog.empty()) {
        error = EAGAIN;
    }
    int shortage = here->shortage_error;
    if (error == 0 && (shortage == ENOBUFS || shortage == ENOMEM)) {
        error = shortage;
    }
    int result = -1;
    if (error == 0) {
        result = here->open_number(holds::socket, 0, false);
        error = result < 0 ? errno : 0;
    }
    if (lost && !here->backlog.empty()) {
        here->sockets.erase(here->backlog.front().socket);
        here->backlog.pop_front();
    }
    here->door_lies = false;
    uint32_t peer = 0;
    int number = 0;
    if (result >= 0) {
        arrival one = here->backlog.front();
        here->backlog.pop_front();
        peer = one.peer;
        number = one.socket;
        here->check_reserve();
        here->sockets[number].fd = result;
        here->table[static_cast<size_t>(result)].socket = number;
        fill_peer(address, peer);
    }
    fact *told = here->note(act::accept);
    told->who = who;
    told->result = result < 0 ? 0 : number;
    told->limit = result;
    told->error = error;
    told->peer = peer;
    errno = error;
    return result;
}

int __wrap_connect(int fd, const sockaddr *address, socklen_t) {
    simulated_socket *one = must_be_socket(fd, "connect");
    sockaddr_in to = read_address(address);
    uint32_t peer = ntohl(to.sin_addr.s_addr);
    int port = ntohs(to.sin_port);
    one->kind = socket_kind::outbound;
    one->peer = peer;
    const auto &servers = here->plan->settings.servers;
    for (size_t i = 0; i < servers.size(); i++) {
        int its = servers[i].port != 0 ? servers[i].port : SERVER_PORT;
        if (servers[i].address == peer && its == port) {
            one->server = static_cast<int>(i);
        }
    }
    here->begin_connect(one);
    auto how = static_cast<mood>(one->seed & 0xffU);
    int error = how == mood::at_once ? 0 : EINPROGRESS;
    if (how == mood::unreachable) {
        error = ENETUNREACH;
    }
    if (refused("connect")) {
        error = errno;
    }
    fact *told = here->note(act::connect);
    told->who = one->number;
    told->peer = peer;
    told->port = port;
    told->error = error;
    errno = error;
    return error == 0 ? 0 : -1;
}

ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags) {
    simulated_socket *one = must_be_socket(fd, "recv");
    if (!one->nonblocking && (flags & MSG_DONTWAIT) == 0) {
        fail("recv may block");
    }
    std::string text;
    ssize_t result = receive(one, &text, size);
    int error = result < 0 ? errno : 0;
    memcpy(buffer, text.data(), text.size());
    fact *told = here->note(act::receive);
    told->who = one->number;
    told->result = result;
    told->error = error;
    told->limit = static_cast<int64_t>(size);
    told->text = text;
    errno = error;
    return result;
}

ssize_t __wrap_recvfrom(int fd, void *buffer, size_t size, int,
                        sockaddr *address, socklen_t *) {
    simulated_socket *one = must_be_socket(fd, "recvfrom");
    if (!one->nonblocking) {
        fail("recvfrom may block");
    }
    int error = std::exchange(here->datagram_error, 0);
    if (error == 0 && refused("recvfrom")) {
        error = errno;
    }
    if (error == 0 && here->datagrams.empty()) {
        error = EAGAIN;
    }
    datagram came{0, ""};
    if (error == 0) {
        came = here->datagrams.front();
        here->datagrams.pop_front();
        came.text = came.text.substr(0, size);
        memcpy(buffer, came.text.data(), came.text.size());
        fill_peer(address, came.peer);
    }
    fact *told = here->note(act::datagram);
    told->who = one->number;
    told->error = error;
    told->peer = came.peer;
    told->text = came.text;
    told->limit = static_cast<int64_t>(size);
    told->result = error == 0 ? static_cast<int64_t>(came.text.size()) : -1;
    errno = error;
    return static_cast<ssize_t>(told->result);
}

ssize_t __wrap_send(int fd, const void *data, size_t size, int flags) {
    simulated_socket *one = must_be_socket(fd, "send");
    if ((flags & MSG_NOSIGNAL) == 0) {
        fail("send may raise SIGPIPE");
    }
    if (!one->nonblocking && (flags & MSG_DONTWAIT) == 0) {
        fail("send may block");
    }
    std::string text(static_cast<const char *>(data), size);
    auto result = static_cast<ssize_t>(size);
    int error = one->send_error;
    bool deaf = one->kind == socket_kind::outbound;
    auto how = static_cast<mood>(one->seed & 0xffU);
    if (error == 0 && deaf &&
        (how == mood::deaf || (how == mood::deaf_later && one->lines > 0))) {
        error = ECONNRESET;
    }
    if (refused("send")) {
        error = errno;
    }
    if (one->error != 0) {
        error = EPIPE;
    }
    if (error != 0) {
        result = -1;
    } else if (one->sends_half || (deaf && how == mood::half_deaf)) {
        result /= 2;
    } else if (deaf) {
        here->hear(one);
    }
    fact *told = here->note(act::send);
    told->who = one->number;
    told->result = result;
    told->error = error;
    told->text = text;
    told->limit = fd;
    errno = error;
    return result;
}

int __wrap_shutdown(int fd, int how) {
    simulated_socket *one = must_be_socket(fd, "shutdown");
    if (one->kind == socket_kind::listener && how == SHUT_RD) {
        return 0; /* It is about to be closed; who else has it is elsewhere. */
    }
    fact *told = here->note(act::shut);
    told->who = one->number;
    told->limit = how;
    return 0;
}

int __wrap_close(int fd) {
    if (here == nullptr) {
        return __real_close(fd);
    }
    if (here->in_child) {
        return 0;
    }
    here->close_number(fd);
    /* Like many a call that has gone well. */
    errno = EBADF;
    return 0;
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    if (here == nullptr) {
        void *lock = va_arg(rest, void *);
        va_end(rest);
        return __real_fcntl(fd, command, lock);
    }
    int argument = va_arg(rest, int);
    va_end(rest);
    holds what = fd < 0 || static_cast<size_t>(fd) >= here->table.size()
                     ? holds::nothing
                     : here->table[static_cast<size_t>(fd)].what;
    bool nothing = what == holds::nothing;
    if (command == F_GETFD && what != holds::socket) {
        /* Which numbers are free is not for the listener to see here: it must
         * get by with what accept gives it. */
        errno = EBADF;
        return -1;
    }
    if (nothing) {
        fail("fcntl of descriptor " + std::to_string(fd));
    }
    if (command == F_DUPFD_CLOEXEC) {
        return here->open_number(holds::reserve, argument, true);
    }
    simulated_socket *one = must_be_socket(fd, "fcntl");
    if (refused("fcntl")) {
        int error = errno;
        one->leaks_allowed = true;
        if (command == F_GETFL || command == F_SETFL) {
            fact *told = here->note(act::flags_failed);
            told->who = one->number;
            told->error = error;
        }
        errno = error;
        return -1;
    }
    if (command == F_SETFL) {
        one->nonblocking = (argument & O_NONBLOCK) != 0;
    } else if (command == F_SETFD) {
        here->table[static_cast<size_t>(fd)].close_on_exec =
            (argument & FD_CLOEXEC) != 0;
    }
    return 0;
}

int __wrap_setsockopt(int fd, int, int name, const void *, socklen_t) {
    simulated_socket *one = must_be_socket(fd, "setsockopt");
    if (refused("setsockopt")) {
        int error = errno;
        one->leaks_allowed = true;
        fact *told = here->note(act::option_failed);
        told->who = one->number;
        told->limit = name;
        told->error = error;
        errno = error;
        return -1;
    }
    if (name == SO_KEEPALIVE) {
        one->keep_alive = true;
    }
    return 0;
}

int __wrap_getsockopt(int fd, int, int, void *value, socklen_t *) {
    simulated_socket *one = must_be_socket(fd, "getsockopt");
    int error = std::exchange(one->error, 0);
    if (error != 0) {
        one->ended = true;
    }
    int result = 0;
    if (refused("getsockopt")) {
        error = errno;
        result = -1;
    } else {
        memcpy(value, &error, sizeof error);
    }
    fact *told = here->note(act::socket_error);
    told->who = one->number;
    told->result = error;
    if (result < 0) {
        errno = error;
    }
    return result;
}

int __wrap_poll(pollfd *asked, nfds_t count, int limit) {
    simulated_socket *one = must_be_socket(asked->fd, "poll");
    if (count != 1 || limit != 0 || one->number != here->listener) {
        fail("poll of something else than the door");
    }
    bool ready = here->readable(*one);
    asked->revents = ready ? POLLIN : 0;
    here->note(act::look_at_door)->result = ready ? 1 : 0;
    return ready ? 1 : 0;
}

int __wrap_pselect(int count, fd_set *readable, fd_set *writable, fd_set *,
                   const timespec *limit, const sigset_t *mask) {
    return here->wait_for(count, readable, writable, limit, mask);
}

int __wrap_getrlimit(__rlimit_resource_t, rlimit *limit) {
    here->limit_asked = here->descriptor_limit;
    limit->rlim_cur = static_cast<rlim_t>(here->descriptor_limit);
    limit->rlim_max = limit->rlim_cur;
    return 0;
}
}
