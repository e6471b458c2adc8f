/* The record of a setting: its texts, its place in a table, its line. */
#include "capture.h"
#include "failing_calls.h"
#include "temp_dir.h"
#include "unixtools/ux_cfgmodule.h"

#include <string>

namespace {

TEST(cfgmodule_test, new_copies_what_is_not_null) {
    char ident[] = "ident";
    char value[] = "value";
    char comment[] = "comment";
    cfgmodule *record = new_cfgmodule(ident, value, comment);
    ASSERT_NE(record, nullptr);
    ident[0] = value[0] = comment[0] = 'X';
    EXPECT_STREQ(record->ident.get(), "ident");
    EXPECT_STREQ(record->value.get(), "value");
    EXPECT_STREQ(record->comment.get(), "comment");
    destroy_cfgmodule(record);
    record = new_cfgmodule(nullptr, nullptr, nullptr);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->ident.get(), nullptr);
    EXPECT_EQ(record->value.get(), nullptr);
    EXPECT_EQ(record->comment.get(), nullptr);
    destroy_cfgmodule(record);
    record = new_cfgmodule("", "", "");
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->ident.get(), "");
    EXPECT_STREQ(record->value.get(), "");
    EXPECT_STREQ(record->comment.get(), "");
    destroy_cfgmodule(record);
}

TEST(cfgmodule_test, new_without_memory_leaves_nothing_behind) {
    int64_t before = heap_blocks();
    for (int left = 0; left < 4; left++) {
        failing_heap limit(left);
        EXPECT_EQ(new_cfgmodule("ident", "value", "comment"), nullptr) << left;
        EXPECT_EQ(heap_blocks(), before) << left;
    }
    failing_heap limit(4);
    cfgmodule *record = new_cfgmodule("ident", "value", "comment");
    EXPECT_NE(record, nullptr);
    EXPECT_EQ(heap_blocks(), before + 4);
    destroy_cfgmodule(record);
    EXPECT_EQ(heap_blocks(), before);
}

std::string shown(const char *function, const char *name, const char *text) {
    char line[200];
    snprintf(line, sizeof line, "DEBUG: %s(): %s: [%s] at: 0x%08lx\n", function,
             name, text, reinterpret_cast<unsigned long>(text));
    return line;
}

TEST(cfgmodule_test, new_and_destroy_show_texts_and_addresses_at_level_1) {
    cfgmodule *record = nullptr;
    std::string output =
        traced(1, [&] { record = new_cfgmodule("key", "1", " note"); });
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(output,
              shown("new_cfgmodule", "ident", record->ident.get()) +
                  shown("new_cfgmodule", "value", record->value.get()) +
                  shown("new_cfgmodule", "comment", record->comment.get()));
    std::string expected =
        shown("destroy_cfgmodule", "ident", record->ident.get()) +
        shown("destroy_cfgmodule", "value", record->value.get()) +
        shown("destroy_cfgmodule", "comment", record->comment.get());
    EXPECT_EQ(traced(1, [&] { destroy_cfgmodule(record); }), expected);
    output = traced(1, [&] { record = new_cfgmodule(nullptr, "1", nullptr); });
    EXPECT_EQ(output, shown("new_cfgmodule", "value", record->value.get()));
    expected = shown("destroy_cfgmodule", "value", record->value.get());
    EXPECT_EQ(traced(1, [&] { destroy_cfgmodule(record); }), expected);
}

TEST(cfgmodule_test, records_are_silent_at_levels_0_and_below) {
    for (int32_t level : {-1, 0}) {
        EXPECT_EQ(traced(level,
                         [] {
                             cfgmodule *r = new_cfgmodule("k", "v", "c");
                             EXPECT_EQ(hash_cfgmodule(r), 177680u);
                             EXPECT_EQ(match_cfgmodule(r, r), 1);
                             destroy_cfgmodule(r);
                         }),
                  "");
    }
}

TEST(cfgmodule_test, hash_is_that_of_the_identifier_alone) {
    cfgmodule *record = new_cfgmodule("a", "value", "comment");
    EXPECT_EQ(hash_cfgmodule(record), 177670u);
    EXPECT_EQ(traced(1, [&] { (void)hash_cfgmodule(record); }),
              "DEBUG: hash = 177670\n");
    destroy_cfgmodule(record);
}

TEST(cfgmodule_test, match_compares_identifiers_byte_for_byte) {
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

TEST(cfgmodule_test, a_view_shows_the_texts_that_there_are) {
    cfgmodule *record = new_cfgmodule("key", nullptr, "");
    config_line texts = view_cfgmodule(record);
    EXPECT_EQ(texts.ident.data(), record->ident.get());
    EXPECT_EQ(texts.ident, "key");
    EXPECT_EQ(texts.value.data(), nullptr);
    EXPECT_EQ(texts.comment.data(), record->comment.get());
    EXPECT_EQ(texts.comment, "");
    destroy_cfgmodule(record);
}

struct write_case {
    const char *ident;
    const char *value;
    const char *comment;
    const char *line;
};

TEST(cfgmodule_test, write_makes_a_line_of_what_there_is) {
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
        config_line texts = view_cfgmodule(record);
        EXPECT_EQ(write_cfgmodule(&texts, stream), 1);
        destroy_cfgmodule(record);
        fclose(stream);
        EXPECT_EQ(read_file(path), c.line);
    }
}

TEST(cfgmodule_test, write_fails_at_the_first_failed_write) {
    FILE *full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    setvbuf(full, nullptr, _IONBF, 0);
    config_line setting{"text", "text", "text"};
    config_line comment{{}, {}, "text"};
    config_line blank;
    EXPECT_EQ(write_cfgmodule(&setting, full), 0);
    EXPECT_EQ(write_cfgmodule(&comment, full), 0);
    EXPECT_EQ(write_cfgmodule(&blank, full), 0);
    fclose(full);
}

} // namespace
