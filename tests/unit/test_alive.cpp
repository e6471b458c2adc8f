/* The watch on UPS management servers, with servers on loopback. */
#include "listener_fixture.h"

#include "tolva2/base/process_state.h"
#include "tolva2/listen/alive.cpp" // NOLINT
#include "tolva2/listen/command.h"
#include "tolva2/net/kesdal.h"

#include <algorithm>
#include <regex>

namespace
{

/* A listener that watches servers. */
class watch : public listener
{
  public:
    explicit watch(int32_t retries = 0)
    {
        settings.alive_retries = retries;
        max_fds = 256;
    }
    connection *add(const char *address, uint16_t port)
    {
        connection *cn =
            add_record(connections, MODE_LISTEN, ADDR_KESDAL, address);
        cn->addr = loopback(address, port);
        return cn;
    }
    /* Runs the alive script's command line into a file of arguments. */
    void log_arguments()
    {
        std::string script = log.directory().file(
            "alive.sh", "echo \"$@\" >> " + result_path() + "\n");
        settings.alive_prog = text("sh " + script);
    }
    std::string result_path() const
    {
        return log.directory().path("result");
    }
};

/* A server for one exchange. */
class server
{
  public:
    explicit server(const char *address = "127.0.0.1")
        : listening(listening_socket(address))
    {
    }
    uint16_t port() const
    {
        return local_port(listening.get());
    }
    void accept_one()
    {
        ASSERT_TRUE(wait_for(listening.get(), POLLIN));
        peer.reset(accept(listening.get(), nullptr, nullptr));
    }
    void answer(const char *text) const
    {
        send_bytes_to(peer.get(), text);
    }
    descriptor listening;
    descriptor peer;
};

/* Lets the record's handler go on when its socket is ready. */
void advance(ux_list_element *node, event_bits event)
{
    const connection *cn = session_of(node);
    ASSERT_TRUE(wait_for(cn->fd, event == EVENT_READABLE ? POLLIN : POLLOUT));
    ASSERT_NE(cn->handler, nullptr);
    cn->handler(node, event);
}

/* Collects scripts until the record's one is through. */
void collect(const connection *cn)
{
    EXPECT_TRUE(wait_until([&] {
        handle_sigchld(connections);
        return cn->busy == 0;
    }));
}

} // namespace

