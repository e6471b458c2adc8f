/* Texts of others in a form that does no harm. */
#include "tolva2/fleet/fleet_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string safe(std::string_view foreign, text_place place) {
    text_buffer text;
    append_safe(&text, foreign, place);
    return std::string(text.view());
}

} // namespace

TEST(append_safe, leaves_plain_text_alone) {
    for (text_place place :
         {text_place::line, text_place::table, text_place::json}) {
        EXPECT_EQ(safe("web1 (old); it's", place), "web1 (old); it's");
        EXPECT_EQ(safe("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", place),
                  "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
    }
}

TEST(append_safe, shows_what_controls_by_number) {
    const std::string_view bad("a\nb\t\x1b[2J\x7f\0c", 11);
    EXPECT_EQ(safe(bad, text_place::line), "a\\x0ab\\x09\\x1b[2J\\x7f\\x00c");
    EXPECT_EQ(safe(bad, text_place::table), "a\\x0ab\\x09\\x1b[2J\\x7f\\x00c");
    EXPECT_EQ(safe(bad, text_place::json),
              "a\\u000ab\\u0009\\u001b[2J\\u007f\\u0000c");
}

TEST(append_safe, keeps_quotes_and_backslashes_apart) {
    EXPECT_EQ(safe("\"\\", text_place::line), "\"\\");
    EXPECT_EQ(safe("\"\\", text_place::table), "\"\\\\");
    EXPECT_EQ(safe("\"\\", text_place::json), "\\\"\\\\");
}

TEST(append_safe, lets_only_well_formed_sequences_through) {
    for (std::string_view bad :
         {"\x80", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf5\x80\x80\x80",
          "\xe2\x82", "\xc2\x9b", "\xe2\x80\xae", "\xe2\x80\xa8", "\xff",
          "\xe0\x80\x80", "\xf4\x90\x80\x80", "\xf0\x80\x80\x80"}) {
        std::string shown = safe(bad, text_place::line);
        EXPECT_EQ(shown.size(), 4 * bad.size()) << shown;
        for (char c : shown) {
            EXPECT_TRUE(c >= 0x20 && c < 0x7f) << shown;
        }
    }
}

TEST(show_answer, is_ascii_and_cut) {
    char out[32];
    show_answer(out, sizeof out, "HTTP/1.0\r\n");
    EXPECT_STREQ(out, "HTTP/1.0\\x0d\\x0a");
    show_answer(out, sizeof out, std::string(1000, '\xe9'));
    EXPECT_LT(strlen(out), sizeof out);
    EXPECT_EQ(std::string(out).substr(strlen(out) - 3), "...");
    show_answer(out, sizeof out, "");
    EXPECT_STREQ(out, "");
}

TEST(text_buffer, grows_and_gives_away_its_front) {
    text_buffer text;
    std::string expected;
    for (int n = 0; n < 3000; n++) {
        append_format(&text, "%d,", n);
        expected += std::to_string(n) + ",";
    }
    EXPECT_EQ(text.view(), expected);
    drop_front(&text, 10);
    EXPECT_EQ(text.view(), expected.substr(10));
    drop_front(&text, text.length + 1);
    EXPECT_EQ(text.view(), "");
    EXPECT_FALSE(text.incomplete);
}

TEST(part_of, never_leaves_the_text) {
    EXPECT_EQ(part_of("abc", 1), "bc");
    EXPECT_EQ(part_of("abc", 1, 1), "b");
    EXPECT_EQ(part_of("abc", 9), "");
    EXPECT_EQ(part_of("abc", 0, 9), "abc");
}
