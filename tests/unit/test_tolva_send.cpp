/* Send and check mode: whole runs. */
#include "address_list.h"
#include "failing_calls.h"
#include "sender_fixture.h"

#include <sys/time.h>
#include <thread>

namespace {

/* A peer that plays its part in a thread, for one connection. */
template <typename part_type> class scripted_peer {
  public:
    explicit scripted_peer(part_type part, const char *address = "127.0.0.1")
        : listening(listening_socket(address)) {
        thread = std::thread([this, part] {
            if (wait_for(listening.get(), POLLIN)) {
                ux_fd peer(accept(listening.get(), nullptr, nullptr));
                part(peer.get());
            }
        });
    }
    ~scripted_peer() { thread.join(); }
    scripted_peer(const scripted_peer &) = delete;
    scripted_peer &operator=(const scripted_peer &) = delete;
    uint16_t port() const { return local_port(listening.get()); }

  private:
    ux_fd listening;
    std::thread thread;
};

/* A listener that answers a request with that reply, and closes. */
auto answering(const std::string &reply) {
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

/* One whole run with the state of a new process. */
int32_t whole_run(const address_list &addresses, int32_t port, int32_t timeout,
                  const char *text) {
    sender::run = {};
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
std::string sent_to(int listener) {
    if (!wait_for(listener, POLLIN)) {
        return "(nobody came)";
    }
    ux_fd peer(accept(listener, nullptr, nullptr));
    return receive_all(peer.get());
}

} // namespace

TEST(send_mode, sends_to_every_listener) {
    operator_log log;
    ux_fd one(listening_socket());
    ux_fd two(listening_socket("127.0.0.2"));
    address_list to;
    to.add("127.0.0.1", local_port(one.get()));
    to.add("127.0.0.2", local_port(two.get()));
    int before = descriptors_in_use();
    EXPECT_EQ(whole_run(to, 6003, 10, "MSG_EXECUTE SHUTDOWN"), 0);
    EXPECT_EQ(descriptors_in_use(), before);
    EXPECT_EQ(sent_to(one.get()), request_header + " MSG_EXECUTE SHUTDOWN");
    EXPECT_EQ(sent_to(two.get()), request_header + " MSG_EXECUTE SHUTDOWN");
    log_lines seen = log.lines();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0], message(785, {"127.0.0.1"}));
    EXPECT_EQ(seen[1], message(785, {"127.0.0.2"}));
}

TEST(send_mode, uses_the_default_port) {
    operator_log log;
    ux_fd listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", 0);
    EXPECT_EQ(whole_run(to, local_port(listener.get()), 10, nullptr), 0);
    EXPECT_EQ(sent_to(listener.get()), request_header);
}

TEST(send_mode, one_unreachable_listener_stops_no_other) {
    operator_log log;
    ux_fd holder;
    ux_fd listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", refusing_port(&holder));
    to.add("127.0.0.1", local_port(listener.get()));
    EXPECT_EQ(whole_run(to, 6003, 10, nullptr), 1);
    EXPECT_EQ(sent_to(listener.get()), request_header);
}

