/* Numbered texts, looked up in a file. */
#include "capture.h"
#include "failing_calls.h"
#include "temp_dir.h"
#include "tolva2/files/msgdb.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

using std::string_literals::operator""s;

class msgdb_test : public testing::Test {
  protected:
    void TearDown() override { msgdb_close(); }
    /* The text of a message in a database of that content; "(null)". */
    std::string text(const std::string &content, int32_t number) {
        write_file(path, content);
        EXPECT_TRUE(msgdb_open(path.c_str()));
        const char *found = msgdb_get(number);
        return found ? found : "(null)";
    }

    temp_dir dir;
    std::string path = dir.path("messages.dat");
};

struct msgdb_case {
    std::string content;
    int32_t number;
    std::string text;
};

class msgdb_texts : public msgdb_test {
  protected:
    void check(const msgdb_case &c);
};

void msgdb_texts::check(const msgdb_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.content));
    EXPECT_EQ(text(c.content, c.number), c.text);
    /* The other two ways say the same. */
    std::string expected = c.text == "(null)" ? "" : c.text;
    char buffer[1024] = "stale";
    EXPECT_EQ(msgdb_get_into(c.number, buffer, sizeof buffer),
              static_cast<int32_t>(expected.size()));
    EXPECT_EQ(buffer, expected);
    FILE *stream = fopen(path.c_str(), "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(msgdb_find(stream, buffer, sizeof buffer, c.number),
              static_cast<int32_t>(expected.size()));
    EXPECT_EQ(buffer, expected);
    fclose(stream);
}

TEST_F(msgdb_texts, numbers) {
    for (const msgdb_case &c :
         {msgdb_case{"m1=one\nm11=eleven\n", 1, "one"},
          msgdb_case{"m1=one\nm11=eleven\n", 11, "eleven"},
          msgdb_case{"m11=eleven\nm1=one\n", 1, "one"},
          msgdb_case{"m1=one\nm11=eleven\n", 2, "(null)"},
          msgdb_case{"m1=one\nm11=eleven\n", 111, "(null)"},
          msgdb_case{"m0=zero\n", 0, "zero"},
          msgdb_case{"m-5=minus\n", -5, "minus"},
          msgdb_case{"m2147483647=top\n", INT32_MAX, "top"},
          msgdb_case{"m-2147483648=bottom\n", INT32_MIN, "bottom"},
          msgdb_case{"m007=padded\n", 7, "(null)"},
          msgdb_case{"M7=upper\n", 7, "(null)"},
          msgdb_case{"m7 =blank\n", 7, "(null)"}, msgdb_case{"", 1, "(null)"},
          /* The first line wins. */
          msgdb_case{"m3=first\nm3=second\n", 3, "first"},
          msgdb_case{"m3=\nm3=second\n", 3, "(null)"}}) {
        check(c);
    }
}

TEST_F(msgdb_texts, anywhere_in_the_line) {
    for (const msgdb_case &c :
         {msgdb_case{"xm12=text\n", 12, "text"},
          msgdb_case{"note m5=x\n", 5, "x"},
          msgdb_case{"# m5=in a comment\nm5=x\n", 5, "in a comment"},
          msgdb_case{"m5=a=b\n", 5, "a=b"},
          /* The text begins behind the first "=" of the line. */
          msgdb_case{"a=1 m5=x\n", 5, "1 m5=x"},
          msgdb_case{"m4=see m5=x\nm5=y\n", 5, "see m5=x"},
          msgdb_case{"m5==\n", 5, "="}}) {
        check(c);
    }
}

TEST_F(msgdb_texts, text_and_line_end) {
    for (const msgdb_case &c :
         {msgdb_case{"m7=text\r\n", 7, "text"},
          msgdb_case{"m7=text", 7, "text"}, msgdb_case{"m7=text\r", 7, "text"},
          msgdb_case{"m7=text\r\r", 7, "text"},
          msgdb_case{"m7=text\r\r\n", 7, "text\r"},
          msgdb_case{"m7=text\r\r\r", 7, "text\r"},
          msgdb_case{"m7= two  blanks \n", 7, " two  blanks "},
          msgdb_case{"m7=%s and %s\n", 7, "%s and %s"},
          msgdb_case{"m7=\"quoted\" # note\\\n", 7, "\"quoted\" # note\\"},
          msgdb_case{"m7=\xe4\xf6\xfc\xff\x80\n", 7, "\xe4\xf6\xfc\xff\x80"},
          msgdb_case{"m9=\n", 9, "(null)"}, msgdb_case{"m9=\r\n", 9, "(null)"},
          msgdb_case{"m9=", 9, "(null)"}}) {
        check(c);
    }
}

TEST_F(msgdb_texts, nul_bytes) {
    for (const msgdb_case &c : {msgdb_case{"\0junk\nm5=x\n"s, 5, "x"},
                                msgdb_case{"m4=a\0b\nm5=x\n"s, 5, "x"},
                                msgdb_case{"m5=a\0b\n"s, 5, "a"}}) {
        check(c);
    }
}

const std::string LONG(3000, 'x');

