/* Who is let in, and what is done while nobody can be. */
#include "address_list.h"
#include "failing_calls.h"
#include "listener_fixture.h"

#include "tolva2/files/reserve.h"
#include "tolva2/listen/client.h"

namespace {

in_addr address_of(const char *dotted) { return loopback(dotted, 0).sin_addr; }

ux_fd any_socket() { return ux_fd(bound_socket(SOCK_STREAM)); }

/* A listening socket as the daemon has it, with connections to it. */
class tcp_door : public listener {
  public:
    tcp_door() : door(ux_fd(listening_socket()), EVENT_READABLE) {
        set_nonblocking(door.get());
    }
    ~tcp_door() { give_up_reserve(); }
    int knock(const char *from = "127.0.0.1") {
        callers.emplace_back(connected_socket(local_port(door.get()), from));
        EXPECT_TRUE(wait_for(door.get(), POLLIN));
        return callers.back().get();
    }
    void open_for(const char *allowed_text, time_t deadline = 1000) {
        address_list allowed(allowed_text);
        handle_tcp_connect(door.get(), allowed.get(), deadline, &pause);
    }
    /* More sockets than one client and its listeners have. */
    void fill_house() {
        for (watched_fd &other : others) {
            other = watched_fd(any_socket(), EVENT_NONE);
        }
    }
    watched_fd door;
    watched_fd others[3];
    std::vector<ux_fd> callers;
    accept_pause pause{};
};

} // namespace

