/* Events by name: their numbers, their texts, and what becomes of them. */
#include "sessions.h"

#include "tolva2/files/events.h"

namespace {

using log_lines = std::vector<std::string>;

/* Whether report takes an event with texts of these types. */
template <typename event_type, typename... texts>
constexpr bool can_report = requires(event_type what, texts... words) {
    report(what, words...);
};

using text = const char *;

static_assert(can_report<event_message<0>>);
static_assert(can_report<event_message<1>, text>);
static_assert(can_report<event_message<1>, char *>);
static_assert(can_report<event_message<2>, text, text>);

/* Never one too many or too few. */
static_assert(!can_report<event_message<0>, text>);
static_assert(!can_report<event_message<1>>);
static_assert(!can_report<event_message<1>, text, text>);
static_assert(!can_report<event_message<2>, text>);

/* Nothing but texts, and no number in the place of an event. */
static_assert(!can_report<event_message<1>, int>);
static_assert(!can_report<event_message<1>, const int *>);
static_assert(!can_report<event_message<1>, std::string>);
static_assert(!can_report<int>);
static_assert(!can_report<int, text>);

/* How many texts an event is given. */
template <int32_t count> constexpr int32_t texts_of(event_message<count>) {
    return count;
}

struct known_event {
    int32_t number;
    int32_t texts;
};

template <int32_t count>
constexpr known_event known(event_message<count> what) {
    return {what.number, texts_of(what)};
}

const struct {
    known_event declared;
    int32_t number;
    int32_t texts;
} events[] = {
    {known(event::server_alive), 814, 1},
    {known(event::server_not_alive), 828, 1},
    {known(event::not_understood), 819, 0},
    {known(event::sender_started), 758, 0},
    {known(event::sender_finished), 759, 0},
    {known(event::connecting), 785, 1},
    {known(event::command_sent), 787, 1},
    {known(event::send_failed), 753, 1},
    {known(event::broadcasting), 833, 1},
    {known(event::broadcast_failed), 810, 0},
    {known(event::tcp_listening), 756, 0},
    {known(event::tcp_stopped), 757, 0},
    {known(event::udp_listening), 821, 0},
    {known(event::udp_stopped), 822, 0},
    {known(event::watch_started), 829, 0},
    {known(event::watch_stopped), 830, 0},
    {known(event::server_dropped), 832, 1},
    {known(event::refused), 835, 1},
    {known(event::message_received), 795, 0},
    {known(event::nothing_received), 796, 0},
    {known(event::datagram_received), 824, 1},
    {known(event::datagram_failed), 825, 0},
    {known(event::command_unknown), 820, 0},
    {known(event::script_started), 792, 1},
    {known(event::script_finished), 794, 1},
    {known(event::script_failed), 793, 1},
};

} // namespace

TEST(events, have_their_numbers_and_texts) {
    for (const auto &one : events) {
        EXPECT_EQ(one.declared.number, one.number);
        EXPECT_EQ(one.declared.texts, one.texts) << one.number;
    }
}

TEST(events, share_no_number) {
    for (const auto &one : events) {
        for (const auto &other : events) {
            EXPECT_TRUE(&one == &other || one.number != other.number)
                << one.number;
        }
    }
}

TEST(report, logs_the_text_of_the_database) {
    operator_log log;
    EXPECT_TRUE(report(event::tcp_listening));
    EXPECT_TRUE(report(event::refused, "192.0.2.7"));
    const log_lines expected = {message(756, {}), message(835, {"192.0.2.7"})};
    EXPECT_EQ(log.lines(), expected);
}

TEST(report, fills_in_its_texts_in_turn) {
    operator_log log;
    constexpr event_message<2> two{13};
    char second[] = "the 2nd";
    EXPECT_TRUE(report(two, "%s", second));
    EXPECT_TRUE(report(two, nullptr, "x"));
    const log_lines expected = {"%s on the 2nd", "%s on x"};
    EXPECT_EQ(log.lines(), expected);
}

TEST(report, is_silent_about_an_event_without_a_text) {
    operator_log log;
    temp_dir home;
    ASSERT_TRUE(msgdb_open(
        home.file("messages.dat", "m757=\nm758=  \nm835=%s\n").c_str()));
    EXPECT_FALSE(report(event::tcp_listening)) << "absent";
    EXPECT_FALSE(report(event::tcp_stopped)) << "empty";
    EXPECT_FALSE(report(event::sender_started)) << "blank";
    EXPECT_FALSE(report(event::refused, "")) << "empty once it is filled in";
    EXPECT_EQ(log.lines(), log_lines{});
}

TEST(report, is_silent_without_a_database) {
    operator_log log;
    msgdb_close();
    EXPECT_FALSE(report(event::tcp_listening));
    EXPECT_FALSE(report(event::refused, "192.0.2.7"));
    EXPECT_EQ(log.lines(), log_lines{});
}

TEST(report, says_when_no_line_could_be_written) {
    operator_log log;
    logfile_close();
    ASSERT_TRUE(logfile_open("/no/such/directory/log", 0));
    EXPECT_FALSE(report(event::tcp_listening));
}
