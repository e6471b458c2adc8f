/*
 * Which bare shutdown requests are carried out. The alive watch and the
 * starting of scripts are replaced, so that the test says who is alive and
 * sees what is asked and run.
 */
#include "address_list.h"
#include "sessions.h"

#include "tolva2/listen/alive.h"
#include "tolva2/listen/child.h"
#include "tolva2/listen/redundancy.h"

#include <set>

namespace {

/* What the replacements were called for, in order. */
std::vector<std::string> calls;
std::set<std::string> answering;
connection *script_record = nullptr;

} // namespace

namespace alive {

void cancel_connections() { calls.emplace_back("cancel"); }

int32_t start_connections() {
    calls.emplace_back("start");
    return 1;
}

} // namespace alive

bool check_alive_single(const char *address) {
    calls.push_back(std::string("ask ") + address);
    return answering.contains(address);
}

bool fork_and_exec(connection *cn, const char *program, const char *params) {
    script_record = cn;
    calls.push_back(std::string("run [") + program + "] [" +
                    (params == nullptr ? "none" : params) + "]");
    return true;
}

namespace {

std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> words;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        end = end == std::string::npos ? text.size() : end;
        words.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return words;
}

/* A listener with redundant senders. */
class redundant_listener {
  public:
    redundant_listener(int32_t level, const std::string &addresses,
                       const char *enabled = "TRUE",
                       const char *suppress_batch = "false",
                       const std::string &batch = "/opt/suppressed.sh")
        : members(addresses) {
        calls.clear();
        answering.clear();
        script_record = nullptr;
        settings = receiver_params{};
        settings.redundancy_enabled = ux_copy(enabled);
        settings.redundancy_batch_suppress = ux_copy(suppress_batch);
        settings.redundancy_batch_file = ux_copy(batch.c_str());
        settings.redundancy_level = level;
        init_redundant_shutdowns(&settings, members.get());
    }

    /* A request from that address: its result, with what it says. */
    bool request(const std::string &address) {
        connection cn;
        strncpy(cn.ipaddr, address.c_str(), sizeof cn.ipaddr - 1);
        calls.clear();
        capture errors(STDERR_FILENO);
        bool result = track_redundant_shutdowns(&cn);
        EXPECT_EQ(errors.text(),
                  result ? "returning: TRUE\n" : "returning: FALSE\n");
        if (!calls.empty() && calls.back().substr(0, 3) == "run") {
            EXPECT_EQ(script_record, &cn);
        }
        return result;
    }
    address_list members;
    receiver_params settings;
    operator_log log;
};

std::string suppressed(int level, int failures) {
    return "Shutdown suppressed, redundancy-level = " + std::to_string(level) +
           ", failure count = " + std::to_string(failures) + ".";
}

struct decision {
    int32_t level;
    const char *members;
    const char *asked_before; /* in this order */
    const char *alive_now;
    const char *sender;
    bool carried_out;
    int failures; /* 0: nothing is tracked */
};

