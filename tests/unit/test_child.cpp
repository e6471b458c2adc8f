/* Scripts as children: what the shell gets and what the record learns. */
#include "failing_calls.h"
#include "sessions.h"

#include "tolva2/listen/child.h"

#include <csignal>
#include <cstdlib>
#include <pthread.h>

namespace {

/* The signal that meets a child before it is a script; 0: none. */
int early_signal = 0;

void meet_early_signal() {
    if (early_signal != 0) {
        raise(early_signal);
    }
}

void swallow(int) {}

/* Runs a script for a record and waits: its wait status and output. */
struct run {
    bool started;
    int status = -1;
    std::string output;
    connection cn;

    run(const char *program, const char *params) {
        capture out;
        started = fork_and_exec(&cn, program, params);
        if (started) {
            EXPECT_EQ(waitpid(cn.pid, &status, 0), cn.pid);
        }
        output = out.text();
    }
};

} // namespace

TEST(fork_and_exec_death, the_listener_itself_goes_on) {
    EXPECT_EXIT(
        {
            connection cn;
            fork_and_exec(&cn, "exit 0", nullptr);
            _exit(cn.pid > 0 ? 7 : 8);
        },
        testing::ExitedWithCode(7), "");
}

TEST(fork_and_exec, runs_the_line_in_the_shell) {
    struct row {
        const char *program;
        const char *params;
        const char *line;
        const char *output;
    };
    const row rows[] = {
        {"echo", "one two", "echo one two", "one two\n"},
        {"echo", nullptr, "echo", "\n"},
        {"echo", "", "echo", "\n"},
        {"echo a  b", "c", "echo a  b c", "a b c\n"},
        {"echo", "a   b", "echo a   b", "a b\n"},
        {"echo", "\"a   b\"", "echo \"a   b\"", "a   b\n"},
        {"echo", "$((6 * 7)); echo x", "echo $((6 * 7)); echo x", "42\nx\n"},
        {"echo", "$0", "echo $0", "sh\n"},
        {"printf %s", "'\xe4\xff'", "printf %s '\xe4\xff'", "\xe4\xff"},
        {"printf", "%%s%%n", "printf %%s%%n", "%s%n"},
    };
    for (const row &one : rows) {
        operator_log log;
        run script(one.program, one.params);
        EXPECT_TRUE(script.started);
        EXPECT_EQ(script.output, one.output);
        EXPECT_STREQ(script.cn.cmdline.get(), one.line);
        EXPECT_EQ(log.lines(), log_lines{message(792, {one.line})});
    }
}

TEST(fork_and_exec, marks_the_record_as_busy) {
    run script("exit", "3");
    EXPECT_TRUE(script.cn.busy);
    EXPECT_GT(script.cn.pid, 0);
    EXPECT_TRUE(script.cn.child_owed);
    EXPECT_FALSE(script.cn.want_reply);
    ASSERT_TRUE(WIFEXITED(script.status));
    EXPECT_EQ(WEXITSTATUS(script.status), 3);
}

TEST(fork_and_exec, what_cannot_be_run_ends_with_127) {
    capture errors(STDERR_FILENO);
    run script("/no/such/script.sh", "parameters");
    EXPECT_TRUE(script.started);
    ASSERT_TRUE(WIFEXITED(script.status));
    EXPECT_EQ(WEXITSTATUS(script.status), 127);
}

TEST(fork_and_exec, a_missing_shell_ends_with_127_too) {
    failing_call no_shell("execl", ENOENT);
    run script("exit", "3");
    EXPECT_TRUE(script.started);
    ASSERT_TRUE(WIFEXITED(script.status));
    EXPECT_EQ(WEXITSTATUS(script.status), 127);
}

TEST(fork_and_exec, without_program_nothing_happens) {
    operator_log log;
    connection cn;
    EXPECT_FALSE(fork_and_exec(&cn, nullptr, "parameters"));
    EXPECT_FALSE(fork_and_exec(&cn, "", "parameters"));
    EXPECT_FALSE(cn.busy);
    EXPECT_EQ(cn.pid, 0);
    EXPECT_EQ(cn.cmdline, nullptr);
    EXPECT_EQ(log.lines(), log_lines{});
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(fork_and_exec, works_without_a_record) {
    operator_log log;
    temp_dir home;
    std::string line = "echo done > " + home.path("result");
    EXPECT_TRUE(fork_and_exec(nullptr, line.c_str(), nullptr));
    int status = -1;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(home.path("result")), "done\n");
    EXPECT_EQ(log.lines(), log_lines{message(792, {line})});
}

