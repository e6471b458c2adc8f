/* A fresh file from a table, and no file when it cannot be a whole one. */
#include "config_fixture.h"
#include "death.h"

#include <cerrno>

namespace {

TEST_F(config_test, write_makes_a_line_of_every_row) {
    set(-12, "a # \"b\"", nullptr);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=-12\nname=a # \"b\"\ntext=\n");
}

TEST_F(config_test, write_replaces_an_old_file) {
    set(1, "n", "t");
    write_file(path, std::string(10000, 'x'));
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=1\nname=n\ntext=t\n");
}

TEST_F(config_test, write_ends_at_an_empty_key_too) {
    table[2].ident = "";
    port = 5;
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=5\n");
}

TEST_F(config_test, write_ends_no_line_of_an_unknown_type_with_storage) {
    set(5, "n", "t");
    table[1].type = static_cast<ux_option_type>(9);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=name=n\ntext=t\n");
    table[1].type = UX_OPTION_LITERAL;
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nportname=n\ntext=t\n");
}

TEST_F(config_test, write_of_rows_without_storage_ends_the_line) {
    for (int32_t type : {1, 2, 3, 9}) {
        ux_option bare[] = {{static_cast<ux_option_type>(type), "key"}, {}};
        EXPECT_EQ(ux_writeconfig(path.c_str(), bare), 1);
        EXPECT_EQ(read_file(path), "key=\n") << type;
    }
}

TEST_F(config_test, write_sets_the_mask_for_good) {
    set(1, "n", "t");
    umask(0);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(umask(0), static_cast<mode_t>(026));
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(0640));
}

TEST_F(config_test, write_sets_the_mask_even_when_it_fails) {
    umask(0);
    EXPECT_EQ(ux_writeconfig(dir.path("no/dir").c_str(), table), 0);
    EXPECT_EQ(umask(0), static_cast<mode_t>(026));
}

TEST_F(config_test, write_of_an_empty_table_leaves_no_file) {
    EXPECT_EQ(ux_writeconfig(path.c_str(), &table[4]), 0);
    EXPECT_FALSE(file_exists(path));
    write_file(path, "old\n");
    EXPECT_EQ(ux_writeconfig(path.c_str(), &table[4]), 0);
    EXPECT_FALSE(file_exists(path));
}

TEST_F(config_test, write_to_a_place_that_is_none_fails) {
    EXPECT_EQ(ux_writeconfig(dir.path("no/dir").c_str(), table), 0);
    EXPECT_EQ(ux_writeconfig(dir.path().c_str(), table), 0);
    EXPECT_TRUE(file_exists(dir.path()));
}

/* A link, since what cannot be written is removed. */
TEST_F(config_test, write_to_a_full_disk_leaves_no_file) {
    set(1, "n", "t");
    ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 0);
    struct stat status;
    EXPECT_NE(lstat(path.c_str(), &status), 0);
    /* So much that it fails before the file is closed. */
    set(1, std::string(100000, 'n').c_str(), "t");
    ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 0);
    EXPECT_NE(lstat(path.c_str(), &status), 0);
    EXPECT_TRUE(file_exists("/dev/full"));
}

TEST_F(config_test, what_was_written_reads_back) {
    set(-7, "\"a # b\" \\\\", "x=y");
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    forget();
    EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 0), 1);
    EXPECT_EQ(port, -7);
    EXPECT_STREQ(name.get(), "\"a # b\" \\\\");
    EXPECT_STREQ(text.get(), "x=y");
}

using config_death = config_test;

TEST_F(config_death, write_needs_a_table) {
    EXPECT_ASSERTION((void)ux_writeconfig(path.c_str(), nullptr),
                     "ux_configfile", "topic_table");
}

} // namespace