const decision decisions[] = {
    /* Tracking does not apply. */
    {0, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.1", true, 0},
    {-1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.1", true, 0},
    {1, "", "", "", "10.0.0.1", true, 0},
    {1, "10.0.0.1", "", "", "10.0.0.1", true, 0},
    {5, "10.0.0.1", "", "", "10.0.0.1", true, 0},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.3", true, 0},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.12", true, 0},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.", true, 0},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "", true, 0},
    /* Level 1 of two: the second failure decides. */
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.1", false, 1},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1 10.0.0.2", "10.0.0.2", false, 1},
    {1, "10.0.0.1 10.0.0.2", "10.0.0.1", "10.0.0.1 10.0.0.2", "10.0.0.2", true,
     2},
    {1, "10.0.0.1 10.0.0.2", "10.0.0.1", "10.0.0.1 10.0.0.2", "10.0.0.1", false,
     1},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.1", "10.0.0.1", true, 2},
    {1, "10.0.0.1 10.0.0.2", "", "10.0.0.2", "10.0.0.1", false, 1},
    {1, "10.0.0.1 10.0.0.2", "", "", "10.0.0.1", true, 2},
    {1, "10.0.0.1 10.0.0.2", "10.0.0.3", "10.0.0.1 10.0.0.2", "10.0.0.1", false,
     1},
    /* Level 2 of two is never reached. */
    {2, "10.0.0.1 10.0.0.2", "", "", "10.0.0.1", false, 2},
    {2, "10.0.0.1 10.0.0.2", "10.0.0.1", "", "10.0.0.2", false, 2},
    {2147483647, "10.0.0.1 10.0.0.2", "", "", "10.0.0.1", false, 2},
    /* Three and four members. */
    {1, "10.0.0.1 10.0.0.2 10.0.0.3", "", "10.0.0.2 10.0.0.3", "10.0.0.1",
     false, 1},
    {1, "10.0.0.1 10.0.0.2 10.0.0.3", "", "10.0.0.3", "10.0.0.1", true, 2},
    {2, "10.0.0.1 10.0.0.2 10.0.0.3", "", "10.0.0.3", "10.0.0.1", false, 2},
    {2, "10.0.0.1 10.0.0.2 10.0.0.3", "", "", "10.0.0.1", true, 3},
    {2, "10.0.0.1 10.0.0.2 10.0.0.3", "10.0.0.3", "10.0.0.2 10.0.0.3",
     "10.0.0.1", false, 2},
    {2, "10.0.0.1 10.0.0.2 10.0.0.3", "10.0.0.3", "10.0.0.3", "10.0.0.1", true,
     3},
    {2, "10.0.0.1 10.0.0.2 10.0.0.3", "10.0.0.3 10.0.0.2",
     "10.0.0.1 10.0.0.2 10.0.0.3", "10.0.0.1", true, 3},
    /* Asked and not alive counts once. */
    {2, "10.0.0.1 10.0.0.2 10.0.0.3", "10.0.0.3", "10.0.0.2", "10.0.0.1", false,
     2},
    {3, "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4", "10.0.0.2", "10.0.0.4",
     "10.0.0.1", false, 3},
    {3, "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4", "10.0.0.2", "", "10.0.0.1", true,
     4},
    /* More members than are counted as active. */
    {5, "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4 10.0.0.5 10.0.0.6", "", "",
     "10.0.0.6", true, 6},
    {6, "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4 10.0.0.5 10.0.0.6", "", "",
     "10.0.0.6", false, 6},
    /* Ports of the members do not count, their order neither. */
    {1, "10.0.0.2:5000 10.0.0.1:80", "", "10.0.0.1 10.0.0.2", "10.0.0.1", false,
     1},
    /* A short form is another text. */
    {1, "10.1 10.0.0.2", "", "10.1 10.0.0.2", "10.0.0.1", true, 0},
};

} // namespace

TEST(redundancy, decides_by_level_members_requests_and_who_is_alive) {
    for (const decision &row : decisions) {
        SCOPED_TRACE("level " + std::to_string(row.level) + " of [" +
                     row.members + "], asked [" + row.asked_before +
                     "], alive [" + row.alive_now + "], now " + row.sender);
        redundant_listener listener(row.level, row.members);
        /* While the others ask, everybody is alive. */
        for (const std::string &member : split(row.members)) {
            answering.insert(member.substr(0, member.find(':')));
        }
        for (const std::string &earlier : split(row.asked_before)) {
            listener.request(earlier);
        }
        listener.log.clear();
        answering.clear();
        for (const std::string &address : split(row.alive_now)) {
            answering.insert(address);
        }
        EXPECT_EQ(listener.request(row.sender), row.carried_out);
        if (row.carried_out) {
            EXPECT_EQ(listener.log.lines(), log_lines{});
        } else {
            EXPECT_EQ(listener.log.lines(),
                      log_lines{suppressed(row.level, row.failures)});
        }
        if (row.failures == 0) {
            EXPECT_EQ(calls, std::vector<std::string>{});
        } else {
            EXPECT_EQ(calls.at(0), "cancel");
            EXPECT_EQ(calls.at(1), "start");
        }
    }
}