TEST(fork_and_exec, does_not_wait_for_the_script) {
    connection cn;
    ASSERT_TRUE(fork_and_exec(&cn, "exec sleep", "600"));
    EXPECT_EQ(waitpid(cn.pid, nullptr, WNOHANG), 0);
    kill(cn.pid, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(cn.pid, &status, 0), cn.pid);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(fork_and_exec, long_lines_are_passed_whole) {
    std::string params(4095, 'p');
    run script("printf %s", params.c_str());
    EXPECT_EQ(script.output, params);
    EXPECT_EQ(std::string(script.cn.cmdline.get()), "printf %s " + params);
}

TEST(fork_and_exec, a_newer_script_takes_the_record_over) {
    connection cn;
    ASSERT_TRUE(fork_and_exec(&cn, "exit 1", nullptr));
    int32_t first = cn.pid;
    ASSERT_TRUE(fork_and_exec(&cn, "exit 2", nullptr));
    EXPECT_NE(cn.pid, first);
    EXPECT_STREQ(cn.cmdline.get(), "exit 2");
    EXPECT_EQ(waitpid(first, nullptr, 0), first);
    EXPECT_EQ(waitpid(cn.pid, nullptr, 0), cn.pid);
}

TEST(fork_and_exec, logs_that_no_process_can_be_had) {
    operator_log log;
    connection cn;
    failing_call no_child("fork", EAGAIN);
    EXPECT_FALSE(fork_and_exec(&cn, "echo", "x"));
    EXPECT_FALSE(fork_and_exec(nullptr, "echo", "x"));
    EXPECT_FALSE(cn.busy);
    EXPECT_EQ(cn.pid, 0);
    EXPECT_EQ(cn.cmdline, nullptr);
    const log_lines expected = {message(792, {"echo x"}), system_line(EAGAIN),
                                message(792, {"echo x"}), system_line(EAGAIN)};
    EXPECT_EQ(log.lines(), expected);
}

TEST(fork_and_exec, logs_that_memory_is_exhausted) {
    operator_log log;
    connection cn;
    {
        failing_heap exhausted;
        EXPECT_FALSE(fork_and_exec(&cn, "echo", "x"));
        EXPECT_FALSE(fork_and_exec(&cn, "echo", nullptr));
    }
    EXPECT_FALSE(cn.busy);
    EXPECT_EQ(cn.cmdline, nullptr);
    const log_lines expected = {system_line(ENOMEM), system_line(ENOMEM)};
    EXPECT_EQ(log.lines(), expected);
}

TEST(fork_and_exec, without_message_text_nothing_is_logged) {
    operator_log log;
    msgdb_close();
    run script("exit 0", nullptr);
    EXPECT_TRUE(script.started);
    EXPECT_EQ(log.lines(), log_lines{});
}

TEST(fork_and_exec, scripts_inherit_the_environment) {
    setenv("TOLVA_UNIT_TEST", "inherited", 1);
    run script("echo", "$TOLVA_UNIT_TEST");
    EXPECT_EQ(script.output, "inherited\n");
    unsetenv("TOLVA_UNIT_TEST");
}

TEST(fork_and_exec, scripts_start_with_only_sigchld_held_back) {
    sigset_t none;
    sigset_t two;
    sigset_t before;
    sigemptyset(&none);
    sigemptyset(&two);
    sigaddset(&two, SIGCHLD);
    sigaddset(&two, SIGTERM);
    sigprocmask(SIG_SETMASK, &two, &before);
    run held("exec grep SigBlk", "/proc/self/status");
    sigprocmask(SIG_SETMASK, &none, nullptr);
    run free("exec grep SigBlk", "/proc/self/status");
    sigprocmask(SIG_SETMASK, &before, nullptr);
    /* Bit 16 is SIGCHLD. */
    EXPECT_EQ(held.output, "SigBlk:\t0000000000010000\n");
    EXPECT_EQ(free.output, "SigBlk:\t0000000000010000\n");
}

TEST(fork_and_exec, scripts_ignore_what_the_daemon_ignores) {
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    run script("exec grep SigIgn", "/proc/self/status");
    signal(SIGHUP, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    unsigned long ignored = strtoul(script.output.c_str() + 7, nullptr, 16);
    EXPECT_TRUE(ignored & (1UL << (SIGHUP - 1)));
    EXPECT_TRUE(ignored & (1UL << (SIGPIPE - 1)));
    EXPECT_FALSE(ignored & (1UL << (SIGTERM - 1)));
    EXPECT_FALSE(ignored & (1UL << (SIGCHLD - 1)));
}

TEST(fork_and_exec, a_signal_that_meets_the_child_before_its_script_ends_it) {
    ASSERT_EQ(pthread_atfork(nullptr, nullptr, meet_early_signal), 0);
    for (int number : {SIGTERM, SIGQUIT, SIGINT}) {
        sigset_t held;
        sigset_t before;
        sigemptyset(&held);
        sigaddset(&held, number);
        sigprocmask(SIG_BLOCK, &held, &before);
        signal(number, swallow);
        early_signal = number;
        run script("exit", "3");
        early_signal = 0;
        signal(number, SIG_DFL);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        ASSERT_TRUE(WIFSIGNALED(script.status)) << number;
        EXPECT_EQ(WTERMSIG(script.status), number);
    }
}

TEST(fork_and_exec, scripts_ignore_a_stop_signal_that_the_daemon_ignores) {
    signal(SIGINT, SIG_IGN);
    run script("exec grep SigIgn", "/proc/self/status");
    signal(SIGINT, SIG_DFL);
    unsigned long ignored = strtoul(script.output.c_str() + 7, nullptr, 16);
    EXPECT_TRUE(ignored & (1UL << (SIGINT - 1)));
    EXPECT_FALSE(ignored & (1UL << (SIGQUIT - 1)));
}

TEST(fork_and_exec, tells_that_an_older_script_is_no_longer_watched) {
    operator_log log;
    log.tell_more();
    connection cn;
    strcpy(cn.ipaddr, "10.0.0.9");
    ASSERT_TRUE(fork_and_exec(&cn, "exit 1", nullptr));
    int32_t first = cn.pid;
    EXPECT_EQ(log.lines(), log_lines{message(792, {"exit 1"})});
    log.clear();
    ASSERT_TRUE(fork_and_exec(&cn, "exit 2", nullptr));
    const log_lines expected = {message(792, {"exit 2"}),
                                message(836, {"10.0.0.9"})};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(waitpid(first, nullptr, 0), first);
    EXPECT_EQ(waitpid(cn.pid, nullptr, 0), cn.pid);
}
