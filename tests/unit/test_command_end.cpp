/* From the end of a script to the record that waits for it. */
#include "command_fixture.h"
#include "failing_calls.h"

#include <algorithm>
#include <csignal>

namespace {

/* Collects until the record's script is through, or the record is gone. */
void collect(ux_list *list, uint32_t size_then) {
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        bool busy = false;
        for (const connection *cn : records(list)) {
            busy = busy || (cn != nullptr && cn->busy);
        }
        return !busy;
    }));
    EXPECT_EQ(list->size, size_then);
}

} // namespace

TEST(reap_children, a_script_that_runs_is_left_alone) {
    listener listen;
    listen.settings.exec_prog = listen.text("exec sleep 600 #");
    connection *cn = add_client();
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    reap_children();
    EXPECT_EQ(clients->size, 1u);
    EXPECT_TRUE(cn->busy);
    kill(cn->pid, SIGKILL);
    collect(clients, 0);
}

TEST(reap_children, without_reply_the_record_goes) {
    listener listen;
    run_text(add_client(), "MSG_EXECUTE SHUTDOWN a");
    run_text(add_client(ADDR_BROADCAST), "MSG_EXECSTATUS EXECUTE b");
    listen.log.clear();
    collect(clients, 0);
    log_lines seen = listen.log.lines();
    std::sort(seen.begin(), seen.end());
    const log_lines expected = {message(793, {"exit 1; b"}),
                                message(794, {"exit 0; a"})};
    EXPECT_EQ(seen, expected);
}

TEST(reap_children, with_reply_the_status_is_kept_for_it) {
    struct row {
        const char *program;
        int32_t exitstatus;
        int logged;
    };
    const row rows[] = {
        {"exit 0;", 0, 794},
        {"exit 1;", 1, 793},
        {"exit 255;", 255, 793},
        {"exit 128;", 128, 793},
        {"exec /no/such/file 2>/dev/null;", 127, 793},
        {"kill -9 $$;", 9, 793},
        {"kill -15 $$;", 15, 793},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(one.program);
        listener listen;
        listen.settings.exec_prog = listen.text(one.program);
        int fd = tcp_socket().release();
        connection *cn = add_client(ADDR_PEER, fd);
        ASSERT_TRUE(run_text(cn, "MSG_EXECSTATUS EXECUTE"));
        int32_t pid = cn->pid;
        EXPECT_EQ(watched(cn->fd), EVENT_READABLE);
        listen.log.clear();
        collect(clients, 1);
        EXPECT_EQ(cn->exitstatus, one.exitstatus);
        EXPECT_EQ(cn->pid, pid);
        EXPECT_TRUE(cn->want_reply);
        EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
        EXPECT_EQ(open_descriptors(), 1);
        EXPECT_STREQ(cn->cmdline.get(), one.program);
        EXPECT_EQ(listen.log.lines(),
                  log_lines{message(one.logged, {one.program})});
        /* Once collected, it is never collected again. */
        cn->busy = true;
        reap_children();
        EXPECT_TRUE(cn->busy);
        cn->busy = false;
    }
}

TEST(reap_children, a_stopped_script_is_reported_with_its_raw_status) {
    listener listen;
    listen.settings.exec_prog = listen.text("kill -STOP $$; exit 0;");
    int fd = tcp_socket().release();
    connection *cn = add_client(ADDR_PEER, fd);
    ASSERT_TRUE(run_text(cn, "MSG_EXECSTATUS EXECUTE"));
    int32_t pid = cn->pid;
    collect(clients, 1);
    EXPECT_EQ(cn->exitstatus, (SIGSTOP << 8) | 0x7f);
    EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
    EXPECT_EQ(listen.log.lines().back(),
              message(793, {"kill -STOP $$; exit 0;"}));
    kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    cn->pid = 0;
}

TEST(reap_children, skips_records_without_child_and_nodes_without_record) {
    listener listen;
    connection *idle = add_client();
    ASSERT_EQ(ux_list_ins_next(clients, clients->tail, nullptr), 0);
    idle->busy = true;
    connection elsewhere;
    run_text(&elsewhere, "MSG_EXECUTE SHUTDOWN");
    siginfo_t info;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(elsewhere.pid), &info,
                     WEXITED | WNOWAIT),
              0);
    reap_children();
    EXPECT_EQ(clients->size, 2u);
    EXPECT_TRUE(idle->busy);
    EXPECT_TRUE(elsewhere.busy);
    EXPECT_EQ(waitpid(elsewhere.pid, nullptr, 0), -1) << "no zombie stays";
    idle->busy = false;
}

TEST(reap_children, collects_several_of_a_list_at_once) {
    listener listen;
    for (int i = 0; i < 5; i++) {
        run_text(add_client(), "MSG_EXECUTE SHUTDOWN");
    }
    for (const connection *cn : records(clients)) {
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(cn->pid), &info, WEXITED | WNOWAIT);
    }
    reap_children();
    EXPECT_EQ(clients->size, 0u);
}

