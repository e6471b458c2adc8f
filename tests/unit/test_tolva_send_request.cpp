/* How a run opens its connections and sends its request on each. */
#include "failing_calls.h"
#include "sender_fixture.h"

using namespace sender;

TEST(start_connect, opens_by_type) {
    struct row {
        address_kind type;
        int logged;
        connection_handler handler;
    };
    const row rows[] = {
        {ADDR_PEER, 785, do_send_tolva},
        {ADDR_BROADCAST, 833, do_send_tolva},
        {ADDR_KESDAL, 785, do_kesdal_send_logon},
    };
    for (const row &one : rows) {
        fresh_run fresh;
        ux_fd listener(listening_socket());
        connection *cn =
            add_record(connections, MODE_SEND, one.type, "127.0.0.1");
        cn->addr = loopback("127.0.0.1", local_port(listener.get()));
        EXPECT_EQ(start_connect(connections->head), START_DONE);
        ASSERT_TRUE(cn->fd);
        EXPECT_EQ(cn->handler, one.handler);
        EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
        EXPECT_EQ(highest_descriptor(), cn->fd.get());
        EXPECT_EQ(open_descriptors(), 1);
        EXPECT_NE(fcntl(cn->fd.get(), F_GETFL) & O_NONBLOCK, 0);
        int broadcast = -1;
        socklen_t length = sizeof broadcast;
        getsockopt(cn->fd.get(), SOL_SOCKET, SO_BROADCAST, &broadcast, &length);
        EXPECT_EQ(broadcast, one.type == ADDR_BROADCAST ? 1 : 0);
        EXPECT_EQ(fresh.log.lines(),
                  log_lines{message(one.logged, {"127.0.0.1"})});
    }
}

TEST(start_connect, an_unknown_type_is_an_error) {
    fresh_run fresh;
    connection *cn = add_record(connections, MODE_SEND, NO_KIND, "127.0.0.1");
    EXPECT_EQ(start_connect(connections->head), START_FAILED);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(fresh.log.lines(), log_lines{error_line(EINVAL)});
}

TEST(start_connect, what_cannot_connect_is_logged_by_type) {
    struct row {
        address_kind type;
        int logged;
    };
    for (const row &one : {row{ADDR_PEER, 753}, row{ADDR_KESDAL, 828}}) {
        fresh_run fresh;
        connection *cn =
            add_record(connections, MODE_SEND, one.type, "127.0.0.1");
        cn->addr.sin_family = AF_INET6;
        EXPECT_EQ(start_connect(connections->head), START_FAILED);
        EXPECT_FALSE(cn->fd);
        EXPECT_EQ(open_descriptors(), 0);
        const log_lines expected = {message(785, {"127.0.0.1"}),
                                    system_line(EAFNOSUPPORT),
                                    message(one.logged, {"127.0.0.1"})};
        EXPECT_EQ(fresh.log.lines(), expected);
    }
}

TEST(start_connect, a_broadcast_without_descriptor_is_logged) {
    fresh_run fresh;
    add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.1");
    {
        /* A host that is not told is worse than a line that is not logged:
         * the last descriptor goes to the socket. */
        no_descriptors limit(1);
        EXPECT_EQ(start_connect(connections->head), START_DONE);
    }
    {
        add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.2");
        no_descriptors limit(0);
        EXPECT_EQ(start_connect(connections->tail), START_FAILED);
    }
    EXPECT_EQ(fresh.log.lines(), log_lines{message(833, {"127.0.0.1"})});
}

TEST(start_connect, a_broadcast_that_gets_no_socket_says_why) {
    struct row {
        const char *call;
        int error;
    };
    for (const row &one : {row{"socket", EMFILE}, row{"setsockopt", EACCES}}) {
        fresh_run fresh;
        const connection *cn =
            add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.1");
        failing_call refused(one.call, one.error);
        EXPECT_EQ(start_connect(connections->head), START_FAILED);
        EXPECT_FALSE(cn->fd);
        const log_lines expected = {message(833, {"127.0.0.1"}),
                                    system_line(one.error), message(810, {})};
        EXPECT_EQ(fresh.log.lines(), expected);
    }
}

