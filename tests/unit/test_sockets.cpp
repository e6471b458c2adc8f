/* Sockets made, bound, connected and asked, on loopback. */
#include "capture.h"
#include "descriptor_numbers.h"
#include "failing_calls.h"
#include "loopback.h"

#include "tolva2/net/sockets.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>

namespace {

int socket_option(int fd, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &value, &length), 0);
    return value;
}

struct creator {
    const char *name;
    ux_fd (*create)();
    int type;
    bool nonblocking;
    bool broadcast;
};

const creator creators[] = {
    {"tcp_socket", tcp_socket, SOCK_STREAM, false, false},
    {"tcp_socket_nonblock", tcp_socket_nonblock, SOCK_STREAM, true, false},
    {"udp_socket", udp_socket, SOCK_DGRAM, false, false},
    {"udp_socket_nonblock", udp_socket_nonblock, SOCK_DGRAM, true, false},
    {"udp_broadcast_socket", udp_broadcast_socket, SOCK_DGRAM, false, true},
    {"udp_broadcast_socket_nonblock", udp_broadcast_socket_nonblock, SOCK_DGRAM,
     true, true},
};

} // namespace

TEST(socket_creators, give_the_kind_of_socket_they_are_named_after) {
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        ux_fd fd = row.create();
        ASSERT_TRUE(fd);
        EXPECT_EQ(socket_option(fd.get(), SO_DOMAIN), AF_INET);
        EXPECT_EQ(socket_option(fd.get(), SO_TYPE), row.type);
        EXPECT_EQ(socket_option(fd.get(), SO_BROADCAST), row.broadcast ? 1 : 0);
        int flags = fcntl(fd.get(), F_GETFL);
        EXPECT_EQ((flags & O_NONBLOCK) != 0, row.nonblocking);
        EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    }
}

TEST(socket_creators, give_none_when_no_descriptor_is_left) {
    int before = descriptors_in_use();
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        no_descriptors limit;
        errno = 0;
        EXPECT_FALSE(row.create());
        EXPECT_EQ(errno, EMFILE);
    }
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST(socket_creators, leave_nothing_open_when_a_flag_cannot_be_set) {
    int before = descriptors_in_use();
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        for (int after = 0; row.nonblocking && after < 2; after++) {
            failing_call no_flags("fcntl", EIO, after);
            errno = 0;
            EXPECT_FALSE(row.create());
            EXPECT_EQ(errno, EIO);
        }
        if (row.broadcast) {
            failing_call no_option("setsockopt", EPROTO);
            errno = 0;
            EXPECT_FALSE(row.create());
            EXPECT_EQ(errno, EPROTO);
        }
    }
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST(socket_creators, trace_their_entry_above_level_5) {
    for (const creator &row : creators) {
        std::string line = std::string("TRACEIN: ") + row.name + "\n";
        std::string seen = traced(6, [&] { row.create(); });
        EXPECT_EQ(seen.substr(0, line.size()), line);
        EXPECT_EQ(traced(5, [&] { row.create(); }), "");
    }
}

TEST(descriptor_flags, close_on_exec_is_added) {
    ux_fd fd = tcp_socket();
    EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(set_close_on_exec(fd.get()));
    EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_FALSE(set_close_on_exec(-1));
}

TEST(socket_options, keep_alive_is_set_and_says_whether_it_could_be) {
    ux_fd fd = tcp_socket();
    EXPECT_EQ(socket_option(fd.get(), SO_KEEPALIVE), 0);
    EXPECT_TRUE(set_keep_alive(fd.get()));
    EXPECT_NE(socket_option(fd.get(), SO_KEEPALIVE), 0);
    EXPECT_FALSE(set_keep_alive(-1));
}

