/* The answer to a sender that asked for its script's exit status. */
#include "sessions.h"

#include "tolva2/listen/reply.h"

namespace {

const std::string header = "CONNECT TO TOLVA (REPLY)";

/* A client with a reply due, and the sender's end of its connection. */
class waiting_client {
  public:
    waiting_client(const char *cmdline, int32_t pid, int32_t status) {
        number = pair.near.release();
        connection *cn = add_record(clients, MODE_LISTEN, ADDR_PEER,
                                    "127.0.0.1", number, EVENT_WRITABLE);
        cn->cmdline = ux_copy(cmdline);
        cn->pid = pid;
        cn->want_reply = true;
        cn->exitstatus = status;
    }
    /* Sends the reply; what the sender gets until the end. */
    std::string reply() {
        handle_tcp_reply(clients->head);
        EXPECT_EQ(clients->size, 0u);
        EXPECT_FALSE(is_open(number));
        EXPECT_EQ(open_descriptors(), 0);
        EXPECT_TRUE(nothing_is_watched());
        return receive_all(pair.far.get());
    }
    tcp_pair pair;
    int number;

  private:
    session_lists lists;
};

} // namespace

TEST(handle_tcp_reply, sends_header_program_pid_and_status) {
    struct row {
        const char *cmdline;
        int32_t pid;
        int32_t status;
        const char *expected;
    };
    const row rows[] = {
        {"/usr/local/bin/down.sh now please", 4711, 0,
         " COMMAND=/usr/local/bin/down.sh PID=4711 EXITSTATUS=0"},
        {"/opt/tolva/message.sh", 1, 255,
         " COMMAND=/opt/tolva/message.sh PID=1 EXITSTATUS=255"},
        {nullptr, 0, 0, " COMMAND= PID=0 EXITSTATUS=0"},
        {nullptr, 0, 1, " COMMAND= PID=0 EXITSTATUS=1"},
        {"", 0, 1, " COMMAND= PID=0 EXITSTATUS=1"},
        {" leading blank", 5, 1, " COMMAND= PID=5 EXITSTATUS=1"},
        {"tab\tstays here", 5, 1, " COMMAND=tab\tstays PID=5 EXITSTATUS=1"},
        {"\xe4\xff%s%n x", 2147483647, 127,
         " COMMAND=\xe4\xff%s%n PID=2147483647 EXITSTATUS=127"},
        /* Killed by signal 9: the raw wait status. */
        {"x", 77, 9, " COMMAND=x PID=77 EXITSTATUS=9"},
        {"x", 77, -1, " COMMAND=x PID=77 EXITSTATUS=-1"},
    };
    for (const row &one : rows) {
        waiting_client client(one.cmdline, one.pid, one.status);
        EXPECT_EQ(client.reply(), header + one.expected);
    }
}

TEST(handle_tcp_reply, is_cut_at_4096_bytes) {
    std::string program(5000, 'p');
    waiting_client client(program.c_str(), 1, 0);
    std::string reply = client.reply();
    EXPECT_EQ(reply.size(), 4096u);
    EXPECT_EQ(reply.substr(0, 4095),
              (header + " COMMAND=" + program).substr(0, 4095));
}

TEST(handle_tcp_reply, long_replies_arrive_whole) {
    std::string program(4000, 'p');
    waiting_client client((program + " parameters").c_str(), 4711, 128);
    EXPECT_EQ(client.reply(),
              header + " COMMAND=" + program + " PID=4711 EXITSTATUS=128");
}

TEST(handle_tcp_reply, a_sender_that_is_gone_costs_nothing) {
    {
        waiting_client client("x", 1, 0);
        client.pair.far.reset();
        handle_tcp_reply(clients->head);
        EXPECT_EQ(clients->size, 0u);
        EXPECT_FALSE(is_open(client.number));
    }
    {
        waiting_client client("x", 1, 0);
        reset_connection(&client.pair.far);
        ASSERT_TRUE(wait_for(client.number, POLLIN));
        handle_tcp_reply(clients->head);
        EXPECT_EQ(clients->size, 0u);
        EXPECT_FALSE(is_open(client.number));
    }
}

TEST(handle_tcp_reply, sends_nothing_when_an_error_is_pending) {
    /* Only what is not sent can be seen: both ends are ours, and a datagram
     * socket keeps an error without being closed. */
    session_lists lists;
    ux_fd holder;
    holder.reset(bound_socket(SOCK_DGRAM));
    sockaddr_in to = local_name(holder.get());
    int fd = bound_socket(SOCK_DGRAM);
    ASSERT_EQ(connect(fd, generic(&to), sizeof to), 0);
    holder.reset();
    ASSERT_EQ(send(fd, "x", 1, 0), 1);
    ASSERT_TRUE(wait_for(fd, POLLERR));
    holder.reset(bound_socket(SOCK_DGRAM, "127.0.0.1", ntohs(to.sin_port)));
    connection *cn = add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1",
                                fd, EVENT_WRITABLE);
    cn->want_reply = true;
    handle_tcp_reply(clients->head);
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_silent(holder.get()));
}

TEST(handle_tcp_reply, leaves_other_clients_alone) {
    waiting_client client("x", 1, 0);
    connection *other =
        add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.2");
    handle_tcp_reply(clients->head);
    EXPECT_EQ(receive_all(client.pair.far.get()),
              header + " COMMAND=x PID=1 EXITSTATUS=0");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(clients->head->data, other);
}
