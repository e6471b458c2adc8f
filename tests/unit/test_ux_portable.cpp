/* The calls beyond POSIX, or what stands in for them: the same either way. */
#include "temp_dir.h"

#include "unixtools/ux_owned.h"
#include "unixtools/ux_portable.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct two_ends {
    ux_fd reads;
    ux_fd writes;

    two_ends() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        reads.reset(ends[0]);
        writes.reset(ends[1]);
    }
};

volatile sig_atomic_t alarms = 0;

void count_alarm(int) { alarms = alarms + 1; }

/* SIGALRM is counted and blocked for as long as it lives. */
struct blocked_alarm {
    sigset_t before;
    struct sigaction former;

    blocked_alarm() {
        struct sigaction action {};
        action.sa_handler = count_alarm;
        sigaction(SIGALRM, &action, &former);
        sigset_t alarm_set;
        sigemptyset(&alarm_set);
        sigaddset(&alarm_set, SIGALRM);
        sigprocmask(SIG_BLOCK, &alarm_set, &before);
        alarms = 0;
    }
    ~blocked_alarm() {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        sigaction(SIGALRM, &former, nullptr);
    }
    blocked_alarm(const blocked_alarm &) = delete;
    blocked_alarm &operator=(const blocked_alarm &) = delete;
};

/* Seconds that no test waits. */
constexpr time_t FAR_AWAY = 600;

int64_t nanoseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

ux_text formatted(const char *format, ...) {
    va_list args;
    va_start(args, format);
    ux_text text = ux_format(format, args);
    va_end(args);
    return text;
}

} // namespace

TEST(ux_wait_readable, sees_what_is_there_and_a_closed_end) {
    two_ends pipe_with;
    sigset_t none;
    sigemptyset(&none);
    ASSERT_EQ(write(pipe_with.writes.get(), "x", 1), 1);
    EXPECT_EQ(ux_wait_readable(pipe_with.reads.get(), nullptr, &none), 1);
    two_ends closed;
    closed.writes.reset();
    EXPECT_EQ(ux_wait_readable(closed.reads.get(), nullptr, &none), 1);
}

TEST(ux_wait_readable, waits_no_longer_than_the_limit) {
    two_ends empty;
    sigset_t none;
    sigemptyset(&none);
    const timespec at_once{0, 0};
    EXPECT_EQ(ux_wait_readable(empty.reads.get(), &at_once, &none), 0);
}

