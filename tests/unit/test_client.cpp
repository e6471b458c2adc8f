/* Who is let in, what is made of a command, and who has to go. */
#include "listener_fixture.h"

#include <cstdlib>

namespace
{

bool memory_exhausted = false;
bool list_full = false;

connection *new_or_null(mode_code mode, address_kind type)
{
    errno = ENOMEM;
    return memory_exhausted ? nullptr : new_connection(mode, type);
}

int32_t register_or_fail(ux_list *list, connection *cn)
{
    errno = ENOMEM;
    return list_full ? 0 : register_connection(list, cn);
}

} // namespace

#define new_connection new_or_null
#define register_connection register_or_fail
#include "tolva2/base/process_state.h"
#include "tolva2/listen/client.cpp" // NOLINT
#undef new_connection
#undef register_connection

namespace
{

const std::string header = "CONNECT TO TOLVA (SEND)";

class allowed_list
{
  public:
    explicit allowed_list(const char *text = "")
    {
        ux_list_init(&list, destroy_inetaddr);
        get_inetaddr_arr_from_str(&list, text, ADDR_PEER, MODE_LISTEN);
    }
    ~allowed_list()
    {
        ux_list_destroy(&list);
    }
    allowed_list(const allowed_list &) = delete;
    allowed_list &operator=(const allowed_list &) = delete;
    ux_list *get()
    {
        return &list;
    }