TEST(client_is_allowed, compares_addresses_and_no_ports) {
    address_list allowed("127.0.0.1:99 10.0.0.2 10.3");
    for (const char *yes : {"127.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        in_addr address = address_of(yes);
        EXPECT_TRUE(client_is_allowed(allowed.get(), &address)) << yes;
    }
    for (const char *no :
         {"127.0.0.2", "10.0.0.1", "1.0.0.127", "255.255.255.255"}) {
        in_addr address = address_of(no);
        EXPECT_FALSE(client_is_allowed(allowed.get(), &address)) << no;
    }
}

TEST(client_is_allowed, an_empty_list_holds_nobody) {
    address_list allowed;
    in_addr address = address_of("127.0.0.1");
    EXPECT_FALSE(client_is_allowed(allowed.get(), &address));
}

TEST(client_is_allowed, stops_at_a_node_without_address) {
    address_list allowed("127.0.0.1 127.0.0.2");
    ASSERT_EQ(ux_list_ins_next(allowed.get(), allowed.get()->head, nullptr), 0);
    in_addr first = address_of("127.0.0.1");
    in_addr second = address_of("127.0.0.2");
    EXPECT_TRUE(client_is_allowed(allowed.get(), &first));
    EXPECT_FALSE(client_is_allowed(allowed.get(), &second));
}

TEST(client_is_allowed_death, an_address_of_zero_is_none) {
    address_list allowed("127.0.0.1");
    in_addr zero = address_of("0.0.0.0");
    EXPECT_DEATH(static_cast<void>(client_is_allowed(allowed.get(), &zero)),
                 "client\\.cpp:.*`sin_addr && "
                 "sin_addr->s_addr'");
    EXPECT_DEATH(static_cast<void>(client_is_allowed(allowed.get(), nullptr)),
                 "`sin_addr && sin_addr->s_addr'");
}

TEST(handle_tcp_connect, lets_a_client_in) {
    tcp_door tcp;
    tcp.settings.listenport = 7007;
    int caller = tcp.knock("127.0.0.12");
    tcp.open_for("", 4711);
    ASSERT_EQ(clients->size, 1u);
    const connection *cn = record_of(clients->head);
    ASSERT_TRUE(cn->fd);
    EXPECT_EQ(cn->mode, MODE_LISTEN);
    EXPECT_EQ(cn->type, ADDR_PEER);
    EXPECT_STREQ(cn->ipaddr, "127.0.0.12");
    EXPECT_EQ(cn->addr.sin_addr.s_addr, inet_addr("127.0.0.12"));
    EXPECT_EQ(ntohs(cn->addr.sin_port), local_port(caller));
    EXPECT_EQ(cn->port, 7007u);
    EXPECT_EQ(cn->deadline, 4711);
    EXPECT_FALSE(cn->busy);
    EXPECT_EQ(watched(cn->fd), EVENT_READABLE);
    EXPECT_EQ(open_descriptors(), 2);
    EXPECT_GE(highest_descriptor(), cn->fd.get());
    EXPECT_NE(fcntl(cn->fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(is_silent(caller));
    EXPECT_EQ(tcp.log.lines(), log_lines{});
}

TEST(handle_tcp_connect, finds_out_when_a_client_has_lost_its_power) {
    tcp_door tcp;
    tcp.knock();
    tcp.open_for("");
    ASSERT_EQ(clients->size, 1u);
    int keeps_alive = 0;
    socklen_t size = sizeof keeps_alive;
    ASSERT_EQ(getsockopt(record_of(clients->head)->fd.get(), SOL_SOCKET,
                         SO_KEEPALIVE, &keeps_alive, &size),
              0);
    EXPECT_NE(keeps_alive, 0);
}

TEST(handle_tcp_connect, the_longest_address_is_kept_whole) {
    tcp_door tcp;
    tcp.knock("127.100.100.100");
    tcp.open_for("");
    ASSERT_EQ(clients->size, 1u);
    EXPECT_STREQ(record_of(clients->head)->ipaddr, "127.100.100.100");
}

TEST(handle_tcp_connect, appends_in_the_order_of_arrival) {
    tcp_door tcp;
    tcp.knock("127.0.0.12");
    tcp.knock("127.0.0.13");
    tcp.open_for("");
    tcp.open_for("");
    ASSERT_EQ(clients->size, 2u);
    EXPECT_STREQ(record_of(clients->head)->ipaddr, "127.0.0.12");
    EXPECT_STREQ(record_of(clients->tail)->ipaddr, "127.0.0.13");
}

TEST(handle_tcp_connect, admits_only_who_is_on_a_list_that_is_not_empty) {
    tcp_door tcp;
    int refused = tcp.knock("127.0.0.12");
    tcp.open_for("127.0.0.1 10.0.0.1");
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_closed(refused));
    EXPECT_EQ(open_descriptors(), 1);
    EXPECT_EQ(tcp.log.lines(), log_lines{message(835, {"127.0.0.12"})});
    tcp.knock("127.0.0.12");
    tcp.open_for("10.0.0.1 127.0.0.12");
    EXPECT_EQ(clients->size, 1u);
}

TEST(handle_tcp_connect, the_refused_one_gives_its_number_to_the_log) {
    tcp_door tcp;
    int caller = tcp.knock("127.0.0.12");
    {
        no_descriptors one_left(1);
        tcp.open_for("10.0.0.1");
    }
    EXPECT_TRUE(is_closed(caller));
    EXPECT_EQ(tcp.log.lines(), log_lines{message(835, {"127.0.0.12"})});
}

TEST(handle_tcp_connect, leaves_clients_waiting_while_the_budget_is_used_up) {
    tcp_door tcp;
    int caller = tcp.knock();
    max_fds = open_descriptors();
    tcp.open_for("");
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_silent(caller));
    EXPECT_TRUE(wait_for(tcp.door.get(), POLLIN));
    EXPECT_EQ(tcp.log.lines(), log_lines{});
    max_fds = open_descriptors() + 1;
    tcp.open_for("");
    EXPECT_EQ(clients->size, 1u);
    EXPECT_EQ(open_descriptors(), max_fds);
}

TEST(handle_tcp_connect, logs_why_accept_failed) {
    tcp_door tcp;
    address_list allowed;
    ux_fd not_listening = any_socket();
    handle_tcp_connect(not_listening.get(), allowed.get(), 1000, &tcp.pause);
    EXPECT_EQ(clients->size, 0u);
    EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EINVAL)});
    /* It may have been that one client. */
    EXPECT_EQ(accepting_clients(&tcp.pause, tcp.pause.when), accepting::yes);
}

