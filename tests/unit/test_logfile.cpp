#include "capture.h"
#include "starve.h"
#include "temp_dir.h"
#include "tolva2/base/process_state.h"
#include "tolva2/files/logfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

namespace
{

/* What a line has before and behind its text. */
constexpr size_t LINE_FRAME = 36;
/* Characters of a text that still gets its line feed, with five digits. */
constexpr size_t WHOLE_TEXT = 1023 - LINE_FRAME;

std::string stamp(time_t t)
{
    char text[64];
    tm local;
    localtime_r(&t, &local);
    strftime(text, sizeof text, "%m/%d/%Y,%H:%M:%S", &local);
    return text;
}

/* The lines without their dates and times, which lie between two moments. */
std::string without_stamps(const std::string &lines, time_t from, time_t to)
{
    std::string rest;
    size_t start = 0;
    while (start < lines.size()) {
        size_t end = lines.find('\n', start);
        end = end == std::string::npos ? lines.size() : end + 1;
        std::string line = lines.substr(start, end - start);
        for (time_t t = from; t <= to; t++) {
            if (line.rfind(stamp(t), 0) == 0) {
                line = line.substr(stamp(t).size());
                break;
            }
        }
        rest += line;
        start = end;
    }
    return rest;
}

std::string numbered_lines(size_t length, size_t count)
{
    std::string lines;
    for (size_t i = 0; i < count; i++) {
        std::string line = "line " + std::to_string(i) + " ";
        line.resize(length - 1, '.');
        lines += line + "\n";
    }
    return lines;
}

class logfile_test : public testing::Test
{
  protected:
    void TearDown() override
    {
        logfile_close();
        log_to_file = 0;
        logged_pid = 0;
        daemonized = 0;
    }
    void log_into_file(int32_t size_kib)
    {
        ASSERT_EQ(logfile_open(path.c_str(), size_kib), 1);
        log_to_file = 1;
    }
    /* What standard output gets from body, without dates and times. */
    template <typename body_type> std::string shown(body_type body)
    {
        time_t before = time(nullptr);
        std::string output = traced(-1, body);
        return without_stamps(output, before, time(nullptr));
    }
    /* What log_write_line makes of text. */
    std::string line_of(const std::string &text)
    {
        return shown([&] { EXPECT_NE(log_write_line(text.c_str()), 0); });
    }
    std::string log() const
    {
        return without_stamps(read_file(path), started, time(nullptr));
    }