TEST(socket_options, a_port_is_anothers_too_while_both_allow_it) {
    ux_fd first = udp_socket();
    ASSERT_TRUE(sock_bind_to(first.get(), 0, "127.0.0.5"));
    uint16_t port = local_port(first.get());
    ux_fd second = udp_socket();
    EXPECT_TRUE(set_reuse(second.get(), true));
    EXPECT_FALSE(sock_bind_to(second.get(), port, "127.0.0.5"));
    EXPECT_TRUE(set_reuse(first.get(), true));
    EXPECT_TRUE(sock_bind_to(second.get(), port, "127.0.0.5"));
    EXPECT_TRUE(set_reuse(second.get(), false));
    ux_fd third = udp_socket();
    EXPECT_TRUE(set_reuse(third.get(), true));
    EXPECT_FALSE(sock_bind_to(third.get(), port, "127.0.0.5"));
    EXPECT_FALSE(set_reuse(-1, true));
}

TEST(shutdown_helpers, close_one_direction) {
    tcp_pair pair;
    EXPECT_TRUE(sock_shutdown_write(pair.near.get()));
    EXPECT_TRUE(is_closed(pair.far.get()));
    send_bytes_to(pair.far.get(), "still open");
    EXPECT_EQ(receive(pair.near.get(), 10), "still open");
    EXPECT_TRUE(sock_shutdown_read(pair.near.get()));
    EXPECT_TRUE(is_closed(pair.near.get()));
    EXPECT_TRUE(is_open(pair.near.get()));
}

TEST(shutdown_helpers, fail_without_a_connection) {
    ux_fd fd = tcp_socket();
    EXPECT_FALSE(sock_shutdown_read(fd.get()));
    EXPECT_FALSE(sock_shutdown_write(fd.get()));
    EXPECT_FALSE(sock_shutdown_read(-1));
    EXPECT_FALSE(sock_shutdown_write(-1));
}

TEST(sock_connect, reaches_a_listener) {
    ux_fd listener(listening_socket());
    sockaddr_in address = loopback("127.0.0.1", local_port(listener.get()));
    ux_fd first = tcp_socket();
    EXPECT_TRUE(sock_connect(first.get(), &address));
    ux_fd second = tcp_socket();
    EXPECT_TRUE(
        sock_connect_to(second.get(), local_port(listener.get()), "127.0.0.1"));
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(wait_for(listener.get(), POLLIN));
        ux_fd peer(accept(listener.get(), nullptr, nullptr));
        EXPECT_GE(peer.get(), 0);
    }
}

TEST(sock_connect, under_way_counts_as_success) {
    ux_fd listener(listening_socket());
    sockaddr_in address = loopback("127.0.0.1", local_port(listener.get()));
    ux_fd fd = tcp_socket_nonblock();
    EXPECT_TRUE(sock_connect(fd.get(), &address));
    ASSERT_TRUE(wait_for(fd.get(), POLLOUT));
    EXPECT_EQ(sock_pending_error(fd.get()), 0);
}

TEST(sock_connect, refusal_is_failure_or_shows_as_pending_error) {
    ux_fd holder;
    uint16_t port = refusing_port(&holder);
    ux_fd blocking = tcp_socket();
    EXPECT_FALSE(sock_connect_to(blocking.get(), port, "127.0.0.1"));
    EXPECT_EQ(errno, ECONNREFUSED);

    ux_fd fd = tcp_socket_nonblock();
    if (!sock_connect_to(fd.get(), port, "127.0.0.1")) {
        EXPECT_EQ(errno, ECONNREFUSED);
    } else {
        ASSERT_TRUE(wait_for(fd.get(), POLLOUT));
        EXPECT_EQ(sock_pending_error(fd.get()), ECONNREFUSED);
        EXPECT_EQ(sock_pending_error(fd.get()), 0);
    }
}

TEST(sock_connect, an_older_errno_is_not_taken_for_progress) {
    sockaddr_in address = loopback("127.0.0.1", 1);
    errno = EINPROGRESS;
    EXPECT_FALSE(sock_connect(-1, &address));
    EXPECT_EQ(errno, EBADF);
}

