/*
 * The system that the listener runs on: its clocks, descriptors, sockets,
 * signals, children and files, all of them made up. One day, one world. The
 * calls of the listener arrive in calls.cpp and are answered by the functions
 * here; what is outside happens while the listener calls or waits.
 */
#ifndef TESTS_SIMULATE_WORLD_H
#define TESTS_SIMULATE_WORLD_H

#include "chance.h"
#include "facts.h"
#include "plan.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <queue>
#include <sys/select.h>
#include <sys/types.h>

namespace simulate {

enum class holds { nothing, inherited, socket, reserve, file };

struct descriptor {
    holds what = holds::nothing;
    bool close_on_exec = false;
    int socket = 0; /* its number, which is never used again */
};

enum class socket_kind { unborn, listener, datagrams, client, outbound };

struct simulated_socket {
    int number = 0;
    int fd = -1;
    socket_kind kind = socket_kind::unborn;
    bool stream = true, nonblocking = false, keep_alive = false;
    bool leaks_allowed = false; /* F_SETFD was refused */
    uint32_t peer = 0;
    /* What stands ready. */
    std::string incoming{};
    bool ended = false;       /* the peer says no more */
    int error = 0;            /* the peer is gone */
    bool looks_ready = false; /* reported readable although nothing is there */
    bool writable = false;
    /* How sending and receiving goes. */
    int receive_error = 0;
    int send_error = 0;
    bool sends_half = false;
    bool half_received = false; /* less than there is */
    /* Of a client. */
    uint64_t seed = 0;
    bool closes_after_reply = false;
    /* Of an exchange. */
    int server = -1, lines = 0;
};

struct arrival {
    uint32_t peer;
    int socket; /* waiting to be accepted */
};

struct datagram {
    uint32_t peer;
    std::string text;
};

struct child_process {
    pid_t pid = 0;
    bool ended = false, reported_stop = true;
    int status = 0, stop_status = 0;
    std::string line{};
};

enum class mood {
    answers,
    slow,
    at_once, /* the connect succeeds immediately */
    refuses,
    unreachable, /* the connect fails immediately */
    hangs,
    silent, /* connects, says nothing */
    garbage,
    cut, /* "7|" */
    closes,
    resets,
    resets_later,
    deaf, /* sending fails */
    half_deaf,
    deaf_later,
    odd,   /* says something that nobody knows */
    mixed, /* any of these, each time anew */
};

/* A file is its bytes; who has it open shares them. */
struct file_body {
    std::string bytes;
    which_file which = FILE_COPY;
};

struct file_handle {
    std::shared_ptr<file_body> body;
    size_t position = 0;
    int fd = -1;
    bool appends = false, changed = false, torn = false;
};

/* The next call of that name fails. */
struct failing {
    std::string name;
    int error;
};

struct world {
    explicit world(const day_plan &plan);

    const day_plan *plan;
    chance luck; /* for what belongs to no event */
    std::vector<fact> facts{};

    /* Time. */
    int64_t now = 0;
    int64_t clock_offset = 0; /* microseconds */
    int64_t waits_in_second = 0, second = 0, calls = 0;
    struct timed {
        int64_t at;
        uint64_t order;
        std::function<void()> then;
    };
    struct later {
        bool operator()(const timed &a, const timed &b) const {
            return a.at != b.at ? a.at > b.at : a.order > b.order;
        }
    };
    std::priority_queue<timed, std::vector<timed>, later> agenda{};
    uint64_t order = 0;

    /* Signals. */
    struct {
        void (*handler)(int) = SIG_DFL;
        int flags = 0;
    } actions[65];
    sigset_t mask{};
    sigset_t pending{};
    bool interrupted = false;
    int wait_error = 0;
    bool stopping = false; /* a stop signal has been sent */
    bool stop_heard = false, has_waited = false;
    int awaited_call = 0; /* the how manyeth from now a signal comes with */
    int comes_with_it = 0;
    sigset_t held_over{}; /* pending since before the last wait ended */

    /* Descriptors and sockets. */
    std::vector<descriptor> table{};
    int descriptor_limit;
    int limit_asked = 0; /* what the listener knows of it */
    int shortage_error = 0;
    std::map<int, simulated_socket> sockets{};
    int next_socket = 1;
    int listener = 0, datagram_socket = 0; /* numbers of the sockets */
    std::deque<arrival> backlog{};
    std::deque<datagram> datagrams{};
    bool door_lies = false; /* readable, and then nobody is there */
    int accept_error = 0;   /* for the one who is next */
    int datagram_error = 0;
    std::vector<mood> moods{};
    uint64_t connects = 0;
    size_t answers_said = 0;
    std::vector<failing> failing_calls{};

    /* Children. */
    std::map<pid_t, child_process> children{};
    pid_t last_pid;
    bool no_processes = false;
    uint64_t forks = 0;
    bool in_child = false;

    /* Memory. */
    int64_t blocks = 0;
    int fail_allocation = 0; /* the how manyeth from now */
    bool names_copy = false; /* the next one is for the log's copy */

    /* Files. */
    std::map<std::string, std::shared_ptr<file_body>> files{};
    std::map<FILE *, file_handle *> streams{};
    std::map<int, std::shared_ptr<file_body>> unnamed{}; /* by descriptor */
    bool texts_lost = false;
    int64_t disk_room = -1; /* bytes; below 0: enough */

    /* Time and chance. */
    int64_t clock() const { return (now + clock_offset) / SECOND; }
    void at(int64_t when, std::function<void()> then);
    void happens(const outside_event &one);
    void pass(int64_t microseconds);
    void call(); /* a system call has been made: time passes */
    fact *note(act what);
    void tell(const std::string &text); /* for the reader of a trace */
    bool fails(const char *name, int *error);

    /* Signals. */
    void raise(int number);
    bool deliver(); /* what the mask lets through: was there any? */

    /* Descriptors. */
    int open_number(holds what, int from, bool close_on_exec);
    int held() const;
    simulated_socket *socket_of(int fd);
    void close_number(int fd);

    /* Outside. */
    void begin_session(const outside_event &one);
    void send_datagram(const outside_event &one);
    void change_mood(uint64_t seed);
    void begin_connect(simulated_socket *one);
    void hear(simulated_socket *one);
    std::string odd_answer(chance *dice);
    void call_will_fail(uint64_t seed);
    bool readable(const simulated_socket &one) const;

    /* Children. */
    pid_t begin_child(const std::string &line, uint64_t seed);
    bool free_pid(pid_t *pid);

    int wait_for(int count, fd_set *readable, fd_set *writable,
                 const timespec *limit, const sigset_t *wait_mask);
    bool find_ready(int count, const fd_set &r, const fd_set &w, fd_set *fr,
                    fd_set *fw, int *found);
    void check_sockets() const;
    void check_reserve() const;
    void check_wake_ups() const;
    void check_masks(const sigset_t *wait_mask) const;
};

extern world *here;

/* Another sender's text; what it is depends on chance alone. */
std::string request_text(chance *luck);

constexpr const char *LOG_NAME = "/sim/tolva.log";
constexpr const char *TEXTS_NAME = "/sim/messages.dat";

} // namespace simulate

#endif