  private:
    ux_list list;
};

in_addr address_of(const char *dotted)
{
    return loopback(dotted, 0).sin_addr;
}

/* A client that has been let in, and its sender's end. */
class session : public listener
{
  public:
    session()
    {
        number = pair.near.release();
        cn = add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1", number);
        cn->deadline = 1000;
    }
    /* The command arrives, in one piece. */
    void receive_command(const std::string &bytes)
    {
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
    bool is_gone() const
    {
        return clients->size == 0 && !is_open(number) && nfds == 0;
    }
    tcp_pair pair;
    int number;
    connection *cn;
};

/* A listening socket as the daemon has it, with connections to it. */
class tcp_door : public listener
{
  public:
    tcp_door() : door(listening_socket())
    {
        set_nonblocking(door.get());
        add_descriptor(door.get(), &readfds);
    }
    ~tcp_door()
    {
        /* It is not in a list that closes it. */
        nfds = 0;
    }
    int knock(const char *from = "127.0.0.1")
    {
        callers.emplace_back(connected_socket(local_port(door.get()), from));
        EXPECT_TRUE(wait_for(door.get(), POLLIN));
        return callers.back().get();
    }
    void open_for(const char *allowed_text, time_t deadline = 1000)
    {
        allowed_list allowed(allowed_text);
        handle_tcp_connect(door.get(), allowed.get(), deadline);
    }
    descriptor door;
    std::vector<descriptor> callers;
};

/* The UDP side of the daemon. */
class udp_door : public listener
{
  public:
    udp_door() : door(bound_socket(SOCK_DGRAM))
    {
        set_nonblocking(door.get());
    }
    void datagram(const std::string &bytes, const char *from = "127.0.0.1")
    {
        descriptor sender(bound_socket(SOCK_DGRAM, from));
        sockaddr_in to = local_name(door.get());
        ASSERT_EQ(sendto(sender.get(), bytes.data(), bytes.size(), 0,
                         generic(&to), sizeof to),
                  static_cast<ssize_t>(bytes.size()));
        ASSERT_TRUE(wait_for(door.get(), POLLIN));
        receive_one();
    }
    void receive_one(const char *allowed_text = "127.0.0.1")
    {
        allowed_list allowed(allowed_text);
        capture errors(STDERR_FILENO);
        handle_udp_connect(door.get(), allowed.get());
        errors.text();
    }
    descriptor door;
};

connection *waiting_client(time_t deadline, int fd = -1)
{
    connection *cn =
        add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1", fd);
    cn->deadline = deadline;
    return cn;
}

} // namespace

TEST(client_is_allowed, compares_addresses_and_no_ports)
{
    allowed_list allowed("127.0.0.1:99 10.0.0.2 10.3");
    for (const char *yes : {"127.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        in_addr address = address_of(yes);
        EXPECT_EQ(client_is_allowed(allowed.get(), &address), 1) << yes;
    }
    for (const char *no :
         {"127.0.0.2", "10.0.0.1", "1.0.0.127", "255.255.255.255"}) {
        in_addr address = address_of(no);
        EXPECT_EQ(client_is_allowed(allowed.get(), &address), 0) << no;
    }
}

TEST(client_is_allowed, an_empty_list_holds_nobody)
{
    allowed_list allowed;
    in_addr address = address_of("127.0.0.1");
    EXPECT_EQ(client_is_allowed(allowed.get(), &address), 0);
}

TEST(client_is_allowed, stops_at_a_node_without_address)
{
    allowed_list allowed("127.0.0.1 127.0.0.2");
    ASSERT_EQ(ux_list_ins_next(allowed.get(), allowed.get()->head, nullptr), 0);
    in_addr first = address_of("127.0.0.1");
    in_addr second = address_of("127.0.0.2");
    EXPECT_EQ(client_is_allowed(allowed.get(), &first), 1);
    EXPECT_EQ(client_is_allowed(allowed.get(), &second), 0);
}

TEST(client_is_allowed_death, an_address_of_zero_is_none)
{
    allowed_list allowed("127.0.0.1");
    in_addr zero = address_of("0.0.0.0");
    EXPECT_DEATH(client_is_allowed(allowed.get(), &zero),
                 "client\\.cpp:.*`sin_addr && "
                 "sin_addr->s_addr'");
    EXPECT_DEATH(client_is_allowed(allowed.get(), nullptr),
                 "`sin_addr && sin_addr->s_addr'");
}

TEST(handle_tcp_connect, lets_a_client_in)
{
    tcp_door tcp;
    tcp.settings.listenport = 7007;
    int caller = tcp.knock("127.0.0.12");
    tcp.open_for("", 4711);
    ASSERT_EQ(clients->size, 1u);
    const connection *cn = session_of(clients->head);
    ASSERT_GE(cn->fd, 0);
    EXPECT_EQ(cn->mode, MODE_LISTEN);
    EXPECT_EQ(cn->type, ADDR_PEER);
    EXPECT_STREQ(cn->ipaddr, "127.0.0.12");
    EXPECT_EQ(cn->addr.sin_addr.s_addr, inet_addr("127.0.0.12"));
    EXPECT_EQ(ntohs(cn->addr.sin_port), local_port(caller));
    EXPECT_EQ(cn->port, 7007u);
    EXPECT_EQ(cn->deadline, 4711);
    EXPECT_EQ(cn->busy, 0);
    EXPECT_TRUE(FD_ISSET(cn->fd, &readfds));
    EXPECT_FALSE(FD_ISSET(cn->fd, &writefds));
    EXPECT_EQ(nfds, 2);
    EXPECT_GE(maxfd, cn->fd);
    EXPECT_NE(fcntl(cn->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(is_silent(caller));
    EXPECT_EQ(tcp.log.lines(), log_lines{});
}

TEST(handle_tcp_connect, appends_in_the_order_of_arrival)
{
    tcp_door tcp;
    tcp.knock("127.0.0.12");
    tcp.knock("127.0.0.13");
    tcp.open_for("");
    tcp.open_for("");
    ASSERT_EQ(clients->size, 2u);
    EXPECT_STREQ(session_of(clients->head)->ipaddr, "127.0.0.12");
    EXPECT_STREQ(session_of(clients->tail)->ipaddr, "127.0.0.13");
}

TEST(handle_tcp_connect, admits_only_who_is_on_a_list_that_is_not_empty)
{
    tcp_door tcp;
    int refused = tcp.knock("127.0.0.12");
    tcp.open_for("127.0.0.1 10.0.0.1");
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_closed(refused));
    EXPECT_EQ(nfds, 1);
    EXPECT_EQ(tcp.log.lines(), log_lines{message(835, {"127.0.0.12"})});
    tcp.knock("127.0.0.12");
    tcp.open_for("10.0.0.1 127.0.0.12");
    EXPECT_EQ(clients->size, 1u);
}

TEST(handle_tcp_connect, leaves_clients_waiting_while_the_budget_is_used_up)
{
    tcp_door tcp;
    int caller = tcp.knock();
    max_fds = nfds;
    tcp.open_for("");
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_silent(caller));
    EXPECT_TRUE(wait_for(tcp.door.get(), POLLIN));
    EXPECT_EQ(tcp.log.lines(), log_lines{});
    max_fds = nfds + 1;
    tcp.open_for("");
    EXPECT_EQ(clients->size, 1u);
    EXPECT_EQ(nfds, max_fds);
}

TEST(handle_tcp_connect, logs_why_accept_failed)
{
    tcp_door tcp;
    allowed_list allowed;
    descriptor not_listening(tcp_socket());
    handle_tcp_connect(not_listening.get(), allowed.get(), 1000);
    EXPECT_EQ(clients->size, 0u);
    EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EINVAL)});
}