TEST(redundancy, is_off_unless_enabled) {
    for (const char *off : {"false", "", "1", "yes", "TRUE ", "TRU"}) {
        redundant_listener listener(1, "10.0.0.1 10.0.0.2", off);
        answering = {"10.0.0.1", "10.0.0.2"};
        EXPECT_TRUE(listener.request("10.0.0.1")) << off;
        EXPECT_EQ(calls, std::vector<std::string>{});
    }
    for (const char *on : {"TRUE", "true", "True", "tRuE"}) {
        redundant_listener listener(1, "10.0.0.1 10.0.0.2", on);
        answering = {"10.0.0.1", "10.0.0.2"};
        EXPECT_FALSE(listener.request("10.0.0.1")) << on;
    }
}

TEST(redundancy, unset_settings_mean_off) {
    calls.clear();
    address_list nobody;
    receiver_params settings{};
    settings.redundancy_level = 1;
    init_redundant_shutdowns(&settings, nobody.get());
    connection cn;
    capture errors(STDERR_FILENO);
    EXPECT_TRUE(track_redundant_shutdowns(&cn));
    EXPECT_EQ(errors.text(), "returning: TRUE\n");
    EXPECT_EQ(calls, std::vector<std::string>{});
}

TEST(redundancy, asks_every_other_member_after_a_new_cycle) {
    redundant_listener listener(1, "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4");
    answering = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"};
    EXPECT_FALSE(listener.request("10.0.0.2"));
    const std::vector<std::string> expected = {
        "cancel",       "start",        "ask 10.0.0.1",
        "ask 10.0.0.3", "ask 10.0.0.4", "run [/opt/suppressed.sh] [none]"};
    EXPECT_EQ(calls, expected);
}

TEST(redundancy, carries_out_without_running_the_batch_file) {
    redundant_listener listener(1, "10.0.0.1 10.0.0.2");
    EXPECT_TRUE(listener.request("10.0.0.1"));
    const std::vector<std::string> expected = {"cancel", "start",
                                               "ask 10.0.0.2"};
    EXPECT_EQ(calls, expected);
}

TEST(redundancy, the_batch_file_can_be_suppressed) {
    for (const char *on : {"TRUE", "true", "tRUE"}) {
        redundant_listener listener(1, "10.0.0.1 10.0.0.2", "TRUE", on);
        answering = {"10.0.0.1", "10.0.0.2"};
        EXPECT_FALSE(listener.request("10.0.0.1"));
        EXPECT_EQ(calls.back(), "ask 10.0.0.2");
        EXPECT_EQ(listener.log.lines(), log_lines{suppressed(1, 1)});
    }
    for (const char *off : {"no", "", "1"}) {
        redundant_listener listener(1, "10.0.0.1 10.0.0.2", "TRUE", off);
        answering = {"10.0.0.1", "10.0.0.2"};
        EXPECT_FALSE(listener.request("10.0.0.1"));
        EXPECT_EQ(calls.back(), "run [/opt/suppressed.sh] [none]");
    }
}

TEST(redundancy, a_request_is_never_forgotten_but_being_alive_is_asked_anew) {
    redundant_listener listener(2, "10.0.0.1 10.0.0.2 10.0.0.3");
    answering = {"10.0.0.1", "10.0.0.2"};
    EXPECT_FALSE(listener.request("10.0.0.1")) << "10.0.0.3 is not alive";
    answering = {"10.0.0.1", "10.0.0.2", "10.0.0.3"};
    EXPECT_FALSE(listener.request("10.0.0.1")) << "and back again";
    EXPECT_FALSE(listener.request("10.0.0.2"));
    EXPECT_FALSE(listener.request("10.0.0.1"));
    EXPECT_TRUE(listener.request("10.0.0.3"));
    EXPECT_TRUE(listener.request("10.0.0.1")) << "all three have asked";
    const log_lines expected = {suppressed(2, 2), suppressed(2, 1),
                                suppressed(2, 2), suppressed(2, 2)};
    EXPECT_EQ(listener.log.lines(), expected);
}

