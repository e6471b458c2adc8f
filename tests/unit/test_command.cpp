/* From a command to its script. */
#include "command_fixture.h"

namespace {

/* The exit status of the client's script, not collected by the program. */
int wait_status(const connection *cn) {
    int status = -1;
    EXPECT_EQ(waitpid(cn->pid, &status, 0), cn->pid);
    return status;
}

struct v2_row {
    const char *text;
    const char *cmdline; /* null: no script */
    int logged;          /* number of the message, 0: as the script */
};

const v2_row v2_rows[] = {
    {"MSG_EXECUTE SHUTDOWN", "exit 0;", 0},
    {"MSG_EXECUTE SHUTDOWN now", "exit 0; now", 0},
    {"MSG_EXECUTE EXECUTE backup now", "exit 1; backup now", 0},
    {"MSG_EXECUTE EXECUTE  \"backup now\" ", "exit 1; backup now", 0},
    {"MSG_EXECUTE EXECUTE \t a", "exit 1; a", 0},
    {"MSG_EXECUTE EXECUTE", "exit 1;", 0},
    {"MSG_EXECUTE EXECUTE  ", "exit 1;", 0},
    {"MSG_EXECUTE MSG_ID 12 UPS1 45", "exit 2; UPS UPS1 at 45%s done", 0},
    {"MSG_EXECUTE MSG_ID 9999 UPS1", "exit 2;", 0},
    {"MSG_EXECUTE MSG_ID", "exit 2;", 0},
    {"MSG_EXECUTE MSG_TEXT \"UPS on battery\"", "exit 2; UPS on battery", 0},
    {"MSG_EXECUTE MAIL_ID 14 ops", "exit 3; ops  \"plain\"", 0},
    {"MSG_EXECUTE MAIL_ID 9999 ops", "exit 3; ops ", 0},
    {"MSG_EXECUTE MAIL_TEXT ops Battery low", "exit 3; ops \"Battery low\"", 0},
    {"msg_execute execute x", "exit 1; x", 0},
    {"Msg_ExecStatus Msg_Text x", "exit 2; x", 0},
    {"MSG_EXECSTATUS EXECUTE x", "exit 1; x", 0},
    {" \tMSG_EXECUTE\t EXECUTE\tx", "exit 1; x", 0},
    {"MSG_EXECUTE EXECUTE \xe4\xff", "exit 1; \xe4\xff", 0},
    {"", nullptr, 820},
    {" ", nullptr, 819},
    {" \t ", nullptr, 819},
    {"\n", nullptr, 819},
    {"MSG_EXECUTE", nullptr, 819},
    {"MSG_EXECUTE ", nullptr, 819},
    {"MSG_EXECSTATUS \t", nullptr, 819},
    {"SHUTDOWN", nullptr, 819},
    {"MSG_SCAN", nullptr, 819},
    {"MSG_SCAN SHUTDOWN", nullptr, 819},
    {"MSG_EXECUTEX SHUTDOWN", nullptr, 819},
    {"MSG_EXEC SHUTDOWN", nullptr, 819},
    {"MSG_EXECUTE\nSHUTDOWN", nullptr, 819},
    {"MSG_EXECUTE REBOOT", nullptr, 820},
    {"MSG_EXECUTE REBOOT now", nullptr, 820},
    {"MSG_EXECUTE SHUTDOWN\n", nullptr, 820},
    {"MSG_EXECUTE MSG", nullptr, 820},
};

} // namespace

TEST(exec_V2command, runs_the_script_of_the_command_word) {
    for (const v2_row &row : v2_rows) {
        SCOPED_TRACE(std::string("[") + row.text + "]");
        listener listen;
        connection *cn = add_client();
        bool result = run_text(cn, row.text);
        if (row.cmdline != nullptr) {
            EXPECT_TRUE(result);
            EXPECT_TRUE(cn->busy);
            ASSERT_NE(cn->cmdline, nullptr);
            EXPECT_STREQ(cn->cmdline.get(), row.cmdline);
            EXPECT_EQ(listen.log.lines(),
                      log_lines{message(792, {row.cmdline})});
        } else {
            EXPECT_FALSE(result);
            EXPECT_FALSE(cn->busy);
            EXPECT_EQ(cn->cmdline, nullptr);
            EXPECT_EQ(listen.log.lines(), log_lines{message(row.logged, {})});
        }
    }
}

TEST(exec_V2command, without_text_is_unknown) {
    listener listen;
    EXPECT_FALSE(exec_V2command(add_client(), nullptr));
    EXPECT_EQ(listen.log.lines(), log_lines{message(820, {})});
}