TEST_F(msgdb_texts, long_lines) {
    for (const msgdb_case &c :
         {/* 1,023 bytes of a line are seen at once. */
          msgdb_case{"m5=" + LONG.substr(0, 1019) + "\n", 5,
                     LONG.substr(0, 1019)},
          msgdb_case{"m5=" + LONG.substr(0, 1020) + "\n", 5,
                     LONG.substr(0, 1020)},
          msgdb_case{"m5=" + LONG.substr(0, 1021) + "\n", 5,
                     LONG.substr(0, 1020)},
          msgdb_case{"m5=" + LONG + "\nm6=y\n", 5, LONG.substr(0, 1020)},
          msgdb_case{"m5=" + LONG + "\nm6=y\n", 6, "y"},
          /* A piece is searched like a line, a key across two is none. */
          msgdb_case{LONG.substr(0, 1023) + "m5=piece\n", 5, "piece"},
          msgdb_case{LONG.substr(0, 1022) + "m5=cut\n", 5, "(null)"}}) {
        check(c);
    }
}

TEST_F(msgdb_test, open_needs_the_name_of_a_regular_file) {
    EXPECT_FALSE(msgdb_open(nullptr));
    EXPECT_FALSE(msgdb_open(""));
    errno = 0;
    EXPECT_FALSE(msgdb_open(dir.path("absent").c_str()));
    EXPECT_EQ(errno, ENOENT);
    std::string fifo = dir.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &other : {dir.path(), "/dev/null"s, fifo}) {
        errno = 0;
        EXPECT_FALSE(msgdb_open(other.c_str())) << other;
        EXPECT_EQ(errno, ENOENT) << other;
    }
    errno = 0;
    EXPECT_FALSE(msgdb_open((dir.file("file", "x") + "/below").c_str()));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(msgdb_get(1), nullptr);
}

TEST_F(msgdb_test, open_follows_links) {
    write_file(path, "m1=one\n");
    std::string link = dir.path("link");
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    EXPECT_TRUE(msgdb_open(link.c_str()));
    EXPECT_STREQ(msgdb_get(1), "one");
}

TEST_F(msgdb_test, open_copies_the_name) {
    std::string name = dir.file("copy.dat", "m1=one\n");
    EXPECT_TRUE(msgdb_open(name.c_str()));
    name.assign(name.size(), 'x');
    EXPECT_STREQ(msgdb_get(1), "one");
}

TEST_F(msgdb_test, a_second_open_replaces_the_first) {
    EXPECT_EQ(text("m1=one\n", 1), "one");
    EXPECT_TRUE(msgdb_open(dir.file("other", "m1=uno\n").c_str()));
    EXPECT_STREQ(msgdb_get(1), "uno");
}

TEST_F(msgdb_test, a_failed_open_keeps_the_former_name) {
    EXPECT_EQ(text("m1=one\n", 1), "one");
    EXPECT_FALSE(msgdb_open(dir.path("absent").c_str()));
    EXPECT_FALSE(msgdb_open(dir.path().c_str()));
    EXPECT_FALSE(msgdb_open(nullptr));
    EXPECT_STREQ(msgdb_get(1), "one");
}

TEST_F(msgdb_test, an_open_without_memory_keeps_the_former_name) {
    EXPECT_EQ(text("m1=one\n", 1), "one");
    std::string other = dir.file("other", "m1=uno\n");
    {
        failing_heap none;
        EXPECT_FALSE(msgdb_open(other.c_str()));
    }
    EXPECT_STREQ(msgdb_get(1), "one");
}

