/* The cycles of the watch on servers, and which of them count as alive. */
#include "alive_fixture.h"

#include "tolva2/listen/alive.cpp" // NOLINT(bugprone-suspicious-include)
#include "tolva2/net/kesdal.h"

TEST(start_connections, opens_a_check_at_every_server) {
    server_watch listen;
    server one;
    server two("127.0.0.2");
    connection *first = listen.add("127.0.0.1", one.port());
    connection *second = listen.add("127.0.0.2", two.port());
    EXPECT_EQ(alive::start_connections(), 2);
    for (const connection *cn : {first, second}) {
        ASSERT_TRUE(cn->fd);
        EXPECT_EQ(cn->handler, do_kesdal_send_logon);
        EXPECT_NE(cn->ends, nullptr);
        EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
        EXPECT_NE(fcntl(cn->fd.get(), F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(fcntl(cn->fd.get(), F_GETFL) & O_NONBLOCK, 0);
        EXPECT_LE(cn->fd.get(), highest_descriptor());
    }
    EXPECT_EQ(open_descriptors(), 2);
    one.accept_one();
    two.accept_one();
    EXPECT_EQ(listen.log.lines(), log_lines{});
}

TEST(start_connections, without_servers_does_nothing) {
    server_watch listen;
    EXPECT_EQ(alive::start_connections(), 0);
}

TEST(start_connections, counts_a_full_house_as_a_failed_check) {
    server_watch listen;
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    watched_fd other(ux_fd(bound_socket(SOCK_STREAM)), EVENT_READABLE);
    max_fds = 1;
    EXPECT_EQ(alive::start_connections(), 1);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(open_descriptors(), 1);
    const log_lines expected = {error_line(EMFILE),
                                message(828, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
    max_fds = 2;
    EXPECT_EQ(alive::start_connections(), 1);
    EXPECT_TRUE(cn->fd);
    EXPECT_EQ(open_descriptors(), 2);
}

TEST(start_connections, counts_what_cannot_connect_as_a_failed_check) {
    server_watch listen;
    connection *cn = listen.add("127.0.0.1", 1);
    cn->addr.sin_family = AF_INET6;
    EXPECT_EQ(alive::start_connections(), 1);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->nerror, 1);
    EXPECT_EQ(open_descriptors(), 0);
    const log_lines expected = {system_line(EAFNOSUPPORT),
                                message(828, {"127.0.0.1"})};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(start_connections, removes_a_record_that_is_of_no_use) {
    server_watch listen;
    server one;
    connection *kept = listen.add("127.0.0.1", one.port());
    int fd = bound_socket(SOCK_STREAM);
    add_record(connections, MODE_LISTEN, ADDR_KESDAL, "127.0.0.9", fd);
    ASSERT_EQ(ux_list_ins_next(connections, connections->tail, nullptr), 0);
    EXPECT_EQ(alive::start_connections(), 1);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_EQ(connections->head->data, kept);
    EXPECT_FALSE(is_open(fd));
    const log_lines expected = {error_line(EINVAL), error_line(EINVAL)};
    EXPECT_EQ(listen.log.lines(), expected);
}

TEST(start_connections_death, needs_the_list) {
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(alive::start_connections(), "`connections'");
    connections = kept;
}

TEST(alive_check, failures_add_up_until_a_success) {
    server_watch listen;
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    for (int i = 1; i <= 3; i++) {
        alive::start_connections();
        alive::cancel_connections();
        EXPECT_EQ(cn->nerror, i);
    }
    alive::start_connections();
    alive::end_connect(connections->head);
    EXPECT_EQ(cn->nerror, 0);
}

TEST(cancel_connections, ends_only_checks_that_are_open) {
    server_watch listen;
    server one;
    connection *open = listen.add("127.0.0.1", one.port());
    connection *idle = listen.add("127.0.0.2", 1);
    ASSERT_EQ(ux_list_ins_next(connections, connections->tail, nullptr), 0);
    int fd = bound_socket(SOCK_STREAM);
    open->fd = watched_fd(ux_fd(fd), EVENT_READABLE);
    alive::cancel_connections();
    EXPECT_FALSE(open->fd);
    EXPECT_EQ(open->nerror, 1);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(idle->nerror, 0);
    EXPECT_EQ(connections->size, 3u);
    EXPECT_EQ(listen.log.lines(), log_lines{message(828, {"127.0.0.1"})});
}

TEST(cancel_connections, shows_each_record_when_traced) {
    server_watch listen;
    listen.add("127.0.0.77", 1);
    std::string seen = traced(1, [] { alive::cancel_connections(); });
    EXPECT_EQ(seen.substr(0, 7), "DEBUG: ");
    EXPECT_NE(seen.find("127.0.0.77"), std::string::npos);
    EXPECT_NE(seen.find("-1"), std::string::npos);
    EXPECT_EQ(seen.find('\n'), seen.size() - 1);
    EXPECT_EQ(traced(0, [] { alive::cancel_connections(); }), "");
}

TEST(a_new_cycle, gives_a_reopened_number_no_old_readiness) {
    server_watch listen;
    server one;
    connection *cn = listen.add("127.0.0.1", one.port());
    ASSERT_EQ(alive::start_connections(), 1);
    int number = cn->fd.get();
    /* As in a pass in which the old check was found ready. */
    one.accept_one();
    one.answer("0|1");
    ASSERT_TRUE(wait_for(number, POLLIN));
    watch(cn->fd, EVENT_READABLE | EVENT_WRITABLE);
    ASSERT_EQ(wait_for_descriptors(0, nullptr).ready, 2);
    ASSERT_EQ(ready(cn->fd), EVENT_READABLE | EVENT_WRITABLE);
    alive::cancel_connections();
    ASSERT_EQ(alive::start_connections(), 1);
    ASSERT_EQ(cn->fd.get(), number) << "the system gives the lowest number";
    EXPECT_EQ(ready(cn->fd), EVENT_NONE);
    EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
}

TEST(check_alive_retries, without_a_limit_a_server_stays) {
    server_watch listen(0);
    connection *cn = listen.add("127.0.0.1", 1);
    cn->nerror = 1000;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 1u);
    EXPECT_EQ(listen.log.lines(), log_lines{});
    listen.settings.alive_retries = -1;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 1u);
}

TEST(check_alive_retries, at_the_limit_a_server_goes) {
    server_watch listen(3);
    connection *cn = listen.add("127.0.0.1", 1);
    listen.add("127.0.0.2", 1);
    cn->nerror = 2;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 2u);
    cn->nerror = 3;
    cn->busy = true;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 2u) << "its script still runs";
    cn->busy = false;
    check_alive_retries(connections->head);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_STREQ(record_of(connections->head)->ipaddr, "127.0.0.2");
    EXPECT_EQ(listen.log.lines(), log_lines{message(832, {"127.0.0.1"})});
}

