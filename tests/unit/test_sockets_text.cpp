/* Texts sent and received, as a stream and in datagrams. */
#include "loopback.h"

#include "tolva2/net/sockets.h"

#include <csignal>

TEST(sock_send_text, sends_the_characters_without_terminator) {
    tcp_pair pair;
    EXPECT_EQ(sock_send_text(pair.near.get(), "x"), 1);
    EXPECT_EQ(sock_send_text(pair.near.get(), "\xff\xc3\xa4 y"), 5);
    pair.near.reset();
    EXPECT_EQ(receive_all(pair.far.get()), "x\xff\xc3\xa4 y");
}

TEST(sock_send_text0, sends_the_terminator_too) {
    tcp_pair pair;
    EXPECT_EQ(sock_send_text0(pair.near.get(), "abc"), 4);
    pair.near.reset();
    EXPECT_EQ(receive_all(pair.far.get()), std::string("abc\0", 4));
}

TEST(stream_senders, refuse_what_is_null_empty_or_too_long) {
    tcp_pair pair;
    std::string full(4095, 'f');
    std::string over(4096, 'o');
    for (auto *send_text : {sock_send_text, sock_send_text0}) {
        EXPECT_EQ(send_text(pair.near.get(), nullptr), 0);
        EXPECT_EQ(send_text(pair.near.get(), ""), 0);
        EXPECT_EQ(send_text(pair.near.get(), over.c_str()), 0);
        EXPECT_EQ(send_text(pair.near.get(), (over + over).c_str()), 0);
    }
    EXPECT_TRUE(is_silent(pair.far.get()));
    EXPECT_EQ(sock_send_text(pair.near.get(), full.c_str()), 4095);
    EXPECT_EQ(receive(pair.far.get(), 4095), full);
    EXPECT_EQ(sock_send_text0(pair.near.get(), full.c_str()), 4096);
    EXPECT_EQ(receive(pair.far.get(), 4096), full + std::string(1, '\0'));
    EXPECT_TRUE(is_silent(pair.far.get()));
}

TEST(stream_senders, a_closed_peer_is_a_failure_not_a_signal) {
    for (auto *send_text : {sock_send_text, sock_send_text0}) {
        tcp_pair pair;
        reset_connection(&pair.far);
        ASSERT_TRUE(wait_for(pair.near.get(), POLLIN));
        signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(send_text(pair.near.get(), "text"), 0);
        EXPECT_EQ(send_text(pair.near.get(), "text"), 0);
        signal(SIGPIPE, SIG_DFL);
    }
    EXPECT_EQ(sock_send_text(-1, "text"), 0);
    EXPECT_EQ(sock_send_text0(-1, "text"), 0);
}

TEST(stream_senders, a_part_of_the_text_is_a_failure) {
    tcp_pair pair;
    set_nonblocking(pair.near.get());
    std::string text(4095, 't');
    /* Odd pieces, so that the room left is no multiple of the text. */
    while (send(pair.near.get(), text.data(), 1021, MSG_NOSIGNAL) > 0) {
    }
    EXPECT_EQ(sock_send_text(pair.near.get(), text.c_str()), 0);
    EXPECT_EQ(sock_send_text0(pair.near.get(), text.c_str()), 0);
}

TEST(udp_send_text, sends_one_datagram_to_the_address) {
    ux_fd receiver(bound_socket(SOCK_DGRAM, "127.0.0.9"));
    ux_fd fd = udp_socket();
    uint16_t port = local_port(receiver.get());
    EXPECT_EQ(udp_send_text(fd.get(), port, "127.0.0.9", "hello \xfc"), 7);
    EXPECT_EQ(receive(receiver.get(), 7), "hello \xfc");
    EXPECT_TRUE(is_silent(receiver.get()));
}

TEST(udp_send_text, takes_up_to_1472_characters) {
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    ux_fd fd = udp_socket();
    uint16_t port = local_port(receiver.get());
    std::string full(1472, 'u');
    EXPECT_EQ(udp_send_text(fd.get(), port, "127.0.0.1", full.c_str()), 1472);
    EXPECT_EQ(receive(receiver.get(), 1472), full);
    EXPECT_EQ(udp_send_text(fd.get(), port, "127.0.0.1", (full + "x").c_str()),
              0);
    EXPECT_EQ(udp_send_text(fd.get(), port, "127.0.0.1", ""), 0);
    EXPECT_EQ(udp_send_text(fd.get(), port, "127.0.0.1", nullptr), 0);
    EXPECT_EQ(udp_send_text(-1, port, "127.0.0.1", "x"), 0);
    EXPECT_TRUE(is_silent(receiver.get()));
}

TEST(sock_recv_text, gives_one_terminated_text) {
    tcp_pair pair;
    char buffer[4096];
    memset(buffer, '#', sizeof buffer);
    send_bytes_to(pair.far.get(), "one \xe4");
    ASSERT_TRUE(wait_for(pair.near.get(), POLLIN));
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer, sizeof buffer), 5);
    EXPECT_STREQ(buffer, "one \xe4");
    EXPECT_EQ(buffer[6], '#');
}

TEST(sock_recv_text, keeps_nul_bytes_and_counts_them) {
    tcp_pair pair;
    char buffer[16];
    send_bytes_to(pair.far.get(), std::string("a\0b\0", 4));
    ASSERT_TRUE(wait_for(pair.near.get(), POLLIN));
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 5), std::string("a\0b\0\0", 5));
}