TEST_F(msgdb_test, without_a_database_there_is_no_text) {
    char buffer[8] = "stale";
    EXPECT_EQ(msgdb_get(1), nullptr);
    EXPECT_EQ(msgdb_get_into(1, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(text("m1=one\n", 1), "one");
    msgdb_close();
    EXPECT_EQ(msgdb_get(1), nullptr);
    EXPECT_EQ(msgdb_get_into(1, buffer, sizeof buffer), 0);
    msgdb_close();
}

TEST_F(msgdb_test, a_vanished_database_is_a_missing_message) {
    EXPECT_EQ(text("m1=one\n", 1), "one");
    ASSERT_EQ(unlink(path.c_str()), 0);
    char buffer[8] = "stale";
    EXPECT_EQ(msgdb_get(1), nullptr);
    EXPECT_EQ(msgdb_get_into(1, buffer, sizeof buffer), 0);
    write_file(path, "m1=back\n");
    EXPECT_STREQ(msgdb_get(1), "back");
}

TEST_F(msgdb_test, an_edited_database_counts_at_once) {
    EXPECT_EQ(text("m1=one\n", 1), "one");
    write_file(path, "m1=changed\nm2=new\n");
    EXPECT_STREQ(msgdb_get(1), "changed");
    EXPECT_STREQ(msgdb_get(2), "new");
}

TEST_F(msgdb_test, each_lookup_overwrites_the_one_before) {
    write_file(path, "m1=one\nm2=two\n");
    ASSERT_TRUE(msgdb_open(path.c_str()));
    const char *first = msgdb_get(1);
    const char *second = msgdb_get(2);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "two");
}

TEST_F(msgdb_test, a_number_is_listed_with_an_empty_text_too) {
    write_file(path, "m1=one\nm2=\n");
    EXPECT_FALSE(msgdb_lists(1)) << "there is no database yet";
    EXPECT_EQ(errno, ENOENT);
    ASSERT_TRUE(msgdb_open(path.c_str()));
    EXPECT_TRUE(msgdb_lists(1));
    EXPECT_TRUE(msgdb_lists(2));
    EXPECT_EQ(msgdb_get(2), nullptr);
    EXPECT_FALSE(msgdb_lists(3));
    EXPECT_EQ(errno, 0);
    unlink(path.c_str());
    EXPECT_FALSE(msgdb_lists(1)) << "the database is gone";
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(msgdb_test, lookups_leave_no_descriptor_open) {
    write_file(path, "m1=one\n");
    ASSERT_TRUE(msgdb_open(path.c_str()));
    int before = dup(0);
    close(before);
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(msgdb_get(i) != nullptr, i == 1);
    }
    int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(msgdb_test, get_into_cuts_to_the_buffer) {
    write_file(path, "m5=abcdef\n");
    ASSERT_TRUE(msgdb_open(path.c_str()));
    char buffer[16];
    const struct {
        size_t size;
        const char *text;
    } cases[] = {{16, "abcdef"}, {11, "abcdef"}, {10, "abcdef"}, {9, "abcde"},
                 {5, "a"},       {4, ""},        {3, ""},        {2, ""}};
    for (const auto &c : cases) {
        memset(buffer, '?', sizeof buffer);
        EXPECT_EQ(msgdb_get_into(5, buffer, c.size),
                  static_cast<int32_t>(strlen(c.text)))
            << c.size;
        EXPECT_STREQ(buffer, c.text) << c.size;
        for (size_t i = c.size; i < sizeof buffer; i++) {
            EXPECT_EQ(buffer[i], '?') << c.size;
        }
    }
}

TEST_F(msgdb_test, get_into_needs_a_buffer) {
    write_file(path, "m5=abcdef\n");
    ASSERT_TRUE(msgdb_open(path.c_str()));
    char buffer[4] = "?";
    EXPECT_EQ(msgdb_get_into(5, nullptr, 10), -1);
    EXPECT_EQ(msgdb_get_into(5, buffer, 0), -1);
    EXPECT_STREQ(buffer, "?");
    msgdb_close();
    EXPECT_EQ(msgdb_get_into(5, nullptr, 10), -1);
    EXPECT_EQ(msgdb_get_into(5, buffer, 0), -1);
}

TEST_F(msgdb_test, find_needs_stream_and_buffer) {
    char buffer[8] = "?";
    FILE *stream = fopen(dir.file("f", "m1=one\n").c_str(), "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(msgdb_find(nullptr, buffer, sizeof buffer, 1), -1);
    EXPECT_EQ(msgdb_find(stream, nullptr, 8, 1), -1);
    EXPECT_EQ(msgdb_find(stream, buffer, 0, 1), -1);
    EXPECT_EQ(msgdb_find(stream, buffer, sizeof buffer, 1), 3);
    EXPECT_STREQ(buffer, "one");
    fclose(stream);
}

TEST_F(msgdb_test, find_goes_on_where_the_stream_stands) {
    char buffer[32];
    FILE *stream = fopen(dir.file("f", "m1=a\nm2=b\nm1=c\n").c_str(), "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(msgdb_find(stream, buffer, sizeof buffer, 2), 1);
    EXPECT_STREQ(buffer, "b");
    EXPECT_EQ(msgdb_find(stream, buffer, sizeof buffer, 1), 1);
    EXPECT_STREQ(buffer, "c");
    EXPECT_EQ(msgdb_find(stream, buffer, sizeof buffer, 1), 0);
    EXPECT_STREQ(buffer, "");
    fclose(stream);
}

/* A line of no characters must not be read for ever. */
TEST_F(msgdb_test, a_buffer_for_the_terminator_alone_ends_the_search) {
    std::string name = dir.file("f", "m1=one\n");
    EXPECT_EXIT(
        {
            alarm(20);
            FILE *stream = fopen(name.c_str(), "r");
            char buffer[1] = {'?'};
            int32_t length = msgdb_find(stream, buffer, 1, 1);
            _exit(length == 0 && buffer[0] == '\0' ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

TEST_F(msgdb_test, names_its_functions_above_trace_level_5_only) {
    auto all = [this] {
        text("m1=one\n", 1);
        msgdb_close();
    };
    EXPECT_EQ(traced(-1, all), "");
    EXPECT_EQ(traced(0, all), "");
    EXPECT_EQ(traced(1, all).find("TRACE"), std::string::npos);
    for (int32_t level : {6, 10}) {
        std::string output = traced(level, all);
        for (const char *function :
             {"msgdb_open", "msgdb_get", "msgdb_find", "msgdb_close"}) {
            EXPECT_NE(output.find(std::string("TRACEIN: ") + function + "\n"),
                      std::string::npos)
                << function;
        }
    }
}

} // namespace