    time_t started = time(nullptr);
    temp_dir dir;
    std::string path = dir.path("tolva.log");
};

/* Dates and times */

struct zone_case {
    const char *zone;
    time_t when;
    const char *date;
    const char *time;
};

class zone_test : public testing::Test
{
  protected:
    void TearDown() override
    {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(zone_test, date_and_time_are_local)
{
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
        setenv("TZ", c.zone, 1);
        tzset();
        EXPECT_STREQ(log_date_text(c.when), c.date) << c.zone << c.when;
        EXPECT_STREQ(log_time_text(c.when), c.time) << c.zone << c.when;
    }
}

TEST_F(logfile_test, a_time_that_is_none_gives_empty_texts)
{
    for (time_t never : {INT64_MAX, INT64_MIN}) {
        EXPECT_STREQ(log_date_text(never), "");
        EXPECT_STREQ(log_time_text(never), "");
    }
}

TEST_F(logfile_test, date_and_time_stand_in_buffers_of_their_own)
{
    const char *date = log_date_text(0);
    const char *time = log_time_text(0);
    EXPECT_NE(date, time);
    EXPECT_EQ(log_date_text(1000000000), date);
    EXPECT_EQ(log_time_text(1000000000), time);
}

TEST_F(logfile_test, a_line_carries_the_date_and_time_of_its_moment)
{
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

class line_test : public logfile_test
{
  protected:
    void check(const text_case &c);
};

void line_test::check(const text_case &c)
{
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(line_of(c.text),
              std::string(", tolva[00000]: ") + c.logged + "\n");
}

TEST_F(line_test, texts)
{
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

TEST_F(line_test, own_name)
{
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

TEST_F(line_test, errors)
{
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

TEST_F(logfile_test, nothing_gives_no_line)
{
    for (const char *nothing :
         {"", " ", " \t\r\n\v\f", "TOLVA ", "tolva \n ", "  TOLVA    "}) {
        EXPECT_EQ(shown([&] { EXPECT_EQ(log_write_line(nothing), 0); }), "")
            << nothing;
    }
    EXPECT_EQ(log_write_line(nullptr), 0);
}

TEST_F(logfile_test, a_line_shows_the_logged_process_id_with_five_digits)
{
    const struct {
        int32_t pid;
        const char *shown;
    } cases[] = {{0, "00000"},     {1, "00001"},         {1234, "01234"},
                 {99999, "99999"}, {4194304, "4194304"}, {-5, "-0005"}};
    own_pid = 77;
    for (const auto &c : cases) {
        logged_pid = c.pid;
        EXPECT_EQ(line_of("x"), std::string(", tolva[") + c.shown + "]: x\n");
    }
    own_pid = 0;
}

TEST_F(logfile_test, a_line_is_cut_at_1023_characters)
{
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

TEST_F(logfile_test, the_text_of_the_caller_stays_as_it_is)
{
    char text[] = "  TOLVA ERROR: x";
    EXPECT_EQ(line_of(text), ", tolva[00000]: error: x\n");
    EXPECT_STREQ(text, "  TOLVA ERROR: x");
}

/* Where it goes */

TEST_F(logfile_test, standard_output_shows_a_line_at_once)
{
    capture output;
    EXPECT_NE(log_write_line("now"), 0);
    EXPECT_NE(output.so_far().find(", tolva[00000]: now\n"), std::string::npos);
}

TEST_F(logfile_test, an_open_log_counts_only_when_file_logging_is_on)
{
    ASSERT_EQ(logfile_open(path.c_str(), 0), 1);
    EXPECT_EQ(line_of("x"), ", tolva[00000]: x\n");
    EXPECT_FALSE(file_exists(path));
    log_to_file = 1;
    EXPECT_EQ(line_of("y"), "");
    EXPECT_EQ(log(), ", tolva[00000]: y\n");
}

TEST_F(logfile_test, file_logging_without_a_log_loses_the_line)
{
    log_to_file = 1;
    EXPECT_EQ(shown([] { EXPECT_EQ(log_write_line("x"), 0); }), "");
}

TEST_F(logfile_test, a_detached_process_without_file_drops_the_line)
{
    daemonized = 1;
    EXPECT_EQ(shown([] { EXPECT_EQ(log_write_line("x"), 1); }), "");
    EXPECT_EQ(shown([] { EXPECT_EQ(log_message(0, "x"), 1); }), "");
    log_into_file(0);
    EXPECT_EQ(shown([] { EXPECT_EQ(log_write_line("y"), 1); }), "");
    EXPECT_EQ(log(), ", tolva[00000]: y\n");
}

TEST_F(logfile_test, a_full_standard_output_loses_the_line)
{
    EXPECT_EXIT(
        {
            dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
            _exit(log_write_line("x") == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

/* The file */

TEST_F(logfile_test, open_needs_a_name_and_no_open_log)
{
    EXPECT_EQ(logfile_open(nullptr, 1), 0);
    EXPECT_EQ(logfile_open("", 1), 0);
    EXPECT_EQ(logfile_open(path.c_str(), 1), 1);
    EXPECT_EQ(logfile_open(path.c_str(), 1), 0);
    EXPECT_EQ(logfile_open(dir.path("other").c_str(), 1), 0);
    log_to_file = 1;
    EXPECT_EQ(log_write_line("x"), 1);
    EXPECT_FALSE(file_exists(dir.path("other")));
    EXPECT_EQ(log(), ", tolva[00000]: x\n");
    logfile_close();
    EXPECT_EQ(log_write_line("y"), 0);
    EXPECT_EQ(logfile_open(dir.path("other").c_str(), 1), 1);
    EXPECT_EQ(log_write_line("z"), 1);
    EXPECT_TRUE(file_exists(dir.path("other")));
}

TEST_F(logfile_test, open_copies_the_name_and_creates_nothing)
{
    std::string name = path;
    ASSERT_EQ(logfile_open(name.c_str(), 1), 1);
    name.assign(name.size(), 'x');
    EXPECT_FALSE(file_exists(path));
    log_to_file = 1;
    EXPECT_EQ(log_write_line("x"), 1);
    EXPECT_TRUE(file_exists(path));
}

TEST_F(logfile_test, lines_are_appended)
{
    write_file(path, "old\n");
    log_into_file(1024);
    EXPECT_EQ(log_write_line("one"), 1);
    EXPECT_EQ(log_write_line("two"), 1);
    EXPECT_EQ(log(), "old\n, tolva[00000]: one\n, tolva[00000]: two\n");
}

TEST_F(logfile_test, a_line_without_line_feed_is_continued)
{
    log_into_file(1024);
    const std::string text(WHOLE_TEXT + 1, 'x');
    EXPECT_EQ(log_write_line((text + "cut").c_str()), 1);
    EXPECT_EQ(read_file(path).size(), 1023u);
    EXPECT_EQ(log_write_line("y"), 1);
    EXPECT_EQ(read_file(path).size(), 1023u + LINE_FRAME + 1);
}

TEST_F(logfile_test, no_descriptor_is_kept_between_lines)
{
    log_into_file(1);
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
    EXPECT_EQ(log_write_line("new"), 1);
    EXPECT_EQ(log(), ", tolva[00000]: new\n");
}

TEST_F(logfile_test, a_file_that_cannot_be_written_loses_the_line)
{
    ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
    log_into_file(0);
    EXPECT_EQ(log_write_line("x"), 0);
    EXPECT_EQ(log_message(0, "x"), 0);
    logfile_close();
    for (const std::string &bad :
         {dir.path("no/such.log"), dir.path(), path + "/below"}) {
        for (int32_t size : {0, 1}) {
            ASSERT_EQ(logfile_open(bad.c_str(), size), 1);
            EXPECT_EQ(log_write_line("x"), 0) << bad;
            logfile_close();
        }
    }
}

/* The limit */

TEST_F(logfile_test, a_file_grows_to_one_byte_below_its_limit)
{
    log_into_file(1);
    const std::string text(64, 't'); /* a line of 100 bytes */
    const std::string old = numbered_lines(33, 28).substr(0, 923);
    write_file(path, old);
    EXPECT_EQ(log_write_line(text.c_str()), 1);
    EXPECT_EQ(read_file(path).size(), 1023u);
    EXPECT_EQ(read_file(path).substr(0, 923), old);
}

TEST_F(logfile_test, the_line_that_would_fill_the_file_cuts_its_head)
{
    log_into_file(1);
    const std::string text(64, 't');
    const std::string old = numbered_lines(33, 28); /* 924 bytes */
    write_file(path, old);
    EXPECT_EQ(log_write_line(text.c_str()), 1);
    /* 102 bytes and what is left of the line there. */
    EXPECT_EQ(log(), old.substr(132) + ", tolva[00000]: " + text + "\n");
}

TEST_F(logfile_test, a_cut_takes_a_tenth_of_the_limit_and_the_excess)
{
    log_into_file(1);
    const std::string text(40, 't');                /* a line of 76 bytes */
    const std::string old = numbered_lines(50, 22); /* 1,100 bytes */
    write_file(path, old);
    EXPECT_EQ(log_write_line(text.c_str()), 1);
    /* 254 bytes, and on to the end of that line. */
    EXPECT_EQ(log(), old.substr(300) + ", tolva[00000]: " + text + "\n");
}

TEST_F(logfile_test, a_cut_at_the_start_of_a_line_takes_that_line_along)
{
    log_into_file(1);
    const std::string text(40, 't');
    std::string old = std::string(253, 'a') + "\n" + std::string(20, 'b') +
                      "\n" + std::string(824, 'c') + "\n";
    ASSERT_EQ(old.size(), 1100u);
    write_file(path, old);
    EXPECT_EQ(log_write_line(text.c_str()), 1);
    EXPECT_EQ(log(), old.substr(275) + ", tolva[00000]: " + text + "\n");
}

TEST_F(logfile_test, the_limit_counts_whatever_the_file_held_before)
{
    log_into_file(1);
    const std::string text(64, 't');
    const std::string old = numbered_lines(100, 1000);
    write_file(path, old);
    EXPECT_EQ(log_write_line(text.c_str()), 1);
    /* 100,000 - 924 + 102 bytes, up to the end of line 991. */
    EXPECT_EQ(log(), old.substr(99200) + ", tolva[00000]: " + text + "\n");
}

TEST_F(logfile_test, without_a_limit_nothing_is_cut)
{
    for (int32_t size : {0, -1, INT32_MIN}) {
        logfile_close();
        log_into_file(size);
        const std::string old = numbered_lines(100, 1000);
        write_file(path, old);
        EXPECT_EQ(log_write_line("x"), 1);
        EXPECT_EQ(log(), old + ", tolva[00000]: x\n") << size;
    }
}

TEST_F(logfile_test, large_limits_do_not_wrap)
{
    for (int32_t size : {1024, 1048576, INT32_MAX}) {
        logfile_close();
        log_into_file(size);
        const std::string old = numbered_lines(100, 1000);
        write_file(path, old);
        EXPECT_EQ(log_write_line("x"), 1);
        EXPECT_EQ(log(), old + ", tolva[00000]: x\n") << size;
    }
}

TEST_F(logfile_test, nul_bytes_in_the_file_are_bytes_like_others)
{
    log_into_file(1);
    std::string old = numbered_lines(50, 22);
    old[10] = old[270] = old[310] = old[1000] = '\0';
    write_file(path, old);
    EXPECT_EQ(log_write_line(std::string(40, 't').c_str()), 1);
    EXPECT_EQ(read_file(path).substr(0, 800), old.substr(300));
}

/*
 * A file that keeps exactly so many bytes when a line of 100 bytes cuts it:
 * where it is cut, a line of more than 1 byte runs on to the kept part.
 */
std::string file_keeping(size_t kept, size_t limit)
{
    const size_t excess = 500;
    const size_t size = limit - 100 + excess;
    const size_t cut = limit / 10 + excess;
    EXPECT_GT(size - kept, cut + 1);
    EXPECT_LT(size - kept, cut + 8191);
    std::string tail;
    while (tail.size() < kept) {
        tail += "kept " + std::to_string(tail.size()) + "\n";
    }
    tail.resize(kept);
    if (kept > 0) {
        tail.back() = '\n';
    }
    return std::string(size - kept - 1, 'h') + "\n" + tail;
}

struct block_case {
    size_t kept;
    int32_t limit_kib;
    bool line_is_written;
};

class block_test : public logfile_test
{
  protected:
    void check(const block_case &c);
};

void block_test::check(const block_case &c)
{
    SCOPED_TRACE(testing::PrintToString(c.kept));
    logfile_close();
    const std::string old =
        file_keeping(c.kept, static_cast<size_t>(c.limit_kib) * 1024);
    const std::string kept = old.substr(old.size() - c.kept);
    const std::string text(64, 't');
    const std::string line = ", tolva[00000]: " + text + "\n";
    write_file(path, old);
    log_into_file(c.limit_kib);
    /* The file is cut either way. */
    if (c.line_is_written) {
        EXPECT_EQ(log_write_line(text.c_str()), 1);
        EXPECT_EQ(log(), kept + line);
    } else {
        EXPECT_EQ(log_write_line(text.c_str()), 0);
        EXPECT_EQ(log(), kept);
        EXPECT_EQ(log_message(1, "%s", text.c_str()), 1);
        EXPECT_EQ(log(), kept + line);
    }
}

TEST_F(block_test, kept_parts)
{
    for (const block_case &c :
         {block_case{0, 1, false}, block_case{1, 1, true},
          block_case{500, 1, true}, block_case{8191, 16, true},
          block_case{8192, 16, true}, block_case{8193, 16, false},
          block_case{10000, 16, false}, block_case{16383, 24, false},
          block_case{16384, 24, false}, block_case{16385, 24, true},
          block_case{20000, 24, true}, block_case{24576, 32, true},
          block_case{24577, 32, false}, block_case{40000, 48, true}}) {
        check(c);
    }
}

TEST_F(logfile_test, of_a_line_without_end_8192_bytes_are_dropped)
{
    const std::string old(20000, 'x');
    write_file(path, old);
    log_into_file(16);
    EXPECT_EQ(log_write_line(std::string(64, 't').c_str()), 1);
    /* Cut at 1,638 + 3,716; 6,454 bytes are left and one line of 100. */
    EXPECT_EQ(read_file(path).size(), 6454u + 100u);
}

TEST_F(logfile_test, a_log_fills_up_and_is_cut_again_and_again)
{
    log_into_file(2);
    for (int i = 0; i < 500; i++) {
        EXPECT_EQ(log_message(1, "line %s ..................",
                              std::to_string(i).c_str()),
                  1);
        EXPECT_LT(read_file(path).size(), 2048u);
    }
    const std::string whole = log();
    EXPECT_NE(whole.find("line 499 "), std::string::npos);
    EXPECT_EQ(whole.find("line 400 "), std::string::npos);
    EXPECT_EQ(whole.rfind(", tolva[00000]: line 4", 0), 0u);
    EXPECT_EQ(whole.back(), '\n');
}

TEST_F(logfile_test, without_a_temporary_file_nothing_is_cut_or_written)
{
    const std::string old = numbered_lines(50, 22);
    write_file(path, old);
    log_into_file(1);
    EXPECT_EXIT(
        {
            no_more_descriptors();
            _exit(log_write_line("x") == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EQ(read_file(path), old);
}

TEST_F(logfile_test, a_log_that_cannot_be_read_is_not_cut)
{
    const std::string old = numbered_lines(50, 22);
    write_file(path, old);
    ASSERT_EQ(chmod(path.c_str(), 0222), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    log_into_file(1);
    EXPECT_EXIT(
        {
            become_nobody();
            _exit(log_write_line("x") == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(read_file(path), old);
}

TEST_F(logfile_test, a_log_whose_rest_finds_no_room_is_not_cut)
{
    const struct {
        size_t kept;
        int32_t limit_kib;
        rlim_t room;
    } cases[] = {{20000, 24, 4096}, {16000, 24, 4096}, {3000, 4, 1024}};
    for (const auto &c : cases) {
        logfile_close();
        log_into_file(c.limit_kib);
        const std::string old =
            file_keeping(c.kept, static_cast<size_t>(c.limit_kib) * 1024);
        write_file(path, old);
        EXPECT_EXIT(
            {
                limit_files_to(c.room);
                _exit(log_write_line("x") == 0 ? 3 : 4);
            },
            testing::ExitedWithCode(3), "");
        EXPECT_EQ(read_file(path), old) << c.kept;
    }
}

TEST_F(logfile_test, trim_cuts_a_file_that_has_reached_its_limit)
{
    EXPECT_EQ(logfile_trim(), 0);
    ASSERT_EQ(logfile_open(path.c_str(), 1), 1);
    EXPECT_NE(logfile_trim(), 0);
    EXPECT_FALSE(file_exists(path));
    const std::string old = numbered_lines(32, 32); /* 1,024 bytes */
    write_file(path, old.substr(1));
    EXPECT_NE(logfile_trim(), 0);
    EXPECT_EQ(read_file(path), old.substr(1));
    write_file(path, old);
    EXPECT_NE(logfile_trim(), 0);
    EXPECT_EQ(read_file(path), old.substr(128));
    /* The excess goes too: 102 + 64. */
    write_file(path, old + old.substr(0, 64));
    EXPECT_NE(logfile_trim(), 0);
    EXPECT_EQ(read_file(path), (old + old.substr(0, 64)).substr(192));
    logfile_close();
    EXPECT_EQ(logfile_trim(), 0);
}

TEST_F(logfile_test, trim_tells_when_the_rest_came_in_an_even_number_of_blocks)
{
    ASSERT_EQ(logfile_open(path.c_str(), 16), 1);
    const std::string even = file_keeping(10000, 16384);
    write_file(path, even);
    EXPECT_EQ(logfile_trim(), 0);
    EXPECT_EQ(read_file(path), even.substr(even.size() - 10000));
    EXPECT_NE(logfile_trim(), 0);
}

TEST_F(logfile_test, trim_without_a_limit_changes_nothing)
{
    ASSERT_EQ(logfile_open(path.c_str(), 0), 1);
    const std::string old = numbered_lines(100, 1000);
    write_file(path, old);
    EXPECT_EQ(logfile_trim(), 1);
    EXPECT_EQ(read_file(path), old);
}

/* Messages */

class message_test : public logfile_test
{
  protected:
    template <typename... arguments>
    std::string message(int32_t count, const char *format, arguments... args)
    {
        std::string line = shown([&] {
            EXPECT_EQ(log_message(count, format, args...), 1) << format;
        });
        const std::string head = ", tolva[00000]: ";
        EXPECT_EQ(line.rfind(head, 0), 0u) << line;
        return line.substr(head.size());
    }
};

TEST_F(message_test, fills_in_as_many_texts_as_it_is_told)
{
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

TEST_F(message_test, knows_no_directive_but_a_free_standing_s)
{
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

TEST_F(message_test, takes_texts_as_they_are)
{
    EXPECT_EQ(message(2, "%s %s", "%s", "%d"), "%s %d\n");
    EXPECT_EQ(message(1, "%s", "\xe4\xff"), "\xe4\xff\n");
    EXPECT_EQ(message(1, "%s", "  TOLVA ERROR: x"), "error: x\n");
}

TEST_F(message_test, uses_a_null_text_up_and_keeps_the_directive)
{
    const char *none = nullptr;
    EXPECT_EQ(message(1, "%s", none), "%s\n");
    EXPECT_EQ(message(2, "%s %s", none, "b"), "%s b\n");
    EXPECT_EQ(message(2, "%s %s %s", "a", none, "c"), "a %s %s\n");
}

TEST_F(message_test, builds_a_text_of_at_most_1023_characters)
{
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

TEST_F(message_test, without_text_nothing_is_logged)
{
    EXPECT_EQ(shown([] {
                  EXPECT_EQ(log_message(0, nullptr), 0);
                  EXPECT_EQ(log_message(0, ""), 0);
                  EXPECT_EQ(log_message(0, "  \t"), 0);
                  EXPECT_EQ(log_message(1, "%s", ""), 0);
                  EXPECT_EQ(log_message(1, "%s", "  "), 0);
                  EXPECT_EQ(log_message(0, "TOLVA "), 0);
              }),
              "");
}

TEST_F(message_test, says_1_for_a_written_line_whatever_the_way)
{
    log_into_file(1);
    write_file(path, numbered_lines(50, 22));
    EXPECT_EQ(log_message(1, "%s", std::string(40, 't').c_str()), 1);
    EXPECT_EQ(log_message(0, "x"), 1);
    log_to_file = 0;
    EXPECT_EQ(message(0, "x"), "x\n");
}

TEST_F(message_test, the_two_kinds_of_failure)
{
    EXPECT_EQ(shown([] { log_system(ENOENT); }),
              ", tolva[00000]: system: No such file or directory\n");
    EXPECT_EQ(shown([] { log_error(EINVAL); }),
              ", tolva[00000]: error: Invalid argument\n");
}

/* Trace */

TEST_F(message_test, tells_its_format_above_trace_level_0)
{
    auto log_it = [] { log_message(1, "%s and %s", "a"); };
    EXPECT_EQ(traced(0, log_it).find("DEBUG"), std::string::npos);
    EXPECT_EQ(traced(-1, log_it).find("DEBUG"), std::string::npos);
    EXPECT_EQ(traced(1, log_it).rfind("DEBUG: arg= [%s and %s]\n", 0), 0u);
    EXPECT_EQ(traced(1, [] { log_message(0, ""); }), "");
    EXPECT_EQ(traced(5, log_it).find("TRACE"), std::string::npos);
    EXPECT_EQ(traced(6, log_it).rfind("TRACEIN: log_message\n", 0), 0u);
}

} // namespace