TEST(handle_tcp_connect, drops_the_client_when_memory_is_exhausted)
{
    tcp_door tcp;
    int caller = tcp.knock();
    memory_exhausted = true;
    tcp.open_for("");
    memory_exhausted = false;
    EXPECT_TRUE(is_closed(caller));
    int second = tcp.knock();
    list_full = true;
    tcp.open_for("");
    list_full = false;
    EXPECT_TRUE(is_closed(second));
    EXPECT_EQ(clients->size, 0u);
    EXPECT_EQ(nfds, 1);
    const log_lines expected = {system_line(ENOMEM), system_line(ENOMEM)};
    EXPECT_EQ(tcp.log.lines(), expected);
}

TEST(accepting_clients, as_long_as_there_is_room_in_the_budget)
{
    session_lists lists;
    int32_t retry = 7;
    max_fds = 3;
    nfds = 2;
    EXPECT_EQ(accepting_clients(1000, &retry), 1);
    EXPECT_EQ(retry, 0);
    nfds = 3;
    EXPECT_EQ(accepting_clients(1000, &retry), 0);
    EXPECT_EQ(retry, 0) << "a closed descriptor will tell";
    nfds = 4;
    EXPECT_EQ(accepting_clients(1000, &retry), 0);
    nfds = 2;
    EXPECT_EQ(accepting_clients(1000, &retry), 1);
    nfds = 0;
}

/*
 * The shortage of descriptors in a process of its own, since the module
 * remembers it.
 */
TEST(accepting_clients, a_shortage_is_told_once_and_tried_again)
{
    ending end = in_child([] {
        tcp_door tcp;
        tcp.knock();
        tcp.knock();
        /* Reaching a number of sockets from which on some are left for the
         * log. */
        nfds = 10;
        int32_t retry = 0;
        {
            no_descriptors limit(1);
            for (int i = 0; i < 3; i++) {
                tcp.open_for("");
                EXPECT_EQ(clients->size, 0u);
            }
            bool held_back = false;
            for (int i = 0; i < 3 && !held_back; i++) {
                tcp.open_for("");
                held_back = accepting_clients(time(nullptr), &retry) == 0;
            }
            EXPECT_TRUE(held_back);
            EXPECT_EQ(retry, 1);
            /* One of ours has been closed, or a second has gone by. */
            nfds = 9;
            EXPECT_EQ(accepting_clients(time(nullptr), &retry), 1);
            EXPECT_EQ(retry, 0);
            nfds = 10;
            EXPECT_EQ(accepting_clients(time(nullptr) + 1, &retry), 1);
        }
        EXPECT_EQ(tcp.log.lines().size(), 1u);
        tcp.open_for("");
        tcp.open_for("");
        EXPECT_EQ(clients->size, 2u);
        EXPECT_EQ(accepting_clients(time(nullptr), &retry), 1);
        EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EMFILE)});
        {
            tcp.knock();
            no_descriptors limit(1);
            tcp.open_for("");
        }
        EXPECT_EQ(tcp.log.lines().size(), 2u) << "a new shortage";
        fflush(stdout);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(end.status, 0) << end.out << end.err;
}