TEST(handle_tcp_connect, a_failure_that_repeats_is_told_once_and_paused) {
    tcp_door tcp;
    address_list allowed;
    ux_fd not_listening = any_socket();
    for (int i = 0; i < 5; i++) {
        handle_tcp_connect(not_listening.get(), allowed.get(), 1000,
                           &tcp.pause);
    }
    EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EINVAL)});
    time_t when = tcp.pause.when;
    EXPECT_EQ(accepting_clients(&tcp.pause, when), accepting::paused);
    EXPECT_EQ(accepting_clients(&tcp.pause, when + 1), accepting::yes);
    /* The pause has been told, whatever the next reason is; after a success
     * it is news again. */
    {
        failing_call refused("accept", EPROTO);
        tcp.open_for("");
    }
    tcp.knock();
    tcp.open_for("");
    EXPECT_EQ(clients->size, 1u);
    handle_tcp_connect(not_listening.get(), allowed.get(), 1000, &tcp.pause);
    EXPECT_EQ(tcp.log.lines().size(), 2u);
}

TEST(handle_tcp_connect, drops_the_client_when_memory_is_exhausted) {
    tcp_door tcp;
    /* Neither for a record nor, the second time, for its place in a list. */
    for (int left : {0, 1}) {
        int caller = tcp.knock();
        {
            failing_heap limit(left);
            tcp.open_for("");
        }
        EXPECT_TRUE(is_closed(caller));
        EXPECT_EQ(clients->size, 0u);
        EXPECT_EQ(open_descriptors(), 1);
    }
    const log_lines expected = {system_line(ENOMEM), system_line(ENOMEM)};
    EXPECT_EQ(tcp.log.lines(), expected);
}

TEST(handle_tcp_connect, leaves_clients_waiting_when_no_number_is_left) {
    tcp_door tcp;
    int caller = tcp.knock();
    tcp.fill_house();
    {
        /* As if somebody else had had every number at the start. */
        descriptor_limit most(std::min<rlim_t>(most_descriptors(), 1200));
        std::vector<ux_fd> low = take_numbers_below(FD_SETSIZE);
        count_numbers();
    }
    tcp.open_for("");
    count_numbers();
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_silent(caller));
    EXPECT_TRUE(tcp.pause.waiting);
    EXPECT_EQ(tcp.pause.error, EMFILE);
    EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EMFILE)});
    tcp.open_for("");
    EXPECT_EQ(clients->size, 1u);
}

TEST(handle_tcp_connect, refuses_a_number_that_cannot_be_watched) {
    tcp_door tcp;
    if (!gives_unwatchable_numbers()) {
        return;
    }
    descriptor_limit most(most_descriptors());
    int caller = tcp.knock();
    ASSERT_EQ(fill_reserve(), 0);
    std::vector<ux_fd> low = take_numbers_below(FD_SETSIZE);
    tcp.open_for("");
    low.clear();
    EXPECT_EQ(clients->size, 0u);
    EXPECT_TRUE(is_closed(caller));
    EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EMFILE)});
    EXPECT_TRUE(tcp.pause.waiting);
}

TEST(handle_tcp_connect, leaves_two_descriptors_for_files) {
    for (int spare : {0, 1, 2, 3}) {
        SCOPED_TRACE(spare);
        tcp_door tcp;
        tcp.fill_house();
        int caller = tcp.knock();
        log_into_file(false);
        std::string said;
        {
            capture output;
            no_descriptors limit(spare);
            tcp.open_for("");
            said = output.text();
        }
        EXPECT_EQ(clients->size, spare > 2 ? 1u : 0u);
        EXPECT_EQ(said.find(system_line(EMFILE)) == std::string::npos,
                  spare > 2)
            << said;
        EXPECT_TRUE(is_silent(caller)) << "neither told nor sent away";
        EXPECT_EQ(tcp.pause.waiting, spare <= 2);
    }
}

