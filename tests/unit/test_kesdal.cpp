/* The logon and logoff exchange, step by step, with endings of our own. */
#include "sessions.h"

#include "tolva2/net/kesdal.h"

namespace {

std::string finished;

void note_cancel(ux_list_element *node) {
    finished += std::string("cancel ") + record_of(node)->ipaddr + ";";
}

void note_end(ux_list_element *node) {
    finished += std::string("end ") + record_of(node)->ipaddr + ";";
}

constexpr connect_ends noting_ends{note_cancel, note_end};

struct step {
    const char *name;
    connection_handler handle;
    event_bits event;
    event_bits next_event;
    connection_handler next;
};

const step steps[] = {
    {"do_kesdal_send_logon", do_kesdal_send_logon, EVENT_WRITABLE,
     EVENT_READABLE, do_kesdal_recv_logon},
    {"do_kesdal_recv_logon", do_kesdal_recv_logon, EVENT_READABLE,
     EVENT_WRITABLE, do_kesdal_send_logoff},
    {"do_kesdal_send_logoff", do_kesdal_send_logoff, EVENT_WRITABLE,
     EVENT_READABLE, do_kesdal_recv_logoff},
};

/* One exchange that stands before one of its steps. */
class exchange {
  public:
    explicit exchange(const step &one = steps[0]) : lists(-1) {
        finished.clear();
        set_nonblocking(pair.near.get());
        number = pair.near.release();
        cn = add_record(connections, MODE_CHECK, ADDR_KESDAL, "127.0.0.1",
                        number, one.event);
        cn->ends = &noting_ends;
        cn->handler = one.handle;
    }
    ux_list_element *node() const { return connections->head; }
    int peer() const { return pair.far.get(); }
    void answer(const std::string &bytes) const {
        send_bytes_to(peer(), bytes);
        EXPECT_TRUE(wait_for(number, POLLIN));
    }
    void close_peer() {
        pair.far.reset();
        EXPECT_TRUE(wait_for(number, POLLIN));
    }
    void reset_peer() {
        reset_connection(&pair.far);
        EXPECT_TRUE(wait_for(number, POLLIN));
    }
    std::string line(const char *verb) const {
        char text[64];
        int length =
            snprintf(text, sizeof text, "WINCLIENT %05d %s", number, verb);
        return std::string(text, static_cast<size_t>(length) + 1);
    }

    connection *cn;
    int number;

  private:
    session_lists lists;
    tcp_pair pair;
};

void expect_waiting(const exchange &ex, event_bits events,
                    connection_handler handler) {
    EXPECT_EQ(watched(ex.cn->fd), events);
    EXPECT_EQ(ex.cn->handler, handler);
    EXPECT_EQ(finished, "");
    EXPECT_EQ(open_descriptors(), 1);
}

} // namespace

TEST(kesdal_exchange, goes_through_all_four_steps) {
    exchange ex;
    ex.cn->handler(ex.node(), EVENT_WRITABLE);
    expect_waiting(ex, EVENT_READABLE, do_kesdal_recv_logon);
    EXPECT_EQ(receive(ex.peer(), 22), ex.line("LOGON"));
    EXPECT_TRUE(is_silent(ex.peer()));

    ex.answer("0|1 welcome");
    ex.cn->handler(ex.node(), EVENT_READABLE);
    expect_waiting(ex, EVENT_WRITABLE, do_kesdal_send_logoff);

    ex.cn->handler(ex.node(), EVENT_WRITABLE);
    expect_waiting(ex, EVENT_READABLE, do_kesdal_recv_logoff);
    EXPECT_EQ(receive_all(ex.peer()), ex.line("LOGOFF"));
    EXPECT_TRUE(is_closed(ex.peer()));

    ex.answer("0|0");
    ex.cn->handler(ex.node(), EVENT_READABLE);
    EXPECT_EQ(finished, "end 127.0.0.1;");
    EXPECT_TRUE(is_silent(ex.number)) << "the last answer is read";
}

TEST(kesdal_exchange, answers_that_are_accepted) {
    for (const char *good : {"0|0", "1|0", "9|9\r\n", "5|5 and more"}) {
        exchange ex(steps[1]);
        ex.answer(good);
        do_kesdal_recv_logon(ex.node(), EVENT_READABLE);
        expect_waiting(ex, EVENT_WRITABLE, do_kesdal_send_logoff);
    }
}

TEST(kesdal_exchange, answers_that_end_it_as_failed) {
    for (const char *bad : {"0:0", "7|", "x", "0", "|0", "WINCLIENT"}) {
        exchange ex(steps[1]);
        ex.answer(bad);
        do_kesdal_recv_logon(ex.node(), EVENT_READABLE);
        EXPECT_EQ(finished, "cancel 127.0.0.1;") << bad;
    }
}