TEST(start_connect, a_broadcast_whose_number_cannot_be_watched_says_why) {
    if (!gives_unwatchable_numbers()) {
        return;
    }
    fresh_run fresh;
    add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.1");
    descriptor_limit most(most_descriptors());
    std::vector<ux_fd> low = take_numbers_below(FD_SETSIZE);
    EXPECT_EQ(start_connect(connections->head), START_FAILED);
    EXPECT_FALSE(is_open(FD_SETSIZE));
    low.clear();
    const log_lines expected = {message(833, {"127.0.0.1"}),
                                system_line(EMFILE), message(810, {})};
    EXPECT_EQ(fresh.log.lines(), expected);
}

TEST(start_connect, the_descriptor_budget_is_kept) {
    fresh_run fresh;
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    watched_fd other(tcp_socket(), EVENT_READABLE);
    max_fds = 1;
    EXPECT_EQ(start_connect(connections->head), START_FAILED);
    EXPECT_EQ(fresh.log.lines(), log_lines{error_line(EMFILE)});
    EXPECT_EQ(open_descriptors(), 1);
}

TEST(start_connect, a_record_in_use_or_none_is_an_error) {
    fresh_run fresh;
    int fd = bound_socket(SOCK_STREAM);
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1", fd,
               EVENT_WRITABLE);
    EXPECT_EQ(start_connect(connections->head), START_UNUSABLE);
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_EQ(start_connect(&node), START_UNUSABLE);
    const log_lines expected = {error_line(EINVAL), error_line(EINVAL)};
    EXPECT_EQ(fresh.log.lines(), expected);
    EXPECT_EQ(open_descriptors(), 1);
}

TEST(start_connections, leaves_out_what_does_not_start) {
    fresh_run fresh;
    ux_fd listener(listening_socket());
    add_record(connections, MODE_SEND, NO_KIND, "127.0.0.2");
    connection *good =
        add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    good->addr = loopback("127.0.0.1", local_port(listener.get()));
    ASSERT_EQ(ux_list_ins_next(connections, connections->tail, nullptr), 0);
    EXPECT_EQ(start_connections(), 1);
    EXPECT_TRUE(run.failed);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_EQ(connections->head->data, good);
}

TEST(start_connections, all_that_start_are_no_failure) {
    fresh_run fresh;
    ux_fd listener(listening_socket());
    for (int i = 0; i < 3; i++) {
        connection *cn =
            add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
        cn->addr = loopback("127.0.0.1", local_port(listener.get()));
    }
    EXPECT_EQ(start_connections(), 3);
    EXPECT_FALSE(run.failed);
    EXPECT_EQ(open_descriptors(), 3);
}

TEST(start_connections_death, needs_the_list) {
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(start_connections(), "`connections'");
    connections = kept;
}

TEST(do_send_tolva, sends_the_request_and_ends) {
    struct row {
        const char *text;
        std::string sent;
    };
    const row rows[] = {
        {nullptr, request_header},
        {"", request_header},
        {"MSG_EXECUTE SHUTDOWN", request_header + " MSG_EXECUTE SHUTDOWN"},
        {"MSG_EXECUTE \xe4\xff", request_header + " MSG_EXECUTE \xe4\xff"},
    };
    for (const row &one : rows) {
        conversation talk(one.text);
        do_send_tolva(connections->head, EVENT_WRITABLE);
        EXPECT_EQ(highest_descriptor(), talk.number - 1);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_FALSE(run.failed);
        EXPECT_EQ(receive_all(talk.pair.far.get()), one.sent);
        EXPECT_EQ(talk.log.lines(), log_lines{message(787, {"127.0.0.1"})});
    }
}

