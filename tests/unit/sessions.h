/*
 * What tests of sockets and sessions share: loopback sockets, waiting with a
 * bound, an operator's log with message texts, the lists of both modes, and a
 * child that runs code which may end the process.
 */
#ifndef TESTS_UNIT_SESSIONS_H
#define TESTS_UNIT_SESSIONS_H

#include "capture.h"
#include "temp_dir.h"

#include "tolva2/base/process_state.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/msgdb.h"
#include "tolva2/net/connection.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

constexpr int WAIT_LIMIT_MS = 20000;

/* Polls until condition holds; false when it does not in 20 seconds. */
template <typename condition_type> bool wait_until(condition_type condition)
{
    for (int waited = 0; waited < WAIT_LIMIT_MS; waited += 10) {
        if (condition()) {
            return true;
        }
        usleep(10000);
    }
    return condition();
}

/* Waits for poll events on a descriptor; false when none came in time. */
inline bool wait_for(int fd, short events)
{
    pollfd one{fd, events, 0};
    return poll(&one, 1, WAIT_LIMIT_MS) == 1;
}

inline sockaddr_in loopback(const char *dotted, uint16_t port)
{
    sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_aton(dotted, &address.sin_addr);
    return address;
}

inline const sockaddr *generic(const sockaddr_in *address)
{
    const void *any = address;
    return static_cast<const sockaddr *>(any);
}

inline sockaddr *generic(sockaddr_in *address)
{
    void *any = address;
    return static_cast<sockaddr *>(any);
}

inline sockaddr_in local_name(int fd)
{
    sockaddr_in address = loopback("0.0.0.0", 0);
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, generic(&address), &length), 0);
    return address;
}

inline uint16_t local_port(int fd)
{
    return ntohs(local_name(fd).sin_port);
}

/* A descriptor that closes itself. */
class descriptor
{
  public:
    explicit descriptor(int number = -1) : fd(number)
    {
    }
    ~descriptor()
    {
        reset();
    }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    descriptor(descriptor &&other) noexcept : fd(other.release())
    {
    }

    void reset(int number = -1)
    {
        if (fd >= 0) {
            close(fd);
        }
        fd = number;
    }
    int release()
    {
        int number = fd;
        fd = -1;
        return number;
    }
    int get() const
    {
        return fd;
    }

  private:
    int fd;
};

/* A socket of that type, bound to a free port of a loopback address. */
inline int bound_socket(int type, const char *dotted = "127.0.0.1",
                        uint16_t port = 0)
{
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(dotted, port);
    if (fd < 0 || bind(fd, generic(&address), sizeof address) < 0) {
        ADD_FAILURE() << "no socket on " << dotted << ": " << strerror(errno);
    }
    return fd;
}

/* A listening TCP socket. */
inline int listening_socket(const char *dotted = "127.0.0.1", int backlog = 16)
{
    int fd = bound_socket(SOCK_STREAM, dotted);
    EXPECT_EQ(listen(fd, backlog), 0) << strerror(errno);
    return fd;
}

/* A port of 127.0.0.1 on which nobody listens while the socket is held. */
inline uint16_t refusing_port(descriptor *holder)
{
    holder->reset(bound_socket(SOCK_STREAM));
    return local_port(holder->get());
}

/* A blocking TCP connection to a port, from a loopback address. */
inline int connected_socket(uint16_t port, const char *from = "127.0.0.1",
                            const char *to = "127.0.0.1")
{
    int fd = bound_socket(SOCK_STREAM, from);
    sockaddr_in address = loopback(to, port);
    if (connect(fd, generic(&address), sizeof address) < 0) {
        ADD_FAILURE() << "no connection: " << strerror(errno);
    }
    return fd;
}

/* Both ends of a TCP connection. */
struct tcp_pair {
    descriptor near;
    descriptor far;
    tcp_pair()
    {
        descriptor listener(listening_socket());
        near.reset(connected_socket(local_port(listener.get())));
        if (wait_for(listener.get(), POLLIN)) {
            far.reset(accept(listener.get(), nullptr, nullptr));
        }
        EXPECT_GE(far.get(), 0);
    }
};

inline void set_nonblocking(int fd)
{
    EXPECT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
}