TEST(redundancy, the_senders_own_mark_stays_as_it_was) {
    redundant_listener listener(2, "10.0.0.1 10.0.0.2 10.0.0.3");
    answering = {"10.0.0.1", "10.0.0.3"};
    EXPECT_FALSE(listener.request("10.0.0.1"));
    answering = {"10.0.0.1", "10.0.0.2", "10.0.0.3"};
    std::string seen = traced(1, [&] { listener.request("10.0.0.2"); });
    EXPECT_NE(seen.find("DEBUG: 10.0.0.2\tx       \tx       \n"),
              std::string::npos)
        << seen;
}

TEST(redundancy, starting_again_forgets_everything) {
    redundant_listener listener(1, "10.0.0.1 10.0.0.2");
    answering = {"10.0.0.1", "10.0.0.2"};
    EXPECT_FALSE(listener.request("10.0.0.1"));
    init_redundant_shutdowns(&listener.settings, listener.members.get());
    EXPECT_FALSE(listener.request("10.0.0.2"));
    EXPECT_TRUE(listener.request("10.0.0.1"));
}

TEST(redundancy, thirty_members_are_all_used) {
    std::string members;
    for (int i = 1; i <= 30; i++) {
        members += "10.0.1." + std::to_string(i) + " ";
    }
    redundant_listener listener(29, members);
    EXPECT_EQ(listener.log.lines(), log_lines{});
    EXPECT_TRUE(listener.request("10.0.1.30"));
    EXPECT_EQ(calls.size(), 2u + 29u);
    answering = {"10.0.1.1"};
    EXPECT_FALSE(listener.request("10.0.1.30"));
    EXPECT_EQ(listener.log.lines(), log_lines{suppressed(29, 29)});
}

TEST(redundancy, a_stranger_is_no_member_whoever_has_asked_before) {
    redundant_listener listener(30, "10.0.0.1 10.0.0.2 10.0.0.3");
    EXPECT_FALSE(listener.request("10.0.0.1"));
    EXPECT_TRUE(listener.request("10.0.0.9"));
    EXPECT_EQ(calls, std::vector<std::string>{});
}

TEST(redundancy, members_past_the_thirtieth_are_left_out_and_told) {
    for (int count : {31, 32, 60, 300}) {
        std::string members;
        for (int i = 1; i <= count; i++) {
            members += "10.0." + std::to_string(1 + i / 200) + "." +
                       std::to_string(i % 200) + " ";
        }
        redundant_listener listener(30, members);
        EXPECT_EQ(listener.log.lines().size(), 1u) << count;
        listener.log.clear();
        EXPECT_TRUE(listener.request("10.0.1.31")) << "no member";
        EXPECT_EQ(calls, std::vector<std::string>{});
        EXPECT_FALSE(listener.request("10.0.1.30"));
        EXPECT_EQ(calls.size(), 2u + 29u + 1u);
        EXPECT_EQ(listener.log.lines(), log_lines{suppressed(30, 30)});
    }
}

TEST(redundancy, members_that_cannot_be_used_are_told) {
    redundant_listener two(1, "10.0.0.1 10.0.0.2");
    two.log.tell_more();
    EXPECT_EQ(two.log.lines(), log_lines{});
    two.settings.redundancy_addresses = ux_copy(" 10.0.0.1\t10.0.0.2 ");
    init_redundant_shutdowns(&two.settings, two.members.get());
    EXPECT_EQ(two.log.lines(), log_lines{});
    two.settings.redundancy_addresses =
        ux_copy("10.0.0.1 nobody.invalid  10.0.0.2\tno.one");
    init_redundant_shutdowns(&two.settings, two.members.get());
    EXPECT_EQ(two.log.lines(), log_lines{message(837, {"2", "4"})});
    two.settings.redundancy_enabled = ux_copy("FALSE");
    init_redundant_shutdowns(&two.settings, two.members.get());
    EXPECT_EQ(two.log.lines().size(), 1u);
}

TEST(redundancy, a_batch_file_name_of_511_bytes_is_run) {
    std::string name = "/" + std::string(510, 'b');
    redundant_listener listener(1, "10.0.0.1 10.0.0.2", "TRUE", "false", name);
    EXPECT_EQ(listener.log.lines(), log_lines{});
    answering = {"10.0.0.1", "10.0.0.2"};
    EXPECT_FALSE(listener.request("10.0.0.1"));
    EXPECT_EQ(calls.back(), "run [" + name + "] [none]");
}

