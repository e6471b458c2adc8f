/* Every text on the wire, compared byte for byte. */
#include "capture.h"
#include "loopback.h"

#include "tolva2/base/codes.h"
#include "tolva2/net/wire.h"

#include <cstring>

namespace {

const std::string request = "CONNECT TO TOLVA (SEND)";
const std::string reply = "CONNECT TO TOLVA (REPLY)";

/* What arrives at the other end when send_text is called. */
template <typename sender_type>
std::string arriving(int32_t *result, sender_type send_text) {
    tcp_pair pair;
    *result = send_text(pair.near.get());
    pair.near.reset();
    return receive_all(pair.far.get());
}

/* What recv_kesdal says to an answer. */
int32_t judge(const std::string &answer) {
    tcp_pair pair;
    if (!answer.empty()) {
        send_bytes_to(pair.far.get(), answer);
    }
    pair.far.reset();
    EXPECT_TRUE(wait_for(pair.near.get(), POLLIN));
    return recv_kesdal(pair.near.get());
}

/* get_key_value with a buffer of exactly size bytes. */
std::string value_of(const char *text, const char *key, size_t size = 16) {
    std::vector<char> out(size, '~');
    const char *found = get_key_value(text, key, out.data(), size);
    if (found == nullptr) {
        EXPECT_EQ(out[0], '\0') << "not emptied";
        return "(none)";
    }
    EXPECT_EQ(found, out.data());
    return found;
}

} // namespace

TEST(fixed_texts, are_what_the_other_side_expects) {
    EXPECT_EQ(request, REQUEST_HEADER);
    EXPECT_EQ(reply, REPLY_HEADER);
    EXPECT_EQ(REQUEST_HEADER_LENGTH, 23u);
    EXPECT_EQ(REPLY_HEADER_LENGTH, 24u);
    EXPECT_EQ(REQUEST_TEXT_OFFSET, 24u);
    EXPECT_EQ(REPLY_TEXT_OFFSET, 25u);
    EXPECT_STREQ(VERB_EXECUTE, "MSG_EXECUTE");
    EXPECT_STREQ(VERB_EXECSTATUS, "MSG_EXECSTATUS");
    EXPECT_STREQ(VERB_SCAN, "MSG_SCAN");
    EXPECT_EQ(DEFAULT_PORT, 6003);
    EXPECT_EQ(DEFAULT_KESDAL_PORT, 5769);
    EXPECT_EQ(DEFAULT_SEND_TIMEOUT, 10);
    EXPECT_EQ(TEXT_BUFFER, 4096u);
}

TEST(send_ok, sends_the_bare_header_without_a_command) {
    int32_t sent = 0;
    EXPECT_EQ(arriving(&sent, [](int fd) { return send_ok(fd, nullptr); }),
              request);
    EXPECT_EQ(sent, 23);
    EXPECT_EQ(arriving(&sent, [](int fd) { return send_ok(fd, ""); }), request);
    EXPECT_EQ(sent, 23);
}

TEST(send_ok, sends_header_blank_and_command) {
    int32_t sent = 0;
    EXPECT_EQ(arriving(&sent,
                       [](int fd) {
                           return send_ok(
                               fd, "MSG_EXECUTE LOG_TEXT UPS on battery");
                       }),
              request + " MSG_EXECUTE LOG_TEXT UPS on battery");
    EXPECT_EQ(sent, 59);
    EXPECT_EQ(
        arriving(&sent, [](int fd) { return send_ok(fd, " %s\xe4\xff\n"); }),
        request + "  %s\xe4\xff\n");
}

TEST(send_ok, sends_up_to_4095_bytes_and_never_a_cut_command) {
    int32_t sent = 0;
    std::string fits(4095 - 24, 'c');
    EXPECT_EQ(
        arriving(&sent, [&](int fd) { return send_ok(fd, fits.c_str()); }),
        request + " " + fits);
    EXPECT_EQ(sent, 4095);
    for (size_t more : {1U, 2U, 100U, 10000U}) {
        std::string over = fits + std::string(more, 'c');
        EXPECT_EQ(
            arriving(&sent, [&](int fd) { return send_ok(fd, over.c_str()); }),
            "");
        EXPECT_EQ(sent, 0);
    }
}

TEST(send_ok, fails_on_a_bad_descriptor) {
    EXPECT_EQ(send_ok(-1, nullptr), 0);
    EXPECT_EQ(send_ok(-1, "MSG_EXECUTE SHUTDOWN"), 0);
}

