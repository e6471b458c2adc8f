#include "capture.h"
#include "death.h"
#include "starve.h"
#include "temp_dir.h"
#include "unixtools/ux_configfile.h"
#include "unixtools/ux_number.h"

#include <cassert>
#include <cstddef>
#include <optional>
#include <sys/stat.h>

#include "failing_heap.h"
#include "unixtools/ux_configfile.cpp"
#include "unixtools/ux_hashtable.cpp"
#include "unixtools/ux_list.cpp"

namespace
{

using std::nullopt;
using text_or_null = std::optional<std::string>;

text_or_null text_of(const char *text)
{
    return text ? text_or_null(text) : nullopt;
}

/* Single characters, and texts of one piece of a line. */

struct strip_case {
    const char *text;
    text_or_null stripped;
    text_or_null without_line_end;
};

class strip_test : public testing::Test
{
  protected:
    void check(const strip_case &c);
};

void strip_test::check(const strip_case &c)
{
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

TEST_F(strip_test, texts)
{
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

class parse_line_test : public testing::Test
{
  protected:
    void check(const line_case &c);
};

void parse_line_test::check(const line_case &c)
{
    SCOPED_TRACE(testing::PrintToString(c.line));
    const line_case &expected = c;
    std::string line = expected.line;
    char stale[] = "stale";
    cfgmodule parsed{stale, stale, stale};
    EXPECT_EQ(parse_line(line.data(), &parsed), expected.result);
    if (expected.result == 1) {
        EXPECT_EQ(text_of(parsed.ident), expected.ident);
        EXPECT_EQ(text_of(parsed.value), expected.value);
        EXPECT_EQ(text_of(parsed.comment), expected.comment);
    }
    /* Nothing is left of what stood in the record before. */
    EXPECT_NE(parsed.ident, stale);
    EXPECT_NE(parsed.value, stale);
    EXPECT_NE(parsed.comment, stale);
}

TEST_F(parse_line_test, without_key)
{
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

TEST_F(parse_line_test, keys)
{
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

TEST_F(parse_line_test, values)
{
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

TEST_F(parse_line_test, comments)
{
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

TEST_F(parse_line_test, quotes_and_backslashes)
{
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

/* Records */

TEST(cfgmodule_test, new_copies_what_is_not_null)
{
    char ident[] = "ident";
    char value[] = "value";
    char comment[] = "comment";
    cfgmodule *record = new_cfgmodule(ident, value, comment);
    ASSERT_NE(record, nullptr);
    ident[0] = value[0] = comment[0] = 'X';
    EXPECT_STREQ(record->ident, "ident");
    EXPECT_STREQ(record->value, "value");
    EXPECT_STREQ(record->comment, "comment");
    destroy_cfgmodule(record);
    record = new_cfgmodule(nullptr, nullptr, nullptr);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->ident, nullptr);
    EXPECT_EQ(record->value, nullptr);
    EXPECT_EQ(record->comment, nullptr);
    destroy_cfgmodule(record);
    record = new_cfgmodule("", "", "");
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->ident, "");
    EXPECT_STREQ(record->value, "");
    EXPECT_STREQ(record->comment, "");
    destroy_cfgmodule(record);
}

TEST(cfgmodule_test, new_without_memory_leaves_nothing_behind)
{
    for (int left = 0; left < 4; left++) {
        heap_limit limit(left);
        EXPECT_EQ(new_cfgmodule("ident", "value", "comment"), nullptr) << left;
    }
    heap_limit limit(4);
    cfgmodule *record = new_cfgmodule("ident", "value", "comment");
    EXPECT_NE(record, nullptr);
    destroy_cfgmodule(record);
}

std::string shown(const char *function, const char *name, const char *text)
{
    char line[200];
    snprintf(line, sizeof line, "DEBUG: %s(): %s: [%s] at: 0x%08lx\n", function,
             name, text, reinterpret_cast<unsigned long>(text));
    return line;
}

TEST(cfgmodule_test, new_and_destroy_show_texts_and_addresses_at_level_1)
{
    cfgmodule *record = nullptr;
    std::string output =
        traced(1, [&] { record = new_cfgmodule("key", "1", " note"); });
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(output, shown("new_cfgmodule", "ident", record->ident) +
                          shown("new_cfgmodule", "value", record->value) +
                          shown("new_cfgmodule", "comment", record->comment));
    std::string expected =
        shown("destroy_cfgmodule", "ident", record->ident) +
        shown("destroy_cfgmodule", "value", record->value) +
        shown("destroy_cfgmodule", "comment", record->comment);
    EXPECT_EQ(traced(1, [&] { destroy_cfgmodule(record); }), expected);
    output = traced(1, [&] { record = new_cfgmodule(nullptr, "1", nullptr); });
    EXPECT_EQ(output, shown("new_cfgmodule", "value", record->value));
    expected = shown("destroy_cfgmodule", "value", record->value);
    EXPECT_EQ(traced(1, [&] { destroy_cfgmodule(record); }), expected);
}

TEST(cfgmodule_test, records_are_silent_at_levels_0_and_below)
{
    for (int32_t level : {-1, 0}) {
        EXPECT_EQ(traced(level,
                         [] {
                             cfgmodule *r = new_cfgmodule("k", "v", "c");
                             hash_cfgmodule(r);
                             match_cfgmodule(r, r);
                             destroy_cfgmodule(r);
                         }),
                  "");
    }
}

TEST(cfgmodule_test, hash_is_that_of_the_identifier_alone)
{
    cfgmodule *record = new_cfgmodule("a", "value", "comment");
    EXPECT_EQ(hash_cfgmodule(record), 177670u);
    EXPECT_EQ(traced(1, [&] { hash_cfgmodule(record); }),
              "DEBUG: hash = 177670\n");
    destroy_cfgmodule(record);
}

TEST(cfgmodule_test, match_compares_identifiers_byte_for_byte)
{
    cfgmodule *key = new_cfgmodule("key", "1", nullptr);
    cfgmodule *same = new_cfgmodule("key", "2", "x");
    cfgmodule *upper = new_cfgmodule("Key", "1", nullptr);
    cfgmodule *longer = new_cfgmodule("keys", "1", nullptr);
    cfgmodule *nameless = new_cfgmodule(nullptr, "1", nullptr);
    EXPECT_EQ(match_cfgmodule(key, same), 1);
    EXPECT_EQ(match_cfgmodule(key, upper), 0);
    EXPECT_EQ(match_cfgmodule(key, longer), 0);
    EXPECT_EQ(match_cfgmodule(longer, key), 0);
    EXPECT_EQ(match_cfgmodule(key, nameless), 0);
    EXPECT_EQ(match_cfgmodule(nameless, key), 0);
    EXPECT_EQ(match_cfgmodule(nameless, nameless), 0);
    EXPECT_EQ(match_cfgmodule(nullptr, key), 0);
    EXPECT_EQ(match_cfgmodule(key, nullptr), 0);
    EXPECT_EQ(match_cfgmodule(nullptr, nullptr), 0);
    for (cfgmodule *record : {key, same, upper, longer, nameless}) {
        destroy_cfgmodule(record);
    }
}

struct write_case {
    const char *ident;
    const char *value;
    const char *comment;
    const char *line;
};

TEST(cfgmodule_test, write_makes_a_line_of_what_there_is)
{
    const write_case cases[] = {
        {"key", "value", " note", "key=value # note\n"},
        {"key", "value", nullptr, "key=value\n"},
        {"key", "value", "", "key=value\n"},
        {"key", nullptr, nullptr, "key=\n"},
        {"key", "", "note", "key= #note\n"},
        {nullptr, nullptr, " # a comment ", " # a comment \n"},
        {nullptr, "value", "# c", "# c\n"},
        {"", "value", nullptr, "\n"},
        {nullptr, nullptr, nullptr, "\n"},
        {"100%s", "%d%n", "%s", "100%s=%d%n #%s\n"},
        {"\xe4", "\xf6", "\xfc", "\xe4=\xf6 #\xfc\n"},
    };
    for (const write_case &c : cases) {
        temp_dir dir;
        std::string path = dir.path("out");
        FILE *stream = fopen(path.c_str(), "w");
        ASSERT_NE(stream, nullptr);
        cfgmodule *record = new_cfgmodule(c.ident, c.value, c.comment);
        EXPECT_EQ(write_cfgmodule(record, stream), 1);
        destroy_cfgmodule(record);
        fclose(stream);
        EXPECT_EQ(read_file(path), c.line);
    }
}

TEST(cfgmodule_test, write_fails_at_the_first_failed_write)
{
    FILE *full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    setvbuf(full, nullptr, _IONBF, 0);
    char text[] = "text";
    cfgmodule setting{text, text, text};
    cfgmodule comment{nullptr, nullptr, text};
    cfgmodule blank{nullptr, nullptr, nullptr};
    EXPECT_EQ(write_cfgmodule(&setting, full), 0);
    EXPECT_EQ(write_cfgmodule(&comment, full), 0);
    EXPECT_EQ(write_cfgmodule(&blank, full), 0);
    fclose(full);
}

/* One row of a table */

class set_option_value_test : public testing::Test
{
  protected:
    void TearDown() override
    {
        free(text);
    }
    int32_t set_number(const char *value)
    {
        return set_option_value(&number_row, value);
    }

    int32_t number = -1;
    int32_t number_default = 6003;
    char *text = nullptr;
    char default_characters[8] = "default";
    char *text_default = default_characters;
    ux_option number_row{1, "number", &number, &number_default, 0, 0};
    ux_option text_row{2, "text", &text, &text_default, 0, 0};
};

TEST_F(set_option_value_test, reads_integers_by_their_decimal_prefix)
{
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

TEST_F(set_option_value_test, an_integer_without_text_takes_its_default)
{
    EXPECT_EQ(set_number(nullptr), 1);
    EXPECT_EQ(number, 6003);
    number_row.default_value = nullptr;
    number = -1;
    EXPECT_EQ(set_number(nullptr), 0);
    EXPECT_EQ(number, -1);
}

TEST_F(set_option_value_test, copies_texts_of_both_types)
{
    for (int32_t type : {2, 3}) {
        text_row.type = type;
        char value[] = "\"a\\b\" ";
        EXPECT_EQ(set_option_value(&text_row, value), 1);
        EXPECT_NE(text, value);
        EXPECT_STREQ(text, "\"a\\b\" ");
        free(text);
        EXPECT_EQ(set_option_value(&text_row, ""), 1);
        EXPECT_STREQ(text, "");
        free(text);
        EXPECT_EQ(set_option_value(&text_row, nullptr), 1);
        EXPECT_NE(text, text_default);
        EXPECT_STREQ(text, "default");
        free(text);
        text = nullptr;
    }
}

TEST_F(set_option_value_test, a_text_without_default_is_left_alone)
{
    char before[] = "before";
    for (int32_t type : {2, 3}) {
        text_row.type = type;
        text = before;
        text_default = nullptr;
        text_row.default_value = &text_default;
        EXPECT_EQ(set_option_value(&text_row, nullptr), 0);
        EXPECT_EQ(text, before);
        text_row.default_value = nullptr;
        EXPECT_EQ(set_option_value(&text_row, nullptr), 0);
        EXPECT_EQ(text, before);
    }
    text = nullptr;
}

TEST_F(set_option_value_test, does_not_free_what_was_stored_before)
{
    char before[] = "before";
    text = before;
    EXPECT_EQ(set_option_value(&text_row, "new"), 1);
    EXPECT_STREQ(before, "before");
    EXPECT_STREQ(text, "new");
}

TEST_F(set_option_value_test, passes_over_rows_without_storage_and_other_types)
{
    number_row.value = nullptr;
    text_row.value = nullptr;
    EXPECT_EQ(set_number("1"), 1);
    EXPECT_EQ(set_number(nullptr), 1);
    EXPECT_EQ(set_option_value(&text_row, "x"), 1);
    EXPECT_EQ(set_option_value(&text_row, nullptr), 1);
    for (int32_t type : {4, 5, -1, 77}) {
        ux_option other{type, "number", &number, &number_default, 0, 0};
        EXPECT_EQ(set_option_value(&other, "1"), 1);
        EXPECT_EQ(set_option_value(&other, nullptr), 1);
        EXPECT_EQ(number, -1);
    }
}

TEST_F(set_option_value_test, tells_type_value_and_what_it_stored)
{
    EXPECT_EQ(traced(1, [this] { set_number("12x"); }),
              "DEBUG: type=  [1]\nDEBUG: value=  [12x]\n"
              "DEBUG: found [12]\n");
    EXPECT_EQ(traced(1, [this] { set_option_value(&text_row, "a b"); }),
              "DEBUG: type=  [2]\nDEBUG: value=  [a b]\n"
              "DEBUG: found [a b]\n");
    EXPECT_NE(traced(1, [this] { set_number(nullptr); })
                  .find("DEBUG: found [6003]\n"),
              std::string::npos);
    ux_option literal{4, "# x", nullptr, nullptr, 0, 0};
    EXPECT_EQ(traced(1, [&] { set_option_value(&literal, "v"); }),
              "DEBUG: type=  [4]\nDEBUG: value=  [v]\n");
}

TEST_F(set_option_value_test, traces_entry_above_5_and_exit_above_9)
{
    auto set = [this] { set_number("3"); };
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

TEST_F(set_option_value_test, needs_a_row_with_type_and_key)
{
    const char *condition = "op && op->type && op->ident";
    EXPECT_ASSERTION(set_option_value(nullptr, "1"), "ux_configfile",
                     condition);
    EXPECT_ASSERTION((number_row.type = 0, set_number("1")), "ux_configfile",
                     condition);
    EXPECT_ASSERTION((number_row.ident = nullptr, set_number("1")),
                     "ux_configfile", condition);
}

/* Whole files */

class config_test : public testing::Test
{
  protected:
    void TearDown() override
    {
        free(name);
        free(text);
        umask(mask_before);
    }
    void forget()
    {
        free(name);
        free(text);
        name = text = nullptr;
        port = -1;
    }
    int32_t read(const std::string &content, int32_t missing_ok = 0)
    {
        forget();
        write_file(path, content);
        return ux_readconfig(path.c_str(), table, 64, missing_ok);
    }
    /* The file after the values of now were put into content. */
    std::string rewritten(const std::string &content)
    {
        write_file(path, content);
        EXPECT_EQ(ux_rewriteconfig(path.c_str(), table, 64), 1);
        return read_file(path);
    }
    void set(int32_t new_port, const char *new_name, const char *new_text)
    {
        forget();
        port = new_port;
        name = new_name ? ::strdup(new_name) : nullptr;
        text = new_text ? ::strdup(new_text) : nullptr;
    }

    temp_dir dir;
    std::string path = dir.path("test.cfg");
    mode_t mask_before = umask(022);
    int32_t port = -1;
    int32_t port_default = 6003;
    char *name = nullptr;
    char name_characters[5] = "none";
    char *name_default = name_characters;
    char *text = nullptr;
    char *text_default = nullptr;
    ux_option table[6] = {
        {4, "# head", nullptr, nullptr, 0, 0},
        {1, "port", &port, &port_default, 0, 0},
        {2, "name", &name, &name_default, 0, 0},
        {3, "text", &text, &text_default, 0, 0},
        {0, nullptr, nullptr, nullptr, 0, 0},
        /* Behind the end of the table. */
        {1, "other", &port, &port_default, 0, 0},
    };
};

TEST(ux_option_layout, has_its_fields_in_order)
{
    EXPECT_EQ(offsetof(ux_option, type), 0u);
    EXPECT_LT(offsetof(ux_option, type), offsetof(ux_option, ident));
    EXPECT_LT(offsetof(ux_option, ident), offsetof(ux_option, value));
    EXPECT_LT(offsetof(ux_option, value), offsetof(ux_option, default_value));
    EXPECT_EQ(sizeof(ux_option::reserved1), 4u);
    EXPECT_EQ(sizeof(ux_option::reserved2), 4u);
}

TEST_F(config_test, read_fills_the_storage)
{
    EXPECT_EQ(read("port=77\nname = a b # x\n# c\n\ntext=\"q # q\"\n"), 1);
    EXPECT_EQ(port, 77);
    EXPECT_STREQ(name, "a b");
    EXPECT_STREQ(text, "\"q # q\"");
}

TEST_F(config_test, read_gives_defaults_to_absent_and_empty_settings)
{
    for (const char *content :
         {"# nothing\n", "port=\nname=\ntext=\n",
          "port=   \nname= # x\ntext=\t\r\n", "port\nname\ntext\n", "\n"}) {
        EXPECT_EQ(read(content), 1);
        EXPECT_EQ(port, 6003);
        EXPECT_STREQ(name, "none");
        EXPECT_EQ(text, nullptr);
    }
}

TEST_F(config_test, read_keeps_two_quotes_as_a_value)
{
    EXPECT_EQ(read("name=\"\"\n"), 1);
    EXPECT_STREQ(name, "\"\"");
}

TEST_F(config_test, read_takes_the_last_of_a_key)
{
    EXPECT_EQ(read("port=1\nname=x\nport=2\nname=y\nport=3 # last\n"), 1);
    EXPECT_EQ(port, 3);
    EXPECT_STREQ(name, "y");
    EXPECT_EQ(read("port=1\nport=\n"), 1);
    EXPECT_EQ(port, 6003);
}

TEST_F(config_test, read_knows_keys_by_their_case)
{
    EXPECT_EQ(read("Port=1\nPORT=2\nNAME=x\n"), 1);
    EXPECT_EQ(port, 6003);
    EXPECT_STREQ(name, "none");
}

TEST_F(config_test, read_passes_over_invalid_lines_and_unknown_keys)
{
    EXPECT_EQ(read("x=1\n=2\nname\nport#=3\nother=9\nunknown=4\nname=ok"), 1);
    EXPECT_EQ(port, 6003);
    EXPECT_STREQ(name, "ok");
}

TEST_F(config_test, read_of_nothing_but_invalid_lines_is_a_read)
{
    EXPECT_EQ(read("junk\n"), 1);
    EXPECT_EQ(read(" "), 1);
    EXPECT_EQ(port, 6003);
}

TEST_F(config_test, read_drops_the_carriage_return_of_values)
{
    EXPECT_EQ(read("port=8\r\n\r\nname=x y\r\ntext=t # c\r\n"), 1);
    EXPECT_EQ(port, 8);
    EXPECT_STREQ(name, "x y");
    EXPECT_STREQ(text, "t");
}

TEST_F(config_test, read_ends_a_line_at_a_nul_byte)
{
    using std::string_literals::operator""s;
    EXPECT_EQ(read("na\0me=x\nport=5\0 # 6\ntext=a\0b\n"s), 1);
    EXPECT_STREQ(name, "none");
    EXPECT_EQ(port, 5);
    EXPECT_STREQ(text, "a");
}

TEST_F(config_test, read_takes_8_bit_characters_as_they_are)
{
    std::string all;
    for (int c = 128; c < 256; c++) {
        all += static_cast<char>(c);
    }
    EXPECT_EQ(read("name=" + all + "\n"), 1);
    EXPECT_EQ(name, all);
}

TEST_F(config_test, read_cuts_lines_at_4095_characters)
{
    const std::string key = "name=";
    for (size_t length : {4089u, 4090u, 4091u, 5000u}) {
        std::string value(length, 'v');
        EXPECT_EQ(read(key + value + "\nport=7\n"), 1);
        EXPECT_EQ(name, value.substr(0, 4090)) << length;
        EXPECT_EQ(port, 7);
    }
}

TEST_F(config_test, read_takes_the_rest_of_a_long_line_as_another_line)
{
    EXPECT_EQ(read("name=" + std::string(4090, 'v') + "port=78\n"), 1);
    EXPECT_EQ(port, 78);
    EXPECT_STREQ(name, std::string(4090, 'v').c_str());
}

TEST_F(config_test, read_of_a_file_without_lines_needs_missing_ok)
{
    EXPECT_EQ(read("", 0), 0);
    EXPECT_EQ(port, -1);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(read("", 1), 1);
    EXPECT_EQ(port, 6003);
    EXPECT_STREQ(name, "none");
}

TEST_F(config_test, read_of_an_absent_or_unreadable_file_needs_missing_ok)
{
    std::string nowhere = dir.path("no/such/file");
    for (const std::string &bad : {nowhere, dir.path(), path + "/below"}) {
        forget();
        EXPECT_EQ(ux_readconfig(bad.c_str(), table, 64, 0), 0);
        EXPECT_EQ(port, -1);
        EXPECT_EQ(ux_readconfig(bad.c_str(), table, 64, -5), 1);
        EXPECT_EQ(port, 6003);
        EXPECT_STREQ(name, "none");
    }
}

TEST_F(config_test, read_leaves_rows_of_other_types_alone)
{
    int32_t untouched = -3;
    ux_option odd[] = {{9, "number", &untouched, &port_default, 0, 0},
                       {4, "literal", &untouched, &port_default, 0, 0},
                       {1, "nowhere", nullptr, nullptr, 0, 0},
                       {1, "port", &port, nullptr, 0, 0},
                       {0, nullptr, nullptr, nullptr, 0, 0}};
    write_file(path, "number=1\nliteral=2\nnowhere=3\nport=4\n");
    EXPECT_EQ(ux_readconfig(path.c_str(), odd, 64, 0), 1);
    EXPECT_EQ(untouched, -3);
    EXPECT_EQ(port, 4);
}

TEST_F(config_test, read_works_with_one_bucket)
{
    write_file(path, "name=x\nport=4\ntext=y\nport=5\n");
    EXPECT_EQ(ux_readconfig(path.c_str(), table, 1, 0), 1);
    EXPECT_EQ(port, 5);
    EXPECT_STREQ(name, "x");
    EXPECT_STREQ(text, "y");
}

TEST_F(config_test, read_without_memory_fails)
{
    write_file(path, "port=1\nname=x\n");
    {
        heap_limit none(0);
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 0), 0);
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 1), 0);
    }
    /* Table, record, key, value, element: twice the last four. */
    for (int left = 1; left < 9; left++) {
        heap_limit limit(left);
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 0), 0) << left;
        EXPECT_EQ(port, -1);
    }
}

TEST_F(config_test, read_tells_what_it_inserts_and_searches)
{
    std::string output = traced(1, [this] { (void)read("port=1\n"); });
    size_t inserting = output.find("DEBUG: inserting [port]\n");
    size_t head = output.find("DEBUG: searching [# head]\n");
    size_t searching = output.find("DEBUG: searching [port]\n");
    size_t found = output.find("DEBUG: found [1]\n");
    size_t last = output.find("DEBUG: searching [text]\n");
    EXPECT_LT(inserting, head);
    EXPECT_LT(head, searching);
    EXPECT_LT(searching, found);
    EXPECT_LT(found, last);
    EXPECT_NE(last, std::string::npos);
    /* A literal row is passed over. */
    EXPECT_EQ(output.find("DEBUG: type=  [4]"), std::string::npos);
    EXPECT_EQ(output.find("TRACEIN"), std::string::npos);
    EXPECT_EQ(traced(0, [this] { (void)read("port=1\n"); }), "");
    EXPECT_EQ(traced(-1, [this] { (void)read("port=1\n"); }), "");
}

TEST_F(config_test, names_its_entry_points_above_level_5)
{
    auto begins = [](const std::string &output, const std::string &entry) {
        return output.rfind("TRACEIN: " + entry + "\n", 0) == 0;
    };
    for (int32_t level : {6, 10}) {
        EXPECT_TRUE(begins(traced(level, [this] { (void)read("port=1\n"); }),
                           "ux_readconfig"));
        EXPECT_TRUE(begins(
            traced(level,
                   [this] { (void)ux_writeconfig(path.c_str(), table); }),
            "ux_writeconfig"));
        EXPECT_TRUE(begins(
            traced(level,
                   [this] { (void)ux_rewriteconfig(path.c_str(), table, 4); }),
            "ux_rewriteconfig"));
    }
}

/* The table that file_to_hashtable fills. */
class file_to_hashtable_test : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(ux_hashtable_init(&table, 1, hash_cfgmodule, match_cfgmodule,
                                    destroy_cfgmodule),
                  0);
    }
    void TearDown() override
    {
        ux_hashtable_destroy(&table);
    }
    int32_t load(const std::string &content)
    {
        return file_to_hashtable(dir.file("cfg", content).c_str(), &table);
    }
    /* "ident|value|comment" of every record; "-" for null. */
    std::string records() const
    {
        std::string all;
        for (ux_list_element *e = table.table[0].head; e; e = e->next) {
            const auto *record = static_cast<const cfgmodule *>(e->data);
            all += text_of(record->ident).value_or("-") + "|" +
                   text_of(record->value).value_or("-") + "|" +
                   text_of(record->comment).value_or("-") + "\n";
        }
        return all;
    }