TEST(start_connections, opens_a_check_at_every_server)
{
    watch listen;
    server one;
    server two("127.0.0.2");
    connection *first = listen.add("127.0.0.1", one.port());
    connection *second = listen.add("127.0.0.2", two.port());
    EXPECT_EQ(start_connections(), 2);
    for (const connection *cn : {first, second}) {
        ASSERT_GE(cn->fd, 0);
        EXPECT_EQ(cn->handler, do_kesdal_send_logon);
        EXPECT_NE(cn->ends, nullptr);
        EXPECT_TRUE(FD_ISSET(cn->fd, &writefds));
        EXPECT_FALSE(FD_ISSET(cn->fd, &readfds));
        EXPECT_NE(fcntl(cn->fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(fcntl(cn->fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_LE(cn->fd, maxfd);
    }
    EXPECT_EQ(nfds, 2);
    one.accept_one();
    two.accept_one();
    EXPECT_EQ(listen.log.lines(), log_lines{});
}

TEST(start_connections, without_servers_does_nothing)
{
    watch listen;
    EXPECT_EQ(start_connections(), 0);
}

TEST(start_connections, counts_a_full_house_as_a_failed_check)
{
    watch listen;
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    nfds = 5;
    max_fds = 5;
    EXPECT_EQ(start_connections(), 1);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(nfds, 5);
    const log_lines expected = {error_line(EMFILE),
                                message(828, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
    max_fds = 6;
    EXPECT_EQ(start_connections(), 1);
    EXPECT_GE(cn->fd, 0);
    EXPECT_EQ(nfds, 6);
}

TEST(start_connections, counts_what_cannot_connect_as_a_failed_check)
{
    watch listen;
    connection *cn = listen.add("127.0.0.1", 1);
    cn->addr.sin_family = AF_INET6;
    EXPECT_EQ(start_connections(), 1);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(nfds, 0);
    const log_lines expected = {system_line(EAFNOSUPPORT),
                                message(828, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(start_connections, removes_a_record_that_is_of_no_use)
{
    watch listen;
    server one;
    connection *kept = listen.add("127.0.0.1", one.port());
    int fd = tcp_socket();
    add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.9", fd);
    ASSERT_EQ(ux_list_ins_next(connections, connections->tail, nullptr), 0);
    EXPECT_EQ(start_connections(), 1);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_EQ(connections->head->data, kept);
    EXPECT_FALSE(is_open(fd));
    const log_lines expected = {error_line(EINVAL), error_line(EINVAL)};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(start_connections_death, needs_the_list)
{
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(start_connections(), "`connections'");
    connections = kept;
}

TEST(alive_check, a_server_that_answers_is_alive)
{
    watch listen(1);
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    cn->nerror = 7;
    ASSERT_EQ(start_connections(), 1);
    int number = cn->fd;
    one.accept_one();
    advance(connections->head, EVENT_WRITABLE);
    one.answer("0|1");
    advance(connections->head, EVENT_READABLE);
    advance(connections->head, EVENT_WRITABLE);
    one.answer("0|1");
    advance(connections->head, EVENT_READABLE);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(cn->nerror, 0);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_EQ(cn->busy, 0);
    EXPECT_EQ(nfds, 0);
    EXPECT_EQ(maxfd, number - 1);
    EXPECT_FALSE(is_open(number));
    EXPECT_EQ(connections->size, 1u);
    EXPECT_EQ(listen.log.lines(), log_lines{message(814, {"127.0.0.1"})});
    char line[64];
    snprintf(line, sizeof line, "WINCLIENT %05d LOGON%cWINCLIENT %05d LOGOFF",
             number, 0, number);
    EXPECT_EQ(receive_all(one.peer.get()), std::string(line, 45));
}

TEST(alive_check, a_bad_answer_counts_and_runs_the_script)
{
    watch listen;
    listen.log_arguments();
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    ASSERT_EQ(start_connections(), 1);
    one.accept_one();
    advance(connections->head, EVENT_WRITABLE);
    one.answer("0:0");
    advance(connections->head, EVENT_READABLE);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_EQ(cn->busy, 1);
    EXPECT_EQ(nfds, 0);
    std::string cmdline = cn->cmdline;
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

TEST(alive_check, a_refused_connection_counts)
{
    watch listen;
    descriptor holder;
    connection *cn = listen.add("127.0.0.1", refusing_port(&holder));
    EXPECT_EQ(start_connections(), 1);
    if (cn->fd >= 0) {
        advance(connections->head, EVENT_WRITABLE);
    }
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(listen.log.lines().back(), message(828, {"127.0.0.1"}));
}

TEST(alive_check, failures_add_up_until_a_success)
{
    watch listen;
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    for (int i = 1; i <= 3; i++) {
        start_connections();
        cancel_connections();
        EXPECT_EQ(cn->nerror, i);
    }
    start_connections();
    end_connect(connections->head);
    EXPECT_EQ(cn->nerror, 0);
}

TEST(cancel_connections, ends_only_checks_that_are_open)
{
    watch listen;
    server one;
    connection *open = listen.add("127.0.0.1", one.port());
    connection *idle = listen.add("127.0.0.2", 1);
    ASSERT_EQ(ux_list_ins_next(connections, connections->tail, nullptr), 0);
    int fd = tcp_socket();
    open->fd = fd;
    add_descriptor(fd, &readfds);
    cancel_connections();
    EXPECT_EQ(open->fd, -1);
    EXPECT_EQ(open->nerror, 1);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(nfds, 0);
    EXPECT_EQ(idle->nerror, 0);
    EXPECT_EQ(connections->size, 3u);
    EXPECT_EQ(listen.log.lines(), log_lines{message(828, {"127.0.0.1"})});
}

TEST(cancel_connections, shows_each_record_when_traced)
{
    watch listen;
    listen.add("127.0.0.77", 1);
    std::string seen = traced(1, [] { cancel_connections(); });
    EXPECT_EQ(seen.substr(0, 7), "DEBUG: ");
    EXPECT_NE(seen.find("127.0.0.77"), std::string::npos);
    EXPECT_NE(seen.find("-1"), std::string::npos);
    EXPECT_EQ(seen.find('\n'), seen.size() - 1);
    EXPECT_EQ(traced(0, [] { cancel_connections(); }), "");
}

TEST(a_new_cycle, gives_a_reopened_number_no_old_readiness)
{
    watch listen;
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    ASSERT_EQ(start_connections(), 1);
    int number = cn->fd;
    /* As in a pass in which the old check was found ready. */
    FD_SET(number, &ready_read);
    FD_SET(number, &ready_write);
    cancel_connections();
    ASSERT_EQ(start_connections(), 1);
    ASSERT_EQ(cn->fd, number) << "the system gives the lowest number";
    EXPECT_FALSE(FD_ISSET(number, &ready_read));
    EXPECT_FALSE(FD_ISSET(number, &ready_write));
    EXPECT_TRUE(FD_ISSET(number, &writefds));
    EXPECT_FALSE(FD_ISSET(number, &readfds));
}

TEST(check_alive_retries, without_a_limit_a_server_stays)
{
    watch listen(0);
    connection *cn = listen.add("127.0.0.1", 1);
    cn->nerror = 1000;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 1u);
    EXPECT_EQ(listen.log.lines(), log_lines{});
    listen.settings.alive_retries = -1;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 1u);
}

TEST(check_alive_retries, at_the_limit_a_server_goes)
{
    watch listen(3);
    connection *cn = listen.add("127.0.0.1", 1);
    listen.add("127.0.0.2", 1);
    cn->nerror = 2;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 2u);
    cn->nerror = 3;
    cn->busy = 1;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 2u) << "its script still runs";
    cn->busy = 0;
    check_alive_retries(connections->head);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_STREQ(session_of(connections->head)->ipaddr, "127.0.0.2");
    EXPECT_EQ(listen.log.lines(), log_lines{message(832, {"127.0.0.1"})});
}

TEST(check_alive_retries, above_the_limit_a_server_goes)
{
    watch listen(3);
    listen.add("127.0.0.1", 1)->nerror = 4;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 0u);
}

TEST(alive_check, without_script_the_last_failure_removes_the_server)
{
    watch listen(2);
    server one;
    listen.add("127.0.0.1", one.port());
    start_connections();
    cancel_connections();
    EXPECT_EQ(connections->size, 1u);
    start_connections();
    cancel_connections();
    EXPECT_EQ(connections->size, 0u);
    const log_lines expected = {message(828, {"127.0.0.1"}),
                                message(828, {"127.0.0.1"}),
                                message(832, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(alive_check, with_script_the_server_goes_when_it_has_ended)
{
    watch listen(1);
    listen.settings.alive_prog = listen.text("exit 5;");
    server one;
    listen.add("127.0.0.1", one.port());
    start_connections();
    cancel_connections();
    ASSERT_EQ(connections->size, 1u);
    std::string cmdline = session_of(connections->head)->cmdline;
    EXPECT_TRUE(wait_until([&] {
        handle_sigchld(connections);
        return connections->size == 0;
    }));
    const log_lines expected = {
        message(828, {"127.0.0.1"}), message(792, {cmdline}),
        message(793, {cmdline}), message(832, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(alive_check, every_failure_runs_the_script)
{
    watch listen(0);
    listen.log_arguments();
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    for (int i = 0; i < 3; i++) {
        start_connections();
        cancel_connections();
        collect(cn);
        EXPECT_EQ(cn->cmdline, nullptr);
    }
    std::string result = read_file(listen.result_path());
    EXPECT_EQ(std::count(result.begin(), result.end(), '\n'), 3);
}

TEST(alive_check, a_newer_script_supersedes_one_that_still_runs)
{
    watch listen(2);
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    listen.settings.alive_prog = listen.text("exec sleep 600 #");
    start_connections();
    cancel_connections();
    int32_t older = cn->pid;
    listen.settings.alive_prog = listen.text("exec sleep 601 #");
    start_connections();
    cancel_connections();
    int32_t newer = cn->pid;
    ASSERT_NE(older, newer);
    ASSERT_EQ(connections->size, 1u) << "its newer script still runs";
    /* The older one's end is nobody's, yet it does not stay a zombie. */
    kill(older, SIGKILL);
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return kill(older, 0) < 0;
    }));
    EXPECT_EQ(cn->busy, 1);
    EXPECT_EQ(cn->pid, newer);
    kill(newer, SIGKILL);
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return connections->size == 0;
    }));
    EXPECT_EQ(listen.log.lines().back(), message(832, {"127.0.0.1"}));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(exec_aliveproc, without_script_does_nothing)
{
    watch listen;
    connection *cn = listen.add("127.0.0.1", 1);
    exec_aliveproc(cn);
    listen.settings.alive_prog = listen.text("");
    exec_aliveproc(cn);
    EXPECT_EQ(cn->busy, 0);
    EXPECT_EQ(listen.log.lines(), log_lines{});
}

TEST(check_alive_single, needs_an_open_check_without_failure)
{
    watch listen;
    struct row {
        const char *address;
        int fd;
        int32_t nerror;
        int32_t alive;
    };
    const row rows[] = {
        {"127.0.0.1", 100, 0, 1}, {"127.0.0.2", 101, -1, 1},
        {"127.0.0.3", 102, 1, 0}, {"127.0.0.4", -1, 0, 0},
        {"127.0.0.5", 0, 0, 0},   {"127.0.0.6", 1, 0, 1},
        {"127.0.0.7", -1, 1, 0},
    };
    for (const row &one : rows) {
        connection *cn = listen.add(one.address, 1);
        cn->fd = one.fd;
        cn->nerror = one.nerror;
    }
    for (const row &one : rows) {
        EXPECT_EQ(check_alive_single(one.address), one.alive) << one.address;
    }
    EXPECT_EQ(check_alive_single("127.0.0.8"), 0);
    EXPECT_EQ(check_alive_single("127.0.0."), 0);
    EXPECT_EQ(check_alive_single("127.0.0.11"), 0);
    EXPECT_EQ(check_alive_single(""), 0);
    for (ux_list_element *node = connections->head; node; node = node->next) {
        session_of(node)->fd = -1;
    }
}

TEST(check_alive_single, the_first_record_with_the_address_decides)
{
    watch listen;
    listen.add("127.0.0.1", 1);
    connection *second = listen.add("127.0.0.1", 2);
    second->fd = 100;
    EXPECT_EQ(check_alive_single("127.0.0.1"), 0);
    second->fd = -1;
}

TEST(check_alive_single, shows_the_record_when_traced)
{
    watch listen;
    connection *cn = listen.add("127.0.0.77", 1);
    cn->nerror = 42;
    std::string seen = traced(1, [] { check_alive_single("127.0.0.77"); });
    EXPECT_EQ(seen.substr(0, 7), "DEBUG: ");
    for (const char *part : {"127.0.0.77", "-1", "42"}) {
        EXPECT_NE(seen.find(part), std::string::npos) << seen;
    }
    EXPECT_EQ(traced(1, [] { check_alive_single("127.0.0.78"); }), "");
}

TEST(alive_endings_death, need_a_record)
{
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_DEATH(cancel_connect(&node), "alive\\.cpp:.*`cn'");
    EXPECT_DEATH(end_connect(&node), "alive\\.cpp:.*`cn'");
}

TEST(alive_check, functions_trace_their_entry)
{
    watch listen;
    EXPECT_EQ(traced(6, [] { start_connections(); }),
              "TRACEIN: start_connections\n");
    EXPECT_EQ(traced(6, [] { cancel_connections(); }),
              "TRACEIN: cancel_connections\n");
    EXPECT_EQ(traced(6, [] { check_alive_single("x"); }),
              "TRACEIN: check_alive_single\n");
}