TEST(check_alive_retries, above_the_limit_a_server_goes) {
    server_watch listen(3);
    listen.add("127.0.0.1", 1)->nerror = 4;
    check_alive_retries(connections->head);
    EXPECT_EQ(connections->size, 0u);
}

TEST(check_alive_single, needs_an_open_check_without_failure) {
    struct row {
        const char *address;
        int fd;
        int32_t nerror;
        bool alive;
    };
    const row rows[] = {
        {"127.0.0.1", 100, 0, true},  {"127.0.0.2", 101, -1, true},
        {"127.0.0.3", 102, 1, false}, {"127.0.0.4", -1, 0, false},
        {"127.0.0.5", 0, 0, false},   {"127.0.0.6", 1, 0, true},
        {"127.0.0.7", -1, 1, false},
    };
    std::vector<bool> seen;
    {
        /* Standard input and output are theirs meanwhile. */
        descriptor_on_loan zero(STDIN_FILENO);
        descriptor_on_loan one_more(STDOUT_FILENO);
        server_watch listen;
        for (const row &one : rows) {
            connection *cn = listen.add(one.address, 1);
            if (one.fd >= 0) {
                cn->fd = watched_fd(socket_with_number(one.fd), EVENT_READABLE);
            }
            cn->nerror = one.nerror;
        }
        for (const row &one : rows) {
            seen.push_back(check_alive_single(one.address));
        }
        for (const char *none : {"127.0.0.8", "127.0.0.", "127.0.0.11", ""}) {
            seen.push_back(check_alive_single(none));
        }
    }
    for (const row &one : rows) {
        EXPECT_EQ(seen.front(), one.alive) << one.address;
        seen.erase(seen.begin());
    }
    EXPECT_EQ(seen, std::vector<bool>(4, false));
}

TEST(check_alive_single, the_first_record_with_the_address_decides) {
    server_watch listen;
    listen.add("127.0.0.1", 1);
    connection *second = listen.add("127.0.0.1", 2);
    second->fd = watched_fd(ux_fd(bound_socket(SOCK_STREAM)), EVENT_READABLE);
    EXPECT_FALSE(check_alive_single("127.0.0.1"));
}

TEST(check_alive_single, shows_the_record_when_traced) {
    server_watch listen;
    connection *cn = listen.add("127.0.0.77", 1);
    cn->nerror = 42;
    std::string seen =
        traced(1, [] { EXPECT_FALSE(check_alive_single("127.0.0.77")); });
    EXPECT_EQ(seen.substr(0, 7), "DEBUG: ");
    for (const char *part : {"127.0.0.77", "-1", "42"}) {
        EXPECT_NE(seen.find(part), std::string::npos) << seen;
    }
    EXPECT_EQ(traced(1, [] { EXPECT_FALSE(check_alive_single("127.0.0.78")); }),
              "");
}

TEST(alive_endings_death, need_a_record) {
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_DEATH(alive::cancel_connect(&node), "alive\\.cpp:.*`cn'");
    EXPECT_DEATH(alive::end_connect(&node), "alive\\.cpp:.*`cn'");
}

TEST(alive_check, functions_trace_their_entry) {
    server_watch listen;
    EXPECT_EQ(traced(6, [] { alive::start_connections(); }),
              "TRACEIN: start_connections\n");
    EXPECT_EQ(traced(6, [] { alive::cancel_connections(); }),
              "TRACEIN: cancel_connections\n");
    EXPECT_EQ(traced(6, [] { EXPECT_FALSE(check_alive_single("x")); }),
              "TRACEIN: check_alive_single\n");
}