    temp_dir dir;
    ux_hashtable table;
};

TEST_F(file_to_hashtable_test, keeps_settings_with_values_and_comments)
{
    EXPECT_EQ(load("# c\n\nkey=1 # one\nempty=\na=1\njunk\nlast=\"x\""), 1);
    EXPECT_EQ(records(), "key|1| one\nempty|-|-\nlast|\"x\"|-\n");
}

TEST_F(file_to_hashtable_test, later_settings_replace_earlier_in_place)
{
    EXPECT_EQ(load("key=1 # one\nmid=2\nkey=3\n"), 1);
    EXPECT_EQ(records(), "key|3|-\nmid|2|-\n");
    EXPECT_EQ(table.size, 2u);
}

TEST_F(file_to_hashtable_test, needs_a_line)
{
    EXPECT_EQ(load(""), 0);
    EXPECT_EQ(load("\n"), 1);
    EXPECT_EQ(load("x"), 1);
    EXPECT_EQ(file_to_hashtable(dir.path("absent").c_str(), &table), 0);
    EXPECT_EQ(file_to_hashtable(dir.path().c_str(), &table), 0);
    EXPECT_EQ(table.size, 0u);
}

TEST_F(file_to_hashtable_test, stops_without_memory)
{
    heap_limit limit(4);
    EXPECT_EQ(load("key=1\nother=2\nthird=3\n"), 0);
    EXPECT_EQ(records(), "key|1|-\n");
    /* At the last line too, where the file ends with it. */
    heap_left = 3;
    EXPECT_EQ(load("key=1\nother=2"), 0);
    EXPECT_EQ(records(), "key|1|-\n");
}

