/* The values of a table in the lines of an old file. */
#include "config_fixture.h"
#include "death.h"
#include "failing_calls.h"
#include "starve.h"
#include "unixtools/ux_cfgmodule.h"

namespace {

struct rewrite_case {
    const char *before;
    const char *after;
};

class rewrite_test : public config_test {
  protected:
    void check(const rewrite_case &c);
};

void rewrite_test::check(const rewrite_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.before));
    set(77, "new", nullptr);
    EXPECT_EQ(rewritten(c.before), c.after);
}

TEST_F(rewrite_test, files) {
    for (const rewrite_case &c :
         {rewrite_case{"", "port=77\nname=new\ntext=\n"},
          rewrite_case{"port=1\nname=x\ntext=y\n",
                       "port=77\nname=new\ntext=\n"},
          rewrite_case{"text=y\nname=x\nport=1\n",
                       "text=\nname=new\nport=77\n"},
          /* Comments stay, behind " #" when a setting has them. */
          rewrite_case{"port = 1 # note\n",
                       "port=77 # note\nname=new\ntext=\n"},
          rewrite_case{"name=x#note\n", "name=new #note\nport=77\ntext=\n"},
          rewrite_case{"text=y # gone\r\n",
                       "text= # gone\nport=77\nname=new\n"},
          rewrite_case{"port= #\n", "port=77\nname=new\ntext=\n"},
          rewrite_case{"# one\n \t# two \n#\n",
                       "# one\n \t# two \n#\nport=77\nname=new\ntext=\n"},
          rewrite_case{"# crlf\r\n", "# crlf\nport=77\nname=new\ntext=\n"},
          /* Blank lines stay, their blanks go. */
          rewrite_case{"\n  \t \n# c\n\n",
                       "\n\n# c\n\nport=77\nname=new\ntext=\n"},
          /* A line of CR LF alone is no blank line. */
          rewrite_case{"port=1\r\n\r\nname=x\r\n\r\n",
                       "port=77\nname=new\ntext=\n"},
          /* What is invalid or unknown goes. */
          rewrite_case{"a=1\njunk\n=x\nport=1\n   ",
                       "port=77\nname=new\ntext=\n"},
          rewrite_case{"unknown=1 # c\nother=2\nPort=3\nname=x\n",
                       "name=new\nport=77\ntext=\n"},
          rewrite_case{"\r =1 # left\n", " left\nport=77\nname=new\ntext=\n"},
          /* Of two lines with a key the first stays. */
          rewrite_case{"name=x # a\nport=1\nname=y # b\n",
                       "name=new # a\nport=77\ntext=\n"},
          /* The last line gets its line feed. */
          rewrite_case{"port=1\nname=x\ntext=y", "port=77\nname=new\ntext=\n"},
          rewrite_case{"text=y\n# end", "text=\n# end\nport=77\nname=new\n"},
          /* Rows of literal lines are never added. */
          rewrite_case{"# head\nport=1\n",
                       "# head\nport=77\nname=new\ntext=\n"}}) {
        check(c);
    }
}

TEST_F(config_test, rewrite_writes_integers_in_decimal) {
    set(INT32_MIN, nullptr, "");
    EXPECT_EQ(rewritten(""), "port=-2147483648\nname=\ntext=\n");
    set(INT32_MAX, nullptr, "");
    EXPECT_EQ(rewritten(""), "port=2147483647\nname=\ntext=\n");
}

TEST_F(config_test, rewrite_takes_the_first_of_two_rows_with_a_key) {
    int32_t first = 1;
    int32_t second = 2;
    ux_option twice[] = {{UX_OPTION_INTEGER, "port", {&first}, {}},
                         {UX_OPTION_INTEGER, "port", {&second}, {}},
                         {UX_OPTION_INTEGER, "bare"},
                         {static_cast<ux_option_type>(9), "odd", {&second}, {}},
                         {}};
    write_file(path, "odd=5\nport=9\nport=8\n");
    EXPECT_EQ(ux_rewriteconfig(path.c_str(), twice, 64), 1);
    EXPECT_EQ(read_file(path), "port=1\nbare=\n");
}

TEST_F(config_test, rewrite_keeps_files_of_many_blocks) {
    std::string comments;
    for (int i = 0; i < 3000; i++) {
        comments += "# line " + std::to_string(i) + "\n";
    }
    set(1, "n", "t");
    EXPECT_EQ(rewritten(comments + "port=7\n" + comments),
              comments + "port=1\n" + comments + "name=n\ntext=t\n");
}

TEST_F(config_test, rewrite_keeps_files_of_just_a_block) {
    set(1, nullptr, nullptr);
    for (size_t size : {4095u, 4096u, 4097u, 8192u}) {
        const std::string tail = "port=1\nname=\ntext=\n";
        std::string lines;
        while (lines.size() + 64 <= size - tail.size()) {
            lines += std::string(63, '#') + "\n";
        }
        size_t rest = size - tail.size() - lines.size();
        lines += rest > 0 ? std::string(rest - 1, '#') + "\n" : "";
        if (rest == 1) {
            lines.back() = '\n';
        }
        EXPECT_EQ(rewritten(lines), lines + tail) << size;
    }
}