TEST(do_send_tolva, with_status_waits_for_the_reply) {
    conversation talk("MSG_EXECSTATUS EXECUTE x", MODE_SEND_STATUS);
    do_send_tolva(connections->head, EVENT_READABLE | EVENT_WRITABLE);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_EQ(talk.cn->handler, do_rcv_tolva);
    EXPECT_EQ(watched(talk.cn->fd), EVENT_READABLE);
    EXPECT_EQ(open_descriptors(), 1);
    std::string expected = request_header + " MSG_EXECSTATUS EXECUTE x";
    EXPECT_EQ(receive(talk.pair.far.get(), expected.size()), expected);
    EXPECT_TRUE(is_silent(talk.pair.far.get()));
    EXPECT_EQ(talk.log.lines(), log_lines{});
}

TEST(do_send_tolva, needs_a_writable_socket) {
    for (event_bits events : {EVENT_NONE, EVENT_READABLE}) {
        conversation talk("MSG_EXECUTE x");
        do_send_tolva(connections->head, events);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_TRUE(run.failed);
        EXPECT_EQ(receive_all(talk.pair.far.get()), "");
        EXPECT_EQ(talk.log.lines(), log_lines{message(753, {"127.0.0.1"})});
    }
}

TEST(do_send_tolva, a_socket_error_is_logged) {
    conversation talk("MSG_EXECUTE x");
    reset_connection(&talk.pair.far);
    ASSERT_TRUE(wait_for(talk.number, POLLIN));
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_TRUE(run.failed);
    const log_lines expected = {system_line(ECONNRESET),
                                message(753, {"127.0.0.1"})};
    EXPECT_EQ(talk.log.lines(), expected);
}

TEST(do_send_tolva, a_request_that_does_not_fit_fails_unsent) {
    std::string text(4072, 'x');
    conversation talk(text.c_str());
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_TRUE(run.failed);
    EXPECT_EQ(receive_all(talk.pair.far.get()), "");
    EXPECT_EQ(talk.log.lines(), log_lines{message(753, {"127.0.0.1"})});
}

TEST(do_send_tolva, sends_a_datagram_to_the_runs_port) {
    fresh_run fresh("MSG_EXECUTE SHUTDOWN");
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    int fd = bound_socket(SOCK_DGRAM);
    connection *cn = add_record(connections, MODE_SEND, ADDR_BROADCAST,
                                "127.0.0.1", fd, EVENT_WRITABLE);
    /* An address's own port is not where a broadcast goes. */
    cn->addr = loopback("127.0.0.1", 1);
    cn->port = local_port(receiver.get());
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_EQ(connections->size, 0u);
    EXPECT_FALSE(run.failed);
    std::string expected = request_header + " MSG_EXECUTE SHUTDOWN";
    EXPECT_EQ(receive(receiver.get(), expected.size()), expected);
    EXPECT_TRUE(is_silent(receiver.get()));
    EXPECT_EQ(fresh.log.lines(), log_lines{message(787, {"127.0.0.1"})});
}

TEST(do_send_tolva, a_datagram_that_does_not_fit_fails_unsent) {
    std::string text(1448, 'x');
    fresh_run fresh(text.c_str());
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    connection *cn =
        add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.1",
                   bound_socket(SOCK_DGRAM), EVENT_WRITABLE);
    cn->port = local_port(receiver.get());
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_EQ(connections->size, 0u);
    EXPECT_TRUE(run.failed);
    EXPECT_TRUE(is_silent(receiver.get()));
    EXPECT_EQ(fresh.log.lines(), log_lines{message(810, {})});
}

TEST(do_send_tolva, any_other_type_counts_as_sent) {
    conversation talk("MSG_EXECUTE x", MODE_SEND, NO_KIND);
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_FALSE(run.failed);
    EXPECT_EQ(receive_all(talk.pair.far.get()), "");
    EXPECT_EQ(talk.log.lines(), log_lines{message(787, {"127.0.0.1"})});
}

TEST(do_send_tolva_death, needs_a_record) {
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_DEATH(do_send_tolva(&node, EVENT_WRITABLE), "`cn'");
    EXPECT_DEATH(cancel_connect(&node), "tolva_send\\.cpp:.*`cn'");
    EXPECT_DEATH(end_connect(&node), "tolva_send\\.cpp:.*`cn'");
}
