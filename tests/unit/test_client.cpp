/* What is made of a client's one command, and who has to go unheard. */
#include "failing_calls.h"
#include "listener_fixture.h"

#include "tolva2/files/events.h"
#include "tolva2/listen/client.h"

namespace {

const std::string header = "CONNECT TO TOLVA (SEND)";

/* A client that has been let in, and its sender's end. */
class session : public listener {
  public:
    session() {
        number = pair.near.release();
        cn = add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1", number);
        cn->deadline = 1000;
    }
    /* The command arrives, in one piece. */
    void receive_command(const std::string &bytes) {
        send_bytes_to(pair.far.get(), bytes);
        ASSERT_TRUE(wait_until([&] {
            std::vector<char> all(bytes.size());
            return recv(number, all.data(), all.size(),
                        MSG_PEEK | MSG_DONTWAIT) ==
                   static_cast<ssize_t>(bytes.size());
        }));
        capture errors(STDERR_FILENO);
        handle_tcp_client(clients->head);
        errors.text();
    }
    bool is_gone() const {
        return clients->size == 0 && !is_open(number) &&
               open_descriptors() == 0;
    }
    tcp_pair pair;
    int number;
    connection *cn;
};

connection *waiting_client(time_t deadline, int fd = -1) {
    connection *cn =
        add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1", fd);
    cn->deadline = deadline;
    return cn;
}

} // namespace

TEST(handle_tcp_client, a_bare_request_runs_the_shutdown_script) {
    for (const std::string &text :
         {header, std::string("connect to tolva (send)")}) {
        session client;
        client.receive_command(text);
        ASSERT_EQ(clients->size, 1u);
        EXPECT_STREQ(client.cn->cmdline.get(), "exit 0;");
        EXPECT_TRUE(client.cn->busy);
        EXPECT_EQ(client.cn->deadline, 0);
        EXPECT_FALSE(client.cn->fd) << "nobody waits for a reply";
        EXPECT_FALSE(is_open(client.number));
        EXPECT_EQ(open_descriptors(), 0);
        EXPECT_TRUE(is_closed(client.pair.far.get()));
        const log_lines expected = {message(795, {}),
                                    message(792, {"exit 0;"})};
        EXPECT_EQ(client.log.lines(), expected);
    }
}

TEST(handle_tcp_client, what_could_not_be_received_yet_is_waited_for) {
    for (int error : {EAGAIN, EINTR}) {
        session client;
        {
            failing_call not_yet("recv", error);
            handle_tcp_client(clients->head);
        }
        ASSERT_EQ(clients->size, 1u);
        EXPECT_EQ(watched(client.cn->fd), EVENT_READABLE) << error;
        EXPECT_EQ(client.cn->deadline, 1000) << error;
        EXPECT_EQ(client.log.lines(), log_lines{}) << error;
        client.receive_command(header);
        EXPECT_STREQ(client.cn->cmdline.get(), "exit 0;");
    }
}

TEST(handle_tcp_client, one_that_hung_up_is_not_waited_for) {
    session client;
    client.pair.far.reset();
    ASSERT_TRUE(wait_for(client.number, POLLIN));
    errno = EAGAIN;
    handle_tcp_client(clients->head);
    EXPECT_TRUE(client.is_gone());
    EXPECT_EQ(client.log.lines(), log_lines{message(796, {})});
}

TEST(handle_tcp_client, whose_request_it_is_can_be_told) {
    session client;
    client.log.tell_more();
    client.receive_command(header);
    const log_lines expected = {
        message(795, {}), message(event::request_from.number, {"127.0.0.1"}),
        message(792, {"exit 0;"})};
    EXPECT_EQ(client.log.lines(), expected);
}

TEST(handle_tcp_client, a_receive_that_fails_ends_the_client) {
    session client;
    failing_call broken("recv", ETIMEDOUT);
    handle_tcp_client(clients->head);
    EXPECT_TRUE(client.is_gone());
    const log_lines expected = {system_line(ETIMEDOUT), message(796, {})};
    EXPECT_EQ(client.log.lines(), expected);
}

TEST(handle_tcp_client, a_command_runs_its_script) {
    struct row {
        const char *text;
        const char *cmdline;
    };
    const row rows[] = {
        {" MSG_EXECUTE EXECUTE backup now", "exit 1; backup now"},
        {"XMSG_EXECUTE EXECUTE x", "exit 1; x"},
        {"\nMSG_EXECUTE MSG_TEXT x", "exit 2; x"},
        {"\xffMSG_EXECUTE MAIL_TEXT ops x", "exit 3; ops \"x\""},
        {" MSG_EXECUTE SHUTDOWN", "exit 0;"},
    };
    for (const row &one : rows) {
        session client;
        client.receive_command(header + one.text);
        ASSERT_EQ(clients->size, 1u) << one.text;
        EXPECT_STREQ(client.cn->cmdline.get(), one.cmdline);
        EXPECT_FALSE(client.cn->fd);
        EXPECT_FALSE(is_open(client.number));
    }
}

