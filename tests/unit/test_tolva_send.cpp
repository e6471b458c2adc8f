/* Send and check mode: each step alone, then whole runs. */
#include "sessions.h"

#include "tolva2/base/process_state.h"
#include "tolva2/send/tolva_send.cpp" // NOLINT

#include <sys/time.h>
#include <thread>

namespace
{

/* A kind of connection that nobody knows. */
constexpr auto NO_KIND = static_cast<address_kind>(8);

const std::string request_header = "CONNECT TO TOLVA (SEND)";
const std::string reply_header = "CONNECT TO TOLVA (REPLY)";

/* A run before its first connection. */
class fresh_run
{
  public:
    explicit fresh_run(const char *text = nullptr) : lists(-1)
    {
        command = text;
        failed = 0;
        remote_status = -1;
    }
    operator_log log;
    session_lists lists;
};

/* One record with an open connection. */
class conversation : public fresh_run
{
  public:
    explicit conversation(const char *text = nullptr,
                          mode_code mode = MODE_SEND,
                          address_kind type = ADDR_PEER)
        : fresh_run(text)
    {
        set_nonblocking(pair.near.get());
        number = pair.near.release();
        cn =
            add_record(connections, mode, type, "127.0.0.1", number, &writefds);
        cn->handler = do_send_tolva;
        cn->ends = &SEND_ENDS;
    }
    void await_reply()
    {
        FD_CLR(number, &writefds);
        FD_SET(number, &readfds);
        cn->handler = do_rcv_tolva;
    }
    void reply(const std::string &bytes)
    {
        send_bytes_to(pair.far.get(), bytes);
        EXPECT_TRUE(wait_for(number, POLLIN));
        do_rcv_tolva(connections->head, EVENT_READABLE);
    }
    bool is_gone() const
    {
        return connections->size == 0 && !is_open(number) && nfds == 0 &&
               !FD_ISSET(number, &readfds) && !FD_ISSET(number, &writefds);
    }
    tcp_pair pair;
    int number;
    connection *cn;
};

class address_list
{
  public:
    address_list()
    {
        ux_list_init(&list, destroy_inetaddr);
    }
    ~address_list()
    {
        ux_list_destroy(&list);
    }
    address_list(const address_list &) = delete;
    address_list &operator=(const address_list &) = delete;

    address_list &add(const std::string &host, uint16_t port,
                      mode_code mode = MODE_SEND, address_kind kind = ADDR_PEER)
    {
        std::string text = host + ":" + std::to_string(port);
        EXPECT_EQ(add_inetaddr(&list, text.data(), kind, mode), 1);
        return *this;
    }
    const ux_list *get() const
    {
        return &list;
    }

  private:
    ux_list list;
};

/* A peer that plays its part in a thread, for one connection. */
template <typename part_type> class scripted_peer
{
  public:
    explicit scripted_peer(part_type part, const char *address = "127.0.0.1")
        : listening(listening_socket(address))
    {
        thread = std::thread([this, part] {
            if (wait_for(listening.get(), POLLIN)) {
                descriptor peer(accept(listening.get(), nullptr, nullptr));
                part(peer.get());
            }
        });
    }
    ~scripted_peer()
    {
        thread.join();
    }
    scripted_peer(const scripted_peer &) = delete;
    scripted_peer &operator=(const scripted_peer &) = delete;
    uint16_t port() const
    {
        return local_port(listening.get());
    }

  private:
    descriptor listening;
    std::thread thread;
};

/* A listener that answers a request with that reply, and closes. */
auto answering(const std::string &reply)
{
    return [reply](int fd) {
        receive(fd, request_header.size());
        if (!reply.empty()) {
            send_bytes_to(fd, reply);
        }
        /* Nothing is left unread, or the close would become a reset. */
        shutdown(fd, SHUT_WR);
        receive_all(fd);
    };
}

std::string status_reply(int status)
{
    return reply_header +
           " COMMAND=x PID=1 EXITSTATUS=" + std::to_string(status);
}

/* One whole run with the state of a new process. */
int32_t whole_run(const address_list &addresses, int32_t port, int32_t timeout,
                  const char *text)
{
    failed = 0;
    remote_status = -1;
    int32_t budget = max_fds;
    max_fds = budget > 0 ? budget : 256;
    int32_t status = send_mode(addresses.get(), port, timeout, text);
    max_fds = budget;
    EXPECT_EQ(connections, nullptr);
    signal(SIGHUP, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    return status;
}

/* What one listener was sent. */
std::string sent_to(int listener)
{
    if (!wait_for(listener, POLLIN)) {
        return "(nobody came)";
    }
    descriptor peer(accept(listener, nullptr, nullptr));
    return receive_all(peer.get());
}

} // namespace

TEST(start_connect, opens_by_type)
{
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
        fresh_run run;
        descriptor listener(listening_socket());
        connection *cn =
            add_record(connections, MODE_SEND, one.type, "127.0.0.1");
        cn->addr = loopback("127.0.0.1", local_port(listener.get()));
        EXPECT_EQ(start_connect(connections->head), 1);
        ASSERT_GE(cn->fd, 0);
        EXPECT_EQ(cn->handler, one.handler);
        EXPECT_TRUE(FD_ISSET(cn->fd, &writefds));
        EXPECT_FALSE(FD_ISSET(cn->fd, &readfds));
        EXPECT_EQ(maxfd, cn->fd);
        EXPECT_EQ(nfds, 1);
        EXPECT_NE(fcntl(cn->fd, F_GETFL) & O_NONBLOCK, 0);
        int broadcast = -1;
        socklen_t length = sizeof broadcast;
        getsockopt(cn->fd, SOL_SOCKET, SO_BROADCAST, &broadcast, &length);
        EXPECT_EQ(broadcast, one.type == ADDR_BROADCAST ? 1 : 0);
        EXPECT_EQ(run.log.lines(),
                  log_lines{message(one.logged, {"127.0.0.1"})});
    }
}