TEST(redundancy, a_longer_batch_file_name_is_told_and_never_run_cut) {
    for (size_t length : {512U, 513U, 600U, 5000U}) {
        std::string name = "/" + std::string(length - 1, 'b');
        redundant_listener listener(1, "10.0.0.1 10.0.0.2", "TRUE", "false",
                                    name);
        EXPECT_EQ(listener.log.lines().size(), 1u) << length;
        listener.log.clear();
        answering = {"10.0.0.1", "10.0.0.2"};
        EXPECT_FALSE(listener.request("10.0.0.1"));
        EXPECT_EQ(listener.log.lines(), log_lines{suppressed(1, 1)});
        for (const std::string &call : calls) {
            EXPECT_EQ(call.find("bbbb"), std::string::npos) << call;
        }
    }
}

TEST(redundancy, a_longer_batch_file_name_matters_to_nobody_while_it_is_off) {
    redundant_listener listener(1, "10.0.0.1 10.0.0.2", "false", "false",
                                "/" + std::string(600, 'b'));
    EXPECT_EQ(listener.log.lines(), log_lines{});
}

TEST(redundancy, an_empty_or_unset_batch_file_is_no_error) {
    redundant_listener listener(1, "10.0.0.1 10.0.0.2", "TRUE", "false", "");
    answering = {"10.0.0.1", "10.0.0.2"};
    EXPECT_FALSE(listener.request("10.0.0.1"));
    listener.settings.redundancy_batch_file = nullptr;
    init_redundant_shutdowns(&listener.settings, listener.members.get());
    EXPECT_FALSE(listener.request("10.0.0.1"));
}

TEST(redundancy_table, shows_members_and_marks) {
    redundant_listener listener(1, "10.0.0.1 10.0.0.2 10.0.0.3");
    const std::string head = "DEBUG: IP-Address\tShutdown\tNotAlive\n";
    const std::string none = "        ";
    const std::string mark = "x       ";
    std::string at_start = traced(1, [&] {
        init_redundant_shutdowns(&listener.settings, listener.members.get());
    });
    EXPECT_EQ(at_start, head + "DEBUG: 10.0.0.1\t" + none + "\t" + none + "\n" +
                            "DEBUG: 10.0.0.2\t" + none + "\t" + none + "\n" +
                            "DEBUG: 10.0.0.3\t" + none + "\t" + none + "\n");
    answering = {"10.0.0.2"};
    std::string after = traced(1, [&] { listener.request("10.0.0.1"); });
    EXPECT_EQ(after, head + "DEBUG: 10.0.0.1\t" + mark + "\t" + none + "\n" +
                         "DEBUG: 10.0.0.2\t" + none + "\t" + none + "\n" +
                         "DEBUG: 10.0.0.3\t" + none + "\t" + mark + "\n");
}

TEST(redundancy_table, is_shown_without_tracking_too) {
    redundant_listener listener(0, "");
    EXPECT_EQ(traced(1, [&] { listener.request("10.0.0.1"); }),
              "DEBUG: IP-Address\tShutdown\tNotAlive\n");
    EXPECT_EQ(traced(0, [&] { listener.request("10.0.0.1"); }), "");
}

TEST(redundancy_table, skips_slots_that_are_not_in_use) {
    redundancy_record record{};
    record.addr[0] = "10.0.0.1";
    record.addr[29] = "10.0.0.30";
    record.inuse[29] = true;
    record.notalive[29] = true;
    EXPECT_EQ(traced(1, [&] { show_redundancy_table(&record); }),
              "DEBUG: IP-Address\tShutdown\tNotAlive\n"
              "DEBUG: 10.0.0.30\t        \tx       \n");
    EXPECT_EQ(traced(0, [&] { show_redundancy_table(&record); }), "");
}

TEST(redundancy_table, entries_are_traced_above_level_5) {
    redundancy_record record{};
    EXPECT_EQ(traced(6, [&] { show_redundancy_table(&record); }),
              "TRACEIN: show_redundancy_table\n"
              "DEBUG: IP-Address\tShutdown\tNotAlive\n");
}
