/* One check of a server: its exchange, its failure, its script. */
#include "alive_fixture.h"

#include "tolva2/listen/alive.h"

#include <algorithm>
#include <csignal>
#include <regex>

TEST(alive_check, a_server_that_answers_is_alive) {
    server_watch listen(1);
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    cn->nerror = 7;
    ASSERT_EQ(alive::start_connections(), 1);
    int number = cn->fd.get();
    one.accept_one();
    advance(connections->head, EVENT_WRITABLE);
    one.answer("0|1");
    advance(connections->head, EVENT_READABLE);
    advance(connections->head, EVENT_WRITABLE);
    one.answer("0|1");
    advance(connections->head, EVENT_READABLE);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->nerror, 0);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_FALSE(cn->busy);
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(highest_descriptor(), number - 1);
    EXPECT_FALSE(is_open(number));
    EXPECT_EQ(connections->size, 1u);
    EXPECT_EQ(listen.log.lines(), log_lines{message(814, {"127.0.0.1"})});
    char line[64];
    snprintf(line, sizeof line, "WINCLIENT %05d LOGON%cWINCLIENT %05d LOGOFF",
             number, 0, number);
    EXPECT_EQ(receive_all(one.peer.get()), std::string(line, 45));
}

TEST(alive_check, a_bad_answer_counts_and_runs_the_script) {
    server_watch listen;
    listen.log_arguments();
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    ASSERT_EQ(alive::start_connections(), 1);
    one.accept_one();
    advance(connections->head, EVENT_WRITABLE);
    one.answer("0:0");
    advance(connections->head, EVENT_READABLE);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_TRUE(cn->busy);
    EXPECT_EQ(open_descriptors(), 0);
    std::string cmdline = cn->cmdline.get();
    const log_lines expected = {message(828, {"127.0.0.1"}),
                                message(792, {cmdline})};
    EXPECT_EQ(listen.log.lines(), expected);
    collect(cn);
    std::regex arguments(
        "127\\.0\\.0\\.1 [0-9]{2}/[0-9]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}"
        "\n");
    EXPECT_TRUE(std::regex_match(read_file(listen.result_path()), arguments))
        << read_file(listen.result_path());
}

TEST(alive_check, a_refused_connection_counts) {
    server_watch listen;
    ux_fd holder;
    connection *cn = listen.add("127.0.0.1", refusing_port(&holder));
    EXPECT_EQ(alive::start_connections(), 1);
    if (cn->fd) {
        advance(connections->head, EVENT_WRITABLE);
    }
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(listen.log.lines().back(), message(828, {"127.0.0.1"}));
}

TEST(alive_check, without_script_the_last_failure_removes_the_server) {
    server_watch listen(2);
    server one;
    listen.add("127.0.0.1", one.port());
    alive::start_connections();
    alive::cancel_connections();
    EXPECT_EQ(connections->size, 1u);
    alive::start_connections();
    alive::cancel_connections();
    EXPECT_EQ(connections->size, 0u);
    const log_lines expected = {message(828, {"127.0.0.1"}),
                                message(828, {"127.0.0.1"}),
                                message(832, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(alive_check, with_script_the_server_goes_when_it_has_ended) {
    server_watch listen(1);
    listen.settings.alive_prog = listen.text("exit 5;");
    server one;
    listen.add("127.0.0.1", one.port());
    alive::start_connections();
    alive::cancel_connections();
    ASSERT_EQ(connections->size, 1u);
    std::string cmdline = record_of(connections->head)->cmdline.get();
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return connections->size == 0;
    }));
    const log_lines expected = {
        message(828, {"127.0.0.1"}), message(792, {cmdline}),
        message(793, {cmdline}), message(832, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(alive_check, every_failure_runs_the_script) {
    server_watch listen(0);
    listen.log_arguments();
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    for (int i = 0; i < 3; i++) {
        alive::start_connections();
        alive::cancel_connections();
        collect(cn);
        EXPECT_EQ(cn->cmdline, nullptr);
    }
    std::string result = read_file(listen.result_path());
    EXPECT_EQ(std::count(result.begin(), result.end(), '\n'), 3);
}

TEST(alive_check, a_newer_script_supersedes_one_that_still_runs) {
    server_watch listen(2);
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    listen.settings.alive_prog = listen.text("exec sleep 600 #");
    alive::start_connections();
    alive::cancel_connections();
    int32_t older = cn->pid;
    listen.settings.alive_prog = listen.text("exec sleep 601 #");
    alive::start_connections();
    alive::cancel_connections();
    int32_t newer = cn->pid;
    ASSERT_NE(older, newer);
    ASSERT_EQ(connections->size, 1u) << "its newer script still runs";
    /* The older one's end is nobody's, yet it does not stay a zombie. */
    kill(older, SIGKILL);
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return kill(older, 0) < 0;
    }));
    EXPECT_TRUE(cn->busy);
    EXPECT_EQ(cn->pid, newer);
    kill(newer, SIGKILL);
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return connections->size == 0;
    }));
    EXPECT_EQ(listen.log.lines().back(), message(832, {"127.0.0.1"}));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(exec_aliveproc, without_script_does_nothing) {
    server_watch listen;
    connection *cn = listen.add("127.0.0.1", 1);
    exec_aliveproc(cn);
    listen.settings.alive_prog = listen.text("");
    exec_aliveproc(cn);
    EXPECT_FALSE(cn->busy);
    EXPECT_EQ(listen.log.lines(), log_lines{});
}
