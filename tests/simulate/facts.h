/*
 * What the listener has asked of the simulated system and what came of it, in
 * order. The system writes the list while a day runs; the model reads it
 * afterwards and says what should have stood there.
 */
#ifndef TESTS_SIMULATE_FACTS_H
#define TESTS_SIMULATE_FACTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace simulate {

enum class act {
    outside,      /* something happened outside: for the reader of a trace */
    signal,       /* a handler was called: result */
    wait,         /* asked for: sets and limit */
    waited,       /* found: sets and result, error */
    accept,       /* result: the new socket's number; who: the listener */
    receive,      /* who, result, error, text */
    datagram,     /* result, error, text; peer */
    send,         /* who, result, error, text: what was handed over */
    socket_error, /* who, result: what SO_ERROR said */
    look_at_door, /* result: of a poll of the listening socket */
    socket,       /* result: its number, or error */
    flags_failed, /* fcntl refused: who, error */
    option_failed,
    bind,      /* who, peer, port */
    listen,    /* who, limit: the backlog */
    connect,   /* who, peer, port, result, error */
    shut,      /* who */
    fork,      /* result: process id or -1; text: what the shell is given */
    collect,   /* waitpid: result: process id, limit: status */
    no_memory, /* limit: in which call */
    reserve_failed, /* no descriptor to hold back: error */
    opened,         /* the message texts */
    open_failed,    /* who: which file; error */
    copy_begins,    /* of what is kept of the log */
    copy_failed,    /* it found no room */
    log_removed,    /* by somebody outside */
    line,           /* appended to the log: text; result: bytes that fitted;
                       limit: its size before */
    rewritten,      /* the log was cut: text is what it holds now */
    printed,        /* on standard output: text */
    said,           /* on standard error: text */
};

/* Which file, where a fact says who. */
/* Which call has found no memory. */
enum which_call { CALL_MALLOC = 1, CALL_CALLOC, CALL_STRDUP };

enum which_file { FILE_LOG = 1, FILE_TEXTS, FILE_COPY };

struct fact {
    act what{};
    int64_t clock = 0;  /* seconds, as the system tells them */
    int64_t at = 0;     /* microseconds since the day began */
    int held = 0;       /* descriptors in reserve */
    int64_t blocks = 0; /* on the heap */
    int sockets = 0;    /* open */
    int who = 0;
    int64_t result = 0;
    int error = 0;
    int64_t limit = 0;
    uint32_t peer = 0; /* host byte order */
    int port = 0;
    std::string text{};
    std::vector<int> readable{};
    std::vector<int> writable{};
};

/* The fact as one line of a trace. */
std::string describe(const fact &one);

/* Ends the day, and the process that lives it: this must not happen. */
[[noreturn]] void fail(const std::string &why);

} // namespace simulate

#endif
