/* The log's file is kept below its limit, in cuts of whole lines. */
#include "log_fixture.h"
#include "starve.h"

#include <cstring>

namespace {

using bounded_file_test = logfile_test;

/* The limit */

TEST_F(bounded_file_test, a_file_grows_to_one_byte_below_its_limit) {
    open_log(1);
    const std::string text(64, 't'); /* a line of 100 bytes */
    const std::string old = numbered_lines(33, 28).substr(0, 923);
    write_file(path, old);
    EXPECT_TRUE(log_write_line(text.c_str()));
    EXPECT_EQ(read_file(path).size(), 1023u);
    EXPECT_EQ(read_file(path).substr(0, 923), old);
}

TEST_F(bounded_file_test, the_line_that_would_fill_the_file_cuts_its_head) {
    open_log(1);
    const std::string text(64, 't');
    const std::string old = numbered_lines(33, 28); /* 924 bytes */
    write_file(path, old);
    EXPECT_TRUE(log_write_line(text.c_str()));
    /* 102 bytes and what is left of the line there. */
    EXPECT_EQ(log(), old.substr(132) + ", tolva[00000]: " + text + "\n");
}

TEST_F(bounded_file_test, a_cut_takes_a_tenth_of_the_limit_and_the_excess) {
    open_log(1);
    const std::string text(40, 't');                /* a line of 76 bytes */
    const std::string old = numbered_lines(50, 22); /* 1,100 bytes */
    write_file(path, old);
    EXPECT_TRUE(log_write_line(text.c_str()));
    /* 254 bytes, and on to the end of that line. */
    EXPECT_EQ(log(), old.substr(300) + ", tolva[00000]: " + text + "\n");
}

TEST_F(bounded_file_test, a_cut_at_the_start_of_a_line_takes_that_line_along) {
    open_log(1);
    const std::string text(40, 't');
    std::string old = std::string(253, 'a') + "\n" + std::string(20, 'b') +
                      "\n" + std::string(824, 'c') + "\n";
    ASSERT_EQ(old.size(), 1100u);
    write_file(path, old);
    EXPECT_TRUE(log_write_line(text.c_str()));
    EXPECT_EQ(log(), old.substr(275) + ", tolva[00000]: " + text + "\n");
}

TEST_F(bounded_file_test, the_limit_counts_whatever_the_file_held_before) {
    open_log(1);
    const std::string text(64, 't');
    const std::string old = numbered_lines(100, 1000);
    write_file(path, old);
    EXPECT_TRUE(log_write_line(text.c_str()));
    /* 100,000 - 924 + 102 bytes, up to the end of line 991. */
    EXPECT_EQ(log(), old.substr(99200) + ", tolva[00000]: " + text + "\n");
}

TEST_F(bounded_file_test, without_a_limit_nothing_is_cut) {
    for (int32_t size : {0, -1, INT32_MIN}) {
        logfile_close();
        open_log(size);
        const std::string old = numbered_lines(100, 1000);
        write_file(path, old);
        EXPECT_TRUE(log_write_line("x"));
        EXPECT_EQ(log(), old + ", tolva[00000]: x\n") << size;
    }
}

TEST_F(bounded_file_test, large_limits_do_not_wrap) {
    for (int32_t size : {1024, 1048576, INT32_MAX}) {
        logfile_close();
        open_log(size);
        const std::string old = numbered_lines(100, 1000);
        write_file(path, old);
        EXPECT_TRUE(log_write_line("x"));
        EXPECT_EQ(log(), old + ", tolva[00000]: x\n") << size;
    }
}

TEST_F(bounded_file_test, nul_bytes_in_the_file_are_bytes_like_others) {
    open_log(1);
    std::string old = numbered_lines(50, 22);
    old[10] = old[270] = old[310] = old[1000] = '\0';
    write_file(path, old);
    EXPECT_TRUE(log_write_line(std::string(40, 't').c_str()));
    EXPECT_EQ(read_file(path).substr(0, 800), old.substr(300));
}

/*
 * A file that keeps exactly so many bytes when a line of 100 bytes cuts it:
 * where it is cut, a line of more than 1 byte runs on to the kept part.
 */
std::string file_keeping(size_t kept, size_t limit) {
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

class block_test : public bounded_file_test {
  protected:
    void check(const block_case &c);
};

void block_test::check(const block_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.kept));
    logfile_close();
    const std::string old =
        file_keeping(c.kept, static_cast<size_t>(c.limit_kib) * 1024);
    const std::string kept = old.substr(old.size() - c.kept);
    const std::string text(64, 't');
    const std::string line = ", tolva[00000]: " + text + "\n";
    write_file(path, old);
    open_log(c.limit_kib);
    /* The file is cut either way. */
    if (c.line_is_written) {
        EXPECT_TRUE(log_write_line(text.c_str()));
        EXPECT_EQ(log(), kept + line);
    } else {
        EXPECT_FALSE(log_write_line(text.c_str()));
        EXPECT_EQ(log(), kept);
        EXPECT_TRUE(log_message(1, "%s", text.c_str()));
        EXPECT_EQ(log(), kept + line);
    }
}