TEST(kesdal_exchange, a_server_that_closes_before_answering_has_failed) {
    exchange ex(steps[1]);
    ex.close_peer();
    do_kesdal_recv_logon(ex.node(), EVENT_READABLE);
    EXPECT_EQ(finished, "cancel 127.0.0.1;");
}

TEST(kesdal_exchange, the_wrong_event_ends_a_step_as_failed) {
    for (const step &one : steps) {
        SCOPED_TRACE(one.name);
        event_bits other =
            one.event == EVENT_READABLE ? EVENT_WRITABLE : EVENT_READABLE;
        for (event_bits events : {EVENT_NONE, other}) {
            exchange ex(one);
            ex.answer("0|0");
            one.handle(ex.node(), events);
            EXPECT_EQ(finished, "cancel 127.0.0.1;");
        }
        /* Both at once are as good as the one that is needed. */
        exchange ex(one);
        ex.answer("0|0");
        one.handle(ex.node(), EVENT_READABLE | EVENT_WRITABLE);
        expect_waiting(ex, one.next_event, one.next);
    }
}

TEST(kesdal_exchange, a_socket_error_ends_a_step_as_failed) {
    for (const step &one : steps) {
        SCOPED_TRACE(one.name);
        exchange ex(one);
        ex.reset_peer();
        one.handle(ex.node(), one.event);
        EXPECT_EQ(finished, "cancel 127.0.0.1;");
    }
}

TEST(kesdal_exchange, a_refused_connect_shows_at_the_first_step) {
    session_lists lists(-1);
    finished.clear();
    ux_fd holder;
    uint16_t port = refusing_port(&holder);
    sockaddr_in address = loopback("127.0.0.1", port);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    static_cast<void>(connect(fd, generic(&address), sizeof address));
    ASSERT_TRUE(wait_for(fd, POLLOUT));
    connection *cn = add_record(connections, MODE_CHECK, ADDR_KESDAL,
                                "127.0.0.1", fd, EVENT_WRITABLE);
    cn->ends = &noting_ends;
    do_kesdal_send_logon(connections->head, EVENT_WRITABLE);
    EXPECT_EQ(finished, "cancel 127.0.0.1;");
}

TEST(kesdal_exchange, a_send_that_fails_ends_a_step_as_failed) {
    for (const step &one : {steps[0], steps[2]}) {
        SCOPED_TRACE(one.name);
        exchange ex(one);
        std::string block(1021, 'x');
        while (send(ex.number, block.data(), block.size(), MSG_NOSIGNAL) > 0) {
        }
        one.handle(ex.node(), EVENT_WRITABLE);
        EXPECT_EQ(finished, "cancel 127.0.0.1;");
    }
}

TEST(kesdal_exchange, the_last_step_cannot_fail) {
    {
        exchange ex;
        ex.answer("nonsense");
        do_kesdal_recv_logoff(ex.node(), EVENT_READABLE);
        EXPECT_EQ(finished, "end 127.0.0.1;");
    }
    {
        exchange ex;
        ex.close_peer();
        do_kesdal_recv_logoff(ex.node(), EVENT_READABLE);
        EXPECT_EQ(finished, "end 127.0.0.1;");
    }
    {
        exchange ex;
        ex.reset_peer();
        do_kesdal_recv_logoff(ex.node(), EVENT_READABLE);
        EXPECT_EQ(finished, "end 127.0.0.1;");
    }
    for (event_bits events : {EVENT_NONE, EVENT_WRITABLE}) {
        exchange ex;
        ex.answer("0|0");
        do_kesdal_recv_logoff(ex.node(), events);
        EXPECT_EQ(finished, "end 127.0.0.1;");
        EXPECT_FALSE(is_silent(ex.number)) << "nothing is read";
    }
}

TEST(kesdal_exchange, each_step_traces_its_entry) {
    for (const step &one : steps) {
        exchange ex(one);
        std::string line = std::string("TRACEIN: ") + one.name + "\n";
        std::string seen =
            traced(6, [&] { one.handle(ex.node(), EVENT_NONE); });
        EXPECT_EQ(seen.substr(0, line.size()), line);
    }
}

TEST(kesdal_exchange_death, each_step_needs_a_record) {
    ux_list_element node{nullptr, nullptr, nullptr};
    for (auto *handle : {do_kesdal_send_logon, do_kesdal_recv_logon,
                         do_kesdal_send_logoff, do_kesdal_recv_logoff}) {
        EXPECT_DEATH(handle(&node, EVENT_READABLE), "kesdal\\.cpp:.*`cn'");
    }
}