/* Writing */

TEST_F(config_test, write_makes_a_line_of_every_row)
{
    set(-12, "a # \"b\"", nullptr);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=-12\nname=a # \"b\"\ntext=\n");
}

TEST_F(config_test, write_replaces_an_old_file)
{
    set(1, "n", "t");
    write_file(path, std::string(10000, 'x'));
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=1\nname=n\ntext=t\n");
}

TEST_F(config_test, write_ends_at_an_empty_key_too)
{
    table[2].ident = "";
    port = 5;
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=5\n");
}

TEST_F(config_test, write_ends_no_line_of_an_unknown_type_with_storage)
{
    set(5, "n", "t");
    table[1].type = 9;
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nport=name=n\ntext=t\n");
    table[1].type = 4;
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(read_file(path), "# head\nportname=n\ntext=t\n");
}

TEST_F(config_test, write_of_rows_without_storage_ends_the_line)
{
    for (int32_t type : {1, 2, 3, 9}) {
        ux_option bare[] = {{type, "key", nullptr, nullptr, 0, 0},
                            {0, nullptr, nullptr, nullptr, 0, 0}};
        EXPECT_EQ(ux_writeconfig(path.c_str(), bare), 1);
        EXPECT_EQ(read_file(path), "key=\n") << type;
    }
}