TEST(start_connect, an_unknown_type_is_an_error)
{
    fresh_run run;
    connection *cn = add_record(connections, MODE_SEND, NO_KIND, "127.0.0.1");
    EXPECT_EQ(start_connect(connections->head), 0);
    EXPECT_EQ(cn->fd, -1);
    EXPECT_EQ(nfds, 0);
    EXPECT_EQ(run.log.lines(), log_lines{error_line(EINVAL)});
}

TEST(start_connect, what_cannot_connect_is_logged_by_type)
{
    struct row {
        address_kind type;
        int logged;
    };
    for (const row &one : {row{ADDR_PEER, 753}, row{ADDR_KESDAL, 828}}) {
        fresh_run run;
        connection *cn =
            add_record(connections, MODE_SEND, one.type, "127.0.0.1");
        cn->addr.sin_family = AF_INET6;
        EXPECT_EQ(start_connect(connections->head), 0);
        EXPECT_EQ(cn->fd, -1);
        EXPECT_EQ(nfds, 0);
        const log_lines expected = {message(785, {"127.0.0.1"}),
                                    system_line(EAFNOSUPPORT),
                                    message(one.logged, {"127.0.0.1"})};
        EXPECT_EQ(run.log.lines(), expected);
    }
}

TEST(start_connect, a_broadcast_without_descriptor_is_logged)
{
    fresh_run run;
    add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.1");
    nfds = 10;
    {
        /* A host that is not told is worse than a line that is not logged:
         * the last descriptor goes to the socket. */
        no_descriptors limit(1);
        EXPECT_EQ(start_connect(connections->head), 1);
    }
    {
        add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.2");
        no_descriptors limit(0);
        EXPECT_EQ(start_connect(connections->tail), 0);
    }
    EXPECT_EQ(run.log.lines(), log_lines{message(833, {"127.0.0.1"})});
    nfds = 0;
}

TEST(start_connect, the_descriptor_budget_is_kept)
{
    fresh_run run;
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    max_fds = 3;
    nfds = 3;
    EXPECT_EQ(start_connect(connections->head), 0);
    EXPECT_EQ(run.log.lines(), log_lines{error_line(EMFILE)});
    EXPECT_EQ(nfds, 3);
    nfds = 0;
}

TEST(start_connect, a_record_in_use_or_none_is_an_error)
{
    fresh_run run;
    int fd = tcp_socket();
    add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1", fd, &writefds);
    EXPECT_EQ(start_connect(connections->head), -1);
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_EQ(start_connect(&node), -1);
    const log_lines expected = {error_line(EINVAL), error_line(EINVAL)};
    EXPECT_EQ(run.log.lines(), expected);
    EXPECT_EQ(nfds, 1);
}