TEST(udp_send_ok, sends_one_datagram) {
    ux_fd receiver(bound_socket(SOCK_DGRAM, "127.0.0.11"));
    ux_fd fd(bound_socket(SOCK_DGRAM));
    uint16_t port = local_port(receiver.get());
    EXPECT_EQ(udp_send_ok(fd.get(), port, "127.0.0.11", nullptr), 23);
    EXPECT_EQ(receive(receiver.get(), 23), request);
    EXPECT_EQ(udp_send_ok(fd.get(), port, "127.0.0.11", ""), 23);
    EXPECT_EQ(receive(receiver.get(), 23), request);
    EXPECT_EQ(udp_send_ok(fd.get(), port, "127.0.0.11", "MSG_EXECUTE x"), 37);
    EXPECT_EQ(receive(receiver.get(), 37), request + " MSG_EXECUTE x");
    EXPECT_TRUE(is_silent(receiver.get()));
}

TEST(udp_send_ok, sends_up_to_1471_bytes_and_never_a_cut_command) {
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    ux_fd fd(bound_socket(SOCK_DGRAM));
    uint16_t port = local_port(receiver.get());
    std::string fits(1471 - 24, 'c');
    EXPECT_EQ(udp_send_ok(fd.get(), port, "127.0.0.1", fits.c_str()), 1471);
    EXPECT_EQ(receive(receiver.get(), 1471), request + " " + fits);
    for (size_t more : {1U, 2U, 3U, 100U, 3000U}) {
        std::string over = fits + std::string(more, 'c');
        EXPECT_EQ(udp_send_ok(fd.get(), port, "127.0.0.1", over.c_str()), 0);
    }
    EXPECT_TRUE(is_silent(receiver.get()));
}

TEST(send_kesdal, lines_carry_the_descriptor_and_a_terminator) {
    struct row {
        int number;
        const char *field;
    };
    const row rows[] = {
        {3, "00003"},
        {5, "00005"},
        {42, "00042"},
        {255, "00255"},
    };
    tcp_pair pair;
    /* Out of the way of the numbers that are tried. */
    ux_fd far(fcntl(pair.far.get(), F_DUPFD_CLOEXEC, 300));
    ux_fd near(fcntl(pair.near.get(), F_DUPFD_CLOEXEC, 300));
    for (const row &one : rows) {
        int before = fcntl(one.number, F_DUPFD_CLOEXEC, 300);
        ASSERT_EQ(dup2(near.get(), one.number), one.number);
        std::string line = std::string("WINCLIENT ") + one.field;
        EXPECT_EQ(send_kesdal_logon(one.number), 22);
        EXPECT_EQ(receive(far.get(), 22),
                  line + " LOGON" + std::string(1, '\0'));
        EXPECT_EQ(send_kesdal_logoff(one.number), 23);
        EXPECT_EQ(receive(far.get(), 23),
                  line + " LOGOFF" + std::string(1, '\0'));
        EXPECT_TRUE(is_silent(far.get()));
        close(one.number);
        if (before >= 0) {
            dup2(before, one.number);
            close(before);
        }
    }
}

TEST(send_kesdal, fails_on_a_bad_descriptor) {
    EXPECT_EQ(send_kesdal_logon(-1), 0);
    EXPECT_EQ(send_kesdal_logoff(-1), 0);
}

TEST(recv_kesdal, judges_the_first_three_bytes) {
    EXPECT_EQ(judge("0|0"), 3);
    EXPECT_EQ(judge("1|0"), 3);
    EXPECT_EQ(judge("9|9 anything\r\n"), 14);
    EXPECT_EQ(judge(std::string("0|1\0more", 8)), 8);
    EXPECT_EQ(judge("0|1\xff"), 4);
    for (const char *bad :
         {"0:0", "7|", "|0", "0", "x|0", "0|x", " 0|0", "00|0", "0 |0", "-|0",
          "0||0", "\xb2|1", "1|\xb3", "WINCLIENT"}) {
        EXPECT_EQ(judge(bad), 0) << bad;
    }
    EXPECT_EQ(judge(std::string("\0|0", 3)), 0);
    EXPECT_EQ(judge(std::string("0\0|0", 4)), 0);
    EXPECT_EQ(judge(""), 0);
}

TEST(recv_kesdal, an_old_answer_does_not_complete_a_short_one) {
    EXPECT_EQ(judge("5|5"), 3);
    EXPECT_EQ(judge("5"), 0);
    EXPECT_EQ(judge("5|"), 0);
}

TEST(recv_kesdal, reads_at_most_4095_bytes_once) {
    tcp_pair pair;
    send_bytes_to(pair.far.get(), "0|1" + std::string(5000, 'x'));
    ASSERT_TRUE(wait_until([&] {
        char all[5003];
        return recv(pair.near.get(), all, sizeof all,
                    MSG_PEEK | MSG_DONTWAIT) == 5003;
    }));
    EXPECT_EQ(recv_kesdal(pair.near.get()), 4095);
    EXPECT_EQ(receive(pair.near.get(), 908).size(), 908u);
}

TEST(recv_kesdal, an_error_is_no_answer) {
    EXPECT_EQ(recv_kesdal(-1), 0);
    tcp_pair pair;
    set_nonblocking(pair.near.get());
    EXPECT_EQ(recv_kesdal(pair.near.get()), 0);
}

