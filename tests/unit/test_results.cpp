/* The forms of a result, and the reading of earlier ones. */
#include "tolva2/fleet/results.h"

#include <gtest/gtest.h>

#include <string>

namespace {

host_list parsed(const std::string &text) {
    return parse_hosts(ux_copy(text.c_str()), text.size(), 6003);
}

/* One result in that form, of a host with that line. */
std::string line_of(result_form form, const std::string &line,
                    const verdict &found, const char *label = nullptr) {
    host_list list = parsed(line);
    result_lines lines;
    lines.form = form;
    lines.label = label;
    text_buffer out;
    append_result(&out, &lines, list[0], found, 12);
    return std::string(out.view());
}

verdict failed_with(int32_t status) {
    verdict found = judged(outcome::failed, "it said \"%s\"", "x\ty");
    found.has_status = true;
    found.status = status;
    return found;
}

/* The hosts that are left to be told, as one text. */
std::string left_after(const std::string &results, bool *usable = nullptr) {
    host_list list = parsed("1.2.3.1\n1.2.3.2 b\nweb:7\n1.2.3.04\n");
    bool taken = skip_done(&list, results);
    if (usable) {
        *usable = taken;
    }
    std::string left;
    for (const fleet_host &host : list) {
        left += host.skipped ? "" : std::string(host.target) + " ";
    }
    return left;
}

constexpr char HEADING[] =
    "address\tname\toutcome\tstatus\tmilliseconds\treason\n";

} // namespace

TEST(append_result, has_three_forms) {
    EXPECT_EQ(line_of(result_form::text, "1.2.3.4 web 1", failed_with(3)),
              "failed       1.2.3.4  web 1: it said \"x\\x09y\"\n");
    EXPECT_EQ(line_of(result_form::table, "1.2.3.4 web\\1", failed_with(3)),
              "1.2.3.4\tweb\\\\1\tfailed\t3\t12\tit said \"x\\x09y\"\n");
    EXPECT_EQ(line_of(result_form::json, "1.2.3.4 \"web\\", failed_with(3)),
              "{\"address\":\"1.2.3.4\",\"name\":\"\\\"web\\\\\","
              "\"outcome\":\"failed\",\"status\":3,\"milliseconds\":12,"
              "\"reason\":\"it said \\\"x\\u0009y\\\"\"}\n");
}

TEST(append_result, says_little_of_what_is_done) {
    verdict done = judged(outcome::done, "%s", "");
    EXPECT_EQ(line_of(result_form::text, "1.2.3.4", done),
              "done         1.2.3.4\n");
    EXPECT_EQ(line_of(result_form::text, "1.2.3.4 b", done, "stage a"),
              "stage a: done         1.2.3.4  b\n");
    EXPECT_EQ(line_of(result_form::table, "1.2.3.4", done, "stage a"),
              "1.2.3.4\t\tdone\t-\t12\t\n");
    EXPECT_NE(
        line_of(result_form::json, "1.2.3.4", done).find("\"status\":null"),
        std::string::npos);
}

TEST(append_summary, counts_what_there_is) {
    result_lines lines;
    lines.counts[static_cast<size_t>(outcome::done)] = 2;
    lines.counts[static_cast<size_t>(outcome::timeout)] = 1;
    text_buffer out;
    append_summary(&out, lines, nullptr);
    append_summary(&out, lines, "SIGTERM");
    EXPECT_EQ(out.view(), "3 hosts: 2 done, 1 timeout\n"
                          "ended by SIGTERM: 3 hosts: 2 done, 1 timeout\n");
}

TEST(skip_done, reads_both_forms) {
    EXPECT_EQ(left_after(std::string(HEADING) +
                         "1.2.3.1\t\tdone\t0\t1\t\n1.2.3.2\tb\tfailed\t1\t1\t\n"
                         "web:7\t\tdone\t0\t1\t\r\n"),
              "1.2.3.2 1.2.3.04 ");
    EXPECT_EQ(left_after("{\"address\":\"1.2.3.1\",\"name\":\"\\\"outcome\\\":"
                         "\\\"failed\\\"\",\"outcome\":\"done\"}\n"
                         "{\"address\": \"web:7\", \"outcome\": \"done\"}\n"),
              "1.2.3.2 1.2.3.04 ");
}

TEST(skip_done, the_last_line_of_a_host_counts) {
    EXPECT_EQ(
        left_after("1.2.3.1\t\ttimeout\t-\t1\t\n1.2.3.1\t\tdone\t0\t1\t\n"
                   "1.2.3.2\t\tdone\t0\t1\t\n1.2.3.2\t\tfailed\t9\t1\t\n"),
        "1.2.3.2 web:7 1.2.3.04 ");
}

TEST(skip_done, takes_no_other_file) {
    bool usable = true;
    left_after("1.2.3.1 web1\n1.2.3.2 web2\n", &usable);
    EXPECT_FALSE(usable);
    left_after("{\"address\":\"1.2.3.1\"}\n", &usable);
    EXPECT_FALSE(usable);
    EXPECT_EQ(left_after("1.2.3.1\t\tdone\t0\t1\t\n1.2.3.2\tb\tdo", &usable),
              "1.2.3.2 web:7 1.2.3.04 ");
    EXPECT_TRUE(usable) << "a line that was cut off is no result";
}
