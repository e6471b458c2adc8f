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