TEST_F(config_test, rewrite_splits_long_lines) {
    set(1, nullptr, nullptr);
    /* What follows the 4,095th character is a line of its own. */
    EXPECT_EQ(rewritten(std::string("#") + std::string(4094, 'c') + "#rest\n"),
              std::string("#") + std::string(4094, 'c') +
                  "\n#rest\nport=1\nname=\ntext=\n");
    EXPECT_EQ(rewritten(std::string("#") + std::string(4999, 'c') + "\n"),
              std::string("#") + std::string(4094, 'c') +
                  "\nport=1\nname=\ntext=\n");
}

TEST_F(config_test, rewrite_keeps_mask_and_rights) {
    set(1, nullptr, nullptr);
    write_file(path, "port=2\n");
    ASSERT_EQ(chmod(path.c_str(), 0604), 0);
    EXPECT_EQ(ux_rewriteconfig(path.c_str(), table, 64), 1);
    EXPECT_EQ(umask(022), static_cast<mode_t>(022));
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(0604));
}

TEST_F(config_test, rewrite_without_memory_leaves_the_file) {
    set(1, "n", "t");
    write_file(path, "port=2\n");
    /* Table; record, key, value and element of three rows. */
    for (int left = 0; left < 13; left++) {
        failing_heap limit(left);
        EXPECT_EQ(ux_rewriteconfig(path.c_str(), table, 64), 0) << left;
    }
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(config_test, rewrite_without_temporary_file_leaves_the_file) {
    write_file(path, "port=2\n");
    EXPECT_EXIT(
        {
            no_more_descriptors();
            _exit(ux_rewriteconfig(path.c_str(), table, 64) == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(config_test, hashtable_to_file_uses_the_records_up) {
    ux_hashtable records;
    ASSERT_EQ(ux_hashtable_init(&records, 4, hash_cfgmodule, match_cfgmodule,
                                destroy_cfgmodule),
              0);
    ASSERT_EQ(
        ux_hashtable_insert(&records, new_cfgmodule("name", "v", nullptr)), 0);
    ASSERT_EQ(
        ux_hashtable_insert(&records, new_cfgmodule("stray", "v", nullptr)), 0);
    write_file(path, "# c\nname=x # y\n");
    EXPECT_EQ(hashtable_to_file(path.c_str(), table, &records), 1);
    EXPECT_EQ(read_file(path), "# c\nname=v # y\n");
    EXPECT_EQ(records.size, 1u);
    ux_hashtable_destroy(&records);
}

using config_death = config_test;

TEST_F(config_death, rewrite_needs_a_table) {
    EXPECT_ASSERTION((void)ux_rewriteconfig(path.c_str(), nullptr, 64),
                     "ux_configfile", "topic_table");
}

TEST_F(config_death, rewrite_of_a_file_that_cannot_be_read_aborts) {
    EXPECT_ASSERTION((void)ux_rewriteconfig(path.c_str(), table, 64),
                     "ux_configfile", "ret");
    EXPECT_FALSE(file_exists(path));
    EXPECT_ASSERTION((void)ux_rewriteconfig(dir.path().c_str(), table, 64),
                     "ux_configfile", "ret");
}

TEST_F(config_death, rewrite_of_a_file_that_cannot_be_written_aborts) {
    write_file(path, "port=2\n");
    ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    EXPECT_ASSERTION(
        (become_nobody(), (void)ux_rewriteconfig(path.c_str(), table, 64)),
        "ux_configfile", "ret");
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(config_death, rewrite_aborts_before_the_file_is_touched_on_a_full_disk) {
    /* A file that fills buffers, and one that fails at the last moment. */
    for (int lines : {1000, 100}) {
        std::string before;
        for (int i = 0; i < lines; i++) {
            before += "# comment " + std::to_string(i) + "\n";
        }
        write_file(path, before);
        /* Room for the message of the assertion, not for the file. */
        EXPECT_ASSERTION((limit_files_to(1024),
                          (void)ux_rewriteconfig(path.c_str(), table, 64)),
                         "ux_configfile", "ret");
        EXPECT_EQ(read_file(path), before);
    }
}

TEST_F(config_death, rewrite_that_runs_out_of_memory_aborts_before_the_file) {
    set(1, "n", "t");
    write_file(path, "port=2\n");
    EXPECT_ASSERTION(
        {
            /* Enough for the table and its records, not for a key. */
            failing_heap limit(13);
            (void)ux_rewriteconfig(path.c_str(), table, 64);
        },
        "ux_configfile", "ret");
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(rewrite_test, gives_back_all_memory) {
    set(77, "new", "x");
    int64_t before = heap_blocks();
    rewritten("port=2\nname=old\nport=3\n");
    EXPECT_EQ(heap_blocks(), before);
    ux_option twice[] = {{UX_OPTION_INTEGER, "port", {&port}},
                         {UX_OPTION_INTEGER, "port", {&port}},
                         {}};
    EXPECT_EQ(ux_rewriteconfig(path.c_str(), twice, 64), 1);
    EXPECT_EQ(heap_blocks(), before);
}

TEST_F(rewrite_test, reading_gives_back_all_but_the_values) {
    forget();
    int64_t before = heap_blocks();
    EXPECT_EQ(read("port=2\nother=1\nport=3\nother=2\nname=a\nname=b\n"), 1);
    EXPECT_EQ(port, 3);
    forget();
    EXPECT_EQ(heap_blocks(), before);
}

} // namespace