TEST_F(config_test, write_sets_the_mask_for_good)
{
    set(1, "n", "t");
    umask(0);
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    EXPECT_EQ(umask(0), static_cast<mode_t>(026));
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(0640));
}

TEST_F(config_test, write_sets_the_mask_even_when_it_fails)
{
    umask(0);
    EXPECT_EQ(ux_writeconfig(dir.path("no/dir").c_str(), table), 0);
    EXPECT_EQ(umask(0), static_cast<mode_t>(026));
}

TEST_F(config_test, write_of_an_empty_table_leaves_no_file)
{
    EXPECT_EQ(ux_writeconfig(path.c_str(), &table[4]), 0);
    EXPECT_FALSE(file_exists(path));
    write_file(path, "old\n");
    EXPECT_EQ(ux_writeconfig(path.c_str(), &table[4]), 0);
    EXPECT_FALSE(file_exists(path));
}

TEST_F(config_test, write_to_a_place_that_is_none_fails)
{
    EXPECT_EQ(ux_writeconfig(dir.path("no/dir").c_str(), table), 0);
    EXPECT_EQ(ux_writeconfig(dir.path().c_str(), table), 0);
    EXPECT_TRUE(file_exists(dir.path()));
}

/* A link, since what cannot be written is removed. */
TEST_F(config_test, write_to_a_full_disk_leaves_no_file)
{
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

TEST_F(config_test, what_was_written_reads_back)
{
    set(-7, "\"a # b\" \\\\", "x=y");
    EXPECT_EQ(ux_writeconfig(path.c_str(), table), 1);
    forget();
    EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 0), 1);
    EXPECT_EQ(port, -7);
    EXPECT_STREQ(name, "\"a # b\" \\\\");
    EXPECT_STREQ(text, "x=y");
}

