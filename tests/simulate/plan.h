/*
 * What a seed decides before a day begins: the settings, and everything that
 * happens outside. A plan is pure data, so events can be left out of it.
 */
#ifndef TESTS_SIMULATE_PLAN_H
#define TESTS_SIMULATE_PLAN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace simulate {

constexpr int64_t SECOND = 1000000; /* in microseconds, as all times here */
constexpr int64_t DAY = 86400 * SECOND;

enum class happening {
    session,      /* a sender connects */
    datagram,     /* one arrives */
    server_mood,  /* a UPS server behaves otherwise from now on */
    shortage,     /* no descriptors or buffers for a while */
    no_memory,    /* an allocation fails */
    disk_full,    /* for a while */
    clock_step,   /* somebody sets the clock */
    stray_signal, /* one that means nothing, or that no child is behind */
    interruption, /* the process is stopped and goes on */
    stray_child,  /* a child that the listener did not start */
    failing_call, /* the next call of a kind fails */
    limit_change, /* of open descriptors */
    log_removed,  /* by the administrator */
    texts_lost,   /* the message file is away for a while */
    no_processes, /* fork fails for a while */
    early_stop,   /* a stop signal in the middle of everything */
    wait_fails,   /* the end of the loop */
};

struct outside_event {
    int number;
    int64_t at;
    happening what;
    uint64_t seed;
    /* What a sender says, where chance shall not decide. */
    std::optional<std::string> says{};
};

enum class log_target { file, terminal, nowhere };

struct watched_server {
    uint32_t address; /* host byte order, as all addresses here */
    int port;         /* 0: the default */
};

struct day_settings {
    int32_t listen_timeout = 10;
    std::string listen_udp{};
    std::vector<uint32_t> allowed{};
    bool senders_named = false; /* even when none of them can be used */
    std::vector<watched_server> servers{};
    int32_t alive_interval = 1800;
    int32_t alive_retries = 0;
    std::string redundancy{}; /* "TRUE" or not */
    std::vector<uint32_t> members{};
    int32_t level = 0;
    bool batch_suppress = false;
    std::string batch_file{};
    std::string shutdown_prog{}, alive_prog{}, exec_prog{}, msg_prog{},
        mail_prog{}; /* empty: none */
    log_target log = log_target::file;
    int32_t log_kib = 0;
    bool log_directory_writable = true;
    bool unnamed_files = true; /* the file system knows O_TMPFILE */
    int32_t debug_level = -1;
    int32_t max_fds = 200;
    int descriptor_limit = 256;
    int inherited = 3; /* descriptors that are open from the start */
    int first_pid = 1000, last_pid = 1400;
    int64_t clock = 0;   /* at the start, in seconds */
    std::string texts{}; /* the message file */
};

struct day_plan {
    uint64_t seed = 0;
    day_settings settings{};
    std::vector<outside_event> events{};
    /* What odd UPS servers say, one after the other; none: chance decides. */
    std::vector<std::string> answers{};
    int strays = 300; /* how many of them end together */
    /* All is over by then: scripts have ended, the last cycle is through. */
    int64_t end = DAY + 3 * 3600 * SECOND;
};

/* sessions: about how many; 0: the settings alone. */
day_plan make_plan(uint64_t seed, int sessions);

constexpr int LISTEN_PORT = 6003;
constexpr int SERVER_PORT = 5769;

} // namespace simulate

#endif