TEST(send_mode, gives_the_mapped_status_of_the_reply) {
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

TEST(send_mode, a_failure_outweighs_a_status) {
    operator_log log;
    ux_fd holder;
    scripted_peer listener(answering(status_reply(200)));
    address_list to;
    to.add("127.0.0.1", refusing_port(&holder), MODE_SEND_STATUS);
    to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
    EXPECT_EQ(whole_run(to, 6003, 10, "MSG_EXECSTATUS EXECUTE x"), 1);
}

TEST(send_mode, a_listener_that_closes_without_reply_is_a_failure) {
    operator_log log;
    scripted_peer listener(answering(""));
    address_list to;
    to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
    EXPECT_EQ(whole_run(to, 6003, 10, nullptr), 1);
    const log_lines expected = {message(785, {"127.0.0.1"}), message(819, {})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, gives_up_when_the_time_is_over) {
    operator_log log;
    ux_fd listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", local_port(listener.get()), MODE_SEND_STATUS);
    int before = descriptors_in_use();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(whole_run(to, 6003, 2, nullptr), 1);
    auto took = std::chrono::steady_clock::now() - start;
    /* Whole seconds: of the first one little may have been left. */
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(10));
    const log_lines expected = {message(785, {"127.0.0.1"}),
                                error_line(ETIMEDOUT)};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST(send_mode, waits_without_limit_for_a_time_of_0) {
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

TEST(send_mode, an_interrupted_wait_goes_on) {
    operator_log log;
    struct sigaction action {};
    struct sigaction before;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    itimerval often{{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    {
        /* None of them for the listener's thread, from its first moment on. */
        sigset_t all;
        sigset_t mask;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &mask);
        scripted_peer listener([](int fd) {
            receive(fd, request_header.size());
            pollfd nothing{fd, 0, 0};
            poll(&nothing, 1, 300);
            send_bytes_to(fd, status_reply(7));
        });
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        address_list to;
        to.add("127.0.0.1", listener.port(), MODE_SEND_STATUS);
        EXPECT_EQ(whole_run(to, 6003, 20, nullptr), 134);
    }
    itimerval off{{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(send_mode, a_wait_that_fails_ends_the_run) {
    operator_log log;
    ux_fd listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", local_port(listener.get()));
    int before = descriptors_in_use();
    failing_call broken("pselect", ENOMEM);
    EXPECT_EQ(whole_run(to, 6003, 10, nullptr), 1);
    EXPECT_EQ(descriptors_in_use(), before);
    const log_lines expected = {message(785, {"127.0.0.1"}),
                                system_line(ENOMEM)};
    EXPECT_EQ(log.lines(), expected);
}

TEST(send_mode, sends_a_broadcast_once_and_awaits_nothing) {
    operator_log log;
    ux_fd receiver(bound_socket(SOCK_DGRAM));
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

TEST(send_mode, checks_a_server_by_logon_and_logoff) {
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

TEST(send_mode, a_server_that_answers_badly_is_not_alive) {
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

TEST(send_mode, fails_when_nothing_can_be_started) {
    operator_log log;
    address_list none;
    EXPECT_EQ(whole_run(none, 6003, 10, nullptr), 1);
    EXPECT_EQ(log.lines(), log_lines{});

    ux_fd listener(listening_socket());
    address_list to;
    to.add("127.0.0.1", local_port(listener.get()));
    int32_t budget = max_fds;
    max_fds = 0;
    sender::run = {};
    EXPECT_EQ(send_mode(to.get(), 6003, 10, nullptr), 1);
    max_fds = budget;
    EXPECT_EQ(log.lines(), log_lines{error_line(EMFILE)});
}

TEST(send_mode, connections_beyond_the_budget_are_failures) {
    operator_log log;
    ux_fd listener(listening_socket());
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

TEST(send_mode, ignores_hangup_and_broken_pipes) {
    operator_log log;
    address_list none;
    sender::run = {};
    EXPECT_EQ(send_mode(none.get(), 6003, 10, nullptr), 1);
    for (int number : {SIGHUP, SIGPIPE}) {
        struct sigaction action;
        sigaction(number, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN);
        signal(number, SIG_DFL);
    }
}

/* A limit of N seconds is never short, and never as long as N + 1. */
TEST(whole_seconds, are_those_of_the_run) {
    struct {
        timespec start, end;
        int64_t passed;
    } rows[] = {
        {{5, 0}, {5, 999999999}, 0},
        {{5, 900000000}, {6, 0}, 0},
        {{5, 900000000}, {6, 899999999}, 0},
        {{5, 900000000}, {6, 900000000}, 1},
        {{5, 1}, {8, 0}, 2},
        {{5, 1}, {8, 1}, 3},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(sender::whole_seconds(row.start, row.end), row.passed)
            << row.start.tv_nsec << " " << row.end.tv_nsec;
    }
}