TEST(send_reply, formats_and_sends_without_terminator) {
    int32_t sent = 0;
    EXPECT_EQ(arriving(&sent,
                       [](int fd) {
                           return send_reply(fd, "%s COMMAND=%s PID=%d",
                                             REPLY_HEADER, "x", 12);
                       }),
              reply + " COMMAND=x PID=12");
    EXPECT_EQ(sent, 41);
}

TEST(send_reply, holds_up_to_4095_bytes) {
    int32_t sent = 0;
    std::string full(4095, 'r');
    EXPECT_EQ(
        arriving(&sent,
                 [&](int fd) { return send_reply(fd, "%s", full.c_str()); }),
        full);
    EXPECT_EQ(sent, 4095);
    EXPECT_EQ(send_reply(-1, "%s", "text"), 0);
}

TEST(is_reply_header, compares_24_characters_in_any_case) {
    EXPECT_TRUE(is_reply_header(reply.c_str()));
    EXPECT_TRUE(is_reply_header((reply + " COMMAND=").c_str()));
    EXPECT_TRUE(is_reply_header((reply + "x").c_str()));
    EXPECT_TRUE(is_reply_header("connect to tolva (reply)"));
    EXPECT_FALSE(is_reply_header("CONNECT TO TOLVA (REPLY"));
    EXPECT_FALSE(is_reply_header("CONNECT TO TOLVA (SEND) "));
    EXPECT_FALSE(is_reply_header((" " + reply).c_str()));
    EXPECT_FALSE(is_reply_header(""));
}

TEST(get_key_value, finds_the_value_of_a_word) {
    struct row {
        const char *text;
        const char *value;
    };
    const row rows[] = {
        {"EXITSTATUS=0", "0"},
        {"CONNECT TO TOLVA (REPLY) COMMAND=x PID=1 EXITSTATUS=3", "3"},
        {"\t EXITSTATUS=7 rest", "7"},
        {"EXITSTATUS=7\trest", "7"},
        {"a\tEXITSTATUS=-5", "-5"},
        /* A word that only begins with the key counts. */
        {"EXITSTATUSX=5", "5"},
        {"EXITSTATUS=a=b", "a=b"},
        {"EXITSTATUS=1 EXITSTATUS=2", "1"},
        {"EXITSTATUS=\xe4", "\xe4"},
        {"EXITSTATUS=7\n", "7\n"},
        {"XEXITSTATUS=5", "(none)"},
        {"X EXITSTATUS=5", "5"},
        {"exitstatus=5", "(none)"},
        {"EXITSTATUS", "(none)"},
        {"EXITSTATUS=", "(none)"},
        {"EXITSTATUS= ", "(none)"},
        {"EXITSTATUS=\t5", "(none)"},
        {"EXITSTATUS= 5", "(none)"},
        {"EXITSTATU=5", "(none)"},
        {"", "(none)"},
        {" \t", "(none)"},
    };
    for (const row &one : rows) {
        EXPECT_EQ(value_of(one.text, "EXITSTATUS"), one.value)
            << "[" << one.text << "]";
    }
}

TEST(get_key_value, cuts_the_value_to_the_buffer) {
    EXPECT_EQ(value_of("K=0123456789012345", "K"), "012345678901234");
    EXPECT_EQ(value_of("K=012345678901234", "K"), "012345678901234");
    EXPECT_EQ(value_of("K=abc", "K", 4), "abc");
    EXPECT_EQ(value_of("K=abc", "K", 3), "ab");
    EXPECT_EQ(value_of("K=abc", "K", 1), "");
    EXPECT_EQ(value_of(("K=" + std::string(5000, 'v')).c_str(), "K", 4096),
              std::string(4095, 'v'));
}

TEST(get_key_value, fails_without_buffer_or_text) {
    char out[4] = "old";
    EXPECT_EQ(get_key_value("K=1", "K", nullptr, 4), nullptr);
    EXPECT_EQ(get_key_value("K=1", "K", out, 0), nullptr);
    EXPECT_STREQ(out, "old");
    EXPECT_EQ(get_key_value(nullptr, "K", out, sizeof out), nullptr);
    EXPECT_STREQ(out, "");
}

TEST(map_remote_status, moves_failures_above_127) {
    struct row {
        int32_t status;
        int32_t mapped;
    };
    const row rows[] = {
        {0, 0},
        {1, 128},
        {2, 129},
        {3, 130},
        {127, 254},
        {128, 128},
        {129, 129},
        {200, 200},
        {254, 254},
        {255, 255},
        {256, 255},
        {300, 255},
        {-1, 128},
        {-300, 128},
        {126, 253},
        {2147483647, 255},
        {-2147483647 - 1, 128},
    };
    for (const row &one : rows) {
        EXPECT_EQ(map_remote_status(one.status), one.mapped) << one.status;
    }
}
