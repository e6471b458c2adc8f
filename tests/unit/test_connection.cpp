/* The record, the two lists, and the start of an exchange. */
#include "address_list.h"
#include "failing_calls.h"
#include "sessions.h"

#include "tolva2/files/reserve.h"
#include "tolva2/net/sockets.h"

namespace {

const connection *nth_connection(int position) {
    ux_list_element *node = connections->head;
    while (position-- > 0) {
        node = node->next;
    }
    return record_of(node);
}

} // namespace

TEST(new_connection, is_zeroed_and_without_socket) {
    connection_owner cn = new_connection(MODE_SEND_STATUS, ADDR_KESDAL);
    ASSERT_NE(cn, nullptr);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->exitstatus, -1);
    EXPECT_EQ(cn->mode, MODE_SEND_STATUS);
    EXPECT_EQ(cn->type, ADDR_KESDAL);
    EXPECT_STREQ(cn->ipaddr, "");
    EXPECT_EQ(cn->port, 0u);
    EXPECT_EQ(cn->addr.sin_family, 0);
    EXPECT_EQ(cn->addr.sin_port, 0);
    EXPECT_EQ(cn->addr.sin_addr.s_addr, 0u);
    EXPECT_EQ(cn->deadline, 0);
    EXPECT_EQ(cn->nerror, 0);
    EXPECT_FALSE(cn->busy);
    EXPECT_EQ(cn->cmdline, nullptr);
    EXPECT_EQ(cn->pid, 0);
    EXPECT_FALSE(cn->child_owed);
    EXPECT_FALSE(cn->want_reply);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_EQ(cn->ends, nullptr);
}

TEST(new_connection, is_null_when_memory_is_exhausted) {
    failing_heap exhausted;
    EXPECT_EQ(new_connection(MODE_LISTEN, ADDR_PEER), nullptr);
}

TEST(new_connection_death, needs_mode_and_type) {
    EXPECT_DEATH(static_cast<void>(new_connection(MODE_NONE, ADDR_PEER)),
                 "connection\\.cpp:[0-9]+: .*new_connection.*mode && type");
    EXPECT_DEATH(static_cast<void>(new_connection(MODE_SEND, ADDR_NONE)),
                 "mode && type");
    EXPECT_DEATH(static_cast<void>(new_connection(MODE_NONE, ADDR_NONE)),
                 "mode && type");
}

TEST(destroy_connection_death, needs_a_record) {
    EXPECT_DEATH(destroy_connection(nullptr),
                 "connection\\.cpp:[0-9]+: .*destroy_connection.*`cn'");
}

TEST(destroy_connection, closes_and_frees) {
    session_lists lists;
    connection *cn = new_connection(MODE_LISTEN, ADDR_PEER).release();
    cn->fd = watched_fd(tcp_socket(), EVENT_READABLE | EVENT_WRITABLE);
    int fd = cn->fd.get();
    cn->cmdline = ux_copy("script parameters");
    destroy_connection(cn);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(highest_descriptor(), fd - 1);
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_TRUE(nothing_is_watched());
}

TEST(destroy_connection, without_socket_leaves_the_counters_alone) {
    session_lists lists;
    watched_fd other(tcp_socket(), EVENT_READABLE);
    destroy_connection(new_connection(MODE_LISTEN, ADDR_PEER).release());
    EXPECT_EQ(highest_descriptor(), other.get());
    EXPECT_EQ(open_descriptors(), 1);
}

TEST(register_connection, appends_at_the_tail) {
    session_lists lists;
    connection_owner one = new_connection(MODE_LISTEN, ADDR_PEER);
    connection_owner two = new_connection(MODE_LISTEN, ADDR_PEER);
    const connection *first = one.get();
    const connection *second = two.get();
    EXPECT_TRUE(register_connection(clients, std::move(one)));
    EXPECT_TRUE(register_connection(clients, std::move(two)));
    EXPECT_EQ(clients->size, 2u);
    EXPECT_EQ(clients->head->data, first);
    EXPECT_EQ(clients->tail->data, second);
    EXPECT_EQ(connections->size, 0u);

    connection_owner three = new_connection(MODE_SEND, ADDR_PEER);
    const connection *third = three.get();
    EXPECT_TRUE(register_connection(std::move(three)));
    EXPECT_EQ(connections->size, 1u);
    EXPECT_EQ(connections->head->data, third);
}

