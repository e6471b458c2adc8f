/* The record, the two lists and the counting of descriptors. */
#include "sessions.h"

#include <cstdlib>

namespace
{

bool memory_exhausted = false;

void *calloc_or_fail(size_t count, size_t size)
{
    errno = ENOMEM;
    return memory_exhausted ? nullptr : calloc(count, size);
}

bool list_full = false;

int32_t insert_or_fail(ux_list *list, ux_list_element *element, void *data)
{
    errno = ENOMEM;
    return list_full ? -1 : ux_list_ins_next(list, element, data);
}

} // namespace

#define calloc calloc_or_fail
#define ux_list_ins_next insert_or_fail
#include "tolva2/base/process_state.h"
#include "tolva2/net/connection.cpp" // NOLINT(bugprone-suspicious-include)
#undef calloc
#undef ux_list_ins_next

namespace
{

bool is_empty(const fd_set *set)
{
    for (int fd = 0; fd < FD_SETSIZE; fd++) {
        if (FD_ISSET(fd, set)) {
            return false;
        }
    }
    return true;
}

/* A descriptor with exactly that number. */
int open_as(int number)
{
    int fd = tcp_socket();
    EXPECT_EQ(dup2(fd, number), number);
    close(fd);
    return number;
}

/* Addresses as the command line or the settings give them. */
class address_list
{
  public:
    explicit address_list(const char *text, address_kind kind = ADDR_PEER,
                          mode_code mode = MODE_SEND)
    {
        ux_list_init(&list, destroy_inetaddr);
        get_inetaddr_arr_from_str(&list, text, kind, mode);
    }
    ~address_list()
    {
        ux_list_destroy(&list);
    }
    address_list(const address_list &) = delete;
    address_list &operator=(const address_list &) = delete;

    ux_list *get()
    {
        return &list;
    }
    const inetaddr *entry(int position) const
    {
        const ux_list_element *node = list.head;
        while (position-- > 0) {
            node = node->next;
        }
        return static_cast<inetaddr *>(node->data);
    }

  private:
    ux_list list;
};

const connection *nth_connection(int position)
{
    const ux_list_element *node = connections->head;
    while (position-- > 0) {
        node = node->next;
    }
    return session_of(node);
}

} // namespace

TEST(new_connection, is_zeroed_and_without_socket)
{
    connection *cn = new_connection(MODE_SEND_STATUS, ADDR_KESDAL);
    ASSERT_NE(cn, nullptr);
    EXPECT_EQ(cn->fd, -1);
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
    EXPECT_EQ(cn->busy, 0);
    EXPECT_EQ(cn->cmdline, nullptr);
    EXPECT_EQ(cn->pid, 0);
    EXPECT_EQ(cn->want_reply, 0);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_EQ(cn->ends, nullptr);
    destroy_connection(cn);
}

TEST(new_connection, is_null_when_memory_is_exhausted)
{
    memory_exhausted = true;
    EXPECT_EQ(new_connection(MODE_LISTEN, ADDR_PEER), nullptr);
    memory_exhausted = false;
}

TEST(new_connection_death, needs_mode_and_type)
{
    EXPECT_DEATH(new_connection(MODE_NONE, ADDR_PEER),
                 "connection\\.cpp:[0-9]+: .*new_connection.*mode && type");
    EXPECT_DEATH(new_connection(MODE_SEND, ADDR_NONE), "mode && type");
    EXPECT_DEATH(new_connection(MODE_NONE, ADDR_NONE), "mode && type");
}

TEST(destroy_connection_death, needs_a_record)
{
    EXPECT_DEATH(destroy_connection(nullptr),
                 "connection\\.cpp:[0-9]+: .*destroy_connection.*`cn'");
}