TEST(exec_V2command, a_script_that_is_not_set_is_not_run) {
    listener listen;
    listen.settings.shutdown_prog = nullptr;
    listen.settings.exec_prog = listen.text("");
    listen.settings.msg_prog = nullptr;
    listen.settings.mail_prog = nullptr;
    connection *cn = add_client();
    for (const char *word : {"SHUTDOWN", "EXECUTE", "MSG_ID 14", "MSG_TEXT x",
                             "MAIL_ID 14 ops", "MAIL_TEXT ops x"}) {
        EXPECT_FALSE(run_text(cn, std::string("MSG_EXECSTATUS ") + word));
        EXPECT_FALSE(cn->busy) << word;
    }
    EXPECT_EQ(listen.log.lines(), log_lines{});
}

TEST(exec_V2command, execstatus_asks_for_a_reply_over_tcp_only) {
    listener listen;
    connection *tcp = add_client(ADDR_PEER);
    connection *udp = add_client(ADDR_BROADCAST);
    EXPECT_TRUE(run_text(tcp, "MSG_EXECSTATUS EXECUTE x"));
    EXPECT_TRUE(run_text(udp, "MSG_EXECSTATUS EXECUTE x"));
    EXPECT_TRUE(tcp->want_reply);
    EXPECT_FALSE(udp->want_reply);
    connection *quiet = add_client(ADDR_PEER);
    EXPECT_TRUE(run_text(quiet, "MSG_EXECUTE EXECUTE x"));
    EXPECT_FALSE(quiet->want_reply);
}

TEST(exec_V2command, log_texts_go_to_the_log_without_a_script) {
    struct row {
        const char *text;
        const char *logged;
    };
    const row rows[] = {
        {"MSG_EXECUTE LOG_TEXT UPS on battery", "UPS on battery"},
        {"MSG_EXECUTE LOG_TEXT \"UPS on battery\"", "UPS on battery"},
        {"MSG_EXECUTE LOG_TEXT %s and #NAME %d %n", "%s and #NAME %d %n"},
        {"MSG_EXECUTE LOG_TEXT TOLVA ERROR: x", "error: x"},
        {"MSG_EXECUTE LOG_ID 12 UPS1 45", "UPS UPS1 at 45%s done"},
        {"MSG_EXECUTE LOG_ID 14", "plain"},
        {"msg_execute log_text \xe4\xff", "\xe4\xff"},
    };
    for (const row &one : rows) {
        listener listen;
        connection *cn = add_client();
        EXPECT_EQ(run_text(cn, one.text), 1) << one.text;
        EXPECT_FALSE(cn->busy);
        EXPECT_EQ(listen.log.lines(), log_lines{one.logged});
    }
    for (const char *nothing :
         {"MSG_EXECUTE LOG_TEXT", "MSG_EXECUTE LOG_TEXT  ",
          "MSG_EXECUTE LOG_TEXT \"\"", "MSG_EXECUTE LOG_TEXT \" \"",
          "MSG_EXECUTE LOG_ID", "MSG_EXECUTE LOG_ID 9999"}) {
        listener listen;
        EXPECT_FALSE(run_text(add_client(), nothing)) << nothing;
        EXPECT_EQ(listen.log.lines(), log_lines{});
    }
}

TEST(exec_V2command, a_logged_text_is_replied_to_without_a_child) {
    struct row {
        const char *text;
        bool result;
        int32_t exitstatus;
    };
    const row rows[] = {
        {"MSG_EXECSTATUS LOG_TEXT hello", true, 0},
        {"MSG_EXECSTATUS LOG_TEXT", false, 1},
        {"MSG_EXECSTATUS LOG_ID 14", true, 0},
        {"MSG_EXECSTATUS LOG_ID 9999", false, 1},
    };
    for (const row &one : rows) {
        listener listen;
        int fd = tcp_socket().release();
        connection *cn = add_client(ADDR_PEER, fd);
        EXPECT_EQ(run_text(cn, one.text), one.result) << one.text;
        EXPECT_TRUE(cn->busy);
        EXPECT_TRUE(cn->want_reply);
        EXPECT_EQ(cn->exitstatus, one.exitstatus);
        EXPECT_EQ(cn->pid, 0);
        EXPECT_EQ(cn->cmdline, nullptr);
        EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
        EXPECT_EQ(open_descriptors(), 1);
        /* Nothing is left to collect for it. */
        reap_children();
        EXPECT_EQ(clients->size, 1u);
        EXPECT_TRUE(cn->busy);
    }
}

TEST(exec_V2command, a_text_that_cannot_be_logged_is_replied_to_as_failed) {
    listener listen;
    int fd = tcp_socket().release();
    connection *cn = add_client(ADDR_PEER, fd);
    logfile_close();
    EXPECT_EQ(logfile_open("/no/such/directory/log", 0), 1);
    EXPECT_FALSE(run_text(cn, "MSG_EXECSTATUS LOG_TEXT hello"));
    EXPECT_EQ(cn->exitstatus, 1);
}

