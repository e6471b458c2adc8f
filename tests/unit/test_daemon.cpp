/*
 * What is left of a process that has turned into a daemon: it tells about
 * itself through a pipe, since its parent ends and it has no terminal. And
 * what it keeps when a step fails.
 */
#include "capture.h"
#include "failing_calls.h"
#include "starve.h"
#include "temp_dir.h"
#include "tolva2/base/process_state.h"
#include "tolva2/start/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>

namespace {

constexpr int BOUND_MS = 20000;

/* What the process that daemonize leaves behind tells about itself. */
struct report {
    int32_t result;
    int32_t daemonized;
    pid_t pid;
    pid_t parent;
    pid_t group;
    pid_t session;
    mode_t mask;
    bool other_descriptor_open;
    int open_descriptors;
    bool terminal;
    char directory[PATH_MAX];
    char standard[3][64];
    int access[3];
};

int count_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; fd++) {
        count += fcntl(fd, F_GETFD) != -1;
    }
    return count;
}

/* What a descriptor is open on. */
std::string target_of(int fd) {
    char text[256] = "closed";
    std::string name = "/proc/self/fd/" + std::to_string(fd);
    ssize_t length = readlink(name.c_str(), text, sizeof text - 1);
    return length < 0 ? "closed" : std::string(text, text + length);
}

class daemon_test : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(pipe(ends), 0); }
    void TearDown() override { close(ends[0]); }

    report look(int32_t result) const {
        report r;
        memset(static_cast<void *>(&r), 0, sizeof r);
        r.result = result;
        r.daemonized = daemonized;
        r.pid = getpid();
        r.parent = getppid();
        r.group = getpgrp();
        r.session = getsid(0);
        r.mask = umask(0);
        r.other_descriptor_open = fcntl(ends[0], F_GETFD) != -1;
        r.open_descriptors = count_descriptors();
        int terminal = open("/dev/tty", O_RDWR);
        r.terminal = terminal >= 0;
        if (getcwd(r.directory, sizeof r.directory) == nullptr) {
            r.directory[0] = '?';
        }
        for (int fd = 0; fd < 3; fd++) {
            strncpy(r.standard[fd], target_of(fd).c_str(),
                    sizeof r.standard[fd] - 1);
            r.access[fd] = fcntl(fd, F_GETFL) & O_ACCMODE;
        }
        return r;
    }

    /*
     * Daemonizes a child, prepared for it, and fills told with what is left
     * then; status is how the child itself ended.
     */
    void detach(
        int32_t change_dir, int32_t redirect_std,
        const std::function<void()> &prepare = [] {}, const char *failing = "",
        int after = 0) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            umask(0051);
            prepare();
            failing_call no_more(failing, EMFILE, after);
            int32_t result = daemonize(change_dir, redirect_std);
            report r = look(result);
            ssize_t written = write(ends[1], &r, sizeof r);
            _exit(written == sizeof r ? 7 : 8);
        }
        started = child;
        close(ends[1]);
        ASSERT_EQ(waitpid(child, &status, 0), child);
        wait_for_report();
    }
    void wait_for_report() {
        pollfd waiting{ends[0], POLLIN, 0};
        ASSERT_EQ(poll(&waiting, 1, BOUND_MS), 1);
        ASSERT_EQ(read(ends[0], &told, sizeof told),
                  static_cast<ssize_t>(sizeof told));
        /* Nobody else goes on: the pipe ends with this one process. */
        char more;
        ASSERT_EQ(poll(&waiting, 1, BOUND_MS), 1);
        EXPECT_EQ(read(ends[0], &more, 1), 0);
    }

    int ends[2];
    pid_t started = 0;
    int status = 0;
    report told{};
};

TEST_F(daemon_test, leaves_its_parents_session_and_terminal) {
    detach(0, 1);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(told.result, 0);
    EXPECT_EQ(told.daemonized, 1);
    EXPECT_NE(told.pid, started);
    EXPECT_NE(told.parent, started);
    EXPECT_NE(told.session, getsid(0));
    EXPECT_EQ(told.group, told.session);
    /* No leader of its session: it can never get a terminal. */
    EXPECT_NE(told.session, told.pid);
    EXPECT_NE(told.session, started);
    EXPECT_FALSE(told.terminal);
}

TEST_F(daemon_test, puts_dev_null_in_the_place_of_the_standard_streams) {
    detach(0, 1);
    for (int fd = 0; fd < 3; fd++) {
        EXPECT_STREQ(told.standard[fd], "/dev/null") << fd;
        EXPECT_EQ(told.access[fd], O_RDWR) << fd;
    }
}

TEST_F(daemon_test, keeps_the_standard_streams_when_told_so) {
    detach(0, 0);
    EXPECT_EQ(told.daemonized, 1);
    for (int fd = 0; fd < 3; fd++) {
        EXPECT_EQ(told.standard[fd], target_of(fd)) << fd;
    }
}

