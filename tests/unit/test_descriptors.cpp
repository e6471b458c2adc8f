/* The sockets that a loop waits for: how they are counted, watched, closed. */
#include "failing_calls.h"
#include "sessions.h"

#include "tolva2/net/descriptors.h"
#include "tolva2/net/sockets.h"

#include <csignal>
#include <utility>

namespace {

constexpr event_bits BOTH = EVENT_READABLE | EVENT_WRITABLE;

/* Nothing counted, before and after. */
class no_sockets {
  public:
    explicit no_sockets(int32_t first_maxfd = 0) {
        reset_descriptors(first_maxfd);
    }
    ~no_sockets() { reset_descriptors(0); }
    no_sockets(const no_sockets &) = delete;
    no_sockets &operator=(const no_sockets &) = delete;
};

/* A watched socket with that number. */
watched_fd watched_number(int number, event_bits events) {
    return watched_fd(socket_with_number(number), events);
}

/* The near end of a connection, watched; the far end stays what it is. */
struct watched_pair {
    explicit watched_pair(event_bits events)
        : near(ux_fd(pair.near.release()), events) {}
    tcp_pair pair;
    watched_fd near;
};

int32_t wait_now() { return wait_for_descriptors(0, nullptr).ready; }

} // namespace

TEST(reset_descriptors, forgets_everything) {
    no_sockets none;
    watched_pair kept(BOTH);
    ASSERT_EQ(wait_now(), 1);
    reset_descriptors(-1);
    EXPECT_EQ(watched(kept.near), EVENT_NONE);
    EXPECT_EQ(ready(kept.near), EVENT_NONE);
    EXPECT_EQ(highest_descriptor(), -1);
    EXPECT_EQ(open_descriptors(), 0);
    reset_descriptors(7);
    EXPECT_EQ(highest_descriptor(), 7);
}

TEST(watched_fd, is_counted_and_raises_the_highest) {
    no_sockets none(-1);
    watched_fd first = watched_number(400, EVENT_WRITABLE);
    EXPECT_TRUE(first);
    EXPECT_EQ(first.get(), 400);
    EXPECT_EQ(highest_descriptor(), 400);
    EXPECT_EQ(open_descriptors(), 1);
    EXPECT_EQ(watched(first), EVENT_WRITABLE);
    EXPECT_EQ(ready(first), EVENT_NONE);
    watched_fd lower = watched_number(300, EVENT_READABLE);
    EXPECT_EQ(highest_descriptor(), 400);
    EXPECT_EQ(open_descriptors(), 2);
    EXPECT_EQ(watched(lower), EVENT_READABLE);
    watched_fd higher = watched_number(401, BOTH);
    EXPECT_EQ(highest_descriptor(), 401);
    EXPECT_EQ(open_descriptors(), 3);
    EXPECT_EQ(watched(higher), BOTH);
}

TEST(watched_fd, without_socket_is_none_and_counts_for_nothing) {
    no_sockets none(5);
    watched_fd fd;
    EXPECT_FALSE(fd);
    EXPECT_EQ(fd.get(), -1);
    EXPECT_EQ(watched(fd), EVENT_NONE);
    EXPECT_EQ(ready(fd), EVENT_NONE);
    fd.reset();
    watched_fd moved = std::move(fd);
    EXPECT_FALSE(moved);
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(highest_descriptor(), 5);
}

TEST(watched_fd, number_0_is_a_socket) {
    descriptor_on_loan zero(STDIN_FILENO);
    no_sockets none(-1);
    watched_fd fd(zero.take(), EVENT_READABLE);
    EXPECT_TRUE(fd);
    EXPECT_EQ(watched(fd), EVENT_READABLE);
    fd.reset();
    EXPECT_FALSE(is_open(STDIN_FILENO));
}