TEST(sock_recv_text, reads_at_most_4095_bytes_and_leaves_the_rest) {
    tcp_pair pair;
    char buffer[4096];
    memset(buffer, '#', sizeof buffer);
    std::string sent(5000, 's');
    send_bytes_to(pair.far.get(), sent);
    ASSERT_TRUE(wait_until([&] {
        char all[5000];
        return recv(pair.near.get(), all, sizeof all,
                    MSG_PEEK | MSG_DONTWAIT) == 5000;
    }));
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer, sizeof buffer), 4095);
    EXPECT_EQ(std::string(buffer), sent.substr(0, 4095));
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer, 10), 9);
    EXPECT_STREQ(buffer, "sssssssss");
    EXPECT_EQ(receive(pair.near.get(), 896).size(), 896u);
    EXPECT_TRUE(is_silent(pair.near.get()));
}

TEST(sock_recv_text, refuses_a_larger_buffer_without_reading) {
    tcp_pair pair;
    std::vector<char> buffer(5000, '#');
    send_bytes_to(pair.far.get(), "kept");
    ASSERT_TRUE(wait_for(pair.near.get(), POLLIN));
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer.data(), 4097), 0);
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer.data(), 0), 0);
    EXPECT_EQ(receive(pair.near.get(), 4), "kept");
}

TEST(sock_recv_text, end_and_error_give_zero_and_an_empty_text) {
    tcp_pair pair;
    char buffer[8] = "old";
    pair.far.reset();
    ASSERT_TRUE(wait_for(pair.near.get(), POLLIN));
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
    strcpy(buffer, "old");
    EXPECT_EQ(sock_recv_text(-1, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(udp_recv_text, gives_text_and_sender) {
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    ux_fd sender(bound_socket(SOCK_DGRAM, "127.0.0.10"));
    sockaddr_in to = local_name(receiver.get());
    std::string bytes("n\0ul", 4);
    ASSERT_EQ(sendto(sender.get(), bytes.data(), bytes.size(), 0, generic(&to),
                     sizeof to),
              4);
    ASSERT_TRUE(wait_for(receiver.get(), POLLIN));
    sockaddr_in from = loopback("0.0.0.0", 0);
    socklen_t length = sizeof from;
    char buffer[16];
    EXPECT_EQ(
        udp_recv_text(receiver.get(), &from, &length, buffer, sizeof buffer),
        4);
    EXPECT_EQ(std::string(buffer, 5), bytes + std::string(1, '\0'));
    EXPECT_EQ(from.sin_addr.s_addr, inet_addr("127.0.0.10"));
    EXPECT_EQ(ntohs(from.sin_port), local_port(sender.get()));
}

TEST(udp_recv_text, cuts_a_datagram_that_is_longer) {
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    ux_fd sender = udp_socket();
    ASSERT_EQ(udp_send_text(sender.get(), local_port(receiver.get()),
                            "127.0.0.1", "0123456789"),
              10);
    ASSERT_TRUE(wait_for(receiver.get(), POLLIN));
    char buffer[6];
    EXPECT_EQ(
        udp_recv_text(receiver.get(), nullptr, nullptr, buffer, sizeof buffer),
        5);
    EXPECT_STREQ(buffer, "01234");
    EXPECT_TRUE(is_silent(receiver.get()));
}

TEST(udp_recv_text, error_gives_zero_and_an_empty_text) {
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    set_nonblocking(receiver.get());
    sockaddr_in from;
    socklen_t length = sizeof from;
    char buffer[8] = "old";
    EXPECT_EQ(
        udp_recv_text(receiver.get(), &from, &length, buffer, sizeof buffer),
        0);
    EXPECT_STREQ(buffer, "");
}

TEST(sock_recv_text, one_byte_is_a_text_too) {
    tcp_pair pair;
    send_bytes_to(pair.far.get(), "x");
    char buffer[8] = "????";
    EXPECT_EQ(sock_recv_text(pair.near.get(), buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, "x");
}

TEST(udp_recv_text, without_a_buffer_reads_nothing) {
    ux_fd receiver(bound_socket(SOCK_DGRAM));
    ux_fd sender(bound_socket(SOCK_DGRAM));
    sockaddr_in to = local_name(receiver.get());
    ASSERT_EQ(
        sendto(sender.get(), "text", 4, 0, generic_address(&to), sizeof to), 4);
    ASSERT_TRUE(wait_for(receiver.get(), POLLIN));
    set_nonblocking(receiver.get());
    char buffer[8] = "?";
    EXPECT_EQ(udp_recv_text(receiver.get(), nullptr, nullptr, nullptr, 8), 0);
    EXPECT_EQ(udp_recv_text(receiver.get(), nullptr, nullptr, buffer, 0), 0);
    EXPECT_STREQ(buffer, "?");
    EXPECT_TRUE(wait_for(receiver.get(), POLLIN)) << "it is still there";
    /* Room for the terminator alone: the datagram is taken, and lost. */
    EXPECT_EQ(udp_recv_text(receiver.get(), nullptr, nullptr, buffer, 1), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_LT(recv(receiver.get(), buffer, sizeof buffer, 0), 0);
}