TEST(exec_V2command, a_logged_datagram_is_not_replied_to) {
    listener listen;
    connection *cn = add_client(ADDR_BROADCAST);
    EXPECT_TRUE(run_text(cn, "MSG_EXECSTATUS LOG_TEXT hello"));
    EXPECT_FALSE(cn->busy);
    EXPECT_FALSE(cn->want_reply);
    EXPECT_EQ(listen.log.lines(), log_lines{"hello"});
}

TEST(exec_V2command, shutdown_does_not_ask_redundancy) {
    listener listen;
    listen.make_redundant("127.0.0.1 127.0.0.2", 2);
    connection *cn = add_client();
    capture errors(STDERR_FILENO);
    EXPECT_TRUE(run_text(cn, "MSG_EXECUTE SHUTDOWN"));
    EXPECT_EQ(errors.text(), "");
    EXPECT_STREQ(cn->cmdline.get(), "exit 0;");
}

TEST(exec_V2command, very_long_parameters_are_kept_to_4094_characters) {
    listener listen;
    connection *cn = add_client();
    EXPECT_TRUE(run_text(cn, "MSG_EXECUTE EXECUTE " + std::string(5000, 'x')));
    EXPECT_EQ(std::string(cn->cmdline.get()),
              "exit 1; " + std::string(4094, 'x'));
}

TEST(exec_V2command, traces_the_words) {
    listener listen;
    connection *cn = add_client();
    EXPECT_EQ(traced(1, [&] { run_text(cn, "MSG_SCAN x"); }),
              "DEBUG: tolvamsg = [MSG_SCAN x]\nDEBUG: ptr1 = [MSG_SCAN]\n"
              "DEBUG: arg= [" +
                  message(819, {}) + "]\n");
    std::string seen =
        traced(1, [&] { run_text(cn, " MSG_EXECUTE  EXECUTE x"); });
    EXPECT_EQ(seen.substr(0, seen.find("DEBUG: compare")),
              "DEBUG: tolvamsg = [ MSG_EXECUTE  EXECUTE x]\n"
              "DEBUG: ptr1 = [MSG_EXECUTE]\nDEBUG: ptr2 = [EXECUTE]\n");
}

TEST(exec_V1command, runs_the_shutdown_script_without_parameters) {
    listener listen;
    connection *cn = add_client();
    capture errors(STDERR_FILENO);
    EXPECT_TRUE(exec_V1command(cn));
    EXPECT_EQ(errors.text(), "returning: TRUE\n");
    EXPECT_TRUE(cn->busy);
    EXPECT_FALSE(cn->want_reply);
    EXPECT_STREQ(cn->cmdline.get(), "exit 0;");
    EXPECT_EQ(listen.log.lines(), log_lines{message(792, {"exit 0;"})});
}

TEST(exec_V1command, without_script_runs_nothing) {
    listener listen;
    listen.settings.shutdown_prog = nullptr;
    connection *cn = add_client();
    capture errors(STDERR_FILENO);
    EXPECT_FALSE(exec_V1command(cn));
    EXPECT_FALSE(cn->busy);
}

TEST(exec_V1command, is_withheld_by_redundancy) {
    listener listen;
    listen.make_redundant("127.0.0.1 127.0.0.2", 2);
    connection *cn = add_client();
    capture errors(STDERR_FILENO);
    EXPECT_FALSE(exec_V1command(cn));
    EXPECT_EQ(errors.text(), "returning: FALSE\n");
    EXPECT_STREQ(cn->cmdline.get(), "exit 4;");
    const log_lines expected = {"Shutdown suppressed, redundancy-level = 2, "
                                "failure count = 2.",
                                message(792, {"exit 4;"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(exec_V1command, asks_the_watched_servers_anew) {
    listener listen;
    listen.make_redundant("127.0.0.1 127.0.0.2", 1);
    ux_fd server(listening_socket("127.0.0.2"));
    connection *server_record =
        add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.2");
    server_record->addr = loopback("127.0.0.2", local_port(server.get()));
    connection *cn = add_client();
    capture errors(STDERR_FILENO);
    EXPECT_FALSE(exec_V1command(cn)) << "the other one is alive";
    EXPECT_TRUE(server_record->fd);
    EXPECT_EQ(server_record->nerror, 0);
    wait_status(cn);
    cn->busy = false;
    /* Its check is still open: that counts as a failure by now. */
    EXPECT_TRUE(exec_V1command(cn));
    EXPECT_EQ(server_record->nerror, 1);
    EXPECT_EQ(errors.text(), "returning: FALSE\nreturning: TRUE\n");
}