TEST(handle_tcp_client, a_client_that_wants_a_reply_stays_open) {
    session client;
    client.receive_command(header + " MSG_EXECSTATUS EXECUTE x");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(client.cn->fd.get(), client.number);
    EXPECT_TRUE(is_open(client.number));
    EXPECT_TRUE(client.cn->want_reply);
    EXPECT_TRUE(client.cn->busy);
    EXPECT_EQ(client.cn->deadline, 0);
    EXPECT_EQ(watched(client.cn->fd), EVENT_NONE);
    EXPECT_EQ(open_descriptors(), 1);
    EXPECT_EQ(highest_descriptor(), client.number);
    EXPECT_TRUE(is_silent(client.pair.far.get()));
}

TEST(handle_tcp_client, a_logged_text_is_due_its_reply_at_once) {
    session client;
    client.receive_command(header + " MSG_EXECSTATUS LOG_TEXT hello");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(watched(client.cn->fd), EVENT_WRITABLE);
    EXPECT_EQ(client.cn->exitstatus, 0);
    const log_lines expected = {message(795, {}), "hello"};
    EXPECT_EQ(client.log.lines(), expected);
}

TEST(handle_tcp_client, what_runs_nothing_closes_the_connection) {
    struct row {
        std::string text;
        int logged; /* behind 795; 0: nothing */
    };
    const row rows[] = {
        {header + "\n", 820},
        {header + " ", 820},
        {header + "\r\n", 819},
        {header + "  ", 819},
        {header + " MSG_EXECUTE", 819},
        {header + " MSG_EXECSTATUS REBOOT", 820},
        {header + " SHUTDOWN", 819},
        {header.substr(0, 22), 819},
        {"x", 819},
        {"GET / HTTP/1.0\r\n\r\n", 819},
        {"\n", 819},
        {std::string("\0", 1), 819},
        {std::string("\0", 1) + header, 819},
        {"CONNECT TO TOLVA (REPLY)", 819},
        {std::string(4095, 'x'), 819},
        {header + " MSG_EXECUTE LOG_TEXT", 0},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(one.text.substr(0, 60));
        session client;
        client.receive_command(one.text);
        EXPECT_TRUE(client.is_gone());
        EXPECT_TRUE(is_closed(client.pair.far.get()));
        log_lines expected = {message(795, {})};
        if (one.logged != 0) {
            expected.push_back(message(one.logged, {}));
        }
        EXPECT_EQ(client.log.lines(), expected);
    }
}

TEST(handle_tcp_client, a_nul_byte_ends_the_text) {
    {
        session client;
        client.receive_command(header + std::string("\0rubbish", 8));
        ASSERT_EQ(clients->size, 1u);
        EXPECT_STREQ(client.cn->cmdline.get(), "exit 0;");
    }
    {
        session client;
        client.receive_command(header +
                               std::string(" MSG_EXECUTE EXECUTE a\0b", 24));
        ASSERT_EQ(clients->size, 1u);
        EXPECT_STREQ(client.cn->cmdline.get(), "exit 1; a");
    }
}

TEST(handle_tcp_client, without_script_a_wanted_reply_is_never_made) {
    session client;
    client.settings.exec_prog = nullptr;
    client.receive_command(header + " MSG_EXECSTATUS EXECUTE x");
    EXPECT_TRUE(client.is_gone());
    EXPECT_EQ(receive_all(client.pair.far.get()), "");
}

TEST(handle_tcp_client, takes_one_receive_of_4095_bytes) {
    session client;
    client.receive_command(header + " MSG_EXECSTATUS EXECUTE " +
                           std::string(5000, 'x'));
    ASSERT_EQ(clients->size, 1u);
    size_t words = header.size() + strlen(" MSG_EXECSTATUS EXECUTE ");
    EXPECT_EQ(std::string(client.cn->cmdline.get()),
              "exit 1; " + std::string(4095 - words, 'x'));
}

TEST(handle_tcp_client, a_command_in_two_segments_is_what_came_first) {
    session client;
    client.receive_command(header);
    EXPECT_STREQ(client.cn->cmdline.get(), "exit 0;");
}

TEST(handle_tcp_client, a_client_that_closes_without_a_word) {
    session client;
    client.pair.far.reset();
    ASSERT_TRUE(wait_for(client.number, POLLIN));
    handle_tcp_client(clients->head);
    EXPECT_TRUE(client.is_gone());
    EXPECT_EQ(client.log.lines(), log_lines{message(796, {})});
}