/* More than are collected at a time, in the order of the list, while another
 * one runs that is not among them. */
TEST(reap_children, serves_hundreds_that_have_ended_together) {
    constexpr int SCRIPTS = 600;
    listener listen;
    listen.settings.exec_prog = listen.text("exec sleep 600 #");
    connection *runs = add_client();
    ASSERT_TRUE(run_text(runs, "MSG_EXECUTE EXECUTE"));
    log_lines expected;
    for (int i = 0; i < SCRIPTS; i++) {
        std::string text = "MSG_EXECUTE SHUTDOWN " + std::to_string(i);
        ASSERT_TRUE(run_text(add_client(), text));
        expected.push_back(message(794, {"exit 0; " + std::to_string(i)}));
    }
    for (const connection *cn : records(clients)) {
        siginfo_t info;
        if (cn != runs) {
            waitid(P_PID, static_cast<id_t>(cn->pid), &info, WEXITED | WNOWAIT);
        }
    }
    listen.log.clear();
    reap_children();
    EXPECT_EQ(clients->size, 1u);
    EXPECT_EQ(listen.log.lines(), expected);
    kill(runs->pid, SIGKILL);
    collect(clients, 0);
}

TEST(reap_children, a_server_record_stays_and_loses_its_command_line) {
    listener listen;
    connection *cn =
        add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.1");
    cn->nerror = 5;
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    listen.log.clear();
    collect(connections, 1);
    EXPECT_EQ(cn->cmdline, nullptr);
    EXPECT_EQ(listen.log.lines(), log_lines{message(793, {"exit 1;"})});
    EXPECT_EQ(cn->nerror, 5);

    listen.settings.alive_retries = 5;
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    listen.log.clear();
    collect(connections, 0);
    const log_lines expected = {message(793, {"exit 1;"}),
                                message(832, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(reap_children, an_old_number_takes_no_other_childs_status) {
    listener listen;
    connection *cn =
        add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.1");
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    collect(connections, 1);
    /* The system gives the old number to a client's script. */
    connection *client = add_client();
    ASSERT_TRUE(run_text(client, "MSG_EXECUTE SHUTDOWN"));
    cn->pid = client->pid;
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(client->pid), &info, WEXITED | WNOWAIT);
    listen.log.clear();
    reap_children();
    EXPECT_EQ(clients->size, 0u);
    EXPECT_EQ(listen.log.lines(), log_lines{message(794, {"exit 0;"})});
}

TEST(reap_children, serves_both_lists) {
    listener listen;
    run_text(add_client(), "MSG_EXECUTE SHUTDOWN");
    connection *cn =
        add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.1");
    run_text(cn, "MSG_EXECUTE EXECUTE");
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return clients->size == 0 && cn->busy == 0;
    }));
    EXPECT_EQ(connections->size, 1u);
}

TEST(reap_children, leaves_no_zombie_that_nobody_waits_for) {
    listener listen;
    connection lost;
    for (int i = 0; i < 3; i++) {
        run_text(&lost, "MSG_EXECUTE SHUTDOWN");
    }
    EXPECT_TRUE(wait_until([] {
        reap_children();
        siginfo_t info;
        return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) < 0 &&
               errno == ECHILD;
    }));
}

TEST(reap_children, an_old_number_takes_no_status_that_nobody_waits_for) {
    listener listen;
    connection *cn =
        add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.1");
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    collect(connections, 1);
    /* The system gives the old number to a script that is not watched. */
    connection lost;
    run_text(&lost, "MSG_EXECUTE SHUTDOWN");
    cn->pid = lost.pid;
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(lost.pid), &info, WEXITED | WNOWAIT);
    listen.log.clear();
    reap_children();
    EXPECT_EQ(listen.log.lines(), log_lines{});
    EXPECT_EQ(waitpid(lost.pid, nullptr, WNOHANG), -1);
}

/* Nobody would look again before the next script ends. */
TEST(reap_children, an_interruption_leaves_no_child_behind) {
    listener listen;
    connection *cn = add_client();
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(cn->pid), &info, WEXITED | WNOWAIT);
    failing_call interruption("waitpid", EINTR, 0, 1);
    reap_children();
    EXPECT_EQ(clients->size, 0u);
}

TEST(reap_children, does_not_wait_for_scripts_that_run) {
    listener listen;
    listen.settings.exec_prog = listen.text("exec sleep 600 #");
    connection *cn = add_client();
    ASSERT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE"));
    reap_children();
    EXPECT_TRUE(cn->busy);
    kill(cn->pid, SIGKILL);
    EXPECT_TRUE(wait_until([] {
        reap_children();
        return clients->size == 0;
    }));
}