/* Rewriting */

struct rewrite_case {
    const char *before;
    const char *after;
};

class rewrite_test : public config_test
{
  protected:
    void check(const rewrite_case &c);
};

void rewrite_test::check(const rewrite_case &c)
{
    SCOPED_TRACE(testing::PrintToString(c.before));
    set(77, "new", nullptr);
    EXPECT_EQ(rewritten(c.before), c.after);
}

TEST_F(rewrite_test, files)
{
    for (const rewrite_case &c :
         {rewrite_case{"", "port=77\nname=new\ntext=\n"},
          rewrite_case{"port=1\nname=x\ntext=y\n",
                       "port=77\nname=new\ntext=\n"},
          rewrite_case{"text=y\nname=x\nport=1\n",
                       "text=\nname=new\nport=77\n"},
          /* Comments stay, behind " #" when a setting has them. */
          rewrite_case{"port = 1 # note\n",
                       "port=77 # note\nname=new\ntext=\n"},
          rewrite_case{"name=x#note\n", "name=new #note\nport=77\ntext=\n"},
          rewrite_case{"text=y # gone\r\n",
                       "text= # gone\nport=77\nname=new\n"},
          rewrite_case{"port= #\n", "port=77\nname=new\ntext=\n"},
          rewrite_case{"# one\n \t# two \n#\n",
                       "# one\n \t# two \n#\nport=77\nname=new\ntext=\n"},
          rewrite_case{"# crlf\r\n", "# crlf\nport=77\nname=new\ntext=\n"},
          /* Blank lines stay, their blanks go. */
          rewrite_case{"\n  \t \n# c\n\n",
                       "\n\n# c\n\nport=77\nname=new\ntext=\n"},
          /* A line of CR LF alone is no blank line. */
          rewrite_case{"port=1\r\n\r\nname=x\r\n\r\n",
                       "port=77\nname=new\ntext=\n"},
          /* What is invalid or unknown goes. */
          rewrite_case{"a=1\njunk\n=x\nport=1\n   ",
                       "port=77\nname=new\ntext=\n"},
          rewrite_case{"unknown=1 # c\nother=2\nPort=3\nname=x\n",
                       "name=new\nport=77\ntext=\n"},
          rewrite_case{"\r =1 # left\n", " left\nport=77\nname=new\ntext=\n"},
          /* Of two lines with a key the first stays. */
          rewrite_case{"name=x # a\nport=1\nname=y # b\n",
                       "name=new # a\nport=77\ntext=\n"},
          /* The last line gets its line feed. */
          rewrite_case{"port=1\nname=x\ntext=y", "port=77\nname=new\ntext=\n"},
          rewrite_case{"text=y\n# end", "text=\n# end\nport=77\nname=new\n"},
          /* Rows of literal lines are never added. */
          rewrite_case{"# head\nport=1\n",
                       "# head\nport=77\nname=new\ntext=\n"}}) {
        check(c);
    }
}