TEST(start_connections, leaves_out_what_does_not_start)
{
    fresh_run run;
    descriptor listener(listening_socket());
    add_record(connections, MODE_SEND, NO_KIND, "127.0.0.2");
    connection *good =
        add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
    good->addr = loopback("127.0.0.1", local_port(listener.get()));
    ASSERT_EQ(ux_list_ins_next(connections, connections->tail, nullptr), 0);
    EXPECT_EQ(start_connections(), 1);
    EXPECT_EQ(failed, 1);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_EQ(connections->head->data, good);
}

TEST(start_connections, all_that_start_are_no_failure)
{
    fresh_run run;
    descriptor listener(listening_socket());
    for (int i = 0; i < 3; i++) {
        connection *cn =
            add_record(connections, MODE_SEND, ADDR_PEER, "127.0.0.1");
        cn->addr = loopback("127.0.0.1", local_port(listener.get()));
    }
    EXPECT_EQ(start_connections(), 3);
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(nfds, 3);
}

TEST(start_connections_death, needs_the_list)
{
    ux_list *kept = connections;
    connections = nullptr;
    EXPECT_DEATH(start_connections(), "`connections'");
    connections = kept;
}

TEST(do_send_tolva, sends_the_request_and_ends)
{
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
        EXPECT_TRUE(talk.is_gone());
        EXPECT_EQ(maxfd, talk.number - 1);
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(receive_all(talk.pair.far.get()), one.sent);
        EXPECT_EQ(talk.log.lines(), log_lines{message(787, {"127.0.0.1"})});
    }
}

TEST(do_send_tolva, with_status_waits_for_the_reply)
{
    conversation talk("MSG_EXECSTATUS EXECUTE x", MODE_SEND_STATUS);
    do_send_tolva(connections->head, EVENT_READABLE | EVENT_WRITABLE);
    ASSERT_EQ(connections->size, 1u);
    EXPECT_EQ(talk.cn->handler, do_rcv_tolva);
    EXPECT_TRUE(FD_ISSET(talk.number, &readfds));
    EXPECT_FALSE(FD_ISSET(talk.number, &writefds));
    EXPECT_EQ(nfds, 1);
    std::string expected = request_header + " MSG_EXECSTATUS EXECUTE x";
    EXPECT_EQ(receive(talk.pair.far.get(), expected.size()), expected);
    EXPECT_TRUE(is_silent(talk.pair.far.get()));
    EXPECT_EQ(talk.log.lines(), log_lines{});
}

TEST(do_send_tolva, needs_a_writable_socket)
{
    for (event_bits events : {EVENT_NONE, EVENT_READABLE}) {
        conversation talk("MSG_EXECUTE x");
        do_send_tolva(connections->head, events);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_EQ(failed, 1);
        EXPECT_EQ(receive_all(talk.pair.far.get()), "");
        EXPECT_EQ(talk.log.lines(), log_lines{message(753, {"127.0.0.1"})});
    }
}

TEST(do_send_tolva, a_socket_error_is_logged)
{
    conversation talk("MSG_EXECUTE x");
    reset_connection(&talk.pair.far);
    ASSERT_TRUE(wait_for(talk.number, POLLIN));
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_EQ(failed, 1);
    const log_lines expected = {system_line(ECONNRESET),
                                message(753, {"127.0.0.1"})};
    EXPECT_EQ(talk.log.lines(), expected);
}

TEST(do_send_tolva, a_request_that_does_not_fit_fails_unsent)
{
    std::string text(4072, 'x');
    conversation talk(text.c_str());
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(receive_all(talk.pair.far.get()), "");
    EXPECT_EQ(talk.log.lines(), log_lines{message(753, {"127.0.0.1"})});
}

TEST(do_send_tolva, sends_a_datagram_to_the_runs_port)
{
    fresh_run run("MSG_EXECUTE SHUTDOWN");
    descriptor receiver(bound_socket(SOCK_DGRAM));
    int fd = bound_socket(SOCK_DGRAM);
    connection *cn = add_record(connections, MODE_SEND, ADDR_BROADCAST,
                                "127.0.0.1", fd, &writefds);
    /* An address's own port is not where a broadcast goes. */
    cn->addr = loopback("127.0.0.1", 1);
    cn->port = local_port(receiver.get());
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_EQ(connections->size, 0u);
    EXPECT_EQ(failed, 0);
    std::string expected = request_header + " MSG_EXECUTE SHUTDOWN";
    EXPECT_EQ(receive(receiver.get(), expected.size()), expected);
    EXPECT_TRUE(is_silent(receiver.get()));
    EXPECT_EQ(run.log.lines(), log_lines{message(787, {"127.0.0.1"})});
}