TEST(destroy_connection, closes_and_frees)
{
    session_lists lists;
    connection *cn = new_connection(MODE_LISTEN, ADDR_PEER);
    int fd = tcp_socket();
    cn->fd = fd;
    cn->cmdline = strdup("script parameters");
    add_descriptor(fd, &readfds);
    FD_SET(fd, &writefds);
    FD_SET(fd, &ready_read);
    FD_SET(fd, &ready_write);
    destroy_connection(cn);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(is_empty(&readfds));
    EXPECT_TRUE(is_empty(&writefds));
    EXPECT_TRUE(is_empty(&ready_read));
    EXPECT_TRUE(is_empty(&ready_write));
    EXPECT_EQ(maxfd, fd - 1);
    EXPECT_EQ(nfds, 0);
}

TEST(destroy_connection, without_socket_leaves_the_counters_alone)
{
    session_lists lists;
    maxfd = 7;
    nfds = 3;
    destroy_connection(new_connection(MODE_LISTEN, ADDR_PEER));
    EXPECT_EQ(maxfd, 7);
    EXPECT_EQ(nfds, 3);
}

TEST(reset_descriptors, forgets_everything)
{
    FD_SET(3, &readfds);
    FD_SET(900, &writefds);
    FD_SET(5, &ready_read);
    FD_SET(1023, &ready_write);
    nfds = 9;
    reset_descriptors(-1);
    EXPECT_TRUE(is_empty(&readfds));
    EXPECT_TRUE(is_empty(&writefds));
    EXPECT_TRUE(is_empty(&ready_read));
    EXPECT_TRUE(is_empty(&ready_write));
    EXPECT_EQ(maxfd, -1);
    EXPECT_EQ(nfds, 0);
    reset_descriptors(0);
    EXPECT_EQ(maxfd, 0);
}

TEST(add_descriptor, counts_and_raises_the_highest)
{
    reset_descriptors(-1);
    add_descriptor(40, &writefds);
    EXPECT_EQ(maxfd, 40);
    EXPECT_EQ(nfds, 1);
    EXPECT_TRUE(FD_ISSET(40, &writefds));
    EXPECT_FALSE(FD_ISSET(40, &readfds));
    EXPECT_FALSE(FD_ISSET(40, &ready_write));
    add_descriptor(30, &readfds);
    EXPECT_EQ(maxfd, 40);
    EXPECT_EQ(nfds, 2);
    EXPECT_TRUE(FD_ISSET(30, &readfds));
    add_descriptor(41, &readfds);
    EXPECT_EQ(maxfd, 41);
    EXPECT_EQ(nfds, 3);
    reset_descriptors(0);
}

TEST(close_descriptor, lowers_the_highest_by_exactly_one)
{
    reset_descriptors(0);
    int low = open_as(100);
    int middle = open_as(110);
    int high = open_as(120);
    for (int fd : {low, middle, high}) {
        add_descriptor(fd, &readfds);
    }
    close_descriptor(&middle);
    EXPECT_EQ(middle, -1);
    EXPECT_FALSE(is_open(110));
    EXPECT_EQ(maxfd, 120);
    EXPECT_EQ(nfds, 2);
    close_descriptor(&high);
    EXPECT_EQ(maxfd, 119);
    EXPECT_EQ(nfds, 1);
    EXPECT_TRUE(FD_ISSET(100, &readfds));
    close_descriptor(&low);
    EXPECT_EQ(maxfd, 119);
    EXPECT_EQ(nfds, 0);
    EXPECT_TRUE(is_empty(&readfds));
}

TEST(close_descriptor, a_number_opened_again_inherits_no_readiness)
{
    reset_descriptors(0);
    int fd = open_as(100);
    add_descriptor(fd, &readfds);
    FD_SET(100, &ready_read);
    FD_SET(100, &ready_write);
    FD_SET(101, &ready_read);
    close_descriptor(&fd);
    fd = open_as(100);
    add_descriptor(fd, &writefds);
    EXPECT_FALSE(FD_ISSET(100, &ready_read));
    EXPECT_FALSE(FD_ISSET(100, &ready_write));
    EXPECT_FALSE(FD_ISSET(100, &readfds));
    EXPECT_TRUE(FD_ISSET(101, &ready_read));
    close_descriptor(&fd);
    reset_descriptors(0);
}