TEST(handle_tcp_client, a_client_that_resets) {
    session client;
    reset_connection(&client.pair.far);
    ASSERT_TRUE(wait_for(client.number, POLLIN));
    handle_tcp_client(clients->head);
    EXPECT_TRUE(client.is_gone());
    const log_lines expected = {system_line(ECONNRESET), message(796, {})};
    EXPECT_EQ(client.log.lines(), expected);
}

TEST(handle_tcp_client, traces_what_it_received) {
    session client;
    std::string seen = traced(1, [&] { client.receive_command("x [\xe4]"); });
    EXPECT_NE(seen.find("DEBUG: received = [x [\xe4]]\n"), std::string::npos)
        << seen;
}

TEST(check_timeout_clients, the_first_that_waits_decides) {
    session_lists lists;
    waiting_client(0);
    waiting_client(1008);
    waiting_client(1003);
    EXPECT_EQ(check_timeout_clients(1000, 10), 8);
    EXPECT_EQ(check_timeout_clients(1007, 10), 1);
    EXPECT_EQ(clients->size, 3u);
}

TEST(check_timeout_clients, nobody_waits) {
    session_lists lists;
    EXPECT_EQ(check_timeout_clients(1000, 10), -1);
    waiting_client(0);
    EXPECT_EQ(check_timeout_clients(1000, 10), -1);
    EXPECT_EQ(clients->size, 1u);
}

TEST(check_timeout_clients, who_is_late_goes) {
    session_lists lists;
    operator_log log;
    int fd = bound_socket(SOCK_STREAM);
    waiting_client(1000, fd);
    waiting_client(999);
    waiting_client(0);
    waiting_client(1001);
    EXPECT_EQ(check_timeout_clients(1000, 10), 1);
    EXPECT_EQ(clients->size, 2u);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_TRUE(nothing_is_watched());
    const log_lines expected = {error_line(ETIMEDOUT), error_line(ETIMEDOUT)};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(check_timeout_clients(1001, 10), -1);
    EXPECT_EQ(clients->size, 1u);
}

TEST(check_timeout_clients, those_behind_the_first_are_not_looked_at) {
    session_lists lists;
    operator_log log;
    waiting_client(1005);
    waiting_client(900);
    EXPECT_EQ(check_timeout_clients(1000, 10), 5);
    EXPECT_EQ(clients->size, 2u);
    EXPECT_EQ(log.lines(), log_lines{});
}

TEST(check_timeout_clients, a_clock_set_back_shortens_the_deadlines) {
    session_lists lists;
    operator_log log;
    const connection *first = waiting_client(5000);
    const connection *second = waiting_client(5001);
    /* The absolute time, as the result of this case. */
    EXPECT_EQ(check_timeout_clients(1000, 10), 1010);
    EXPECT_EQ(first->deadline, 1010);
    EXPECT_EQ(second->deadline, 1010);
    EXPECT_EQ(clients->size, 2u);
    EXPECT_EQ(check_timeout_clients(1000, 10), 10);
    EXPECT_EQ(check_timeout_clients(1004, 10), 6);
    EXPECT_EQ(check_timeout_clients(1010, 10), -1);
    EXPECT_EQ(clients->size, 0u);
}

TEST(check_timeout_clients, a_deadline_just_at_the_limit_is_none_set_back) {
    session_lists lists;
    const connection *cn = waiting_client(1010);
    EXPECT_EQ(check_timeout_clients(1000, 10), 10);
    EXPECT_EQ(cn->deadline, 1010);
    EXPECT_EQ(check_timeout_clients(999, 10), 1009);
    EXPECT_EQ(cn->deadline, 1009);
}

TEST(check_timeout_clients, after_shortening_the_next_one_may_decide) {
    session_lists lists;
    waiting_client(5000);
    waiting_client(1004);
    EXPECT_EQ(check_timeout_clients(1000, 10), 4);
}

TEST(check_timeout_clients, works_beyond_32_bits) {
    session_lists lists;
    operator_log log;
    waiting_client(5000000000);
    EXPECT_EQ(check_timeout_clients(4999999990, 2147483647), 10);
    const connection *cn = waiting_client(9000000000);
    EXPECT_EQ(check_timeout_clients(5000000000, 2147483647), 7147483647);
    EXPECT_EQ(cn->deadline, 7147483647);
}

TEST(check_timeout_clients_death, each_node_has_a_record) {
    session_lists lists;
    ASSERT_EQ(ux_list_ins_next(clients, nullptr, nullptr), 0);
    EXPECT_DEATH(static_cast<void>(check_timeout_clients(1000, 10)),
                 "client\\.cpp:.*`cn'");
}
