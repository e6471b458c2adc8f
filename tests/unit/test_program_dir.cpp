/*
 * Where the program was started from, as a path of its own or found in PATH.
 * A temporary directory is searched; no name with a "/" has to exist.
 */
#include "capture.h"
#include "temp_dir.h"
#include "tolva2/start/program_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

using text_or_null = std::optional<std::string>;

text_or_null dir_of(const std::string &argv0) {
    ux_text found = find_program_dir(argv0.c_str());
    return found ? text_or_null(found.get()) : std::nullopt;
}

TEST(base_name_test, is_what_stands_behind_the_last_slash) {
    const struct {
        const char *path;
        const char *name;
    } cases[] = {{"tolva", "tolva"},
                 {"/usr/bin/tolva", "tolva"},
                 {"./tolva", "tolva"},
                 {"a//b", "b"},
                 {"/tolva", "tolva"},
                 {"dir/", ""},
                 {"/", ""},
                 {"", ""},
                 {"/\xe4/\xf6", "\xf6"},
                 {"\\x\\y", "\\x\\y"}};
    for (const auto &c : cases) {
        EXPECT_STREQ(base_name(c.path), c.name) << c.path;
    }
    const char *plain = "plain";
    EXPECT_EQ(base_name(plain), plain);
    const char *path = "a/b/c";
    EXPECT_EQ(base_name(path), path + 4);
}

/* Names with a slash: nothing of them has to exist. */

TEST(find_program_dir_test, absolute_paths_are_normalised) {
    const struct {
        const char *argv0;
        const char *dir;
    } cases[] = {{"/usr/local/bin/prog", "/usr/local/bin"},
                 {"/prog", "/"},
                 {"//prog", "/"},
                 {"///usr////bin//prog", "/usr/bin"},
                 {"/usr/./bin/././prog", "/usr/bin"},
                 {"/./prog", "/"},
                 {"/usr/bin/../sbin/prog", "/usr/sbin"},
                 {"/a/b/c/../../d/prog", "/a/d"},
                 {"/a/../prog", "/"},
                 /* Never above the root. */
                 {"/../prog", "/"},
                 {"/../../../a/prog", "/a"},
                 {"/a/../../b/prog", "/b"},
                 {"/a//..//b/prog", "/b"},
                 {"/a/.//../b/prog", "/b"},
                 /* Dots are parts of other names. */
                 {"/a/..b/prog", "/a/..b"},
                 {"/a/.b/prog", "/a/.b"},
                 {"/a/b../prog", "/a/b.."},
                 {"/a/.../prog", "/a/..."},
                 {"/a b/\xe4\xf6/prog", "/a b/\xe4\xf6"},
                 {"/usr/bin/", "/usr/bin"}};
    for (const auto &c : cases) {
        EXPECT_EQ(dir_of(c.argv0), c.dir) << c.argv0;
    }
}

TEST(find_program_dir_test, a_path_may_have_1018_characters) {
    auto path = [](size_t length) {
        std::string text = "/";
        while (text.size() + 101 < length) {
            text += std::string(99, 'd') + "/";
        }
        return text + std::string(length - text.size(), 'p');
    };
    for (size_t length : {500u, 1017u, 1018u}) {
        std::string argv0 = path(length);
        ASSERT_EQ(argv0.size(), length);
        EXPECT_EQ(dir_of(argv0), argv0.substr(0, argv0.rfind('/')));
    }
    for (size_t length : {1019u, 1023u, 1024u, 4096u, 100000u}) {
        EXPECT_EQ(dir_of(path(length)), std::nullopt) << length;
    }
    EXPECT_EQ(dir_of(std::string(1018, '/')), "/");
    EXPECT_EQ(dir_of(std::string(1019, '/')), std::nullopt);
}

/* Stands in a directory of its own. */
class in_directory : public testing::Test {
  protected:
    void SetUp() override {
        before = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const char *path = getenv("PATH");
        search_before = path ? path : "";
        /* The name that getcwd tells, should a link lead to it. */
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
        char name[4096];
        ASSERT_NE(getcwd(name, sizeof name), nullptr);
        here = name;
    }
    void TearDown() override {
        setenv("PATH", search_before.c_str(), 1);
        EXPECT_EQ(fchdir(before), 0);
        close(before);
    }
    /* An executable file below the directory. */
    void program(const std::string &name, mode_t mode = 0755) {
        write_file(here + "/" + name, "#!/bin/sh\n");
        ASSERT_EQ(chmod((here + "/" + name).c_str(), mode), 0);
    }
    void directory(const std::string &name) {
        ASSERT_EQ(mkdir((here + "/" + name).c_str(), 0755), 0);
    }
    void search(const std::string &path) {
        ASSERT_EQ(setenv("PATH", path.c_str(), 1), 0);
    }

    temp_dir dir;
    int before;
    std::string search_before;
    std::string here;
};

TEST_F(in_directory, relative_paths_start_here) {
    EXPECT_EQ(dir_of("./prog"), here);
    EXPECT_EQ(dir_of("bin/prog"), here + "/bin");
    EXPECT_EQ(dir_of("./bin/../sbin/prog"), here + "/sbin");
    EXPECT_EQ(dir_of(".//./prog"), here);
    EXPECT_EQ(dir_of("../prog"), here.substr(0, here.rfind('/')));
    EXPECT_EQ(dir_of(".hidden/prog"), here + "/.hidden");
    EXPECT_EQ(dir_of("../../../../../../../../../../prog"), "/");
}