TEST_F(config_test, rewrite_writes_integers_in_decimal)
{
    set(INT32_MIN, nullptr, "");
    EXPECT_EQ(rewritten(""), "port=-2147483648\nname=\ntext=\n");
    set(INT32_MAX, nullptr, "");
    EXPECT_EQ(rewritten(""), "port=2147483647\nname=\ntext=\n");
}

TEST_F(config_test, rewrite_takes_the_first_of_two_rows_with_a_key)
{
    int32_t first = 1;
    int32_t second = 2;
    ux_option twice[] = {{1, "port", &first, nullptr, 0, 0},
                         {1, "port", &second, nullptr, 0, 0},
                         {1, "bare", nullptr, nullptr, 0, 0},
                         {9, "odd", &second, nullptr, 0, 0},
                         {0, nullptr, nullptr, nullptr, 0, 0}};
    write_file(path, "odd=5\nport=9\nport=8\n");
    EXPECT_EQ(ux_rewriteconfig(path.c_str(), twice, 64), 1);
    EXPECT_EQ(read_file(path), "port=1\nbare=\n");
}

TEST_F(config_test, rewrite_keeps_files_of_many_blocks)
{
    std::string comments;
    for (int i = 0; i < 3000; i++) {
        comments += "# line " + std::to_string(i) + "\n";
    }
    set(1, "n", "t");
    EXPECT_EQ(rewritten(comments + "port=7\n" + comments),
              comments + "port=1\n" + comments + "name=n\ntext=t\n");
}

