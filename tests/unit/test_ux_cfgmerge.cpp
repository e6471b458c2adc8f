/*
 * Lines merged with a table, stream by stream. What becomes of whole files is
 * in test_ux_configfile_rewrite.cpp.
 */
#include "capture.h"
#include "failing_calls.h"
#include "temp_dir.h"
#include "unixtools/ux_cfgmerge.h"
#include "unixtools/ux_cfgmodule.h"

#include <string>

namespace {

class cfgmerge_test : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(ux_hashtable_init(&table, 4, hash_cfgmodule, match_cfgmodule,
                                    destroy_cfgmodule),
                  0);
        for (const char *ident : {"port", "name"}) {
            cfgmodule *record = new_cfgmodule(ident, "new", " own");
            ASSERT_EQ(ux_hashtable_insert(&table, record), 0);
        }
    }
    void TearDown() override { ux_hashtable_destroy(&table); }
    /* What has been merged so far. */
    std::string text() {
        fflush(merged.get());
        return read_file(dir.path("merged"));
    }
    bool merge(const std::string &content) {
        ux_file config(fopen(dir.file("config", content).c_str(), "r"));
        return merge_lines(config.get(), merged.get(), &table);
    }

    temp_dir dir;
    ux_hashtable table;
    ux_file merged{fopen(dir.path("merged").c_str(), "w+")};
};

TEST_F(cfgmerge_test, a_setting_is_written_once_with_the_comment_of_its_line) {
    EXPECT_TRUE(merge_setting("port", " line", &table, merged.get()));
    EXPECT_TRUE(merge_setting("port", " again", &table, merged.get()));
    EXPECT_TRUE(merge_setting("other", {}, &table, merged.get()));
    EXPECT_TRUE(merge_setting("name", {}, &table, merged.get()));
    EXPECT_EQ(text(), "port=new # line\nname=new\n");
    EXPECT_EQ(table.size, 0u);
}

TEST_F(cfgmerge_test, a_record_is_destroyed_without_the_comment_of_the_line) {
    EXPECT_NE(traced(1,
                     [this] {
                         EXPECT_TRUE(merge_setting("port", " line", &table,
                                                   merged.get()));
                     })
                  .find("DEBUG: destroy_cfgmodule(): comment: [ own] at: "),
              std::string::npos);
}

TEST_F(cfgmerge_test, lines_stay_in_their_order) {
    EXPECT_TRUE(merge("# c\n\nname=old # x\njunk\nother=1\nname=2\n"));
    EXPECT_EQ(text(), "# c\n\nname=new # x\n");
    EXPECT_EQ(table.size, 1u);
}

TEST_F(cfgmerge_test, without_memory_for_a_key_nothing_is_used_up) {
    failing_heap none;
    EXPECT_FALSE(merge("# c\nname=old\nport=1\n"));
    EXPECT_EQ(text(), "# c\n");
    EXPECT_EQ(table.size, 2u);
}

TEST_F(cfgmerge_test, lines_that_break_off_are_not_all) {
    failing_call broken("fgets", EIO, 1);
    EXPECT_FALSE(merge("# c\nname=old\n"));
}

TEST_F(cfgmerge_test, what_cannot_be_written_is_told) {
    merged.reset(fopen("/dev/full", "w"));
    setvbuf(merged.get(), nullptr, _IONBF, 0);
    EXPECT_FALSE(merge("# c\n"));
    EXPECT_FALSE(merge("name=old\n"));
    EXPECT_EQ(table.size, 1u);
}

TEST_F(cfgmerge_test, the_old_file_is_replaced_by_all_that_was_merged) {
    const std::string lines = std::string(10000, 'x') + "\n";
    const std::string path = dir.file("config", lines + lines);
    fputs(lines.c_str(), merged.get());
    EXPECT_TRUE(replace_file(path.c_str(), merged.get()));
    EXPECT_EQ(read_file(path), lines);
    EXPECT_FALSE(replace_file(dir.path("no/dir").c_str(), merged.get()));
    EXPECT_FALSE(replace_file("/dev/full", merged.get()));
}

TEST_F(cfgmerge_test, a_last_byte_is_copied_too) {
    const std::string path = dir.file("config", "old\n");
    for (size_t size : {size_t{1}, size_t{4097}}) {
        merged.reset(fopen(dir.path("merged").c_str(), "w+"));
        const std::string content(size, 'x');
        fputs(content.c_str(), merged.get());
        EXPECT_TRUE(replace_file(path.c_str(), merged.get()));
        EXPECT_EQ(read_file(path), content);
    }
}

TEST_F(cfgmerge_test, what_has_found_no_room_replaces_nothing) {
    const std::string path = dir.file("config", "old\n");
    merged.reset(fopen("/dev/full", "w+"));
    fputs("new\n", merged.get());
    EXPECT_FALSE(replace_file(path.c_str(), merged.get()));
    EXPECT_EQ(read_file(path), "old\n");
}

} // namespace