TEST_F(in_directory, the_root_as_working_directory_is_no_exception) {
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(dir_of("./prog"), "/");
    EXPECT_EQ(dir_of("bin/../sbin/prog"), "/sbin");
}

TEST_F(in_directory, a_relative_path_counts_with_the_directory_in_front) {
    const std::string room(1018 - here.size() - 1 - 2, 'p');
    EXPECT_EQ(dir_of("./" + room), here);
    EXPECT_EQ(dir_of("./" + room + std::string(2, 'p')), std::nullopt);
}

TEST_F(in_directory, a_working_directory_may_not_be_longer_than_896_bytes) {
    /* Deeper and deeper, by names of 50 characters. */
    std::string deep = here;
    while (deep.size() + 51 <= 890) {
        const std::string name(50, 'd');
        ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
        deep += "/" + name;
    }
    EXPECT_EQ(dir_of("./prog"), deep);
    for (int i = 0; i < 2; i++) {
        const std::string name(50, 'd');
        ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    EXPECT_EQ(dir_of("./prog"), std::nullopt);
    EXPECT_EQ(dir_of("/usr/bin/prog"), "/usr/bin");
}

TEST_F(in_directory, a_vanished_working_directory_gives_nothing) {
    directory("gone");
    ASSERT_EQ(chdir("gone"), 0);
    ASSERT_EQ(rmdir((here + "/gone").c_str()), 0);
    EXPECT_EQ(dir_of("./prog"), std::nullopt);
}

/* Names without a slash */

TEST_F(in_directory, the_search_path_is_searched_in_order) {
    directory("a");
    directory("b");
    program("b/prog");
    search(here + "/none:" + here + "/a:" + here + "/b");
    EXPECT_EQ(dir_of("prog"), here + "/b");
    program("a/prog");
    EXPECT_EQ(dir_of("prog"), here + "/a");
    EXPECT_EQ(dir_of("other"), std::nullopt);
}

TEST_F(in_directory, the_first_candidate_that_may_be_executed_counts) {
    directory("a");
    directory("b");
    program("a/prog", 0644);
    program("b/prog");
    search(here + "/a:" + here + "/b");
    EXPECT_EQ(dir_of("prog"), here + "/b");
}

TEST_F(in_directory, an_entry_may_end_in_a_slash) {
    directory("a");
    program("a/prog");
    search(here + "/a/");
    EXPECT_EQ(dir_of("prog"), here + "/a");
}

TEST_F(in_directory, entries_are_taken_as_they_stand) {
    directory("a");
    program("a/prog");
    search("a");
    EXPECT_EQ(dir_of("prog"), "a");
    search(here + "//a/../a");
    EXPECT_EQ(dir_of("prog"), here + "//a/../a");
}

TEST_F(in_directory, an_empty_entry_is_never_the_working_directory) {
    directory("a");
    program("prog-of-this-test");
    program("a/prog-of-this-test");
    for (const std::string &empty :
         {std::string(""), std::string(":"), std::string("::"),
          ":" + here + "/none:"}) {
        search(empty);
        EXPECT_EQ(dir_of("prog-of-this-test"), std::nullopt) << empty;
    }
    search(":" + here + "/a:");
    EXPECT_EQ(dir_of("prog-of-this-test"), here + "/a");
}

/* Directories may be "executed", and every system has these in its root. */
TEST_F(in_directory, an_empty_entry_is_the_root) {
    for (const char *path : {"", ":/nowhere", "/nowhere:", "/nowhere::/bin"}) {
        search(path);
        EXPECT_EQ(dir_of("tmp"), "/") << path;
    }
    search("/");
    EXPECT_EQ(dir_of("tmp"), "/");
}

TEST_F(in_directory, without_a_search_path_nothing_is_found) {
    program("prog");
    ASSERT_EQ(unsetenv("PATH"), 0);
    EXPECT_EQ(dir_of("prog"), std::nullopt);
}

TEST_F(in_directory, entries_that_are_too_long_are_skipped) {
    directory("a");
    const std::string name(200, 'p');
    program("a/" + name);
    /* So many slashes lead to the same place. */
    auto entry = [this](size_t length) {
        return here + std::string(length - here.size() - 1, '/') + "a";
    };
    search(entry(818));
    EXPECT_EQ(dir_of(name), entry(818));
    search(entry(819));
    EXPECT_EQ(dir_of(name), std::nullopt);
    search(entry(5000) + ":" + entry(819) + ":" + here + "/a");
    EXPECT_EQ(dir_of(name), here + "/a");
    EXPECT_EQ(dir_of(std::string(5000, 'p')), std::nullopt);
}

TEST_F(in_directory, names_the_function_above_trace_level_5_only) {
    auto find = [] { dir_of("/usr/bin/prog"); };
    for (int32_t level : {-1, 0, 1, 5}) {
        EXPECT_EQ(traced(level, find), "") << level;
    }
    EXPECT_EQ(traced(6, find), "TRACEIN: find_program_dir\n");
}

} // namespace