TEST_F(block_test, kept_parts) {
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

TEST_F(bounded_file_test, of_a_line_without_end_8192_bytes_are_dropped) {
    const std::string old(20000, 'x');
    write_file(path, old);
    open_log(16);
    EXPECT_TRUE(log_write_line(std::string(64, 't').c_str()));
    /* Cut at 1,638 + 3,716; 6,454 bytes are left and one line of 100. */
    EXPECT_EQ(read_file(path).size(), 6454u + 100u);
}

TEST_F(bounded_file_test, a_log_fills_up_and_is_cut_again_and_again) {
    open_log(2);
    for (int i = 0; i < 500; i++) {
        EXPECT_TRUE(log_message(1, "line %s ..................",
                                std::to_string(i).c_str()));
        EXPECT_LT(read_file(path).size(), 2048u);
    }
    const std::string whole = log();
    EXPECT_NE(whole.find("line 499 "), std::string::npos);
    EXPECT_EQ(whole.find("line 400 "), std::string::npos);
    EXPECT_EQ(whole.rfind(", tolva[00000]: line 4", 0), 0u);
    EXPECT_EQ(whole.back(), '\n');
}

TEST_F(bounded_file_test, without_a_temporary_file_nothing_is_cut_or_written) {
    const std::string old = numbered_lines(50, 22);
    write_file(path, old);
    open_log(1);
    EXPECT_EXIT(
        {
            no_more_descriptors();
            _exit(log_write_line("x") == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EQ(read_file(path), old);
}

TEST_F(bounded_file_test, a_log_that_cannot_be_read_is_not_cut) {
    const std::string old = numbered_lines(50, 22);
    write_file(path, old);
    ASSERT_EQ(chmod(path.c_str(), 0222), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    open_log(1);
    EXPECT_EXIT(
        {
            become_nobody();
            _exit(log_write_line("x") == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(read_file(path), old);
}

TEST_F(bounded_file_test, a_log_whose_rest_finds_no_room_is_not_cut) {
    const struct {
        size_t kept;
        int32_t limit_kib;
        rlim_t room;
    } cases[] = {{20000, 24, 4096}, {16000, 24, 4096}, {3000, 4, 1024}};
    for (const auto &c : cases) {
        logfile_close();
        open_log(c.limit_kib);
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

TEST_F(bounded_file_test, trim_cuts_a_file_that_has_reached_its_limit) {
    EXPECT_FALSE(logfile_trim());
    ASSERT_TRUE(logfile_open(path.c_str(), 1));
    EXPECT_TRUE(logfile_trim());
    EXPECT_FALSE(file_exists(path));
    const std::string old = numbered_lines(32, 32); /* 1,024 bytes */
    write_file(path, old.substr(1));
    EXPECT_TRUE(logfile_trim());
    EXPECT_EQ(read_file(path), old.substr(1));
    write_file(path, old);
    EXPECT_TRUE(logfile_trim());
    EXPECT_EQ(read_file(path), old.substr(128));
    /* The excess goes too: 102 + 64. */
    write_file(path, old + old.substr(0, 64));
    EXPECT_TRUE(logfile_trim());
    EXPECT_EQ(read_file(path), (old + old.substr(0, 64)).substr(192));
    logfile_close();
    EXPECT_FALSE(logfile_trim());
}

TEST_F(bounded_file_test,
       trim_tells_when_the_rest_came_in_an_even_number_of_blocks) {
    ASSERT_TRUE(logfile_open(path.c_str(), 16));
    const std::string even = file_keeping(10000, 16384);
    write_file(path, even);
    EXPECT_FALSE(logfile_trim());
    EXPECT_EQ(read_file(path), even.substr(even.size() - 10000));
    EXPECT_TRUE(logfile_trim());
}

TEST_F(bounded_file_test, trim_without_a_limit_changes_nothing) {
    ASSERT_TRUE(logfile_open(path.c_str(), 0));
    const std::string old = numbered_lines(100, 1000);
    write_file(path, old);
    EXPECT_TRUE(logfile_trim());
    EXPECT_EQ(read_file(path), old);
}

} // namespace