TEST(handle_tcp_client, a_bare_request_runs_the_shutdown_script)
{
    for (const std::string &text :
         {header, std::string("connect to tolva (send)")}) {
        session client;
        client.receive_command(text);
        ASSERT_EQ(clients->size, 1u);
        EXPECT_STREQ(client.cn->cmdline, "exit 0;");
        EXPECT_EQ(client.cn->busy, 1);
        EXPECT_EQ(client.cn->deadline, 0);
        EXPECT_EQ(client.cn->fd, -1) << "nobody waits for a reply";
        EXPECT_FALSE(is_open(client.number));
        EXPECT_EQ(nfds, 0);
        EXPECT_TRUE(is_closed(client.pair.far.get()));
        const log_lines expected = {message(795, {}),
                                    message(792, {"exit 0;"})};
        EXPECT_EQ(client.log.lines(), expected);
    }
}

TEST(handle_tcp_client, a_command_runs_its_script)
{
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
        EXPECT_STREQ(client.cn->cmdline, one.cmdline);
        EXPECT_EQ(client.cn->fd, -1);
        EXPECT_FALSE(is_open(client.number));
    }
}

TEST(handle_tcp_client, a_client_that_wants_a_reply_stays_open)
{
    session client;
    client.receive_command(header + " MSG_EXECSTATUS EXECUTE x");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(client.cn->fd, client.number);
    EXPECT_TRUE(is_open(client.number));
    EXPECT_EQ(client.cn->want_reply, 1);
    EXPECT_EQ(client.cn->busy, 1);
    EXPECT_EQ(client.cn->deadline, 0);
    EXPECT_FALSE(FD_ISSET(client.number, &readfds));
    EXPECT_FALSE(FD_ISSET(client.number, &writefds));
    EXPECT_EQ(nfds, 1);
    EXPECT_EQ(maxfd, client.number);
    EXPECT_TRUE(is_silent(client.pair.far.get()));
}

TEST(handle_tcp_client, a_logged_text_is_due_its_reply_at_once)
{
    session client;
    client.receive_command(header + " MSG_EXECSTATUS LOG_TEXT hello");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_FALSE(FD_ISSET(client.number, &readfds));
    EXPECT_TRUE(FD_ISSET(client.number, &writefds));
    EXPECT_EQ(client.cn->exitstatus, 0);
    const log_lines expected = {message(795, {}), "hello"};
    EXPECT_EQ(client.log.lines(), expected);
}