TEST(handle_tcp_connect, with_nobody_but_the_listeners_takes_the_last_one) {
    for (size_t listeners : {1U, 2U, 3U}) {
        tcp_door tcp;
        for (size_t i = 1; i < listeners; i++) {
            tcp.others[i] = watched_fd(any_socket(), EVENT_READABLE);
        }
        tcp.knock();
        log_into_file(false);
        capture output;
        no_descriptors limit(1);
        tcp.open_for("");
        EXPECT_EQ(clients->size, listeners < 3 ? 1u : 0u);
        EXPECT_EQ(tcp.pause.waiting, listeners >= 3);
    }
}

TEST(accepting_clients, as_long_as_there_is_room_in_the_budget) {
    session_lists lists;
    accept_pause pause{};
    std::vector<watched_fd> open;
    max_fds = 3;
    for (int i = 0; i < 2; i++) {
        open.emplace_back(any_socket(), EVENT_READABLE);
    }
    EXPECT_EQ(accepting_clients(&pause, 1000), accepting::yes);
    for (int i = 0; i < 2; i++) {
        open.emplace_back(any_socket(), EVENT_READABLE);
        EXPECT_EQ(accepting_clients(&pause, 1000), accepting::no);
        /* A closed descriptor will tell: there is nothing to try before. */
        pause = {true, true, EMFILE, 0, 1000};
        EXPECT_EQ(accepting_clients(&pause, 1000), accepting::no);
        pause = {};
    }
    open.pop_back();
    open.pop_back();
    EXPECT_EQ(accepting_clients(&pause, 1000), accepting::yes);
}

TEST(accepting_clients, a_shortage_is_told_once_and_tried_again) {
    tcp_door tcp;
    tcp.fill_house();
    tcp.knock();
    tcp.knock();
    {
        failing_call none_for_files("open", EMFILE);
        for (int i = 0; i < 3; i++) {
            tcp.open_for("");
            EXPECT_EQ(clients->size, 0u);
        }
    }
    time_t when = tcp.pause.when;
    EXPECT_EQ(accepting_clients(&tcp.pause, when), accepting::paused);
    EXPECT_EQ(accepting_clients(&tcp.pause, when + 1), accepting::yes);
    EXPECT_EQ(accepting_clients(&tcp.pause, when - 1), accepting::yes)
        << "the clock was set back";
    tcp.others[0].reset();
    EXPECT_EQ(accepting_clients(&tcp.pause, when), accepting::yes)
        << "one of ours has been closed";
    EXPECT_EQ(tcp.log.lines(), log_lines{system_line(EMFILE)});

    tcp.open_for("");
    EXPECT_EQ(clients->size, 1u);
    EXPECT_EQ(accepting_clients(&tcp.pause, when), accepting::yes);
    {
        failing_call full("accept", EMFILE);
        tcp.open_for("");
    }
    EXPECT_EQ(tcp.log.lines().size(), 1u) << "still the same shortage";
    tcp.open_for("");
    EXPECT_EQ(clients->size, 2u) << "nobody is left waiting";
    tcp.knock();
    {
        failing_call full("accept", EMFILE);
        tcp.open_for("");
    }
    EXPECT_EQ(tcp.log.lines().size(), 2u) << "a new shortage";
}

TEST(accepting_clients, every_kind_of_shortage_is_waited_for) {
    for (int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        tcp_door tcp;
        tcp.knock();
        failing_call full("accept", error);
        for (int attempt : {1, 2}) {
            tcp.open_for("");
            EXPECT_EQ(tcp.log.lines(), log_lines{system_line(error)});
            EXPECT_EQ(accepting_clients(&tcp.pause, tcp.pause.when),
                      accepting::paused)
                << error << ", attempt " << attempt;
        }
    }
    for (int error : {ECONNABORTED, EPERM, EAGAIN}) {
        tcp_door tcp;
        tcp.knock();
        tcp.open_for("");
        ASSERT_EQ(clients->size, 1u);
        tcp.knock();
        failing_call broken("accept", error);
        tcp.open_for("");
        EXPECT_EQ(tcp.log.lines(), log_lines{system_line(error)});
        EXPECT_EQ(accepting_clients(&tcp.pause, time(nullptr)), accepting::yes);
    }
}