TEST_F(config_test, rewrite_keeps_files_of_just_a_block)
{
    set(1, nullptr, nullptr);
    for (size_t size : {4095u, 4096u, 4097u, 8192u}) {
        const std::string tail = "port=1\nname=\ntext=\n";
        std::string lines;
        while (lines.size() + 64 <= size - tail.size()) {
            lines += std::string(63, '#') + "\n";
        }
        size_t rest = size - tail.size() - lines.size();
        lines += rest > 0 ? std::string(rest - 1, '#') + "\n" : "";
        if (rest == 1) {
            lines.back() = '\n';
        }
        EXPECT_EQ(rewritten(lines), lines + tail) << size;
    }
}

TEST_F(config_test, rewrite_splits_long_lines)
{
    set(1, nullptr, nullptr);
    /* What follows the 4,095th character is a line of its own. */
    EXPECT_EQ(rewritten(std::string("#") + std::string(4094, 'c') + "#rest\n"),
              std::string("#") + std::string(4094, 'c') +
                  "\n#rest\nport=1\nname=\ntext=\n");
    EXPECT_EQ(rewritten(std::string("#") + std::string(4999, 'c') + "\n"),
              std::string("#") + std::string(4094, 'c') +
                  "\nport=1\nname=\ntext=\n");
}