TEST(watched_fd, a_close_lowers_the_highest_by_exactly_one) {
    no_sockets none;
    watched_fd low = watched_number(300, EVENT_READABLE);
    watched_fd middle = watched_number(310, EVENT_READABLE);
    watched_fd high = watched_number(320, EVENT_READABLE);
    middle.reset();
    EXPECT_FALSE(middle);
    EXPECT_FALSE(is_open(310));
    EXPECT_EQ(highest_descriptor(), 320);
    EXPECT_EQ(open_descriptors(), 2);
    high.reset();
    EXPECT_EQ(highest_descriptor(), 319);
    EXPECT_EQ(open_descriptors(), 1);
    EXPECT_EQ(watched(low), EVENT_READABLE);
    low.reset();
    EXPECT_EQ(highest_descriptor(), 319);
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_TRUE(nothing_is_watched());
}

TEST(watched_fd, is_closed_once) {
    no_sockets none;
    watched_fd fd = watched_number(300, EVENT_READABLE);
    fd.reset();
    ux_fd other = socket_with_number(300);
    fd.reset();
    EXPECT_TRUE(is_open(300)) << "it belongs to another by now";
    EXPECT_EQ(open_descriptors(), 0);
}

TEST(watched_fd, closes_when_it_goes) {
    no_sockets none;
    {
        watched_fd fd = watched_number(300, BOTH);
        EXPECT_EQ(open_descriptors(), 1);
    }
    EXPECT_FALSE(is_open(300));
    EXPECT_EQ(open_descriptors(), 0);
    EXPECT_EQ(highest_descriptor(), 299);
    EXPECT_TRUE(nothing_is_watched());
}

TEST(watched_fd, a_close_keeps_errno) {
    no_sockets none;
    watched_fd fd(socket_with_number(300), EVENT_READABLE);
    close(300);
    errno = EPERM;
    fd.reset();
    EXPECT_EQ(errno, EPERM);
}

TEST(watched_fd, moves_with_what_is_watched_and_found) {
    no_sockets none;
    watched_pair first(EVENT_WRITABLE);
    int number = first.near.get();
    ASSERT_EQ(wait_now(), 1);
    watched_fd second = std::move(first.near);
    EXPECT_FALSE(first.near); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(second.get(), number);
    EXPECT_EQ(watched(second), EVENT_WRITABLE);
    EXPECT_EQ(ready(second), EVENT_WRITABLE);
    EXPECT_EQ(open_descriptors(), 1);

    watched_fd third = watched_number(300, EVENT_READABLE);
    third = std::move(second);
    EXPECT_FALSE(is_open(300)) << "what it had is closed";
    EXPECT_FALSE(second); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(third.get(), number);
    EXPECT_EQ(ready(third), EVENT_WRITABLE);
    EXPECT_EQ(open_descriptors(), 1);
}

TEST(watched_fd, none_is_always_the_number_below_0) {
    no_sockets none;
    watched_fd first = watched_number(400, EVENT_NONE);
    watched_fd second(std::move(first));
    EXPECT_EQ(first.get(), -1); // NOLINT(bugprone-use-after-move)
    watched_fd third;
    third = std::move(second);
    EXPECT_EQ(second.get(), -1); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(third.get(), 400);
    third.reset();
    EXPECT_EQ(third.get(), -1);
}

TEST(watched_fd, a_move_to_itself_changes_nothing) {
    no_sockets none;
    watched_fd fd = watched_number(300, EVENT_READABLE);
    watched_fd *same = &fd;
    fd = std::move(*same);
    EXPECT_EQ(fd.get(), 300);
    EXPECT_TRUE(is_open(300));
    EXPECT_EQ(watched(fd), EVENT_READABLE);
    EXPECT_EQ(open_descriptors(), 1);
}