TEST(keep_selectable, closes_what_select_cannot_watch)
{
    EXPECT_EQ(keep_selectable(-1), -1);
    EXPECT_EQ(keep_selectable(1023), 1023);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit more = before;
    more.rlim_cur = more.rlim_max;
    setrlimit(RLIMIT_NOFILE, &more);
    if (more.rlim_cur > FD_SETSIZE) {
        int fd = open_as(FD_SETSIZE);
        errno = 0;
        EXPECT_EQ(keep_selectable(fd), -1);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_FALSE(is_open(fd));
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST(room_for_descriptor, leaves_some_for_the_log)
{
    reset_descriptors(0);
    nfds = 10;
    EXPECT_EQ(room_for_descriptor(), 1);
    {
        no_descriptors limit(2);
        EXPECT_EQ(room_for_descriptor(), 0);
        EXPECT_EQ(errno, EMFILE);
        /* A process that is given very few must still get on. */
        nfds = 0;
        EXPECT_EQ(room_for_descriptor(), 1);
    }
    {
        no_descriptors limit(3);
        nfds = 10;
        EXPECT_EQ(room_for_descriptor(), 1);
    }
    reset_descriptors(0);
}

TEST(register_connection, appends_at_the_tail)
{
    session_lists lists;
    connection *one = new_connection(MODE_LISTEN, ADDR_PEER);
    connection *two = new_connection(MODE_LISTEN, ADDR_PEER);
    EXPECT_EQ(register_connection(clients, one), 1);
    EXPECT_EQ(register_connection(clients, two), 1);
    EXPECT_EQ(clients->size, 2u);
    EXPECT_EQ(clients->head->data, one);
    EXPECT_EQ(clients->tail->data, two);
    EXPECT_EQ(connections->size, 0u);

    connection *three = new_connection(MODE_SEND, ADDR_PEER);
    EXPECT_EQ(register_connection(three), 1);
    EXPECT_EQ(connections->size, 1u);
    EXPECT_EQ(connections->head->data, three);
}

TEST(register_connection, leaves_the_record_to_the_caller_on_failure)
{
    session_lists lists;
    connection *cn = new_connection(MODE_LISTEN, ADDR_PEER);
    list_full = true;
    EXPECT_EQ(register_connection(clients, cn), 0);
    EXPECT_EQ(register_connection(cn), 0);
    list_full = false;
    EXPECT_EQ(clients->size, 0u);
    EXPECT_EQ(connections->size, 0u);
    destroy_connection(cn);
}

TEST(register_connection_death, needs_list_and_record)
{
    session_lists lists;
    connection *cn = new_connection(MODE_LISTEN, ADDR_PEER);
    EXPECT_DEATH(register_connection(nullptr, cn), "`list && cn'");
    EXPECT_DEATH(register_connection(clients, nullptr), "`list && cn'");
    EXPECT_DEATH(register_connection(nullptr), "`connections && cn'");
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(register_connection(cn), "`connections && cn'");
    connections = kept;
    destroy_connection(cn);
}

TEST(unregister_connection, removes_and_destroys)
{
    session_lists lists;
    int fd = tcp_socket();
    add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1", fd);
    connection *kept = add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.2");
    unregister_connection(clients, clients->head);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(clients->size, 1u);
    EXPECT_EQ(clients->head->data, kept);
    EXPECT_EQ(nfds, 0);
}

TEST(unregister_connection, takes_a_node_without_record)
{
    session_lists lists;
    ASSERT_EQ(ux_list_ins_next(clients, nullptr, nullptr), 0);
    unregister_connection(clients, clients->head);
    EXPECT_EQ(clients->size, 0u);
    ASSERT_EQ(ux_list_ins_next(connections, nullptr, nullptr), 0);
    unregister_connection(connections->head);
    EXPECT_EQ(connections->size, 0u);
}

TEST(unregister_connection, tells_how_many_outbound_ones_are_left)
{
    session_lists lists;
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.2");
    std::string seen =
        traced(1, [] { unregister_connection(connections->head); });
    EXPECT_EQ(seen, "DEBUG: nconnections = 1 \n");
    EXPECT_EQ(traced(0, [] { unregister_connection(connections->head); }), "");
}

TEST(unregister_connection_death, needs_list_and_element)
{
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

TEST(set_connections, builds_one_record_per_address)
{
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
        EXPECT_EQ(cn->fd, -1);
        EXPECT_STREQ(cn->ipaddr, texts[i]);
        EXPECT_EQ(cn->addr.sin_family, AF_INET);
        EXPECT_EQ(cn->addr.sin_addr.s_addr, inet_addr(texts[i]));
        EXPECT_EQ(ntohs(cn->addr.sin_port), ports[i]);
        /* The run's port, whatever the address itself says. */
        EXPECT_EQ(cn->port, 6003u);
    }
}

TEST(set_connections, writes_the_default_port_into_the_address)
{
    session_lists lists(-1);
    address_list addresses("127.0.0.1 127.0.0.2:7000");
    EXPECT_EQ(set_connections(addresses.get(), 40000), 2);
    EXPECT_EQ(addresses.entry(0)->port, static_cast<int16_t>(40000 - 65536));
    EXPECT_EQ(ntohs(addresses.entry(0)->addr.sin_port), 40000);
    EXPECT_EQ(addresses.entry(1)->port, 7000);
    EXPECT_EQ(ntohs(addresses.entry(1)->addr.sin_port), 7000);
}

TEST(set_connections, logs_an_empty_node_and_goes_on)
{
    session_lists lists(-1);
    operator_log log;
    address_list addresses("127.0.0.1");
    ASSERT_EQ(ux_list_ins_prev(addresses.get(), addresses.get()->head, nullptr),
              0);
    EXPECT_EQ(set_connections(addresses.get(), 6003), 1);
    EXPECT_EQ(log.lines(), log_lines{error_line(EINVAL)});
}

TEST(set_connections, gives_zero_without_addresses)
{
    session_lists lists(-1);
    address_list addresses("");
    EXPECT_EQ(set_connections(addresses.get(), 6003), 0);
}

TEST(set_connections, gives_zero_when_memory_is_exhausted)
{
    session_lists lists(-1);
    operator_log log;
    address_list addresses("127.0.0.1 127.0.0.2");
    memory_exhausted = true;
    EXPECT_EQ(set_connections(addresses.get(), 6003), 0);
    memory_exhausted = false;
    EXPECT_EQ(log.lines(), log_lines{system_line(ENOMEM)});
    log.clear();
    list_full = true;
    EXPECT_EQ(set_connections(addresses.get(), 6003), 0);
    list_full = false;
    EXPECT_EQ(log.lines(), log_lines{system_line(ENOMEM)});
    EXPECT_EQ(connections->size, 0u);
}

TEST(may_start, needs_room_and_a_record_without_socket)
{
    session_lists lists(-1);
    operator_log log;
    connection *cn = new_connection(MODE_SEND, ADDR_PEER);
    max_fds = 5;
    nfds = 4;
    EXPECT_EQ(may_start(cn), 1);
    EXPECT_EQ(log.lines(), log_lines{});
    nfds = 5;
    EXPECT_EQ(may_start(cn), 0);
    EXPECT_EQ(may_start(nullptr), 0) << "the budget comes first";
    nfds = 6;
    EXPECT_EQ(may_start(cn), 0);
    const log_lines full = {error_line(EMFILE), error_line(EMFILE),
                            error_line(EMFILE)};
    EXPECT_EQ(log.lines(), full);
    log.clear();
    nfds = 0;
    EXPECT_EQ(may_start(nullptr), -1);
    cn->fd = 0;
    EXPECT_EQ(may_start(cn), -1);
    cn->fd = -1;
    const log_lines unusable = {error_line(EINVAL), error_line(EINVAL)};
    EXPECT_EQ(log.lines(), unusable);
    destroy_connection(cn);
}

TEST(begin_exchange, makes_the_record_wait_to_be_writable)
{
    session_lists lists(-1);
    connection *cn = add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    connection_handler handler = [](ux_list_element *, event_bits) {};
    const connect_ends ends{nullptr, nullptr};
    int fd = tcp_socket();
    begin_exchange(cn, fd, handler, &ends);
    EXPECT_EQ(cn->fd, fd);
    EXPECT_EQ(cn->handler, handler);
    EXPECT_EQ(cn->ends, &ends);
    EXPECT_TRUE(FD_ISSET(fd, &writefds));
    EXPECT_FALSE(FD_ISSET(fd, &readfds));
    EXPECT_EQ(nfds, 1);
    EXPECT_EQ(maxfd, fd);

    close_exchange(cn);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(is_empty(&writefds));
    EXPECT_EQ(nfds, 0);
    EXPECT_EQ(maxfd, fd - 1);
    /* Nothing is left to close. */
    cn->handler = handler;
    close_exchange(cn);
    EXPECT_EQ(cn->handler, nullptr);
    EXPECT_EQ(nfds, 0);
}

TEST(ready_events, are_those_of_the_records_own_socket)
{
    reset_descriptors(0);
    connection cn{};
    cn.fd = 100;
    FD_SET(99, &ready_read);
    FD_SET(101, &ready_write);
    FD_SET(100, &readfds);
    FD_SET(100, &writefds);
    EXPECT_EQ(ready_events(&cn), 0);
    FD_SET(100, &ready_read);
    EXPECT_EQ(ready_events(&cn), 2);
    FD_SET(100, &ready_write);
    EXPECT_EQ(ready_events(&cn), 6);
    FD_CLR(100, &ready_read);
    EXPECT_EQ(ready_events(&cn), 4);
    cn.fd = -1;
    EXPECT_EQ(ready_events(&cn), 0);
    reset_descriptors(0);
}

TEST(open_connect_socket, connects_without_waiting)
{
    session_lists lists(-1);
    descriptor listener(listening_socket());
    connection cn{};
    cn.addr = loopback("127.0.0.1", local_port(listener.get()));
    descriptor fd(open_connect_socket(&cn));
    ASSERT_GE(fd.get(), 0);
    EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
    ASSERT_TRUE(wait_for(listener.get(), POLLIN));
    descriptor peer(accept(listener.get(), nullptr, nullptr));
    EXPECT_GE(peer.get(), 0);
    /* Counting it is left to the caller. */
    EXPECT_EQ(nfds, 0);
    EXPECT_EQ(maxfd, -1);
}

TEST(open_connect_socket, logs_why_it_could_not_connect)
{
    session_lists lists(-1);
    operator_log log;
    int before = open_descriptors();
    connection cn{};
    cn.addr = loopback("127.0.0.1", 1);
    cn.addr.sin_family = AF_INET6;
    EXPECT_EQ(open_connect_socket(&cn), -1);
    EXPECT_EQ(log.lines(), log_lines{system_line(EAFNOSUPPORT)});
    EXPECT_EQ(open_descriptors(), before);
}

TEST(open_connect_socket, logs_that_no_descriptor_is_left)
{
    session_lists lists(-1);
    /* On standard output: a log file would need a descriptor itself. */
    std::string seen;
    {
        capture output;
        connection cn{};
        cn.addr = loopback("127.0.0.1", 1);
        no_descriptors limit;
        EXPECT_EQ(open_connect_socket(&cn), -1);
        seen = output.text();
    }
    EXPECT_NE(seen.find(" tolva[00000]: " + system_line(EMFILE) + "\n"),
              std::string::npos)
        << seen;
}