TEST(register_connection, the_record_is_gone_when_memory_is_exhausted) {
    session_lists lists;
    auto open_record = [](int *fd) {
        connection_owner cn = new_connection(MODE_LISTEN, ADDR_PEER);
        cn->fd = watched_fd(tcp_socket(), EVENT_READABLE);
        *fd = cn->fd.get();
        return cn;
    };
    int first = -1;
    int second = -1;
    connection_owner client = open_record(&first);
    connection_owner server = open_record(&second);
    {
        failing_heap exhausted;
        EXPECT_FALSE(register_connection(clients, std::move(client)));
        EXPECT_FALSE(register_connection(std::move(server)));
    }
    EXPECT_EQ(clients->size, 0u);
    EXPECT_EQ(connections->size, 0u);
    EXPECT_FALSE(is_open(first));
    EXPECT_FALSE(is_open(second));
    EXPECT_EQ(open_descriptors(), 0);
}

TEST(register_connection_death, needs_list_and_record) {
    session_lists lists;
    auto record = [] { return new_connection(MODE_LISTEN, ADDR_PEER); };
    EXPECT_DEATH(static_cast<void>(register_connection(nullptr, record())),
                 "`list && cn'");
    EXPECT_DEATH(static_cast<void>(register_connection(clients, nullptr)),
                 "`list && cn'");
    EXPECT_DEATH(static_cast<void>(register_connection(nullptr)),
                 "`connections && cn'");
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(static_cast<void>(register_connection(record())),
                 "`connections && cn'");
    connections = kept;
}

TEST(unregister_connection, removes_and_destroys) {
    session_lists lists;
    int fd = tcp_socket().release();
    add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1", fd);
    connection *kept = add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.2");
    unregister_connection(clients, clients->head);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(clients->size, 1u);
    EXPECT_EQ(clients->head->data, kept);
    EXPECT_EQ(open_descriptors(), 0);
}

TEST(unregister_connection, takes_a_node_without_record) {
    session_lists lists;
    ASSERT_EQ(ux_list_ins_next(clients, nullptr, nullptr), 0);
    unregister_connection(clients, clients->head);
    EXPECT_EQ(clients->size, 0u);
    ASSERT_EQ(ux_list_ins_next(connections, nullptr, nullptr), 0);
    unregister_connection(connections->head);
    EXPECT_EQ(connections->size, 0u);
}

TEST(unregister_connection, tells_how_many_outbound_ones_are_left) {
    session_lists lists;
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.2");
    std::string seen =
        traced(1, [] { unregister_connection(connections->head); });
    EXPECT_EQ(seen, "DEBUG: nconnections = 1 \n");
    EXPECT_EQ(traced(0, [] { unregister_connection(connections->head); }), "");
}

TEST(unregister_connection_death, needs_list_and_element) {
    session_lists lists;
    add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1");
    ux_list_element *node = clients->head;
    EXPECT_DEATH(unregister_connection(nullptr, node), "`list && element'");
    EXPECT_DEATH(unregister_connection(clients, nullptr), "`list && element'");
    EXPECT_DEATH(unregister_connection(nullptr), "`connections && element'");
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(unregister_connection(node), "`connections && element'");
    connections = kept;
}

TEST(set_connections, builds_one_record_per_address) {
    session_lists lists(-1);
    address_list addresses("127.0.0.1 127.0.0.2:7000 127.0.0.3:60000",
                           ADDR_BROADCAST, MODE_SEND_STATUS);
    EXPECT_EQ(set_connections(addresses.get(), 6003), 3);
    ASSERT_EQ(connections->size, 3u);
    const char *texts[] = {"127.0.0.1", "127.0.0.2", "127.0.0.3"};
    const uint16_t ports[] = {6003, 7000, 60000};
    for (int i = 0; i < 3; i++) {
        const connection *cn = nth_connection(i);
        EXPECT_EQ(cn->mode, MODE_SEND_STATUS);
        EXPECT_EQ(cn->type, ADDR_BROADCAST);
        EXPECT_FALSE(cn->fd);
        EXPECT_STREQ(cn->ipaddr, texts[i]);
        EXPECT_EQ(cn->addr.sin_family, AF_INET);
        EXPECT_EQ(cn->addr.sin_addr.s_addr, inet_addr(texts[i]));
        EXPECT_EQ(ntohs(cn->addr.sin_port), ports[i]);
        /* The run's port, whatever the address itself says. */
        EXPECT_EQ(cn->port, 6003u);
    }
}

