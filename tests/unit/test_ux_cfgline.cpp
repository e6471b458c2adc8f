/* What a line of a key=value file is taken for, character by character. */
#include "capture.h"
#include "unixtools/ux_cfgline.h"

#include <cstring>
#include <optional>
#include <string>

namespace {

using std::nullopt;
using text_or_null = std::optional<std::string>;

text_or_null text_of(const char *text) {
    return text ? text_or_null(text) : nullopt;
}

/* A piece of a line, which must end with a NUL where it ends as a view. */
text_or_null text_of(std::string_view piece) {
    EXPECT_TRUE(!piece.data() || strlen(piece.data()) == piece.size());
    return piece.data() ? text_or_null(piece) : nullopt;
}

struct strip_case {
    const char *text;
    text_or_null stripped;
    text_or_null without_line_end;
};

class strip_test : public testing::Test {
  protected:
    void check(const strip_case &c);
};

void strip_test::check(const strip_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    {
        std::string text = c.text;
        EXPECT_EQ(text_of(strip(text.data())), c.stripped);
    }
    {
        std::string text = c.text;
        char *result = strip_newline(text.data());
        EXPECT_EQ(text_of(result), c.without_line_end);
        if (result) {
            EXPECT_EQ(result, text.data());
        }
    }
}

TEST_F(strip_test, texts) {
    for (const strip_case &c :
         {strip_case{"", nullopt, nullopt}, strip_case{" ", nullopt, " "},
          strip_case{" \t \t", nullopt, " \t \t"},
          strip_case{"\n", nullopt, nullopt},
          strip_case{"\r\n\r\n", nullopt, nullopt},
          strip_case{" \r\n", nullopt, " "}, strip_case{"a", "a", "a"},
          strip_case{"  a", "a", "  a"}, strip_case{"a  ", "a", "a  "},
          strip_case{"\t a b \t", "a b", "\t a b \t"},
          strip_case{"a\n", "a", "a"}, strip_case{"a\r\n", "a", "a"},
          strip_case{"a \r \n\n", "a", "a \r "},
          /* Only blanks go at the front. */
          strip_case{"\ra", "\ra", "\ra"}, strip_case{"\na\n", "\na", "\na"},
          strip_case{"a\v", "a\v", "a\v"}, strip_case{"\fa", "\fa", "\fa"},
          strip_case{"\xa0\xe4\xa0", "\xa0\xe4\xa0", "\xa0\xe4\xa0"}}) {
        check(c);
    }
}

struct line_case {
    const char *line;
    int32_t result;
    text_or_null ident;
    text_or_null value;
    text_or_null comment;
};

class parse_line_test : public testing::Test {
  protected:
    void check(const line_case &c);
};

void parse_line_test::check(const line_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.line));
    const line_case &expected = c;
    std::string line = expected.line;
    const char *stale = "stale";
    config_line parsed{stale, stale, stale};
    EXPECT_EQ(parse_line(line.data(), &parsed), expected.result);
    if (expected.result == 1) {
        EXPECT_EQ(text_of(parsed.ident), expected.ident);
        EXPECT_EQ(text_of(parsed.value), expected.value);
        EXPECT_EQ(text_of(parsed.comment), expected.comment);
    }
    /* Nothing is left of what stood in the record before. */
    EXPECT_NE(parsed.ident.data(), stale);
    EXPECT_NE(parsed.value.data(), stale);
    EXPECT_NE(parsed.comment.data(), stale);
}

TEST_F(parse_line_test, without_key) {
    for (const line_case &c :
         {line_case{"\n", 1, nullopt, nullopt, nullopt},
          line_case{" \t \n", 1, nullopt, nullopt, nullopt},
          line_case{"", 0, nullopt, nullopt, nullopt},
          line_case{" \t ", 0, nullopt, nullopt, nullopt},
          line_case{"\r\n", 0, nullopt, nullopt, nullopt},
          line_case{" \r\n", 0, nullopt, nullopt, nullopt},
          line_case{"#\n", 1, nullopt, nullopt, "#"},
          line_case{"# note\n", 1, nullopt, nullopt, "# note"},
          line_case{"# key=value # x\n", 1, nullopt, nullopt,
                    "# key=value # x"},
          line_case{" \t# note \t\r\n", 1, nullopt, nullopt, " \t# note \t"},
          line_case{"# no line feed", 1, nullopt, nullopt, "# no line feed"},
          line_case{"# \xe4\xf6\xfc\n", 1, nullopt, nullopt, "# \xe4\xf6\xfc"},
          line_case{"=\n", 0, nullopt, nullopt, nullopt},
          line_case{"=value\n", 0, nullopt, nullopt, nullopt},
          line_case{"  =value\n", 0, nullopt, nullopt, nullopt}}) {
        check(c);
    }
}

TEST_F(parse_line_test, keys) {
    for (const line_case &c :
         {line_case{"key\n", 0, nullopt, nullopt, nullopt},
          line_case{"key", 0, nullopt, nullopt, nullopt},
          line_case{"key#=value\n", 0, nullopt, nullopt, nullopt},
          line_case{"key # =value\n", 0, nullopt, nullopt, nullopt},
          /* One character directly before the "=" is no key. */
          line_case{"a=1\n", 0, nullopt, nullopt, nullopt},
          line_case{"  a=1\n", 0, nullopt, nullopt, nullopt},
          line_case{"\xe4=1\n", 0, nullopt, nullopt, nullopt},
          line_case{"a =1\n", 1, "a", "1", nullopt},
          line_case{"\ta\t=1\n", 1, "a", "1", nullopt},
          line_case{"ab=1\n", 1, "ab", "1", nullopt},
          line_case{"\xc3\xa4=1\n", 1, "\xc3\xa4", "1", nullopt},
          line_case{"  two words  = 1\n", 1, "two words", "1", nullopt},
          line_case{"\"k\"=1\n", 1, "\"k\"", "1", nullopt},
          line_case{"k\\=1\n", 1, "k\\", "1", nullopt},
          line_case{"\rkey=1\n", 1, "\rkey", "1", nullopt},
          line_case{"key\r=1\n", 1, "key", "1", nullopt},
          line_case{"\r=1\n", 0, nullopt, nullopt, nullopt},
          line_case{"\r =1 # x\n", 1, nullopt, "1", " x"},
          line_case{"Key=1\n", 1, "Key", "1", nullopt}}) {
        check(c);
    }
}