TEST_F(daemon_test, leaves_no_descriptor_behind) {
    int before = count_descriptors();
    detach(0, 1);
    /* All but the end of the pipe that was closed here. */
    EXPECT_EQ(told.open_descriptors, before);
}

TEST_F(daemon_test, keeps_the_standard_streams_when_there_is_no_dev_null) {
    detach(0, 1, no_more_descriptors);
    EXPECT_EQ(told.result, 0);
    EXPECT_EQ(told.daemonized, 1);
    for (int fd = 0; fd < 3; fd++) {
        EXPECT_EQ(told.standard[fd], target_of(fd)) << fd;
        EXPECT_NE(told.standard[fd], std::string("closed")) << fd;
    }
}

TEST_F(daemon_test, keeps_each_standard_stream_that_cannot_be_replaced) {
    int before = count_descriptors();
    detach(
        0, 1, [] {}, "dup2", 1);
    EXPECT_EQ(told.result, 0);
    EXPECT_STREQ(told.standard[0], "/dev/null");
    for (int fd = 1; fd < 3; fd++) {
        EXPECT_EQ(told.standard[fd], target_of(fd)) << fd;
    }
    EXPECT_EQ(told.open_descriptors, before);
}

TEST_F(daemon_test, fills_standard_streams_that_were_closed) {
    for (int closed = 0; closed < 3; closed++) {
        if (closed > 0) {
            close(ends[0]);
            ASSERT_EQ(pipe(ends), 0);
        }
        int before = count_descriptors();
        detach(0, 1, [closed] { close(closed); });
        for (int fd = 0; fd < 3; fd++) {
            EXPECT_STREQ(told.standard[fd], "/dev/null") << fd;
        }
        EXPECT_EQ(told.open_descriptors, before);
    }
}

/* The second fork: the session is new, and the parent waits for nobody. */
TEST_F(daemon_test, gives_minus_1_when_it_cannot_leave_its_session) {
    detach(
        1, 1, [] {}, "fork", 1);
    EXPECT_EQ(told.result, -1);
    EXPECT_EQ(told.daemonized, 0);
    EXPECT_EQ(told.session, told.pid);
    for (int fd = 0; fd < 3; fd++) {
        EXPECT_EQ(told.standard[fd], target_of(fd)) << fd;
    }
}

TEST_F(daemon_test, keeps_directory_mask_and_other_descriptors) {
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    detach(0, 1);
    EXPECT_STREQ(told.directory, here);
    EXPECT_EQ(told.mask, static_cast<mode_t>(0051));
    EXPECT_TRUE(told.other_descriptor_open);
}

TEST_F(daemon_test, goes_to_the_root_directory_when_told_so) {
    detach(1, 1);
    EXPECT_STREQ(told.directory, "/");
    EXPECT_EQ(told.mask, static_cast<mode_t>(0051));
    EXPECT_TRUE(told.other_descriptor_open);
}

TEST_F(daemon_test, still_writes_what_standard_output_had_buffered) {
    temp_dir dir;
    const std::string path = dir.path("out");
    write_file(path, "");
    fflush(stdout);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int file = open(path.c_str(), O_WRONLY | O_APPEND);
        dup2(file, STDOUT_FILENO);
        fputs("before\n", stdout);
        int32_t result = daemonize(0, 1);
        fputs("after\n", stdout);
        fflush(stdout);
        report r = look(result);
        ssize_t written = write(ends[1], &r, sizeof r);
        _exit(written == sizeof r ? 7 : 8);
    }
    close(ends[1]);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    wait_for_report();
    EXPECT_EQ(read_file(path), "before\n");
}

/* What daemonize traces, and how the process that called it ended. */
std::string trace_of_daemonize(int32_t level) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        debug_level = level;
        daemonize(0, 1);
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char block[512];
    ssize_t length;
    while ((length = read(ends[0], block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(length));
    }
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return text;
}

TEST(daemon_trace_test, names_itself_once_above_level_5) {
    for (int32_t level : {-1, 0, 1, 5}) {
        EXPECT_EQ(trace_of_daemonize(level), "") << level;
    }
    EXPECT_EQ(trace_of_daemonize(6), "TRACEIN: daemonize\n");
}

/* The calling process goes on when no process can be had. */
TEST(daemon_failure_test, without_processes_it_gives_minus_1) {
    EXPECT_EXIT(
        {
            set_limit(RLIMIT_NPROC, 0);
            /* Limits of this kind do not count for root. */
            if (geteuid() == 0 && setuid(65534) != 0) {
                _exit(9);
            }
            pid_t self = getpid();
            int32_t result = daemonize(1, 1);
            bool here = getpid() == self;
            _exit(result == -1 && here && daemonized == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

} // namespace