TEST(do_send_tolva, a_datagram_that_does_not_fit_fails_unsent)
{
    std::string text(1448, 'x');
    fresh_run run(text.c_str());
    descriptor receiver(bound_socket(SOCK_DGRAM));
    connection *cn =
        add_record(connections, MODE_SEND, ADDR_BROADCAST, "127.0.0.1",
                   bound_socket(SOCK_DGRAM), &writefds);
    cn->port = local_port(receiver.get());
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_EQ(connections->size, 0u);
    EXPECT_EQ(failed, 1);
    EXPECT_TRUE(is_silent(receiver.get()));
    EXPECT_EQ(run.log.lines(), log_lines{message(810, {})});
}

TEST(do_send_tolva, any_other_type_counts_as_sent)
{
    conversation talk("MSG_EXECUTE x", MODE_SEND, NO_KIND);
    do_send_tolva(connections->head, EVENT_WRITABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(receive_all(talk.pair.far.get()), "");
    EXPECT_EQ(talk.log.lines(), log_lines{message(787, {"127.0.0.1"})});
}

TEST(do_send_tolva_death, needs_a_record)
{
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_DEATH(do_send_tolva(&node, EVENT_WRITABLE), "`cn'");
    EXPECT_DEATH(cancel_connect(&node), "tolva_send\\.cpp:.*`cn'");
    EXPECT_DEATH(end_connect(&node), "tolva_send\\.cpp:.*`cn'");
}

TEST(do_rcv_tolva, takes_the_status_of_a_reply)
{
    struct row {
        const char *text; /* behind the header */
        int32_t status;
    };
    const row rows[] = {
        {" COMMAND= PID=0 EXITSTATUS=0", 0},
        {" COMMAND=x PID=1 EXITSTATUS=1", 128},
        {" COMMAND=x PID=1 EXITSTATUS=3", 130},
        {" COMMAND=x PID=1 EXITSTATUS=127", 254},
        {" COMMAND=x PID=1 EXITSTATUS=128", 128},
        {" COMMAND=x PID=1 EXITSTATUS=200", 200},
        {" COMMAND=x PID=1 EXITSTATUS=255", 255},
        {" COMMAND=x PID=1 EXITSTATUS=300", 255},
        {" COMMAND=x PID=1 EXITSTATUS=-1", 128},
        {" COMMAND=x PID=1 EXITSTATUS=x", 0},
        {" COMMAND=x PID=1 EXITSTATUS=", 128},
        {" COMMAND=x PID=1", 128},
        {"", 128},
        {" EXITSTATUS=99999999999", 255},
        {" EXITSTATUS=0000000000000000000005", 0},
        {" EXITSTATUSX=5", 132},
        {" exitstatus=5", 128},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(one.text);
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        talk.reply(reply_header + one.text);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(remote_status, one.status);
        std::string shown = one.text;
        shown = shown.empty() ? shown : shown.substr(1);
        EXPECT_EQ(talk.log.lines(), log_lines{"server[127.0.0.1]: " + shown});
    }
}

TEST(do_rcv_tolva, reads_a_header_in_any_case)
{
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    talk.reply("connect to tolva (reply)|EXITSTATUS=7");
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(talk.log.lines(), log_lines{"server[127.0.0.1]: EXITSTATUS=7"});
    /* The byte behind the header is no part of the text. */
    EXPECT_EQ(remote_status, 134);
}

TEST(do_rcv_tolva, the_last_reply_counts)
{
    struct row {
        int32_t before;
        std::string reply;
        int32_t after;
    };
    for (const row &one :
         {row{255, status_reply(0), 0}, row{0, status_reply(3), 130},
          row{200, reply_header + " no status", 200}}) {
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        remote_status = one.before;
        talk.reply(one.reply);
        EXPECT_EQ(remote_status, one.after);
    }
}

TEST(do_rcv_tolva, anything_but_a_reply_is_a_failure)
{
    for (const char *bad :
         {"CONNECT TO TOLVA (SEND)", "x", "CONNECT TO TOLVA (REPLY", "\n"}) {
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        talk.reply(bad);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_EQ(failed, 1);
        EXPECT_EQ(remote_status, -1);
        EXPECT_EQ(talk.log.lines(), log_lines{message(819, {})});
    }
}

TEST(do_rcv_tolva, a_listener_that_closes_is_a_failure)
{
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    talk.pair.far.reset();
    ASSERT_TRUE(wait_for(talk.number, POLLIN));
    do_rcv_tolva(connections->head, EVENT_READABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(talk.log.lines(), log_lines{message(819, {})});
}

TEST(do_rcv_tolva, a_socket_error_is_logged)
{
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    reset_connection(&talk.pair.far);
    ASSERT_TRUE(wait_for(talk.number, POLLIN));
    do_rcv_tolva(connections->head, EVENT_READABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(talk.log.lines(), log_lines{system_line(ECONNRESET)});
}

TEST(do_rcv_tolva, a_receive_that_fails_is_logged)
{
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    do_rcv_tolva(connections->head, EVENT_READABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(talk.log.lines(), log_lines{system_line(EAGAIN)});
}

TEST(do_rcv_tolva, needs_a_readable_socket_of_the_right_kind)
{
    struct row {
        mode_code mode;
        address_kind type;
        event_bits events;
    };
    const row rows[] = {
        {MODE_SEND_STATUS, ADDR_PEER, EVENT_NONE},
        {MODE_SEND_STATUS, ADDR_PEER, EVENT_WRITABLE},
        {MODE_SEND, ADDR_PEER, EVENT_READABLE},
        {MODE_CHECK, ADDR_PEER, EVENT_READABLE},
        {MODE_SEND_STATUS, ADDR_BROADCAST, EVENT_READABLE},
        {MODE_SEND_STATUS, ADDR_KESDAL, EVENT_READABLE},
    };
    for (const row &one : rows) {
        conversation talk("x", one.mode, one.type);
        talk.await_reply();
        send_bytes_to(talk.pair.far.get(), status_reply(0));
        ASSERT_TRUE(wait_for(talk.number, POLLIN));
        do_rcv_tolva(connections->head, one.events);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_EQ(failed, 1);
        EXPECT_EQ(remote_status, -1);
        EXPECT_EQ(talk.log.lines(), log_lines{error_line(EINVAL)});
    }
}

TEST(do_rcv_tolva, reads_at_most_4095_bytes)
{
    std::string text = reply_header + " COMMAND=" + std::string(4049, 'c');
    struct row {
        const char *end;
        int32_t status;
    };
    /* The last two digits of 200 are cut. */
    for (const row &one :
         {row{" EXITSTATUS=9", 136}, row{" EXITSTATUS=200", 129}}) {
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        talk.reply(text + one.end);
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(remote_status, one.status);
    }
}

TEST(do_rcv_tolva, traces_what_it_sees)
{
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    std::string seen = traced(1, [&] { talk.reply(status_reply(3)); });
    EXPECT_EQ(seen, "DEBUG: event = 2 \nDEBUG: cn->mode = 3 \n"
                    "DEBUG: cn->type = 1 \nDEBUG: err = 0 \n"
                    "DEBUG: arg= [server[%s]: %s]\nDEBUG: value = [3]\n"
                    "DEBUG: remote_status = [3]\nDEBUG: nconnections = 0 \n");
}

TEST(do_rcv_tolva_death, needs_a_record_when_readable)
{
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_DEATH(do_rcv_tolva(&node, EVENT_READABLE), "`cn'");
}

TEST(endings, log_by_type)
{
    struct row {
        address_kind type;
        std::string cancelled;
        std::string ended;
    };
    const row rows[] = {
        {ADDR_PEER, message(753, {"127.0.0.1"}), message(787, {"127.0.0.1"})},
        {ADDR_BROADCAST, message(810, {}), message(787, {"127.0.0.1"})},
        {ADDR_KESDAL, message(828, {"127.0.0.1"}), message(814, {"127.0.0.1"})},
        {NO_KIND, error_line(EINVAL), message(787, {"127.0.0.1"})},
    };
    for (const row &one : rows) {
        {
            conversation talk("x", MODE_SEND, one.type);
            cancel_connect(connections->head);
            EXPECT_TRUE(talk.is_gone());
            EXPECT_EQ(failed, 1);
            EXPECT_EQ(talk.log.lines(), log_lines{one.cancelled});
        }
        {
            conversation talk("x", MODE_SEND, one.type);
            end_connect(connections->head);
            EXPECT_TRUE(talk.is_gone());
            EXPECT_EQ(failed, 0);
            EXPECT_EQ(talk.log.lines(), log_lines{one.ended});
        }
    }
}

TEST(send_mode, sends_to_every_listener)
{
    operator_log log;
    descriptor one(listening_socket());
    descriptor two(listening_socket("127.0.0.2"));
    address_list to;
    to.add("127.0.0.1", local_port(one.get()));
    to.add("127.0.0.2", local_port(two.get()));
    int before = open_descriptors();
    EXPECT_EQ(whole_run(to, 6003, 10, "MSG_EXECUTE SHUTDOWN"), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(sent_to(one.get()), request_header + " MSG_EXECUTE SHUTDOWN");
    EXPECT_EQ(sent_to(two.get()), request_header + " MSG_EXECUTE SHUTDOWN");
    log_lines seen = log.lines();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0], message(785, {"127.0.0.1"}));
    EXPECT_EQ(seen[1], message(785, {"127.0.0.2"}));
}

TEST(send_mode, uses_the_default_port)
{
    operator_log log;
    descriptor listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", 0);
    EXPECT_EQ(whole_run(to, local_port(listener.get()), 10, nullptr), 0);
    EXPECT_EQ(sent_to(listener.get()), request_header);
}

TEST(send_mode, one_unreachable_listener_stops_no_other)
{
    operator_log log;
    descriptor holder;
    descriptor listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", refusing_port(&holder));
    to.add("127.0.0.1", local_port(listener.get()));
    EXPECT_EQ(whole_run(to, 6003, 10, nullptr), 1);
    EXPECT_EQ(sent_to(listener.get()), request_header);
}

TEST(send_mode, gives_the_mapped_status_of_the_reply)
{
    struct row {
        int sent;
        int32_t status;
    };
    for (const row &one :
         {row{0, 0}, row{1, 128}, row{3, 130}, row{200, 200}, row{300, 255}}) {
        operator_log log;
        scripted_peer listener(answering(status_reply(one.sent)));
        address_list to;
        to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
        EXPECT_EQ(whole_run(to, 6003, 10, "MSG_EXECSTATUS EXECUTE x"),
                  one.status);
        const log_lines expected = {
            message(785, {"127.0.0.1"}),
            "server[127.0.0.1]: COMMAND=x PID=1 EXITSTATUS=" +
                std::to_string(one.sent)};
        EXPECT_EQ(log.lines(), expected);
    }
}

TEST(send_mode, a_failure_outweighs_a_status)
{
    operator_log log;
    descriptor holder;
    scripted_peer listener(answering(status_reply(200)));
    address_list to;
    to.add("127.0.0.1", refusing_port(&holder), MODE_SEND_STATUS);
    to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
    EXPECT_EQ(whole_run(to, 6003, 10, "MSG_EXECSTATUS EXECUTE x"), 1);
}

TEST(send_mode, a_listener_that_closes_without_reply_is_a_failure)
{
    operator_log log;
    scripted_peer listener(answering(""));
    address_list to;
    to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
    EXPECT_EQ(whole_run(to, 6003, 10, nullptr), 1);
    const log_lines expected = {message(785, {"127.0.0.1"}), message(819, {})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, gives_up_when_the_time_is_over)
{
    operator_log log;
    descriptor listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", local_port(listener.get()), MODE_SEND_STATUS);
    int before = open_descriptors();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(whole_run(to, 6003, 2, nullptr), 1);
    auto took = std::chrono::steady_clock::now() - start;
    /* Whole seconds: of the first one little may have been left. */
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(10));
    const log_lines expected = {message(785, {"127.0.0.1"}),
                                error_line(ETIMEDOUT)};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(send_mode, waits_without_limit_for_a_time_of_0)
{
    operator_log log;
    scripted_peer listener([](int fd) {
        receive(fd, request_header.size());
        /* Longer than a whole second, so that a limit of 0 would show. */
        pollfd nothing{fd, 0, 0};
        poll(&nothing, 1, 1200);
        send_bytes_to(fd, status_reply(7));
    });
    address_list to;
    to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
    EXPECT_EQ(whole_run(to, 6003, 0, nullptr), 134);
}

TEST(send_mode, an_interrupted_wait_goes_on)
{
    operator_log log;
    struct sigaction action {
    };
    struct sigaction before;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    itimerval often{{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    {
        scripted_peer listener([](int fd) {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            receive(fd, request_header.size());
            pollfd nothing{fd, 0, 0};
            poll(&nothing, 1, 300);
            send_bytes_to(fd, status_reply(7));
        });
        address_list to;
        to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
        EXPECT_EQ(whole_run(to, 6003, 20, nullptr), 134);
    }
    itimerval off{{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(send_mode, sends_a_broadcast_once_and_awaits_nothing)
{
    operator_log log;
    descriptor receiver(bound_socket(SOCK_DGRAM));
    address_list to;
    to.add("127.0.0.1", 0, MODE_SEND, ADDR_BROADCAST);
    EXPECT_EQ(whole_run(to, local_port(receiver.get()), 10, "MSG_EXECUTE x"),
              0);
    EXPECT_EQ(receive(receiver.get(), 37), request_header + " MSG_EXECUTE x");
    EXPECT_TRUE(is_silent(receiver.get()));
    const log_lines expected = {message(833, {"127.0.0.1"}),
                                message(787, {"127.0.0.1"})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, checks_a_server_by_logon_and_logoff)
{
    operator_log log;
    std::string lines;
    int32_t status = -1;
    {
        scripted_peer server([&lines](int fd) {
            lines = receive(fd, 22);
            send_bytes_to(fd, "0|1");
            lines += receive_all(fd);
        });
        address_list to;
        to.add("127.0.0.1", server.port(), MODE_CHECK, ADDR_KESDAL);
        status = whole_run(to, 5769, 10, "MSG_SCAN");
    }
    EXPECT_EQ(status, 0);
    ASSERT_EQ(lines.size(), 45u);
    std::string number = lines.substr(10, 5);
    EXPECT_EQ(lines, "WINCLIENT " + number + " LOGON" + std::string(1, '\0') +
                         "WINCLIENT " + number + " LOGOFF" +
                         std::string(1, '\0'));
    const log_lines expected = {message(785, {"127.0.0.1"}),
                                message(814, {"127.0.0.1"})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, a_server_that_answers_badly_is_not_alive)
{
    operator_log log;
    scripted_peer server([](int fd) {
        receive(fd, 22);
        send_bytes_to(fd, "0:1");
        receive_all(fd);
    });
    address_list to;
    to.add("127.0.0.1", server.port(), MODE_CHECK, ADDR_KESDAL);
    EXPECT_EQ(whole_run(to, 5769, 10, "MSG_SCAN"), 1);
    const log_lines expected = {message(785, {"127.0.0.1"}),
                                message(828, {"127.0.0.1"})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, fails_when_nothing_can_be_started)
{
    operator_log log;
    address_list none;
    EXPECT_EQ(whole_run(none, 6003, 10, nullptr), 1);
    EXPECT_EQ(log.lines(), log_lines{});

    descriptor listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", local_port(listener.get()));
    int32_t budget = max_fds;
    max_fds = 0;
    failed = 0;
    EXPECT_EQ(send_mode(to.get(), 6003, 10, nullptr), 1);
    max_fds = budget;
    EXPECT_EQ(log.lines(), log_lines{error_line(EMFILE)});
}

TEST(send_mode, connections_beyond_the_budget_are_failures)
{
    operator_log log;
    descriptor listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", local_port(listener.get()));
    to.add("127.0.0.1", local_port(listener.get()));
    int32_t budget = max_fds;
    max_fds = 1;
    EXPECT_EQ(whole_run(to, 6003, 10, nullptr), 1);
    max_fds = budget;
    EXPECT_EQ(sent_to(listener.get()), request_header);
    set_nonblocking(listener.get());
    EXPECT_LT(accept(listener.get(), nullptr, nullptr), 0);
    const log_lines expected = {message(785, {"127.0.0.1"}), error_line(EMFILE),
                                message(787, {"127.0.0.1"})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, ignores_hangup_and_broken_pipes)
{
    operator_log log;
    address_list none;
    failed = 0;
    remote_status = -1;
    EXPECT_EQ(send_mode(none.get(), 6003, 10, nullptr), 1);
    for (int number : {SIGHUP, SIGPIPE}) {
        struct sigaction action;
        sigaction(number, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN);
        signal(number, SIG_DFL);
    }
}
