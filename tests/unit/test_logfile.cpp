/* Lines of the log: how they look, where they go, and what fills them. */
#include "failing_calls.h"
#include "log_fixture.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

/* What a line has before and behind its text. */
constexpr size_t LINE_FRAME = 36;
/* Characters of a text that still gets its line feed, with five digits. */
constexpr size_t WHOLE_TEXT = 1023 - LINE_FRAME;

/* Dates and times */

struct zone_case {
    const char *zone;
    time_t when;
    const char *date;
    const char *time;
};

class zone_test : public testing::Test {
  protected:
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(zone_test, date_and_time_are_local) {
    for (const zone_case &c :
         {zone_case{"UTC0", 0, "01/01/1970", "00:00:00"},
          zone_case{"UTC0", 1794795858, "11/16/2026", "02:24:18"},
          zone_case{"UTC0", 951782399, "02/28/2000", "23:59:59"},
          zone_case{"UTC0", 951782400, "02/29/2000", "00:00:00"},
          zone_case{"UTC0", 2147483648, "01/19/2038", "03:14:08"},
          zone_case{"UTC0", 4294967296, "02/07/2106", "06:28:16"},
          zone_case{"UTC0", -1, "12/31/1969", "23:59:59"},
          zone_case{"UTC0", -62135596800, "01/01/0001", "00:00:00"},
          zone_case{"UTC0", 253402300799, "12/31/9999", "23:59:59"},
          zone_case{"NPT-5:45", 0, "01/01/1970", "05:45:00"},
          zone_case{"ABC+11:30", 0, "12/31/1969", "12:30:00"},
          zone_case{"CET-1CEST,M3.5.0,M10.5.0/3", 1774745999, "03/29/2026",
                    "01:59:59"},
          zone_case{"CET-1CEST,M3.5.0,M10.5.0/3", 1774746000, "03/29/2026",
                    "03:00:00"}}) {
        /* Of the zone of the moment, which nobody else has to read anew. */
        setenv("TZ", c.zone, 1);
        EXPECT_STREQ(log_date_text(c.when), c.date) << c.zone << c.when;
        EXPECT_STREQ(log_time_text(c.when), c.time) << c.zone << c.when;
    }
}

TEST_F(logfile_test, a_time_that_is_none_gives_empty_texts) {
    for (time_t never : {INT64_MAX, INT64_MIN}) {
        EXPECT_STREQ(log_date_text(never), "");
        EXPECT_STREQ(log_time_text(never), "");
    }
}

TEST_F(logfile_test, date_and_time_stand_in_buffers_of_their_own) {
    const char *date = log_date_text(0);
    const char *time = log_time_text(0);
    EXPECT_NE(date, time);
    EXPECT_EQ(log_date_text(1000000000), date);
    EXPECT_EQ(log_time_text(1000000000), time);
}

TEST_F(logfile_test, a_line_carries_the_date_and_time_of_its_moment) {
    time_t before = time(nullptr);
    std::string line = traced(-1, [] { log_write_line("text"); });
    time_t after = time(nullptr);
    bool found = false;
    for (time_t t = before; t <= after; t++) {
        found = found || line == stamp(t) + ", tolva[00000]: text\n";
    }
    EXPECT_TRUE(found) << line;
}

/* The line */

struct text_case {
    const char *text;
    const char *logged;
};

class line_test : public logfile_test {
  protected:
    void check(const text_case &c);
};

void line_test::check(const text_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(line_of(c.text),
              std::string(", tolva[00000]: ") + c.logged + "\n");
}

TEST_F(line_test, texts) {
    for (const text_case &c :
         {text_case{"text", "text"}, text_case{" \t\r\n\v\f text", "text"},
          text_case{"text  ", "text  "}, text_case{"a\tb", "a\tb"},
          text_case{"100% %s %d %n", "100% %s %d %n"},
          text_case{"\xe4\xf6\xfc\xff", "\xe4\xf6\xfc\xff"},
          text_case{"\xa0"
                    "text",
                    "\xa0"
                    "text"}}) {
        check(c);
    }
}

TEST_F(line_test, own_name) {
    for (const text_case &c :
         {text_case{"TOLVA text", "text"}, text_case{"tolva text", "text"},
          text_case{"  ToLvA \t\n text", "text"}, text_case{"TOLVA", "TOLVA"},
          text_case{"TOLVAX", "TOLVAX"},
          text_case{"TOLVA\ttext", "TOLVA\ttext"},
          text_case{"TOLVA: text", "TOLVA: text"},
          text_case{"a TOLVA text", "a TOLVA text"},
          /* Once is enough. */
          text_case{"TOLVA TOLVA text", "TOLVA text"}}) {
        check(c);
    }
}

TEST_F(line_test, errors) {
    for (const text_case &c :
         {text_case{"ERROR: x", "error: x"},
          text_case{"TOLVA   ERROR: x", "error: x"},
          text_case{"  ERROR: x", "error: x"},
          text_case{"error: x", "error: x"}, text_case{"Error: x", "Error: x"},
          text_case{"ERROR:x", "ERROR:x"}, text_case{"ERROR x", "ERROR x"},
          text_case{"a ERROR: x", "a ERROR: x"},
          text_case{"ERROR:  x", "error:  x"}, text_case{"ERROR: ", "error: "},
          text_case{"ERROR: ERROR: x", "error: ERROR: x"},
          text_case{"ERROR: TOLVA x", "error: TOLVA x"}}) {
        check(c);
    }
}

TEST_F(logfile_test, nothing_gives_no_line) {
    for (const char *nothing :
         {"", " ", " \t\r\n\v\f", "TOLVA ", "tolva \n ", "  TOLVA    "}) {
        EXPECT_EQ(shown([&] { EXPECT_FALSE(log_write_line(nothing)); }), "")
            << nothing;
    }
    EXPECT_FALSE(log_write_line(nullptr));
}

TEST_F(logfile_test, a_line_shows_the_logged_process_id_with_five_digits) {
    const struct {
        int32_t pid;
        const char *shown;
    } cases[] = {{0, "00000"},     {1, "00001"},         {1234, "01234"},
                 {99999, "99999"}, {4194304, "4194304"}, {-5, "-0005"}};
    own_pid = 77;
    for (const auto &c : cases) {
        log_as(c.pid);
        EXPECT_EQ(line_of("x"), std::string(", tolva[") + c.shown + "]: x\n");
    }
    own_pid = 0;
}

TEST_F(logfile_test, a_line_is_cut_at_1023_characters) {
    const std::string head = ", tolva[00000]: ";
    for (size_t length : {WHOLE_TEXT - 1, WHOLE_TEXT}) {
        EXPECT_EQ(line_of(std::string(length, 'x')),
                  head + std::string(length, 'x') + "\n");
    }
    /* Then it is the line feed that goes first. */
    for (size_t length : {WHOLE_TEXT + 1, WHOLE_TEXT + 2, size_t{1023},
                          size_t{1024}, size_t{4096}, size_t{100000}}) {
        EXPECT_EQ(line_of(std::string(length, 'x')),
                  head + std::string(WHOLE_TEXT + 1, 'x'))
            << length;
    }
    EXPECT_EQ(line_of(std::string(5000, ' ') + "x"), head + "x\n");
    EXPECT_EQ(line_of("ERROR: " + std::string(5000, 'x')),
              head + "error: " + std::string(WHOLE_TEXT + 1 - 7, 'x'));
}

TEST_F(logfile_test, the_text_of_the_caller_stays_as_it_is) {
    char text[] = "  TOLVA ERROR: x";
    EXPECT_EQ(line_of(text), ", tolva[00000]: error: x\n");
    EXPECT_STREQ(text, "  TOLVA ERROR: x");
}

/* Where it goes */

TEST_F(logfile_test, standard_output_shows_a_line_at_once) {
    capture output;
    EXPECT_TRUE(log_write_line("now"));
    EXPECT_NE(output.so_far().find(", tolva[00000]: now\n"), std::string::npos);
}

TEST_F(logfile_test, an_open_log_counts_only_when_file_logging_is_on) {
    ASSERT_TRUE(logfile_open(path.c_str(), 0));
    EXPECT_EQ(line_of("x"), ", tolva[00000]: x\n");
    EXPECT_FALSE(file_exists(path));
    log_into_file();
    EXPECT_EQ(line_of("y"), "");
    EXPECT_EQ(log(), ", tolva[00000]: y\n");
}

TEST_F(logfile_test, file_logging_without_a_log_loses_the_line) {
    log_into_file();
    EXPECT_EQ(shown([] { EXPECT_FALSE(log_write_line("x")); }), "");
}

TEST_F(logfile_test, a_detached_process_without_file_drops_the_line) {
    daemonized = 1;
    EXPECT_EQ(shown([] { EXPECT_TRUE(log_write_line("x")); }), "");
    EXPECT_EQ(shown([] { EXPECT_TRUE(log_message(0, "x")); }), "");
    open_log(0);
    EXPECT_EQ(shown([] { EXPECT_TRUE(log_write_line("y")); }), "");
    EXPECT_EQ(log(), ", tolva[00000]: y\n");
}

TEST_F(logfile_test, a_full_standard_output_loses_the_line) {
    EXPECT_EXIT(
        {
            dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
            _exit(log_write_line("x") == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

/* The file */

TEST_F(logfile_test, open_needs_a_name_and_no_open_log) {
    EXPECT_FALSE(logfile_open(nullptr, 1));
    EXPECT_FALSE(logfile_open("", 1));
    EXPECT_TRUE(logfile_open(path.c_str(), 1));
    EXPECT_FALSE(logfile_open(path.c_str(), 1));
    EXPECT_FALSE(logfile_open(dir.path("other").c_str(), 1));
    log_into_file();
    EXPECT_TRUE(log_write_line("x"));
    EXPECT_FALSE(file_exists(dir.path("other")));
    EXPECT_EQ(log(), ", tolva[00000]: x\n");
    logfile_close();
    EXPECT_FALSE(log_write_line("y"));
    EXPECT_TRUE(logfile_open(dir.path("other").c_str(), 1));
    EXPECT_TRUE(log_write_line("z"));
    EXPECT_TRUE(file_exists(dir.path("other")));
}

TEST_F(logfile_test, open_needs_memory_for_the_name) {
    {
        failing_heap none;
        EXPECT_FALSE(logfile_open(path.c_str(), 1));
    }
    EXPECT_FALSE(logfile_trim());
    EXPECT_TRUE(logfile_open(path.c_str(), 1));
}

TEST_F(logfile_test, open_copies_the_name_and_creates_nothing) {
    std::string name = path;
    ASSERT_TRUE(logfile_open(name.c_str(), 1));
    name.assign(name.size(), 'x');
    EXPECT_FALSE(file_exists(path));
    log_into_file();
    EXPECT_TRUE(log_write_line("x"));
    EXPECT_TRUE(file_exists(path));
}

TEST_F(logfile_test, lines_are_appended) {
    write_file(path, "old\n");
    open_log(1024);
    EXPECT_TRUE(log_write_line("one"));
    EXPECT_TRUE(log_write_line("two"));
    EXPECT_EQ(log(), "old\n, tolva[00000]: one\n, tolva[00000]: two\n");
}

TEST_F(logfile_test, a_line_without_line_feed_is_continued) {
    open_log(1024);
    const std::string text(WHOLE_TEXT + 1, 'x');
    EXPECT_TRUE(log_write_line((text + "cut").c_str()));
    EXPECT_EQ(read_file(path).size(), 1023u);
    EXPECT_TRUE(log_write_line("y"));
    EXPECT_EQ(read_file(path).size(), 1023u + LINE_FRAME + 1);
}

TEST_F(logfile_test, no_descriptor_is_kept_between_lines) {
    open_log(1);
    write_file(path, numbered_lines(50, 20));
    int before = dup(0);
    close(before);
    for (int i = 0; i < 100; i++) {
        log_write_line("some line of text");
    }
    int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
    ASSERT_EQ(rename(path.c_str(), dir.path("old").c_str()), 0);
    EXPECT_TRUE(log_write_line("new"));
    EXPECT_EQ(log(), ", tolva[00000]: new\n");
}

TEST_F(logfile_test, a_file_that_cannot_be_written_loses_the_line) {
    ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
    open_log(0);
    EXPECT_FALSE(log_write_line("x"));
    EXPECT_FALSE(log_message(0, "x"));
    logfile_close();
    for (const std::string &bad :
         {dir.path("no/such.log"), dir.path(), path + "/below"}) {
        for (int32_t size : {0, 1}) {
            ASSERT_TRUE(logfile_open(bad.c_str(), size));
            EXPECT_FALSE(log_write_line("x")) << bad;
            logfile_close();
        }
    }
}

TEST_F(logfile_test, a_limit_is_one_of_kibibytes) {
    for (int32_t size : {1, 3}) {
        const auto limit = static_cast<size_t>(size) * 1024;
        write_file(path, numbered_lines(50, 200));
        open_log(size);
        EXPECT_TRUE(log_write_line("last"));
        const std::string kept = read_file(path);
        EXPECT_LE(kept.size(), limit);
        EXPECT_GT(kept.size(), limit / 2);
        EXPECT_NE(kept.find("]: last\n"), std::string::npos);
        logfile_close();
        log_into_file(false);
    }
}

TEST_F(logfile_test, trimming_cuts_the_head_off_a_log_with_a_limit_only) {
    const std::string old = numbered_lines(50, 200);
    for (int32_t unlimited : {0, -1}) {
        write_file(path, old);
        open_log(unlimited);
        EXPECT_TRUE(logfile_trim());
        EXPECT_EQ(read_file(path), old);
        logfile_close();
    }
    open_log(1);
    EXPECT_TRUE(logfile_trim());
    EXPECT_LE(read_file(path).size(), 1024u);
    EXPECT_GT(read_file(path).size(), 512u);
    logfile_close();
    EXPECT_FALSE(logfile_trim());
}

/* Messages */

class message_test : public logfile_test {
  protected:
    template <typename... arguments>
    std::string message(int32_t count, const char *format, arguments... args) {
        std::string line = shown([&] {
            EXPECT_TRUE(log_message(count, format, args...)) << format;
        });
        const std::string head = ", tolva[00000]: ";
        EXPECT_EQ(line.rfind(head, 0), 0u) << line;
        return line.substr(head.size());
    }
};

TEST_F(message_test, fills_in_as_many_texts_as_it_is_told) {
    EXPECT_EQ(message(0, "text"), "text\n");
    EXPECT_EQ(message(1, "%s", "a"), "a\n");
    EXPECT_EQ(message(2, "%s and %s", "a", "b"), "a and b\n");
    EXPECT_EQ(message(3, "%s%s,%s", "a", "b", "c"), "ab,c\n");
    EXPECT_EQ(message(1, "%s and %s", "a", "b"), "a and %s\n");
    EXPECT_EQ(message(0, "%s and %s", "a", "b"), "%s and %s\n");
    EXPECT_EQ(message(-1, "%s", "a"), "%s\n");
    EXPECT_EQ(message(3, "only %s", "a", "b", "c"), "only a\n");
    EXPECT_EQ(message(1, "<%s>", ""), "<>\n");
}

TEST_F(message_test, knows_no_directive_but_a_free_standing_s) {
    EXPECT_EQ(message(1, "%sx", "a"), "%sx\n");
    EXPECT_EQ(message(1, "%s7", "a"), "%s7\n");
    EXPECT_EQ(message(1, "%sZ %s.", "a"), "%sZ a.\n");
    EXPECT_EQ(message(1, "%s_", "a"), "a_\n");
    EXPECT_EQ(message(1, "(%s)", "a"), "(a)\n");
    EXPECT_EQ(message(1, "%s\n", "a"), "a\n\n");
    EXPECT_EQ(message(1, "%s\xe4", "a"), "a\xe4\n");
    EXPECT_EQ(message(1, "%S %d %5s %-s %ls %c %", "a"),
              "%S %d %5s %-s %ls %c %\n");
    EXPECT_EQ(message(1, "100%% %s", "a"), "100%% a\n");
}

TEST_F(message_test, takes_texts_as_they_are) {
    EXPECT_EQ(message(2, "%s %s", "%s", "%d"), "%s %d\n");
    EXPECT_EQ(message(1, "%s", "\xe4\xff"), "\xe4\xff\n");
    EXPECT_EQ(message(1, "%s", "  TOLVA ERROR: x"), "error: x\n");
}

TEST_F(message_test, uses_a_null_text_up_and_keeps_the_directive) {
    const char *none = nullptr;
    EXPECT_EQ(message(1, "%s", none), "%s\n");
    EXPECT_EQ(message(2, "%s %s", none, "b"), "%s b\n");
    EXPECT_EQ(message(2, "%s %s %s", "a", none, "c"), "a %s %s\n");
}

TEST_F(message_test, builds_a_text_of_at_most_1023_characters) {
    const std::string blanks(500, ' ');
    const std::string letters(1000, 'x');
    const std::string kept(523, 'x');
    /* The blanks count here and go later. */
    EXPECT_EQ(message(0, (blanks + letters).c_str()), kept + "\n");
    EXPECT_EQ(message(1, "%s", (blanks + letters).c_str()), kept + "\n");
    EXPECT_EQ(message(2, "%s%s", blanks.c_str(), letters.c_str()), kept + "\n");
    EXPECT_EQ(message(1, (blanks + "%s" + letters).c_str(), "y"),
              "%s" + kept.substr(2) + "\n");
    EXPECT_EQ(message(1, (blanks + "%s " + letters).c_str(), "y"),
              "y " + kept.substr(2) + "\n");
    EXPECT_EQ(message(1, (blanks + kept + "%s").c_str(), "y"), kept + "\n");
    EXPECT_EQ(message(1, (blanks + kept.substr(1) + "%s").c_str(), "yz"),
              kept.substr(1) + "y\n");
    EXPECT_EQ(message(1, "%s", std::string(100000, 'x').c_str()),
              std::string(WHOLE_TEXT + 1, 'x'));
}

TEST_F(message_test, without_text_nothing_is_logged) {
    EXPECT_EQ(shown([] {
                  EXPECT_FALSE(log_message(0, nullptr));
                  EXPECT_FALSE(log_message(0, ""));
                  EXPECT_FALSE(log_message(0, "  \t"));
                  EXPECT_FALSE(log_message(1, "%s", ""));
                  EXPECT_FALSE(log_message(1, "%s", "  "));
                  EXPECT_FALSE(log_message(0, "TOLVA "));
              }),
              "");
}

TEST_F(message_test, says_1_for_a_written_line_whatever_the_way) {
    open_log(1);
    write_file(path, numbered_lines(50, 22));
    EXPECT_TRUE(log_message(1, "%s", std::string(40, 't').c_str()));
    EXPECT_TRUE(log_message(0, "x"));
    log_into_file(false);
    EXPECT_EQ(message(0, "x"), "x\n");
}

TEST_F(message_test, the_two_kinds_of_failure) {
    EXPECT_EQ(shown([] { log_system(ENOENT); }),
              ", tolva[00000]: system: No such file or directory\n");
    EXPECT_EQ(shown([] { log_error(EINVAL); }),
              ", tolva[00000]: error: Invalid argument\n");
}

/* Trace */

TEST_F(message_test, tells_its_format_above_trace_level_0) {
    auto log_it = [] { log_message(1, "%s and %s", "a"); };
    EXPECT_EQ(traced(0, log_it).find("DEBUG"), std::string::npos);
    EXPECT_EQ(traced(-1, log_it).find("DEBUG"), std::string::npos);
    EXPECT_EQ(traced(1, log_it).rfind("DEBUG: arg= [%s and %s]\n", 0), 0u);
    EXPECT_EQ(traced(1, [] { log_message(0, ""); }), "");
    EXPECT_EQ(traced(5, log_it).find("TRACE"), std::string::npos);
    EXPECT_EQ(traced(6, log_it).rfind("TRACEIN: log_message\n", 0), 0u);
}

} // namespace

TEST_F(logfile_test, nothing_is_read_behind_the_end_of_a_message) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char *end = static_cast<char *>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    memcpy(end - 5, "text", 5);
    EXPECT_EQ(shown([&] { log_message(1, end - 5, "unused"); }),
              ", tolva[00000]: text\n");
    munmap(pages, 2 * page);
}
