/* One row of a table: what a text, or none, does to its storage. */
#include "capture.h"
#include "death.h"
#include "failing_calls.h"
#include "unixtools/ux_configfile.h"

#include <cstddef>
#include <string>

namespace {

class set_option_value_test : public testing::Test {
  protected:
    ux_option_result set_number(const char *value) {
        return set_option_value(&number_row, value);
    }

    int32_t number = -1;
    int32_t number_default = 6003;
    ux_text text;
    ux_text text_default = ux_copy("default");
    ux_option number_row{
        UX_OPTION_INTEGER, "number", {&number}, {&number_default}};
    ux_option text_row{
        UX_OPTION_STRING, "text", {nullptr, &text}, {nullptr, &text_default}};
};

TEST_F(set_option_value_test, reads_integers_by_their_decimal_prefix) {
    const struct {
        const char *text;
        int32_t expected;
    } cases[] = {{"5769", 5769},
                 {"  42 ", 42},
                 {"-7", -7},
                 {"+7", 7},
                 {"12abc", 12},
                 {"abc", 0},
                 {"\"12\"", 0},
                 {"", 0},
                 {"0x10", 0},
                 {"010", 10},
                 {"2147483647", INT32_MAX},
                 {"4294973299", INT32_MAX},
                 {"-4294973299", INT32_MIN}};
    for (const auto &c : cases) {
        number = -1;
        EXPECT_EQ(set_number(c.text), 1);
        EXPECT_EQ(number, c.expected) << c.text;
    }
}

TEST_F(set_option_value_test, an_integer_without_text_takes_its_default) {
    EXPECT_EQ(set_number(nullptr), 1);
    EXPECT_EQ(number, 6003);
    number_row.default_value = {};
    number = -1;
    EXPECT_EQ(set_number(nullptr), 0);
    EXPECT_EQ(number, -1);
}

TEST_F(set_option_value_test, copies_texts_of_both_types) {
    for (ux_option_type type : {UX_OPTION_STRING, UX_OPTION_TEXT}) {
        text_row.type = type;
        char value[] = "\"a\\b\" ";
        EXPECT_EQ(set_option_value(&text_row, value), 1);
        EXPECT_NE(text.get(), value);
        EXPECT_STREQ(text.get(), "\"a\\b\" ");
        EXPECT_EQ(set_option_value(&text_row, ""), 1);
        EXPECT_STREQ(text.get(), "");
        EXPECT_EQ(set_option_value(&text_row, nullptr), 1);
        EXPECT_NE(text, text_default);
        EXPECT_STREQ(text.get(), "default");
    }
}

TEST_F(set_option_value_test, a_text_without_default_is_left_alone) {
    text = ux_copy("before");
    const char *before = text.get();
    text_default = nullptr;
    for (ux_option_type type : {UX_OPTION_STRING, UX_OPTION_TEXT}) {
        text_row.type = type;
        text_row.default_value = {nullptr, &text_default};
        EXPECT_EQ(set_option_value(&text_row, nullptr), 0);
        EXPECT_EQ(text.get(), before);
        text_row.default_value = {};
        EXPECT_EQ(set_option_value(&text_row, nullptr), 0);
        EXPECT_EQ(text.get(), before);
    }
}

/* It is freed: the storage owns it. */
TEST_F(set_option_value_test, what_was_stored_before_gives_way) {
    text = ux_copy("before");
    EXPECT_EQ(set_option_value(&text_row, "new"), 1);
    EXPECT_STREQ(text.get(), "new");
}

TEST_F(set_option_value_test, without_memory_is_not_without_default) {
    text = ux_copy("before");
    for (const char *value : {"new", static_cast<const char *>(nullptr)}) {
        failing_heap none;
        EXPECT_EQ(set_option_value(&text_row, value), UX_OPTION_NO_MEMORY);
        EXPECT_STREQ(text.get(), "before");
    }
    failing_heap none;
    EXPECT_EQ(set_number("1"), UX_OPTION_DONE);
    text_default = nullptr;
    EXPECT_EQ(set_option_value(&text_row, nullptr), UX_OPTION_NO_DEFAULT);
}

TEST_F(set_option_value_test, the_results_are_numbers_that_callers_know) {
    EXPECT_EQ(UX_OPTION_DONE, 1);
    EXPECT_EQ(UX_OPTION_NO_DEFAULT, 0);
    EXPECT_EQ(UX_OPTION_NO_MEMORY, -1);
}

TEST_F(set_option_value_test,
       passes_over_rows_without_storage_and_other_types) {
    number_row.value = {};
    text_row.value = {};
    EXPECT_EQ(set_number("1"), 1);
    EXPECT_EQ(set_number(nullptr), 1);
    EXPECT_EQ(set_option_value(&text_row, "x"), 1);
    EXPECT_EQ(set_option_value(&text_row, nullptr), 1);
    for (int32_t type : {4, 5, -1, 77}) {
        ux_option other{static_cast<ux_option_type>(type),
                        "number",
                        {&number},
                        {&number_default}};
        EXPECT_EQ(set_option_value(&other, "1"), 1);
        EXPECT_EQ(set_option_value(&other, nullptr), 1);
        EXPECT_EQ(number, -1);
    }
}

TEST_F(set_option_value_test, tells_type_value_and_what_it_stored) {
    EXPECT_EQ(traced(1, [this] { (void)set_number("12x"); }),
              "DEBUG: type=  [1]\nDEBUG: value=  [12x]\n"
              "DEBUG: found [12]\n");
    EXPECT_EQ(traced(1, [this] { (void)set_option_value(&text_row, "a b"); }),
              "DEBUG: type=  [2]\nDEBUG: value=  [a b]\n"
              "DEBUG: found [a b]\n");
    EXPECT_NE(traced(1, [this] { (void)set_number(nullptr); })
                  .find("DEBUG: found [6003]\n"),
              std::string::npos);
    ux_option literal{UX_OPTION_LITERAL, "# x"};
    EXPECT_EQ(traced(1, [&] { (void)set_option_value(&literal, "v"); }),
              "DEBUG: type=  [4]\nDEBUG: value=  [v]\n");
}

TEST_F(set_option_value_test, traces_entry_above_5_and_exit_above_9) {
    auto set = [this] { (void)set_number("3"); };
    const std::string details =
        "DEBUG: type=  [1]\nDEBUG: value=  [3]\nDEBUG: found [3]\n";
    const std::string in = "TRACEIN: set_option_value\n";
    const std::string out = "TRACEOUT: set_option_value\n";
    EXPECT_EQ(traced(-1, set), "");
    EXPECT_EQ(traced(0, set), "");
    EXPECT_EQ(traced(5, set), details);
    EXPECT_EQ(traced(6, set), in + details);
    EXPECT_EQ(traced(9, set), in + details);
    EXPECT_EQ(traced(10, set), in + details + out);
}

TEST_F(set_option_value_test, needs_a_row_with_type_and_key) {
    const char *condition = "op && op->type && op->ident";
    EXPECT_ASSERTION((void)set_option_value(nullptr, "1"), "ux_configfile",
                     condition);
    EXPECT_ASSERTION((number_row.type = {}, (void)set_number("1")),
                     "ux_configfile", condition);
    EXPECT_ASSERTION((number_row.ident = nullptr, (void)set_number("1")),
                     "ux_configfile", condition);
}

TEST(ux_option_layout, has_its_fields_in_order) {
    EXPECT_EQ(offsetof(ux_option, type), 0u);
    EXPECT_LT(offsetof(ux_option, type), offsetof(ux_option, ident));
    EXPECT_LT(offsetof(ux_option, ident), offsetof(ux_option, value));
    EXPECT_LT(offsetof(ux_option, value), offsetof(ux_option, default_value));
    EXPECT_EQ(sizeof(ux_option::reserved1), 4u);
    EXPECT_EQ(sizeof(ux_option::reserved2), 4u);
}

} // namespace
