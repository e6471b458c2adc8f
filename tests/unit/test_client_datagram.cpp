/* A command in a datagram: who may send one and what is made of it. */
#include "address_list.h"
#include "failing_calls.h"
#include "listener_fixture.h"

#include "tolva2/listen/client.h"

namespace {

const std::string header = "CONNECT TO TOLVA (SEND)";

/* The UDP side of the daemon. */
class udp_door : public listener {
  public:
    udp_door() : door(bound_socket(SOCK_DGRAM)), allowed("127.0.0.1") {
        set_nonblocking(door.get());
    }
    void datagram(const std::string &bytes, const char *from = "127.0.0.1") {
        ux_fd sender(bound_socket(SOCK_DGRAM, from));
        sockaddr_in to = local_name(door.get());
        ASSERT_EQ(sendto(sender.get(), bytes.data(), bytes.size(), 0,
                         generic(&to), sizeof to),
                  static_cast<ssize_t>(bytes.size()));
        ASSERT_TRUE(wait_for(door.get(), POLLIN));
        EXPECT_TRUE(receive_one());
    }
    bool receive_one() {
        capture errors(STDERR_FILENO);
        bool answered = handle_udp_connect(door.get(), allowed.get());
        errors.text();
        return answered;
    }
    ux_fd door;
    address_list allowed;
};

} // namespace

TEST(handle_udp_connect, runs_a_request) {
    udp_door udp;
    udp.datagram(header);
    ASSERT_EQ(clients->size, 1u);
    const connection *cn = record_of(clients->head);
    EXPECT_EQ(cn->type, ADDR_BROADCAST);
    EXPECT_EQ(cn->mode, MODE_LISTEN);
    EXPECT_FALSE(cn->fd);
    EXPECT_STREQ(cn->ipaddr, "127.0.0.1");
    EXPECT_EQ(cn->addr.sin_addr.s_addr, inet_addr("127.0.0.1"));
    EXPECT_EQ(cn->port, 6003u);
    EXPECT_EQ(cn->deadline, 0);
    EXPECT_STREQ(cn->cmdline.get(), "exit 0;");
    EXPECT_EQ(open_descriptors(), 0);
    const log_lines expected = {message(824, {"127.0.0.1"}),
                                message(792, {"exit 0;"})};
    EXPECT_EQ(udp.log.lines(), expected);
}

TEST(handle_udp_connect, never_wants_a_reply) {
    udp_door udp;
    udp.datagram(header + " MSG_EXECSTATUS EXECUTE x");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_FALSE(record_of(clients->head)->want_reply);
    EXPECT_STREQ(record_of(clients->head)->cmdline.get(), "exit 1; x");
}

TEST(handle_udp_connect, what_runs_nothing_leaves_no_record) {
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

TEST(handle_udp_connect, keeps_the_other_records) {
    udp_door udp;
    connection *first =
        add_record(clients, MODE_LISTEN, ADDR_PEER, "127.0.0.1");
    udp.datagram(header + " MSG_EXECUTE LOG_TEXT x");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_EQ(clients->head->data, first);
}

TEST(handle_udp_connect, refuses_who_is_not_allowed) {
    udp_door udp;
    udp.datagram(header, "127.0.0.13");
    EXPECT_EQ(clients->size, 0u);
    const log_lines expected = {message(824, {"127.0.0.13"}),
                                message(835, {"127.0.0.13"})};
    EXPECT_EQ(udp.log.lines(), expected);
}

TEST(handle_udp_connect, nothing_to_receive_is_no_reason_to_wait) {
    udp_door udp;
    EXPECT_TRUE(udp.receive_one());
    EXPECT_EQ(udp.log.lines(), log_lines{message(825, {})});
    udp.log.clear();
    udp.datagram("");
    EXPECT_EQ(udp.log.lines(), log_lines{message(825, {})});
    EXPECT_EQ(clients->size, 0u);
}

TEST(handle_udp_connect, says_when_the_system_refuses) {
    udp_door udp;
    udp.door.reset();
    EXPECT_FALSE(udp.receive_one());
    EXPECT_EQ(udp.log.lines(), log_lines{message(825, {})});
}

TEST(handle_udp_connect, drops_the_datagram_when_memory_is_exhausted) {
    udp_door udp;
    /* Neither for a record nor, the second time, for its place in a list. */
    for (int left : {0, 1}) {
        failing_heap limit(left);
        udp.datagram(header);
    }
    EXPECT_EQ(clients->size, 0u);
    const log_lines expected = {
        message(824, {"127.0.0.1"}), system_line(ENOMEM),
        message(824, {"127.0.0.1"}), system_line(ENOMEM)};
    EXPECT_EQ(udp.log.lines(), expected);
}

TEST(handle_udp_connect, reads_at_most_4095_bytes) {
    udp_door udp;
    udp.datagram(header + " MSG_EXECUTE EXECUTE " + std::string(6000, 'x'));
    ASSERT_EQ(clients->size, 1u);
    size_t words = header.size() + strlen(" MSG_EXECUTE EXECUTE ");
    EXPECT_EQ(std::string(record_of(clients->head)->cmdline.get()),
              "exit 1; " + std::string(4095 - words, 'x'));
    EXPECT_TRUE(is_silent(udp.door.get()));
}