TEST_F(config_test, rewrite_keeps_mask_and_rights)
{
    set(1, nullptr, nullptr);
    write_file(path, "port=2\n");
    ASSERT_EQ(chmod(path.c_str(), 0604), 0);
    EXPECT_EQ(ux_rewriteconfig(path.c_str(), table, 64), 1);
    EXPECT_EQ(umask(022), static_cast<mode_t>(022));
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(0604));
}

TEST_F(config_test, rewrite_without_memory_leaves_the_file)
{
    set(1, "n", "t");
    write_file(path, "port=2\n");
    /* Table; record, key, value and element of three rows. */
    for (int left = 0; left < 13; left++) {
        heap_limit limit(left);
        EXPECT_EQ(ux_rewriteconfig(path.c_str(), table, 64), 0) << left;
    }
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(config_test, rewrite_without_temporary_file_leaves_the_file)
{
    write_file(path, "port=2\n");
    EXPECT_EXIT(
        {
            no_more_descriptors();
            _exit(ux_rewriteconfig(path.c_str(), table, 64) == 0 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(config_test, hashtable_to_file_uses_the_records_up)
{
    ux_hashtable records;
    ASSERT_EQ(ux_hashtable_init(&records, 4, hash_cfgmodule, match_cfgmodule,
                                destroy_cfgmodule),
              0);
    ASSERT_EQ(
        ux_hashtable_insert(&records, new_cfgmodule("name", "v", nullptr)), 0);
    ASSERT_EQ(
        ux_hashtable_insert(&records, new_cfgmodule("stray", "v", nullptr)), 0);
    write_file(path, "# c\nname=x # y\n");
    EXPECT_EQ(hashtable_to_file(path.c_str(), table, &records), 1);
    EXPECT_EQ(read_file(path), "# c\nname=v # y\n");
    EXPECT_EQ(records.size, 1u);
    ux_hashtable_destroy(&records);
}

using config_death = config_test;

TEST_F(config_death, the_three_operations_need_a_table)
{
    EXPECT_ASSERTION((void)ux_readconfig(path.c_str(), nullptr, 64, 1),
                     "ux_configfile", "topic_table");
    EXPECT_ASSERTION((void)ux_writeconfig(path.c_str(), nullptr),
                     "ux_configfile", "topic_table");
    EXPECT_ASSERTION((void)ux_rewriteconfig(path.c_str(), nullptr, 64),
                     "ux_configfile", "topic_table");
}

TEST_F(config_death, the_tables_need_buckets)
{
    EXPECT_ASSERTION((void)ux_readconfig(path.c_str(), table, 0, 1),
                     "ux_hashtable", "buckets");
}

TEST_F(config_death, rewrite_of_a_file_that_cannot_be_read_aborts)
{
    EXPECT_ASSERTION((void)ux_rewriteconfig(path.c_str(), table, 64),
                     "ux_configfile", "ret");
    EXPECT_FALSE(file_exists(path));
    EXPECT_ASSERTION((void)ux_rewriteconfig(dir.path().c_str(), table, 64),
                     "ux_configfile", "ret");
}

TEST_F(config_death, rewrite_of_a_file_that_cannot_be_written_aborts)
{
    write_file(path, "port=2\n");
    ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    EXPECT_ASSERTION(
        (become_nobody(), (void)ux_rewriteconfig(path.c_str(), table, 64)),
        "ux_configfile", "ret");
    EXPECT_EQ(read_file(path), "port=2\n");
}

TEST_F(config_death, rewrite_aborts_before_the_file_is_touched_on_a_full_disk)
{
    /* A file that fills buffers, and one that fails at the last moment. */
    for (int lines : {1000, 100}) {
        std::string before;
        for (int i = 0; i < lines; i++) {
            before += "# comment " + std::to_string(i) + "\n";
        }
        write_file(path, before);
        /* Room for the message of the assertion, not for the file. */
        EXPECT_ASSERTION((limit_files_to(1024),
                          (void)ux_rewriteconfig(path.c_str(), table, 64)),
                         "ux_configfile", "ret");
        EXPECT_EQ(read_file(path), before);
    }
}

} // namespace
