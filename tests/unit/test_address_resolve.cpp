/* Address records, and the bounded resolution of names for them. */
#include "children.h"
#include "descriptor_numbers.h"
#include "failing_calls.h"
#include "resolver.h"

#include "tolva2/net/address.h"

#include <chrono>
#include <csignal>
#include <sys/time.h>

namespace {

/* A record that frees itself, and what was said while it was built. */
struct built {
    ux_owner<inetaddr> record;
    std::string said;

    built(const char *host, uint16_t port, address_kind kind = ADDR_PEER,
          mode_code mode = MODE_SEND) {
        program_name name("prog");
        capture errors(STDERR_FILENO);
        record = new_inetaddr(host, port, kind, mode);
        said = errors.text();
    }
};

/* What happens to the next wait for the resolver. */
enum class instead { early_alarm, interruption, lapse };

/* The wait after that, if there is one, is as ever. */
class next_wait {
  public:
    explicit next_wait(instead what) {
        wait_instead = [what](const timespec *limit, const auto &wait) {
            return once(what, limit, wait);
        };
    }
    ~next_wait() { wait_instead = nullptr; }
    next_wait(const next_wait &) = delete;
    next_wait &operator=(const next_wait &) = delete;

    /* Seconds; -1: without limit. */
    static inline time_t at_most = -1;

  private:
    static int once(instead what, const timespec *limit,
                    const std::function<int()> &wait) {
        wait_instead = nullptr;
        at_most = limit ? limit->tv_sec : -1;
        switch (what) {
        case instead::early_alarm:
            kill(getpid(), SIGALRM);
            return wait();
        case instead::interruption:
            errno = EINTR;
            return -1;
        default:
            return 0;
        }
    }
};

} // namespace

TEST(new_inetaddr, fills_a_record_from_a_dotted_address) {
    built one("192.168.1.10", 6004, ADDR_KESDAL, MODE_CHECK);
    ASSERT_NE(one.record, nullptr);
    EXPECT_EQ(one.said, "");
    EXPECT_EQ(one.record->mode, MODE_CHECK);
    EXPECT_EQ(one.record->kind, ADDR_KESDAL);
    EXPECT_STREQ(one.record->text, "192.168.1.10");
    EXPECT_EQ(one.record->port, 6004);
    EXPECT_EQ(one.record->addr.sin_family, AF_INET);
    EXPECT_EQ(one.record->addr.sin_port, htons(6004));
    EXPECT_EQ(one.record->addr.sin_addr.s_addr, inet_addr("192.168.1.10"));
}

TEST(new_inetaddr, keeps_a_short_form_as_text_and_reads_it) {
    built one("10.1", 0);
    ASSERT_NE(one.record, nullptr);
    EXPECT_STREQ(one.record->text, "10.1");
    EXPECT_EQ(one.record->addr.sin_addr.s_addr, inet_addr("10.0.0.1"));
}

TEST(new_inetaddr, cuts_a_long_dotted_text_to_15_characters) {
    built longest("255.255.255.254", 0);
    ASSERT_NE(longest.record, nullptr);
    EXPECT_STREQ(longest.record->text, "255.255.255.254");
    built over("0300.0250.0001.0012", 0);
    ASSERT_NE(over.record, nullptr);
    EXPECT_STREQ(over.record->text, "0300.0250.0001.");
    EXPECT_EQ(over.record->addr.sin_addr.s_addr, inet_addr("192.168.1.10"));
}

TEST(new_inetaddr, takes_ports_above_32767_as_16_bits) {
    built one("10.0.0.1", 60000);
    ASSERT_NE(one.record, nullptr);
    EXPECT_EQ(one.record->port, static_cast<int16_t>(60000 - 65536));
    EXPECT_EQ(one.record->addr.sin_port, htons(60000));
}

TEST(new_inetaddr, resolves_a_name) {
    built mine("myhost", 0);
    ASSERT_NE(mine.record, nullptr);
    EXPECT_STREQ(mine.record->text, "10.1.2.3");
    EXPECT_EQ(mine.record->port, 0);
    EXPECT_EQ(mine.record->addr.sin_addr.s_addr, inet_addr("10.1.2.3"));
    EXPECT_EQ(mine.said, "");

    built high("high.invalid", 1);
    ASSERT_NE(high.record, nullptr);
    EXPECT_STREQ(high.record->text, "203.111.113.255");
}