TEST(ux_wait_readable, lets_in_a_signal_that_is_blocked_outside) {
    two_ends empty;
    blocked_alarm alarm;
    raise(SIGALRM);
    EXPECT_EQ(alarms, 0);
    EXPECT_EQ(ux_wait_readable(empty.reads.get(), nullptr, &alarm.before), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(alarms, 1);
}

TEST(ux_poll, says_for_each_what_came) {
    two_ends full;
    two_ends empty;
    sigset_t none;
    sigemptyset(&none);
    ASSERT_EQ(write(full.writes.get(), "x", 1), 1);
    pollfd all[] = {{empty.reads.get(), POLLIN, 0},
                    {-1, POLLIN, 0},
                    {full.reads.get(), POLLIN, 0},
                    {full.writes.get(), POLLOUT, 0}};
    EXPECT_EQ(ux_poll(all, {FAR_AWAY, 0}, &none), 2);
    EXPECT_EQ(all[0].revents, 0);
    EXPECT_EQ(all[1].revents, 0);
    EXPECT_EQ(all[2].revents, POLLIN);
    EXPECT_EQ(all[3].revents, POLLOUT);
}

TEST(ux_poll, waits_as_long_as_the_limit_says_parts_of_a_second_too) {
    two_ends empty;
    sigset_t none;
    sigemptyset(&none);
    pollfd all[] = {{empty.reads.get(), POLLIN, 0}};
    for (long limit : {0L, 1L, 1000000L, 30000001L}) {
        int64_t begin = nanoseconds_now();
        EXPECT_EQ(ux_poll(all, {0, limit}, &none), 0);
        EXPECT_GE(nanoseconds_now() - begin, limit);
    }
}

TEST(ux_poll, looks_at_numbers_that_no_select_can_see) {
    constexpr int HIGH = FD_SETSIZE + 10;
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_GT(before.rlim_max, rlim_t{HIGH});
    rlimit raised{std::max(before.rlim_cur, rlim_t{HIGH + 1}), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    two_ends full;
    ASSERT_EQ(write(full.writes.get(), "x", 1), 1);
    {
        ux_fd high(dup2(full.reads.get(), HIGH));
        ASSERT_EQ(high.get(), HIGH);
        sigset_t none;
        sigemptyset(&none);
        pollfd all[] = {{HIGH, POLLIN, 0}};
        EXPECT_EQ(ux_poll(all, {FAR_AWAY, 0}, &none), 1);
        EXPECT_EQ(all[0].revents, POLLIN);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST(ux_poll, lets_in_a_signal_that_is_blocked_outside) {
    two_ends empty;
    blocked_alarm alarm;
    raise(SIGALRM);
    pollfd all[] = {{empty.reads.get(), POLLIN, 0}};
    EXPECT_EQ(ux_poll(all, {FAR_AWAY, 0}, &alarm.before), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(alarms, 1);
    raise(SIGALRM);
    EXPECT_EQ(alarms, 1);
}

TEST(ux_poll, is_ended_by_a_signal_that_comes_meanwhile) {
    two_ends empty;
    blocked_alarm alarm;
    const itimerval soon{{0, 0}, {0, 20000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
    pollfd all[] = {{empty.reads.get(), POLLIN, 0}};
    EXPECT_EQ(ux_poll(all, {FAR_AWAY, 0}, &alarm.before), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(alarms, 1);
}

TEST(ux_dotted, reads_what_stands_for_an_address) {
    in_addr address{};
    EXPECT_TRUE(ux_dotted("127.0.0.1", &address));
    EXPECT_EQ(ntohl(address.s_addr), 0x7f000001U);
    EXPECT_TRUE(ux_dotted("255.255.255.255", &address));
    EXPECT_EQ(address.s_addr, INADDR_NONE);
    EXPECT_TRUE(ux_dotted("10.1", &address));
    EXPECT_EQ(ntohl(address.s_addr), 0x0a000001U);
    for (const char *more : {"10.1 ", "10.1\t10.2", "10.1 and more"}) {
        address.s_addr = 0;
        EXPECT_TRUE(ux_dotted(more, &address)) << more;
        EXPECT_EQ(ntohl(address.s_addr), 0x0a000001U) << more;
    }
    for (const char *none : {"", " ", " 10.1", "localhost 10.1", "localhost",
                             "1.2.3.256", "1.2.3.4.5", "1.2.3.4.5 6"}) {
        EXPECT_FALSE(ux_dotted(none, &address)) << none;
        EXPECT_EQ(ntohl(address.s_addr), 0x0a000001U) << none;
    }
}

TEST(ux_format, writes_texts_of_any_length) {
    EXPECT_STREQ(formatted("plain").get(), "plain");
    EXPECT_STREQ(formatted("%s", "").get(), "");
    EXPECT_STREQ(formatted("%d of %s", 7, "all").get(), "7 of all");
    std::string length(100000, 'x');
    EXPECT_EQ(formatted("<%s>", length.c_str()).get(), "<" + length + ">");
}

TEST(ux_new_file, is_empty_new_ones_own_and_not_passed_on) {
    temp_dir dir;
    std::string name = dir.path("file-XXXXXX");
    ux_fd file(ux_new_file(name.data()));
    ASSERT_TRUE(file);
    EXPECT_EQ(name.find("XXXXXX"), std::string::npos);
    struct stat status {};
    ASSERT_EQ(stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST(ux_new_file, says_why_there_is_none) {
    std::string name = "/nowhere/file-XXXXXX";
    EXPECT_EQ(ux_new_file(name.data()), -1);
    EXPECT_EQ(errno, ENOENT);
}
