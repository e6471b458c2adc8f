/* The first word of a command, as the shell would take it. */
#include "temp_dir.h"
#include "tolva2/checkconf/program_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

struct command_case {
    std::string command;
    command_kind kind;
    std::string word;
};

const command_case COMMANDS[] = {
    {"/etc/tolva/x.sh", command_kind::plain, "/etc/tolva/x.sh"},
    {" \t/x.sh -a b", command_kind::plain, "/x.sh"},
    {"'/a b/x.sh'", command_kind::plain, "/a b/x.sh"},
    {"\"/a b/x.sh\" -v", command_kind::plain, "/a b/x.sh"},
    {"/x.sh 'a b' \"it's\"", command_kind::plain, "/x.sh"},
    {"'/a'b", command_kind::opaque, ""},
    {"\"$HOME/x\"", command_kind::opaque, ""},
    {"$HOME/x", command_kind::opaque, ""},
    {"A=1 /x", command_kind::opaque, ""},
    {"/a\\ b", command_kind::opaque, ""},
    {"~/x", command_kind::opaque, ""},
    {"(/x)", command_kind::opaque, ""},
    {"/x;", command_kind::opaque, ""},
    {"'/a", command_kind::open, ""},
    {"/x \"a", command_kind::open, ""},
    {"/x 'a\\'b'", command_kind::open, ""},
};

TEST(first_of_command, kinds_and_words) {
    for (const command_case &c : COMMANDS) {
        command_word first = first_of_command(c.command.c_str());
        EXPECT_EQ(first.kind, c.kind) << c.command;
        if (c.kind == command_kind::plain) {
            EXPECT_EQ(first.word, c.word) << c.command;
        }
    }
}

/* The shell itself is asked, with a program of that name that tells its own. */
TEST(first_of_command, the_shell_takes_the_same_word) {
    temp_dir dir;
    for (const char *name : {"plain", "a b"}) {
        write_file(dir.path(name), "#!/bin/sh\nprintf %s \"$0\" >\"$SEEN\"\n");
        chmod(dir.path(name).c_str(), 0755);
    }
    setenv("SEEN", dir.path("seen").c_str(), 1);
    std::string plain = dir.path("plain");
    std::string blank = dir.path("a b");
    for (const std::string &command :
         {plain, "  " + plain + " 'x y' \"z\"", "'" + blank + "'",
          "\"" + blank + "\" x"}) {
        ASSERT_EQ(system(command.c_str()), 0) << command;
        command_word first = first_of_command(command.c_str());
        EXPECT_EQ(first.kind, command_kind::plain) << command;
        EXPECT_EQ(read_file(dir.path("seen")), first.word) << command;
    }
    unsetenv("SEEN");
}

} // namespace