TEST(set_connections, writes_the_default_port_into_the_address) {
    session_lists lists(-1);
    address_list addresses("127.0.0.1 127.0.0.2:7000");
    EXPECT_EQ(set_connections(addresses.get(), 40000), 2);
    EXPECT_EQ(addresses.entry(0)->port, static_cast<int16_t>(40000 - 65536));
    EXPECT_EQ(ntohs(addresses.entry(0)->addr.sin_port), 40000);
    EXPECT_EQ(addresses.entry(1)->port, 7000);
    EXPECT_EQ(ntohs(addresses.entry(1)->addr.sin_port), 7000);
}

TEST(set_connections, logs_an_empty_node_and_goes_on) {
    session_lists lists(-1);
    operator_log log;
    address_list addresses("127.0.0.1");
    ASSERT_EQ(ux_list_ins_prev(addresses.get(), addresses.get()->head, nullptr),
              0);
    EXPECT_EQ(set_connections(addresses.get(), 6003), 1);
    EXPECT_EQ(log.lines(), log_lines{error_line(EINVAL)});
}

TEST(set_connections, gives_zero_without_addresses) {
    session_lists lists(-1);
    address_list addresses("");
    EXPECT_EQ(set_connections(addresses.get(), 6003), 0);
}

TEST(set_connections, gives_zero_when_memory_is_exhausted) {
    session_lists lists(-1);
    operator_log log;
    address_list addresses("127.0.0.1 127.0.0.2");
    {
        failing_heap exhausted;
        EXPECT_EQ(set_connections(addresses.get(), 6003), 0);
    }
    EXPECT_EQ(log.lines(), log_lines{system_line(ENOMEM)});
    log.clear();
    {
        /* What is left goes to the record. */
        failing_heap limit(1);
        EXPECT_EQ(set_connections(addresses.get(), 6003), 0);
    }
    EXPECT_EQ(log.lines(), log_lines{system_line(ENOMEM)});
    EXPECT_EQ(connections->size, 0u);
}

TEST(may_start, needs_room_and_a_record_without_socket) {
    session_lists lists(-1);
    operator_log log;
    connection cn;
    watched_fd others[] = {watched_fd(tcp_socket(), EVENT_READABLE),
                           watched_fd(tcp_socket(), EVENT_READABLE)};
    max_fds = 3;
    EXPECT_EQ(may_start(&cn), START_DONE);
    EXPECT_EQ(log.lines(), log_lines{});
    max_fds = 2;
    EXPECT_EQ(may_start(&cn), START_FAILED);
    EXPECT_EQ(may_start(nullptr), START_FAILED) << "the budget comes first";
    max_fds = 1;
    EXPECT_EQ(may_start(&cn), START_FAILED);
    const log_lines full = {error_line(EMFILE), error_line(EMFILE),
                            error_line(EMFILE)};
    EXPECT_EQ(log.lines(), full);
    log.clear();
    max_fds = 256;
    EXPECT_EQ(may_start(nullptr), START_UNUSABLE);
    cn.fd = std::move(others[0]);
    EXPECT_EQ(may_start(&cn), START_UNUSABLE);
    const log_lines unusable = {error_line(EINVAL), error_line(EINVAL)};
    EXPECT_EQ(log.lines(), unusable);
}

TEST(may_start, a_socket_with_number_0_is_one_too) {
    session_lists lists(-1);
    operator_log log;
    descriptor_on_loan zero(STDIN_FILENO);
    connection cn;
    cn.fd = watched_fd(zero.take(), EVENT_READABLE);
    EXPECT_EQ(may_start(&cn), START_UNUSABLE);
    EXPECT_EQ(log.lines(), log_lines{error_line(EINVAL)});
}