TEST(new_inetaddr, resolves_localhost_as_the_system_knows_it) {
    built one("localhost", 7);
    ASSERT_NE(one.record, nullptr);
    EXPECT_STREQ(one.record->text, "127.0.0.1");
    EXPECT_EQ(one.record->addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST(new_inetaddr, gives_null_and_a_message_for_what_does_not_resolve) {
    for (const char *host :
         {"unknown.invalid", "[::1]", "::1", "h:1", "ipv6.invalid",
          "empty.invalid", "", "1.2.3.256", "a,b", "%s%n.invalid", "\xe4"}) {
        built one(host, 5);
        EXPECT_EQ(one.record, nullptr) << host;
        EXPECT_EQ(one.said, unresolved(host));
    }
}

TEST(new_inetaddr, leaves_no_timer_handler_child_or_descriptor_behind) {
    int before = descriptors_in_use();
    sigset_t mask_before;
    sigset_t mask_after;
    sigprocmask(SIG_SETMASK, nullptr, &mask_before);
    built found("myhost", 0);
    built lost("unknown.invalid", 0);
    EXPECT_EQ(descriptors_in_use(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    itimerval timer;
    getitimer(ITIMER_REAL, &timer);
    EXPECT_EQ(timer.it_value.tv_sec, 0);
    EXPECT_EQ(timer.it_value.tv_usec, 0);
    sigprocmask(SIG_SETMASK, nullptr, &mask_after);
    EXPECT_EQ(sigismember(&mask_before, SIGALRM),
              sigismember(&mask_after, SIGALRM));
}

TEST(new_inetaddr, collects_its_child_also_when_it_is_interrupted) {
    failing_call interruption("waitpid", EINTR, 0, 1);
    built one("myhost", 0);
    EXPECT_NE(one.record, nullptr);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(new_inetaddr, gives_up_on_a_hanging_resolver_after_ten_seconds) {
    int before = descriptors_in_use();
    auto start = std::chrono::steady_clock::now();
    built one("hangs.invalid", 0);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(one.record, nullptr);
    EXPECT_EQ(one.said, "prog: timeout resolving hostname...\n" +
                            unresolved("hangs.invalid"));
    EXPECT_GE(took, std::chrono::milliseconds(9900));
    EXPECT_LT(took, std::chrono::seconds(18));
    EXPECT_EQ(descriptors_in_use(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(new_inetaddr, an_alarm_right_before_the_wait_ends_it) {
    next_wait wait(instead::early_alarm);
    built one("hangs.invalid", 0);
    EXPECT_EQ(one.record, nullptr);
    EXPECT_EQ(one.said, "prog: timeout resolving hostname...\n" +
                            unresolved("hangs.invalid"));
}

TEST(new_inetaddr, another_signal_does_not_end_the_wait) {
    next_wait wait(instead::interruption);
    built one("myhost", 0);
    ASSERT_NE(one.record, nullptr);
    EXPECT_STREQ(one.record->text, "10.1.2.3");
    EXPECT_EQ(one.said, "");
}

TEST(new_inetaddr, without_a_timer_the_wait_has_the_same_limit) {
    failing_call no_timer("setitimer", EINVAL);
    next_wait wait(instead::lapse);
    built one("unknown.invalid", 0);
    EXPECT_EQ(wait.at_most, 10);
    EXPECT_EQ(one.record, nullptr);
    EXPECT_EQ(one.said, "prog: timeout resolving hostname...\n" +
                            unresolved("unknown.invalid"));
}

TEST(new_inetaddr, a_wait_that_fails_is_no_answer) {
    wait_instead = [](const timespec *, const auto &) {
        errno = ENOMEM;
        return -1;
    };
    built one("myhost", 0);
    wait_instead = nullptr;
    EXPECT_EQ(one.record, nullptr);
    EXPECT_EQ(one.said, unresolved("myhost"));
}

TEST(new_inetaddr, without_a_child_it_resolves_by_itself) {
    failing_call no_child("fork", EAGAIN);
    built high("high.invalid", 0);
    ASSERT_NE(high.record, nullptr);
    EXPECT_STREQ(high.record->text, "203.111.113.255");
    EXPECT_EQ(high.said, "");
    built lost("unknown.invalid", 0);
    EXPECT_EQ(lost.record, nullptr);
    EXPECT_EQ(lost.said, unresolved("unknown.invalid"));
}

TEST(new_inetaddr, without_a_child_an_answer_after_the_alarm_is_too_late) {
    failing_call no_child("fork", EAGAIN);
    built late("late.invalid", 0);
    EXPECT_EQ(late.record, nullptr);
    EXPECT_EQ(late.said, "prog: timeout resolving hostname...\n" +
                             unresolved("late.invalid"));
}

TEST(destroy_inetaddr, gives_back_the_memory) {
    int64_t before = heap_blocks();
    destroy_inetaddr(
        new_inetaddr("10.0.0.1", 1, ADDR_PEER, MODE_SEND).release());
    EXPECT_EQ(heap_blocks(), before);
}

TEST(new_inetaddr, gives_null_without_a_word_when_memory_is_exhausted) {
    failing_heap exhausted;
    built one("10.0.0.1", 0);
    EXPECT_EQ(one.record, nullptr);
    EXPECT_EQ(one.said, "");
}

TEST(new_inetaddr, traces_entry_and_size) {
    std::string seen = traced(6, [] { built one("10.0.0.1", 0); });
    EXPECT_EQ(seen, "TRACEIN: new_inetaddr\n"
                    "DEBUG: sizeof(iaddr->addr) = 16\n");
    EXPECT_EQ(traced(1, [] { built one("10.0.0.1", 0); }),
              "DEBUG: sizeof(iaddr->addr) = 16\n");
    EXPECT_EQ(traced(0, [] { built one("10.0.0.1", 0); }), "");
}

TEST(GetHostAddrFromHostName, formats_the_first_address) {
    const char *first = GetHostAddrFromHostName("myhost");
    EXPECT_STREQ(first, "10.1.2.3");
    EXPECT_EQ(GetHostAddrFromHostName("high.invalid"), first);
    EXPECT_STREQ(first, "203.111.113.255");
    EXPECT_STREQ(GetHostAddrFromHostName("localhost"), "127.0.0.1");
}

TEST(GetHostAddrFromHostName, gives_null_without_an_ipv4_address) {
    EXPECT_EQ(GetHostAddrFromHostName(nullptr), nullptr);
    EXPECT_EQ(GetHostAddrFromHostName(""), nullptr);
    EXPECT_EQ(GetHostAddrFromHostName("unknown.invalid"), nullptr);
    EXPECT_EQ(GetHostAddrFromHostName("ipv6.invalid"), nullptr);
    EXPECT_EQ(GetHostAddrFromHostName("empty.invalid"), nullptr);
}

TEST(GetHostAddrFromHostName, traces_its_exit_above_level_9) {
    auto look_up = [] { GetHostAddrFromHostName("myhost"); };
    EXPECT_EQ(traced(10, look_up), "TRACEIN: GetHostAddrFromHostName\n"
                                   "TRACEOUT: GetHostAddrFromHostName\n");
    EXPECT_EQ(traced(9, look_up), "TRACEIN: GetHostAddrFromHostName\n");
}

TEST(start_timeout, arms_one_alarm_with_a_plain_handler) {
    EXPECT_TRUE(start_timeout(10));
    itimerval timer;
    getitimer(ITIMER_REAL, &timer);
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    stop_timeout();
    EXPECT_GE(timer.it_value.tv_sec, 9);
    EXPECT_LE(timer.it_value.tv_sec, 10);
    EXPECT_EQ(timer.it_interval.tv_sec, 0);
    EXPECT_EQ(timer.it_interval.tv_usec, 0);
    EXPECT_EQ(action.sa_handler, sigalrm_itimer);
    EXPECT_EQ(action.sa_flags & SA_RESTART, 0);
    for (int number = 1; number < 32; number++) {
        EXPECT_EQ(sigismember(&action.sa_mask, number), 0) << number;
    }
}

TEST(start_timeout, a_timer_that_cannot_be_armed_is_a_failure) {
    EXPECT_FALSE(start_timeout(-1));
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST(start_timeout, traces_its_exit_above_level_9) {
    std::string seen = traced(10, [] {
        start_timeout(10);
        debug_level = 0;
        stop_timeout();
    });
    EXPECT_EQ(seen, "TRACEIN: start_timeout\nTRACEOUT: start_timeout\n");
}

TEST(start_timeout, interrupts_a_wait_and_says_so) {
    program_name name("prog");
    capture errors(STDERR_FILENO);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_TRUE(start_timeout(1));
    char byte;
    ssize_t got = read(ends[0], &byte, 1);
    int error = errno;
    stop_timeout();
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(got, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(errors.text(), "prog: timeout resolving hostname...\n");
}

TEST(stop_timeout, disarms_the_timer_and_takes_the_handler_back) {
    ASSERT_TRUE(start_timeout(10));
    stop_timeout();
    itimerval timer;
    getitimer(ITIMER_REAL, &timer);
    EXPECT_EQ(timer.it_value.tv_sec, 0);
    EXPECT_EQ(timer.it_value.tv_usec, 0);
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST(stop_timeout, an_alarm_that_was_held_back_goes_unheard) {
    sigset_t alarm_set;
    sigset_t before;
    sigemptyset(&alarm_set);
    sigaddset(&alarm_set, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm_set, &before);
    capture errors(STDERR_FILENO);
    ASSERT_TRUE(start_timeout(10));
    raise(SIGALRM);
    stop_timeout();
    /* Its default action would end this process here. */
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(errors.text(), "");
}
