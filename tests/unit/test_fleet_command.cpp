/* The words of the command line as a request. */
#include "tolva2/files/command_params.h"
#include "tolva2/fleet/fleet_command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/* What is sent, or "!" and what is wrong. */
std::string made(std::vector<std::string> words) {
    std::vector<char *> pointers;
    for (std::string &word : words) {
        pointers.push_back(word.data());
    }
    fleet_command command = make_command(pointers);
    return command.text ? command.text.get()
                        : std::string("!") + command.fault.get();
}

} // namespace

TEST(make_command, sends_one_argument_as_it_is) {
    EXPECT_EQ(made({"EXECUTE backup now"}),
              "MSG_EXECSTATUS EXECUTE backup now");
    EXPECT_EQ(made({" execute  a 'b' \"c\"; $d"}),
              "MSG_EXECSTATUS  execute  a 'b' \"c\"; $d");
}

TEST(make_command, quotes_further_words_for_a_shell) {
    EXPECT_EQ(made({"EXECUTE", "backup", "it's now", ""}),
              "MSG_EXECSTATUS EXECUTE 'backup' 'it'\\''s now' ''");
    EXPECT_EQ(made({"SHUTDOWN", "low (4)"}),
              "MSG_EXECSTATUS SHUTDOWN 'low (4)'");
    EXPECT_EQ(made({"msg_text UPS", "$x"}), "MSG_EXECSTATUS msg_text UPS '$x'");
}

TEST(make_command, quotes_nothing_where_there_is_no_shell) {
    EXPECT_EQ(made({"LOG_TEXT", "a test", "(it's)"}),
              "MSG_EXECSTATUS LOG_TEXT a test (it's)");
    EXPECT_EQ(made({"LOG_ID", "12", "a b"}), "MSG_EXECSTATUS LOG_ID 12 a b");
}

TEST(make_command, refuses_words_that_cannot_be_quoted) {
    EXPECT_EQ(made({"MAIL_ID", "12", "root@example.com"}),
              "MSG_EXECSTATUS MAIL_ID 12 root@example.com");
    for (const char *word : {"a b", "$x", "`x`", "it's", "", "a;b"}) {
        EXPECT_EQ(made({"MAIL_TEXT", "root", word}),
                  "!parameters of MAIL_TEXT that need quotes: write the whole "
                  "command as one argument")
            << word;
        EXPECT_EQ(made({"MSG_ID", word})[0], '!') << word;
    }
}

TEST(make_command, knows_every_command_and_no_other) {
    for (const char *word : {"SHUTDOWN", "EXECUTE", "MSG_ID", "MSG_TEXT",
                             "MAIL_ID", "MAIL_TEXT", "LOG_ID", "LOG_TEXT"}) {
        ASSERT_NE(is_V2command(word), COMMAND_UNKNOWN);
        EXPECT_EQ(made({word}), std::string("MSG_EXECSTATUS ") + word);
        EXPECT_STREQ(nearest_command(word), word);
    }
    EXPECT_EQ(made({"LOG_TXT"}),
              "!unknown command `LOG_TXT': did you mean LOG_TEXT?");
    EXPECT_EQ(made({"\x1b[2J x"}).substr(0, 27),
              "!unknown command `\\x1b[2J':");
    EXPECT_EQ(made({""})[0], '!');
    EXPECT_EQ(made({})[0], '!');
}

TEST(make_command, the_nearest_word_is_named) {
    EXPECT_STREQ(nearest_command("shutdwon"), "SHUTDOWN");
    EXPECT_STREQ(nearest_command("exec"), "EXECUTE");
    EXPECT_STREQ(nearest_command("MSGTEXT"), "MSG_TEXT");
    EXPECT_STREQ(nearest_command("mail_txt"), "MAIL_TEXT");
    EXPECT_NE(nearest_command(std::string(1000, 'x')), nullptr);
}

TEST(make_command, fits_a_message_to_the_byte) {
    const size_t room =
        4095 - strlen("CONNECT TO TOLVA (SEND) MSG_EXECSTATUS ");
    std::string longest = "LOG_TEXT ";
    longest += std::string(room - longest.size(), 'x');
    EXPECT_EQ(made({longest}), "MSG_EXECSTATUS " + longest);
    EXPECT_EQ(made({longest + "x"}),
              "!the command is too long: a request has 4095 bytes");
}

TEST(shell_quoted, is_read_back_by_a_shell) {
    EXPECT_STREQ(shell_quoted("").get(), "''");
    EXPECT_STREQ(shell_quoted("a b").get(), "'a b'");
    EXPECT_STREQ(shell_quoted("'").get(), "''\\'''");
}