TEST(an_exchange, waits_to_be_writable_until_it_is_closed) {
    session_lists lists(-1);
    connection *cn = add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    connection_handler handler = [](ux_list_element *, event_bits) {};
    connection_handler next = [](ux_list_element *, event_bits) {};
    const connect_ends ends{nullptr, nullptr};
    ux_fd socket = tcp_socket();
    int fd = socket.get();
    begin_exchange(cn, std::move(socket), handler, &ends);
    EXPECT_EQ(cn->fd.get(), fd);
    EXPECT_EQ(cn->handler, handler);
    EXPECT_EQ(cn->ends, &ends);
    EXPECT_EQ(watched(cn->fd), EVENT_WRITABLE);
    EXPECT_EQ(open_descriptors(), 1);
    EXPECT_EQ(highest_descriptor(), fd);

    wait_in(cn, EVENT_READABLE, next);
    EXPECT_EQ(watched(cn->fd), EVENT_READABLE);
    EXPECT_EQ(cn->handler, next);

    close_exchange(cn);
    EXPECT_FALSE(cn->fd);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(highest_descriptor(), fd - 1);
    /* Nothing is left to close. */
    cn->handler = handler;
    close_exchange(cn);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_TRUE(nothing_is_watched());
}

TEST(open_connect_socket, connects_without_waiting) {
    session_lists lists(-1);
    ux_fd listener(listening_socket());
    connection cn;
    cn.addr = loopback("127.0.0.1", local_port(listener.get()));
    ux_fd fd = open_connect_socket(&cn);
    ASSERT_TRUE(fd);
    EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
    ASSERT_TRUE(wait_for(listener.get(), POLLIN));
    ux_fd peer(accept(listener.get(), nullptr, nullptr));
    EXPECT_GE(peer.get(), 0);
    /* Counting it is left to the caller. */
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(highest_descriptor(), -1);
}

TEST(open_connect_socket, takes_a_descriptor_from_the_reserve) {
    session_lists lists(-1);
    ux_fd listener(listening_socket());
    connection cn;
    cn.addr = local_name(listener.get());
    ASSERT_EQ(fill_reserve(), 0);
    {
        failing_call once("socket", EMFILE, 0, 1);
        EXPECT_TRUE(open_connect_socket(&cn));
    }
    EXPECT_FALSE(give_up_reserve()) << "it was given up";
}

TEST(open_connect_socket, leaves_the_reserve_alone_otherwise) {
    session_lists lists(-1);
    operator_log log;
    ux_fd listener(listening_socket());
    connection cn;
    cn.addr = local_name(listener.get());
    ASSERT_EQ(fill_reserve(), 0);
    errno = EMFILE;
    EXPECT_TRUE(open_connect_socket(&cn));
    EXPECT_TRUE(give_up_reserve());
    ASSERT_EQ(fill_reserve(), 0);
    {
        failing_call once("socket", ENOBUFS, 0, 1);
        EXPECT_FALSE(open_connect_socket(&cn));
    }
    EXPECT_TRUE(give_up_reserve());
    EXPECT_EQ(log.lines(), log_lines{system_line(ENOBUFS)});
}

TEST(open_connect_socket, logs_why_it_could_not_connect) {
    session_lists lists(-1);
    operator_log log;
    int before = descriptors_in_use();
    connection cn;
    cn.addr = loopback("127.0.0.1", 1);
    cn.addr.sin_family = AF_INET6;
    EXPECT_FALSE(open_connect_socket(&cn));
    EXPECT_EQ(log.lines(), log_lines{system_line(EAFNOSUPPORT)});
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST(open_connect_socket, logs_that_its_number_cannot_be_watched) {
    if (!gives_unwatchable_numbers()) {
        return;
    }
    session_lists lists(-1);
    operator_log log;
    ux_fd listener(listening_socket());
    connection cn;
    cn.addr = local_name(listener.get());
    descriptor_limit most(most_descriptors());
    std::vector<ux_fd> low = take_numbers_below(FD_SETSIZE);
    EXPECT_FALSE(open_connect_socket(&cn));
    EXPECT_FALSE(is_open(FD_SETSIZE));
    low.clear();
    EXPECT_EQ(log.lines(), log_lines{system_line(EMFILE)});
}

TEST(open_connect_socket, logs_that_no_descriptor_is_left) {
    session_lists lists(-1);
    /* On standard output: a log file would need a descriptor itself. */
    std::string seen;
    {
        capture output;
        connection cn;
        cn.addr = loopback("127.0.0.1", 1);
        no_descriptors limit;
        EXPECT_FALSE(open_connect_socket(&cn));
        seen = output.text();
    }
    EXPECT_NE(seen.find(" tolva[00000]: " + system_line(EMFILE) + "\n"),
              std::string::npos)
        << seen;
}