TEST(watched_fd, a_number_opened_again_inherits_nothing) {
    no_sockets none;
    watched_pair first(BOTH);
    watched_pair other(BOTH);
    send_bytes_to(first.pair.far.get(), "x");
    ASSERT_TRUE(wait_for(first.near.get(), POLLIN));
    ASSERT_EQ(wait_now(), 3);
    ASSERT_EQ(ready(first.near), BOTH);
    int number = first.near.get();
    first.near.reset();
    watched_fd again = watched_number(number, EVENT_NONE);
    EXPECT_EQ(ready(again), EVENT_NONE);
    EXPECT_EQ(watched(again), EVENT_NONE);
    EXPECT_EQ(ready(other.near), EVENT_WRITABLE) << "the pass goes on";
    EXPECT_EQ(watched(other.near), BOTH);
}

TEST(watch, replaces_what_was_watched) {
    no_sockets none;
    watched_fd fd = watched_number(300, EVENT_READABLE);
    watched_fd other = watched_number(301, EVENT_READABLE);
    for (event_bits events :
         {EVENT_WRITABLE, EVENT_NONE, BOTH, EVENT_READABLE}) {
        watch(fd, events);
        EXPECT_EQ(watched(fd), events);
        EXPECT_EQ(watched(other), EVENT_READABLE);
    }
    EXPECT_EQ(open_descriptors(), 2) << "not counted again";
}

TEST(descriptor_left, as_long_as_the_budget_is_not_used_up) {
    session_lists lists;
    max_fds = 2;
    EXPECT_TRUE(descriptor_left());
    watched_fd first = watched_number(300, EVENT_READABLE);
    EXPECT_TRUE(descriptor_left());
    watched_fd second = watched_number(301, EVENT_NONE);
    EXPECT_FALSE(descriptor_left());
    max_fds = 1;
    EXPECT_FALSE(descriptor_left());
    max_fds = 3;
    EXPECT_TRUE(descriptor_left());
    max_fds = 2;
    first.reset();
    EXPECT_TRUE(descriptor_left());
}

TEST(why_unwatchable, tells_the_error_of_the_call_that_gave_none) {
    for (int error : {EMFILE, EACCES}) {
        failing_call refused("socket", error);
        EXPECT_EQ(why_unwatchable(tcp_socket()), error);
    }
}

TEST(why_unwatchable, what_select_cannot_watch_is_a_shortage) {
    ux_fd last = socket_with_number(FD_SETSIZE - 1);
    EXPECT_EQ(why_unwatchable(last), 0);
    EXPECT_EQ(why_unwatchable(tcp_socket()), 0);
    if (!gives_unwatchable_numbers()) {
        return;
    }
    descriptor_limit most(most_descriptors());
    ux_fd over = socket_with_number(FD_SETSIZE);
    EXPECT_EQ(why_unwatchable(over), EMFILE);
    EXPECT_TRUE(is_open(FD_SETSIZE)) << "it stays the caller's";
}

TEST(wait_for_descriptors, finds_what_is_watched_and_ready) {
    no_sockets none;
    watched_pair idle(EVENT_READABLE);
    watched_pair asked(EVENT_READABLE);
    watched_pair told(BOTH);
    watched_pair unwatched(EVENT_NONE);
    for (watched_pair *one : {&asked, &told, &unwatched}) {
        send_bytes_to(one->pair.far.get(), "x");
        ASSERT_TRUE(wait_for(one->near.get(), POLLIN));
    }
    wait_result found = wait_for_descriptors(-1, nullptr);
    EXPECT_EQ(found.ready, 3);
    EXPECT_EQ(found.error, 0);
    EXPECT_EQ(ready(idle.near), EVENT_NONE);
    EXPECT_EQ(ready(asked.near), EVENT_READABLE);
    EXPECT_EQ(ready(told.near), BOTH);
    EXPECT_EQ(ready(unwatched.near), EVENT_NONE);
    /* What is found is not what is watched. */
    EXPECT_EQ(watched(idle.near), EVENT_READABLE);
    EXPECT_EQ(watched(unwatched.near), EVENT_NONE);
}