TEST(bind_helpers, bind_to_the_address_they_are_given) {
    ux_fd any = tcp_socket();
    EXPECT_TRUE(sock_bind_any(any.get(), 0));
    EXPECT_EQ(local_name(any.get()).sin_addr.s_addr, INADDR_ANY);
    EXPECT_NE(local_port(any.get()), 0);

    ux_fd one = udp_socket();
    EXPECT_TRUE(sock_bind_to(one.get(), 0, "127.0.0.5"));
    EXPECT_EQ(local_name(one.get()).sin_addr.s_addr, inet_addr("127.0.0.5"));

    ux_fd same = udp_socket();
    EXPECT_FALSE(sock_bind_to(same.get(), local_port(one.get()), "127.0.0.5"));
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_FALSE(sock_bind_any(-1, 0));
}

TEST(bind_helpers, an_address_that_does_not_convert_means_any) {
    ux_fd fd = tcp_socket();
    EXPECT_TRUE(sock_bind_to(fd.get(), 0, "no address"));
    EXPECT_EQ(local_name(fd.get()).sin_addr.s_addr, INADDR_ANY);
}

TEST(listen_helpers, make_a_listener) {
    ux_fd any = tcp_socket();
    EXPECT_TRUE(sock_listen_any(any.get(), 0));
    EXPECT_EQ(socket_option(any.get(), SO_ACCEPTCONN), 1);
    EXPECT_EQ(local_name(any.get()).sin_addr.s_addr, INADDR_ANY);

    ux_fd one = tcp_socket();
    EXPECT_TRUE(sock_listen_to(one.get(), 0, "127.0.0.6"));
    EXPECT_EQ(socket_option(one.get(), SO_ACCEPTCONN), 1);
    EXPECT_EQ(local_name(one.get()).sin_addr.s_addr, inet_addr("127.0.0.6"));
    ux_fd peer(
        connected_socket(local_port(one.get()), "127.0.0.1", "127.0.0.6"));
}

TEST(listen_helpers, fail_on_a_port_in_use_and_on_datagram_sockets) {
    ux_fd listener(listening_socket());
    ux_fd second = tcp_socket();
    EXPECT_FALSE(
        sock_listen_to(second.get(), local_port(listener.get()), "127.0.0.1"));
    EXPECT_EQ(socket_option(second.get(), SO_ACCEPTCONN), 0);
    ux_fd third = tcp_socket();
    EXPECT_FALSE(sock_listen_any(third.get(), local_port(listener.get())));
    ux_fd datagrams = udp_socket();
    EXPECT_FALSE(sock_listen_to(datagrams.get(), 0, "127.0.0.1"));
}

TEST(listen_helpers, a_hundred_and_twenty_connections_wait_in_the_backlog) {
    EXPECT_EQ(LISTEN_BACKLOG, 128);
    for (bool any : {true, false}) {
        ux_fd listener = tcp_socket();
        ASSERT_TRUE(any ? sock_listen_any(listener.get(), 0)
                        : sock_listen_to(listener.get(), 0, "127.0.0.1"));
        std::vector<ux_fd> waiting;
        for (int i = 0; i < 120; i++) {
            waiting.push_back(tcp_socket_nonblock());
            ASSERT_TRUE(sock_connect_to(
                waiting.back().get(), local_port(listener.get()), "127.0.0.1"));
        }
        /* All at once: nobody is let in to make room for the next. */
        for (const ux_fd &one : waiting) {
            ASSERT_TRUE(wait_for(one.get(), POLLOUT));
        }
        set_nonblocking(listener.get());
        for (int i = 0; i < 120; i++) {
            ASSERT_TRUE(wait_for(listener.get(), POLLIN));
            ux_fd peer = sock_accept(listener.get(), nullptr, nullptr);
            ASSERT_TRUE(peer) << "connection " << i;
        }
    }
}

TEST(sock_accept, gives_descriptor_and_peer) {
    ux_fd listener(listening_socket());
    ux_fd near(connected_socket(local_port(listener.get()), "127.0.0.7"));
    sockaddr_in from = loopback("0.0.0.0", 0);
    socklen_t length = sizeof from;
    ux_fd peer = sock_accept(listener.get(), &from, &length);
    ASSERT_TRUE(peer);
    EXPECT_EQ(from.sin_addr.s_addr, inet_addr("127.0.0.7"));
    EXPECT_EQ(ntohs(from.sin_port), local_port(near.get()));
    EXPECT_FALSE(sock_accept(-1, &from, &length));
}