TEST_F(parse_line_test, values) {
    for (const line_case &c :
         {line_case{"ab=x\nbehind", 1, "ab", "x", nullopt},
          line_case{"key=value", 1, "key", "value", nullopt},
          line_case{"key=value\r\n", 1, "key", "value", nullopt},
          line_case{"key=  value \t\n", 1, "key", "value", nullopt},
          line_case{"key=value \t", 1, "key", "value", nullopt},
          line_case{"key=a b  c\n", 1, "key", "a b  c", nullopt},
          line_case{"key=a=b\n", 1, "key", "a=b", nullopt},
          line_case{"key==\n", 1, "key", "=", nullopt},
          line_case{"key=\xfc\x80\n", 1, "key", "\xfc\x80", nullopt},
          line_case{"key=\n", 1, "key", nullopt, nullopt},
          line_case{"key=", 1, "key", nullopt, nullopt},
          line_case{"key= \t \n", 1, "key", nullopt, nullopt},
          line_case{"key=   ", 1, "key", nullopt, nullopt},
          line_case{"key=\r\n", 1, "key", nullopt, nullopt}}) {
        check(c);
    }
}

TEST_F(parse_line_test, comments) {
    for (const line_case &c :
         {line_case{"key = value # note\n", 1, "key", "value", " note"},
          line_case{"key=value#note\r\n", 1, "key", "value", "note"},
          line_case{"key=value # note # more", 1, "key", "value",
                    " note # more"},
          line_case{"key=value # note \t\n", 1, "key", "value", " note \t"},
          line_case{"key=value #\n", 1, "key", "value", nullopt},
          line_case{"key=# note\n", 1, "key", nullopt, " note"},
          line_case{"key=  #note\r\n", 1, "key", nullopt, "note"},
          line_case{"key=#", 1, "key", nullopt, nullopt}}) {
        check(c);
    }
}

TEST_F(parse_line_test, quotes_and_backslashes) {
    for (const line_case &c :
         {line_case{"key=\"\"\n", 1, "key", "\"\"", nullopt},
          line_case{"key=\"a # b\" # c\n", 1, "key", "\"a # b\"", " c"},
          line_case{"key=a\"#\"b#c\n", 1, "key", "a\"#\"b", "c"},
          line_case{"key=\"  a  \"\n", 1, "key", "\"  a  \"", nullopt},
          line_case{"key=\"open # x\n", 1, "key", "\"open # x", nullopt},
          line_case{"key=\"a\"\"b # c\n", 1, "key", "\"a\"\"b # c", nullopt},
          line_case{"key='a # b'\n", 1, "key", "'a", " b'"},
          line_case{"key=\\# x\n", 1, "key", "\\# x", nullopt},
          line_case{"path=C:\\dir # x\n", 1, "path", "C:\\dir # x", nullopt},
          line_case{"path=C:\\\\dir # x\n", 1, "path", "C:\\\\dir", " x"},
          line_case{"path=C:\\a\\b # x\n", 1, "path", "C:\\a\\b", " x"},
          line_case{"path=\\a\\b\\c # x\n", 1, "path", "\\a\\b\\c # x",
                    nullopt},
          line_case{"key=\\\"a # b\n", 1, "key", "\\\"a # b", nullopt},
          line_case{"key=\\\"a\\ # b\n", 1, "key", "\\\"a\\", " b"},
          line_case{"key=\"\\\" # x\n", 1, "key", "\"\\\" # x", nullopt},
          line_case{"key=\"a\\\\\" # x\n", 1, "key", "\"a\\\\\"", " x"},
          line_case{"key=\\\\\"a # b\" # c\n", 1, "key", "\\\\\"a # b\"",
                    " c"}}) {
        check(c);
    }
}

/* Nothing is copied. */
TEST_F(parse_line_test, pieces_are_in_the_line) {
    char text[] = " key = value # note\n";
    config_line parsed;
    ASSERT_EQ(parse_line(text, &parsed), 1);
    EXPECT_EQ(parsed.ident.data(), text + 1);
    EXPECT_EQ(parsed.value.data(), text + 7);
    EXPECT_EQ(parsed.comment.data(), text + 14);
}

TEST(cfgline_trace, names_what_takes_the_line_apart) {
    EXPECT_EQ(traced(6,
                     [] {
                         char text[] = "key=value # note\n";
                         config_line parsed;
                         EXPECT_EQ(parse_line(text, &parsed), 1);
                     }),
              "TRACEIN: parse_line\nTRACEIN: strip\n"
              "TRACEIN: strip_newline\nTRACEIN: strip\n");
    EXPECT_EQ(traced(5,
                     [] {
                         char text[] = "# note\n";
                         config_line parsed;
                         EXPECT_EQ(parse_line(text, &parsed), 1);
                     }),
              "");
}

} // namespace