TEST(wait_for_descriptors, each_wait_starts_anew) {
    no_sockets none;
    watched_pair one(EVENT_READABLE);
    send_bytes_to(one.pair.far.get(), "x");
    ASSERT_TRUE(wait_for(one.near.get(), POLLIN));
    EXPECT_EQ(wait_now(), 1);
    EXPECT_EQ(receive(one.near.get(), 1), "x");
    EXPECT_EQ(wait_now(), 0);
    EXPECT_EQ(ready(one.near), EVENT_NONE);
}

TEST(wait_for_descriptors, ends_when_its_time_is_up) {
    no_sockets none;
    watched_pair idle(EVENT_READABLE);
    auto start = std::chrono::steady_clock::now();
    wait_result found = wait_for_descriptors(1, nullptr);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(found.ready, 0);
    EXPECT_EQ(found.error, 0);
    EXPECT_GE(took, std::chrono::milliseconds(990));
}

TEST(wait_for_descriptors, lets_in_what_the_mask_lets_in) {
    no_sockets none;
    static volatile sig_atomic_t came;
    came = 0;
    struct sigaction action {};
    struct sigaction before;
    action.sa_handler = [](int) { came = 1; };
    sigaction(SIGUSR1, &action, &before);
    sigset_t held;
    sigset_t open;
    sigset_t old;
    sigemptyset(&open);
    sigemptyset(&held);
    sigaddset(&held, SIGUSR1);
    sigprocmask(SIG_SETMASK, &held, &old);
    raise(SIGUSR1);
    EXPECT_EQ(wait_for_descriptors(0, nullptr).ready, 0);
    EXPECT_EQ(came, 0);
    wait_result found = wait_for_descriptors(-1, &open);
    EXPECT_EQ(found.ready, -1);
    EXPECT_EQ(found.error, EINTR);
    EXPECT_EQ(came, 1);
    sigset_t after;
    sigprocmask(SIG_SETMASK, &old, &after);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 1) << "held back as before";
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(wait_for_descriptors, tells_why_it_failed) {
    no_sockets none;
    watched_fd fd = watched_number(300, EVENT_READABLE);
    close(300);
    wait_result found = wait_for_descriptors(0, nullptr);
    EXPECT_EQ(found.ready, -1);
    EXPECT_EQ(found.error, EBADF);
}

TEST(wait_for_descriptors, finds_nothing_when_it_has_failed) {
    reset_descriptors(0);
    watched_fd idle(udp_socket(), EVENT_READABLE | EVENT_WRITABLE);
    failing_call interrupted("pselect", EINTR);
    wait_result found = wait_for_descriptors(0, nullptr);
    EXPECT_EQ(found.ready, -1);
    EXPECT_EQ(found.error, EINTR);
    EXPECT_EQ(ready(idle), EVENT_NONE);
}

TEST(watched_fd, of_no_socket_is_not_counted) {
    reset_descriptors(0);
    watched_fd none{ux_fd(), EVENT_READABLE};
    watch(none, EVENT_WRITABLE);
    EXPECT_FALSE(none);
    EXPECT_EQ(watched(none), EVENT_NONE);
    EXPECT_EQ(open_descriptors(), 0);
}

TEST(number_left, until_nobody_else_leaves_a_number_to_watch) {
    no_sockets none;
    EXPECT_TRUE(number_left());
    {
        std::vector<ux_fd> others = take_numbers_below(100);
        descriptor_limit limit(100);
        count_numbers();
    }
    EXPECT_TRUE(number_left()) << "a limit can be raised again";
    {
        descriptor_limit limit(most_descriptors());
        if (most_descriptors() >= FD_SETSIZE) {
            std::vector<ux_fd> others = take_numbers_below(FD_SETSIZE);
            count_numbers();
            EXPECT_FALSE(number_left());
        }
    }
    count_numbers();
    EXPECT_TRUE(number_left());
}