inline void send_bytes_to(int fd, const std::string &bytes)
{
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

/* At least one receive, then on until count bytes or the end are there. */
inline std::string receive(int fd, size_t count)
{
    std::string bytes;
    char block[8192];
    while (bytes.size() < count && wait_for(fd, POLLIN)) {
        size_t room = count - bytes.size();
        ssize_t got = recv(fd, block, room < sizeof block ? room : sizeof block,
                           MSG_DONTWAIT);
        if (got <= 0) {
            break;
        }
        bytes.append(block, static_cast<size_t>(got));
    }
    return bytes;
}

/* Everything until the peer closes. */
inline std::string receive_all(int fd)
{
    return receive(fd, 1 << 20);
}

/* True when there is neither data nor an end to read now. */
inline bool is_silent(int fd)
{
    char byte;
    return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           (errno == EAGAIN || errno == EWOULDBLOCK);
}

/* True when the peer has closed and nothing is left to read. */
inline bool is_closed(int fd)
{
    char byte;
    return wait_for(fd, POLLIN) && recv(fd, &byte, 1, MSG_PEEK) == 0;
}

/* Closes a connection with a reset, so that the peer sees an error. */
inline void reset_connection(descriptor *end)
{
    linger abort{1, 0};
    setsockopt(end->get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    end->reset();
}

inline bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

/* How many descriptors this process has open. */
inline int open_descriptors()
{
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    while (readdir(directory) != nullptr) {
        count++;
    }
    closedir(directory);
    return count;
}

/* As long as it lives, no descriptor from the next free one on can be had. */
class no_descriptors
{
  public:
    explicit no_descriptors(int spare = 0)
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        int lowest = dup(STDIN_FILENO);
        EXPECT_GE(lowest, 0);
        close(lowest);
        rlimit low = before;
        low.rlim_cur = static_cast<rlim_t>(lowest + spare);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    }
    ~no_descriptors()
    {
        setrlimit(RLIMIT_NOFILE, &before);
    }
    no_descriptors(const no_descriptors &) = delete;
    no_descriptors &operator=(const no_descriptors &) = delete;

  private:
    rlimit before;
};

/* How a child process ended and what it said. */
struct ending {
    int status = -1; /* exit status, or 1000 + signal */
    std::string out;
    std::string err;
};

/* Runs body in a child; a body that returns ends it with status 99. */
template <typename body_type> ending in_child(body_type body)
{
    ending result;
    capture out(STDOUT_FILENO);
    capture err(STDERR_FILENO);
    pid_t child = fork();
    if (child == 0) {
        body();
        _exit(99);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        ADD_FAILURE() << "no child";
    }
    result.status =
        WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    result.out = out.text();
    result.err = err.text();
    return result;
}

/* The name that error lines begin with. */
class program_name
{
  public:
    explicit program_name(const std::string &text) : name(text)
    {
        progname = name.data();
    }
    ~program_name()
    {
        progname = nullptr;
    }
    program_name(const program_name &) = delete;
    program_name &operator=(const program_name &) = delete;

  private:
    std::string name;
};

/* Each message text names its number and shows which arguments it got. */
inline std::string message(int number, std::initializer_list<std::string> args)
{
    std::string text = "m" + std::to_string(number) + "!";
    size_t shown = 0;
    for (const std::string &argument : args) {
        text += " [" + argument + "]";
        shown++;
    }
    for (; shown < 3; shown++) {
        text += " [%s]";
    }
    return text;
}

/* A log file and a message database for as long as it lives. */
class operator_log
{
  public:
    operator_log()
    {
        std::string texts;
        for (int number = 700; number < 900; number++) {
            texts += "m" + std::to_string(number) + "=" + message(number, {});
            texts += "\n";
        }
        texts += "m12=UPS #NAME at #PCT%s done\nm13=%s on %s\nm14=plain\n";
        EXPECT_EQ(msgdb_open(home.file("messages.dat", texts).c_str()), 1);
        EXPECT_EQ(logfile_open(home.path("log").c_str(), 0), 1);
        log_into_file();
    }
    ~operator_log()
    {
        log_into_file(false);
        logfile_close();
        msgdb_close();
    }
    operator_log(const operator_log &) = delete;
    operator_log &operator=(const operator_log &) = delete;

    /* The texts logged so far, without date, time and process id. */
    std::vector<std::string> lines() const
    {
        std::vector<std::string> texts;
        std::string all =
            file_exists(home.path("log")) ? read_file(home.path("log")) : "";
        size_t start = 0;
        while (start < all.size()) {
            size_t end = all.find('\n', start);
            end = end == std::string::npos ? all.size() : end;
            std::string line = all.substr(start, end - start);
            size_t prefix = line.find("]: ");
            texts.push_back(
                prefix == std::string::npos ? line : line.substr(prefix + 3));
            start = end + 1;
        }
        return texts;
    }
    void clear() const
    {
        unlink(home.path("log").c_str());
    }
    const temp_dir &directory() const
    {
        return home;
    }

  private:
    temp_dir home;
};

using log_lines = std::vector<std::string>;

inline std::string system_line(int error)
{
    return std::string("system: ") + strerror(error);
}

inline std::string error_line(int error)
{
    return std::string("error: ") + strerror(error);
}

/* Both lists, empty, with nothing counted as open. */
class session_lists
{
  public:
    explicit session_lists(int32_t first_maxfd = 0)
    {
        ux_list_init(&client_list, destroy_connection);
        ux_list_init(&connection_list, destroy_connection);
        clients = &client_list;
        connections = &connection_list;
        budget = max_fds;
        max_fds = 256;
        reset_descriptors(first_maxfd);
    }
    ~session_lists()
    {
        ux_list_destroy(&client_list);
        ux_list_destroy(&connection_list);
        clients = nullptr;
        connections = nullptr;
        max_fds = budget;
        reset_descriptors(0);
    }
    session_lists(const session_lists &) = delete;
    session_lists &operator=(const session_lists &) = delete;

  private:
    ux_list client_list;
    ux_list connection_list;
    int32_t budget;
};

/* The record of a node. */
inline connection *session_of(const ux_list_element *node)
{
    return static_cast<connection *>(node->data);
}

/* A new record at the end of a list, with an open descriptor or -1. */
inline connection *add_record(ux_list *list, mode_code mode, address_kind type,
                              const char *address, int fd = -1,
                              fd_set *set = &readfds)
{
    connection *cn = new_connection(mode, type);
    EXPECT_EQ(register_connection(list, cn), 1);
    strncpy(cn->ipaddr, address, sizeof cn->ipaddr - 1);
    cn->addr = loopback(address, 0);
    if (fd >= 0) {
        cn->fd = fd;
        add_descriptor(fd, set);
    }
    return cn;
}

#endif