TEST(handle_tcp_client, what_runs_nothing_closes_the_connection)
{
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

TEST(handle_tcp_client, a_nul_byte_ends_the_text)
{
    {
        session client;
        client.receive_command(header + std::string("\0rubbish", 8));
        ASSERT_EQ(clients->size, 1u);
        EXPECT_STREQ(client.cn->cmdline, "exit 0;");
    }
    {
        session client;
        client.receive_command(header +
                               std::string(" MSG_EXECUTE EXECUTE a\0b", 24));
        ASSERT_EQ(clients->size, 1u);
        EXPECT_STREQ(client.cn->cmdline, "exit 1; a");
    }
}

TEST(handle_tcp_client, without_script_a_wanted_reply_is_never_made)
{
    session client;
    client.settings.exec_prog = nullptr;
    client.receive_command(header + " MSG_EXECSTATUS EXECUTE x");
    EXPECT_TRUE(client.is_gone());
    EXPECT_EQ(receive_all(client.pair.far.get()), "");
}

TEST(handle_tcp_client, takes_one_receive_of_4095_bytes)
{
    session client;
    client.receive_command(header + " MSG_EXECSTATUS EXECUTE " +
                           std::string(5000, 'x'));
    ASSERT_EQ(clients->size, 1u);
    size_t words = header.size() + strlen(" MSG_EXECSTATUS EXECUTE ");
    EXPECT_EQ(std::string(client.cn->cmdline),
              "exit 1; " + std::string(4095 - words, 'x'));
}

TEST(handle_tcp_client, a_command_in_two_segments_is_what_came_first)
{
    session client;
    client.receive_command(header);
    EXPECT_STREQ(client.cn->cmdline, "exit 0;");
}

TEST(handle_tcp_client, a_client_that_closes_without_a_word)
{
    session client;
    client.pair.far.reset();
    ASSERT_TRUE(wait_for(client.number, POLLIN));
    handle_tcp_client(clients->head);
    EXPECT_TRUE(client.is_gone());
    EXPECT_EQ(client.log.lines(), log_lines{message(796, {})});
}

TEST(handle_tcp_client, a_client_that_resets)
{
    session client;
    reset_connection(&client.pair.far);
    ASSERT_TRUE(wait_for(client.number, POLLIN));
    handle_tcp_client(clients->head);
    EXPECT_TRUE(client.is_gone());
    const log_lines expected = {system_line(ECONNRESET), message(796, {})};
    EXPECT_EQ(client.log.lines(), expected);
}

TEST(handle_tcp_client, traces_what_it_received)
{
    session client;
    std::string seen = traced(1, [&] { client.receive_command("x [\xe4]"); });
    EXPECT_NE(seen.find("DEBUG: received = [x [\xe4]]\n"), std::string::npos)
        << seen;
}

TEST(handle_udp_connect, runs_a_request)
{
    udp_door udp;
    udp.datagram(header);
    ASSERT_EQ(clients->size, 1u);
    const connection *cn = session_of(clients->head);
    EXPECT_EQ(cn->type, ADDR_BROADCAST);
    EXPECT_EQ(cn->mode, MODE_LISTEN);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_STREQ(cn->ipaddr, "127.0.0.1");
    EXPECT_EQ(cn->addr.sin_addr.s_addr, inet_addr("127.0.0.1"));
    EXPECT_EQ(cn->port, 6003u);
    EXPECT_EQ(cn->deadline, 0);
    EXPECT_STREQ(cn->cmdline, "exit 0;");
    EXPECT_EQ(nfds, 0);
    const log_lines expected = {message(824, {"127.0.0.1"}),
                                message(792, {"exit 0;"})};
    EXPECT_EQ(udp.log.lines(), expected);
}

TEST(handle_udp_connect, never_wants_a_reply)
{
    udp_door udp;
    udp.datagram(header + " MSG_EXECSTATUS EXECUTE x");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(session_of(clients->head)->want_reply, 0);
    EXPECT_STREQ(session_of(clients->head)->cmdline, "exit 1; x");
}

TEST(handle_udp_connect, what_runs_nothing_leaves_no_record)
{
    struct row {
        std::string text;
        std::string logged;
    };
    const row rows[] = {
        {header + "\n", message(820, {})},
        {header + "\r\n", message(819, {})},
        {header + " MSG_EXECUTE", message(819, {})},
        {"x", message(819, {})},
        {std::string("\0x", 2), message(819, {})},
        {header + "XMSG_EXECSTATUS LOG_TEXT hello", "hello"},
    };
    for (const row &one : rows) {
        udp_door udp;
        udp.datagram(one.text);
        EXPECT_EQ(clients->size, 0u);
        const log_lines expected = {message(824, {"127.0.0.1"}), one.logged};
        EXPECT_EQ(udp.log.lines(), expected);
    }
}

TEST(handle_udp_connect, keeps_the_other_records)
{
    udp_door udp;
    connection *first = waiting_client(0);
    udp.datagram(header + " MSG_EXECUTE LOG_TEXT x");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(clients->head->data, first);
}

TEST(handle_udp_connect, refuses_who_is_not_allowed)
{
    udp_door udp;
    udp.datagram(header, "127.0.0.13");
    EXPECT_EQ(clients->size, 0u);
    const log_lines expected = {message(824, {"127.0.0.13"}),
                                message(835, {"127.0.0.13"})};
    EXPECT_EQ(udp.log.lines(), expected);
}

TEST(handle_udp_connect, nothing_to_receive_is_no_reason_to_wait)
{
    udp_door udp;
    udp.receive_one();
    EXPECT_EQ(udp.log.lines(), log_lines{message(825, {})});
    udp.log.clear();
    udp.datagram("");
    EXPECT_EQ(udp.log.lines(), log_lines{message(825, {})});
    EXPECT_EQ(clients->size, 0u);
}

TEST(handle_udp_connect, drops_the_datagram_when_memory_is_exhausted)
{
    udp_door udp;
    memory_exhausted = true;
    udp.datagram(header);
    memory_exhausted = false;
    list_full = true;
    udp.datagram(header);
    list_full = false;
    EXPECT_EQ(clients->size, 0u);
    const log_lines expected = {
        message(824, {"127.0.0.1"}), system_line(ENOMEM),
        message(824, {"127.0.0.1"}), system_line(ENOMEM)};
    EXPECT_EQ(udp.log.lines(), expected);
}

TEST(handle_udp_connect, reads_at_most_4095_bytes)
{
    udp_door udp;
    udp.datagram(header + " MSG_EXECUTE EXECUTE " + std::string(6000, 'x'));
    ASSERT_EQ(clients->size, 1u);
    size_t words = header.size() + strlen(" MSG_EXECUTE EXECUTE ");
    EXPECT_EQ(std::string(session_of(clients->head)->cmdline),
              "exit 1; " + std::string(4095 - words, 'x'));
    EXPECT_TRUE(is_silent(udp.door.get()));
}

TEST(check_timeout_clients, the_first_that_waits_decides)
{
    session_lists lists;
    waiting_client(0);
    waiting_client(1008);
    waiting_client(1003);
    EXPECT_EQ(check_timeout_clients(1000, 10), 8);
    EXPECT_EQ(check_timeout_clients(1007, 10), 1);
    EXPECT_EQ(clients->size, 3u);
}

TEST(check_timeout_clients, nobody_waits)
{
    session_lists lists;
    EXPECT_EQ(check_timeout_clients(1000, 10), -1);
    waiting_client(0);
    EXPECT_EQ(check_timeout_clients(1000, 10), -1);
    EXPECT_EQ(clients->size, 1u);
}

TEST(check_timeout_clients, who_is_late_goes)
{
    session_lists lists;
    operator_log log;
    int fd = tcp_socket();
    waiting_client(1000, fd);
    waiting_client(999);
    waiting_client(0);
    waiting_client(1001);
    EXPECT_EQ(check_timeout_clients(1000, 10), 1);
    EXPECT_EQ(clients->size, 2u);
    EXPECT_FALSE(is_open(fd));
    EXPECT_FALSE(FD_ISSET(fd, &readfds));
    EXPECT_EQ(nfds, 0);
    const log_lines expected = {error_line(ETIMEDOUT), error_line(ETIMEDOUT)};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(check_timeout_clients(1001, 10), -1);
    EXPECT_EQ(clients->size, 1u);
}

TEST(check_timeout_clients, those_behind_the_first_are_not_looked_at)
{
    session_lists lists;
    operator_log log;
    waiting_client(1005);
    waiting_client(900);
    EXPECT_EQ(check_timeout_clients(1000, 10), 5);
    EXPECT_EQ(clients->size, 2u);
    EXPECT_EQ(log.lines(), log_lines{});
}

TEST(check_timeout_clients, a_clock_set_back_shortens_the_deadlines)
{
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

TEST(check_timeout_clients, a_deadline_just_at_the_limit_is_none_set_back)
{
    session_lists lists;
    const connection *cn = waiting_client(1010);
    EXPECT_EQ(check_timeout_clients(1000, 10), 10);
    EXPECT_EQ(cn->deadline, 1010);
    EXPECT_EQ(check_timeout_clients(999, 10), 1009);
    EXPECT_EQ(cn->deadline, 1009);
}

TEST(check_timeout_clients, after_shortening_the_next_one_may_decide)
{
    session_lists lists;
    waiting_client(5000);
    waiting_client(1004);
    EXPECT_EQ(check_timeout_clients(1000, 10), 4);
}

TEST(check_timeout_clients, works_beyond_32_bits)
{
    session_lists lists;
    operator_log log;
    const connection *cn = waiting_client(5000000000);
    EXPECT_EQ(check_timeout_clients(4999999990, 2147483647), 10);
    cn = waiting_client(9000000000);
    EXPECT_EQ(check_timeout_clients(5000000000, 2147483647), 7147483647);
    EXPECT_EQ(cn->deadline, 7147483647);
}

TEST(check_timeout_clients_death, each_node_has_a_record)
{
    session_lists lists;
    ASSERT_EQ(ux_list_ins_next(clients, nullptr, nullptr), 0);
    EXPECT_DEATH(check_timeout_clients(1000, 10), "client\\.cpp:.*`cn'");
}
