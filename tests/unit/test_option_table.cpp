/*
 * The table of options by itself: rows that no option ever gets to, and rows
 * that do not say what becomes of one.
 */
#include <gtest/gtest.h>

#include <span>
#include <string>

#include "tolva2/start/options.cpp" // NOLINT

TEST(options_table, has_no_row_that_another_one_hides) {
    const std::span<const option_row> rows(OPTION_ROWS);
    ASSERT_GT(rows.size(), 15u);
    for (size_t later = 0; later < rows.size(); later++) {
        const std::string_view letters = rows[later].letters;
        ASSERT_GE(letters.size(), 1u);
        /* One for any third character is for this one too. */
        const std::string thirds(letters.size() == 1 ? "~" : letters.substr(1));
        for (char third : thirds) {
            const typed_option option{"", letters[0], third};
            EXPECT_TRUE(is_for(letters, option));
            for (const option_row &first : rows.first(later)) {
                EXPECT_FALSE(is_for(first.letters, option))
                    << letters << " is hidden by " << first.letters;
            }
        }
    }
}

TEST(options_table, says_what_each_refusal_is_for) {
    for (const option_row &row : OPTION_ROWS) {
        for (const refusal &one : row.refusals) {
            EXPECT_EQ(one.text == nullptr, one.what == fault::none);
        }
    }
}

TEST(options_table, letters_are_compared_as_they_are) {
    struct row {
        std::string_view letters;
        typed_option option;
        bool result;
    };
    const row rows[] = {
        {"a", {"", 'a', '\0'}, true},
        {"a", {"", 'a', 'x'}, true},
        {"a", {"", 'b', '\0'}, false},
        {"a", {"", 'b', 'a'}, false},
        {"ab", {"", 'a', 'b'}, true},
        {"ab", {"", 'a', 'a'}, false},
        {"ab", {"", 'a', '\0'}, false},
        {"ab", {"", 'a', 'B'}, false},
        {{"a\0r", 3}, {"", 'a', '\0'}, true},
        {{"a\0r", 3}, {"", 'a', 'r'}, true},
        {{"a\0r", 3}, {"", 'a', 'a'}, false},
        {"a", {"", '\0', '\0'}, false},
    };
    for (const row &one : rows) {
        EXPECT_EQ(is_for(one.letters, one.option), one.result)
            << one.letters << " " << one.option.letter << one.option.third;
    }
}

TEST(read_option, does_not_look_behind_the_end) {
    struct row {
        const char *argument;
        char letter;
        char third;
    };
    const row rows[] = {
        {"-", '\0', '\0'},  {"-a", 'a', '\0'},
        {"-A", 'a', '\0'},  {"-AB", 'a', 'B'},
        {"-abc", 'a', 'b'}, {"--", '-', '\0'},
        {"-?", '?', '\0'},  {"-\xc4\xd6", '\xc4', '\xd6'},
    };
    for (const row &one : rows) {
        /* On the heap, where reading too far is noticed. */
        ux_text argument = ux_copy(one.argument);
        typed_option option = read_option(argument.get());
        EXPECT_EQ(option.whole, argument.get());
        EXPECT_EQ(option.letter, one.letter) << one.argument;
        EXPECT_EQ(option.third, one.third) << one.argument;
    }
}