TEST(sock_accept_peer, gives_the_dotted_address_cut_to_the_buffer) {
    ux_fd listener(listening_socket());
    struct row {
        size_t size;
        const char *expected;
    };
    const row rows[] = {
        {16, "127.0.0.8"}, {10, "127.0.0.8"}, {9, "127.0.0."},
        {5, "127."},       {1, ""},
    };
    for (const row &one : rows) {
        ux_fd near(connected_socket(local_port(listener.get()), "127.0.0.8"));
        char buffer[32];
        memset(buffer, '#', sizeof buffer);
        ux_fd peer(sock_accept_peer(listener.get(), buffer, one.size));
        EXPECT_GT(peer.get(), 0);
        EXPECT_STREQ(buffer, one.expected);
        EXPECT_EQ(buffer[one.size], '#');
    }
}

TEST(sock_accept_peer, needs_no_buffer) {
    ux_fd listener(listening_socket());
    char untouched[] = "untouched";
    char *buffers[] = {nullptr, untouched};
    for (char *buffer : buffers) {
        ux_fd near(connected_socket(local_port(listener.get())));
        ux_fd peer(sock_accept_peer(listener.get(), buffer, buffer ? 0 : 16));
        EXPECT_GT(peer.get(), 0);
    }
    EXPECT_STREQ(untouched, "untouched");
}

TEST(sock_accept_peer, gives_zero_on_failure) {
    char buffer[16] = "untouched";
    EXPECT_EQ(sock_accept_peer(-1, buffer, sizeof buffer), 0);
    ux_fd listener(listening_socket());
    set_nonblocking(listener.get());
    EXPECT_EQ(sock_accept_peer(listener.get(), buffer, sizeof buffer), 0);
}

TEST(sock_pending_error, tells_why_it_could_not_ask) {
    EXPECT_EQ(sock_pending_error(-1), EBADF);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(sock_pending_error(ends[0]), ENOTSOCK);
    close(ends[0]);
    close(ends[1]);
}

TEST(sock_pending_error, is_zero_on_a_good_socket_and_clears_errno) {
    tcp_pair pair;
    errno = EPERM;
    EXPECT_EQ(sock_pending_error(pair.near.get()), 0);
    EXPECT_EQ(errno, 0);
}

TEST(sock_pending_error, tells_a_reset_once) {
    tcp_pair pair;
    reset_connection(&pair.far);
    ASSERT_TRUE(wait_for(pair.near.get(), POLLIN));
    EXPECT_EQ(sock_pending_error(pair.near.get()), ECONNRESET);
    EXPECT_EQ(sock_pending_error(pair.near.get()), 0);
}

TEST(is_dotted_address, follows_inet_aton) {
    for (const char *valid :
         {"1.2.3.4", "0.0.0.0", "255.255.255.255", "10.1", "127", "0x7f.1",
          "010.0.0.1", "127.0.0.1 trailing"}) {
        EXPECT_TRUE(is_dotted_address(valid)) << valid;
    }
    for (const char *invalid :
         {"", "localhost", "1.2.3.256", "1.2.3.4.5", "::1", "[::1]", "1.2.3.x",
          "127.0.0.1,", " 127.0.0.1", "4294967296", "\xe4"}) {
        EXPECT_FALSE(is_dotted_address(invalid)) << invalid;
    }
}

TEST(same_address, compares_what_inet_addr_reads) {
    EXPECT_TRUE(same_address("10.0.0.1", "10.0.0.1"));
    EXPECT_TRUE(same_address("10.0.0.1", "10.0.0.01"));
    EXPECT_TRUE(same_address("10.0.0.1", "10.1"));
    EXPECT_TRUE(same_address("010.0.0.1", "8.0.0.1"));
    EXPECT_FALSE(same_address("010.0.0.1", "10.0.0.1"));
    EXPECT_FALSE(same_address("10.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(same_address("no address", "10.0.0.2"));
    /* Both read as the value for "no address". */
    EXPECT_TRUE(same_address("no address", "255.255.255.255"));
}
