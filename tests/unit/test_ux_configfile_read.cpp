/* Reading a file into the storage of a table, and into a hash table. */
#include "capture.h"
#include "config_fixture.h"
#include "death.h"
#include "failing_calls.h"
#include "unixtools/ux_cfgmodule.h"

#include <optional>

namespace {

/* "-" for null. */
std::string text_or_dash(const ux_text &text) {
    return text ? text.get() : "-";
}

TEST_F(config_test, read_fills_the_storage) {
    EXPECT_EQ(read("port=77\nname = a b # x\n# c\n\ntext=\"q # q\"\n"), 1);
    EXPECT_EQ(port, 77);
    EXPECT_STREQ(name.get(), "a b");
    EXPECT_STREQ(text.get(), "\"q # q\"");
}

TEST_F(config_test, read_gives_defaults_to_absent_and_empty_settings) {
    for (const char *content :
         {"# nothing\n", "port=\nname=\ntext=\n",
          "port=   \nname= # x\ntext=\t\r\n", "port\nname\ntext\n", "\n"}) {
        EXPECT_EQ(read(content), 1);
        EXPECT_EQ(port, 6003);
        EXPECT_STREQ(name.get(), "none");
        EXPECT_EQ(text, nullptr);
    }
}

TEST_F(config_test, read_keeps_two_quotes_as_a_value) {
    EXPECT_EQ(read("name=\"\"\n"), 1);
    EXPECT_STREQ(name.get(), "\"\"");
}

TEST_F(config_test, read_takes_the_last_of_a_key) {
    EXPECT_EQ(read("port=1\nname=x\nport=2\nname=y\nport=3 # last\n"), 1);
    EXPECT_EQ(port, 3);
    EXPECT_STREQ(name.get(), "y");
    EXPECT_EQ(read("port=1\nport=\n"), 1);
    EXPECT_EQ(port, 6003);
}

TEST_F(config_test, read_knows_keys_by_their_case) {
    EXPECT_EQ(read("Port=1\nPORT=2\nNAME=x\n"), 1);
    EXPECT_EQ(port, 6003);
    EXPECT_STREQ(name.get(), "none");
}

TEST_F(config_test, read_passes_over_invalid_lines_and_unknown_keys) {
    EXPECT_EQ(read("x=1\n=2\nname\nport#=3\nother=9\nunknown=4\nname=ok"), 1);
    EXPECT_EQ(port, 6003);
    EXPECT_STREQ(name.get(), "ok");
}

TEST_F(config_test, read_of_nothing_but_invalid_lines_is_a_read) {
    EXPECT_EQ(read("junk\n"), 1);
    EXPECT_EQ(read(" "), 1);
    EXPECT_EQ(port, 6003);
}

TEST_F(config_test, read_drops_the_carriage_return_of_values) {
    EXPECT_EQ(read("port=8\r\n\r\nname=x y\r\ntext=t # c\r\n"), 1);
    EXPECT_EQ(port, 8);
    EXPECT_STREQ(name.get(), "x y");
    EXPECT_STREQ(text.get(), "t");
}

TEST_F(config_test, read_ends_a_line_at_a_nul_byte) {
    using std::string_literals::operator""s;
    EXPECT_EQ(read("na\0me=x\nport=5\0 # 6\ntext=a\0b\n"s), 1);
    EXPECT_STREQ(name.get(), "none");
    EXPECT_EQ(port, 5);
    EXPECT_STREQ(text.get(), "a");
}

TEST_F(config_test, read_takes_8_bit_characters_as_they_are) {
    std::string all;
    for (int c = 128; c < 256; c++) {
        all += static_cast<char>(c);
    }
    EXPECT_EQ(read("name=" + all + "\n"), 1);
    EXPECT_EQ(name.get(), all);
}

TEST_F(config_test, read_cuts_lines_at_4095_characters) {
    const std::string key = "name=";
    for (size_t length : {4089u, 4090u, 4091u, 5000u}) {
        std::string value(length, 'v');
        EXPECT_EQ(read(key + value + "\nport=7\n"), 1);
        EXPECT_EQ(name.get(), value.substr(0, 4090)) << length;
        EXPECT_EQ(port, 7);
    }
}

TEST_F(config_test, read_takes_the_rest_of_a_long_line_as_another_line) {
    EXPECT_EQ(read("name=" + std::string(4090, 'v') + "port=78\n"), 1);
    EXPECT_EQ(port, 78);
    EXPECT_STREQ(name.get(), std::string(4090, 'v').c_str());
}

TEST_F(config_test, read_of_a_file_without_lines_needs_missing_ok) {
    EXPECT_EQ(read("", 0), 0);
    EXPECT_EQ(port, -1);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(read("", 1), 1);
    EXPECT_EQ(port, 6003);
    EXPECT_STREQ(name.get(), "none");
}

TEST_F(config_test, read_of_an_absent_or_unreadable_file_needs_missing_ok) {
    std::string nowhere = dir.path("no/such/file");
    for (const std::string &bad : {nowhere, dir.path(), path + "/below"}) {
        forget();
        EXPECT_EQ(ux_readconfig(bad.c_str(), table, 64, 0), 0);
        EXPECT_EQ(port, -1);
        EXPECT_EQ(ux_readconfig(bad.c_str(), table, 64, -5), 1);
        EXPECT_EQ(port, 6003);
        EXPECT_STREQ(name.get(), "none");
    }
}

TEST_F(config_test, read_leaves_rows_of_other_types_alone) {
    int32_t untouched = -3;
    ux_option odd[] = {
        {static_cast<ux_option_type>(9),
         "number",
         {&untouched},
         {&port_default}},
        {UX_OPTION_LITERAL, "literal", {&untouched}, {&port_default}},
        {UX_OPTION_INTEGER, "nowhere"},
        {UX_OPTION_INTEGER, "port", {&port}, {}},
        {}};
    write_file(path, "number=1\nliteral=2\nnowhere=3\nport=4\n");
    EXPECT_EQ(ux_readconfig(path.c_str(), odd, 64, 0), 1);
    EXPECT_EQ(untouched, -3);
    EXPECT_EQ(port, 4);
}

TEST_F(config_test, read_works_with_one_bucket) {
    write_file(path, "name=x\nport=4\ntext=y\nport=5\n");
    EXPECT_EQ(ux_readconfig(path.c_str(), table, 1, 0), 1);
    EXPECT_EQ(port, 5);
    EXPECT_STREQ(name.get(), "x");
    EXPECT_STREQ(text.get(), "y");
}

TEST_F(config_test, read_without_memory_fails) {
    write_file(path, "port=1\nname=x\n");
    {
        failing_heap none;
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 0), 0);
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 1), 0);
    }
    /* Table, record, key, value, element: twice the last four. */
    for (int left = 1; left < 9; left++) {
        failing_heap limit(left);
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 0), 0) << left;
        EXPECT_EQ(port, -1);
    }
}

/* Each allocation is one that the reading cannot do without: what is not
 * known to be so must not be taken for a default. */
TEST_F(config_test, read_fails_with_any_one_of_its_allocations) {
    for (int32_t missing_ok : {0, 1}) {
        int left = 0;
        int32_t result = 0;
        for (; result == 0 && left < 100; left++) {
            forget();
            write_file(path, "port=1\nname=x\ntext=y # z\n");
            failing_call one("heap", ENOMEM, left, 1);
            result = ux_readconfig(path.c_str(), table, 64, missing_ok);
        }
        EXPECT_EQ(result, 1);
        EXPECT_EQ(port, 1);
        EXPECT_STREQ(name.get(), "x");
        EXPECT_STREQ(text.get(), "y");
        /* Table; record and element of three lines with seven texts; three
         * keys, two values. */
        EXPECT_EQ(left - 1, 1 + 2 * 3 + 7 + 3 + 2);
    }
}

/* It can be opened, and that is all. */
TEST_F(config_test, read_of_a_broken_file_fails_also_with_missing_ok) {
    const std::string broken = "/proc/self/mem";
    ASSERT_EQ(access(broken.c_str(), R_OK), 0);
    forget();
    for (int32_t missing_ok : {0, 1}) {
        EXPECT_EQ(ux_readconfig(broken.c_str(), table, 64, missing_ok), 0);
        EXPECT_EQ(port, -1);
        EXPECT_EQ(name, nullptr);
    }
}

TEST_F(config_test, read_that_breaks_off_fails_also_with_missing_ok) {
    for (int32_t missing_ok : {0, 1}) {
        for (int lines : {0, 1, 2}) {
            failing_call broken("fgets", EIO, lines);
            EXPECT_EQ(read("port=1\nname=x\n", missing_ok), 0) << lines;
            EXPECT_EQ(port, -1);
        }
    }
}

/* That it cannot be opened now does not mean that it is not there. */
TEST_F(config_test, read_of_a_file_in_trouble_fails_also_with_missing_ok) {
    for (int error : {ENOMEM, EMFILE, ENFILE, EIO}) {
        failing_call trouble("fopen", error);
        EXPECT_EQ(ux_readconfig(path.c_str(), table, 64, 1), 0) << error;
        EXPECT_EQ(port, -1);
    }
}

TEST_F(config_test, read_tells_what_it_inserts_and_searches) {
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

TEST_F(config_test, names_its_entry_points_above_level_5) {
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
class file_to_hashtable_test : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(ux_hashtable_init(&table, 1, hash_cfgmodule, match_cfgmodule,
                                    destroy_cfgmodule),
                  0);
    }
    void TearDown() override { ux_hashtable_destroy(&table); }
    int32_t load(const std::string &content) {
        return file_to_hashtable(dir.file("cfg", content).c_str(), &table);
    }
    /* "ident|value|comment" of every record; "-" for null. */
    std::string records() const {
        std::string all;
        for (ux_list_element *e = table.table[0].head; e; e = e->next) {
            const auto *record = static_cast<const cfgmodule *>(e->data);
            all += text_or_dash(record->ident) + "|" +
                   text_or_dash(record->value) + "|" +
                   text_or_dash(record->comment) + "\n";
        }
        return all;
    }

    temp_dir dir;
    ux_hashtable table;
};

TEST_F(file_to_hashtable_test, keeps_settings_with_values_and_comments) {
    EXPECT_EQ(load("# c\n\nkey=1 # one\nempty=\na=1\njunk\nlast=\"x\""), 1);
    EXPECT_EQ(records(), "key|1| one\nempty|-|-\nlast|\"x\"|-\n");
}

TEST_F(file_to_hashtable_test, later_settings_replace_earlier_in_place) {
    EXPECT_EQ(load("key=1 # one\nmid=2\nkey=3\n"), 1);
    EXPECT_EQ(records(), "key|3|-\nmid|2|-\n");
    EXPECT_EQ(table.size, 2u);
}

TEST_F(file_to_hashtable_test, needs_a_line) {
    EXPECT_EQ(load(""), 0);
    EXPECT_EQ(load("\n"), 1);
    EXPECT_EQ(load("x"), 1);
    EXPECT_EQ(file_to_hashtable(dir.path("absent").c_str(), &table), 0);
    EXPECT_EQ(file_to_hashtable(dir.path().c_str(), &table), 0);
    EXPECT_EQ(table.size, 0u);
}

TEST_F(file_to_hashtable_test, stops_without_memory) {
    {
        failing_heap limit(4);
        EXPECT_EQ(load("key=1\nother=2\nthird=3\n"), 0);
        EXPECT_EQ(records(), "key|1|-\n");
    }
    /* At the last line too, where the file ends with it. */
    failing_heap limit(3);
    EXPECT_EQ(load("key=1\nother=2"), 0);
    EXPECT_EQ(records(), "key|1|-\n");
}

using config_death = config_test;

TEST_F(config_death, read_needs_a_table_and_buckets) {
    EXPECT_ASSERTION((void)ux_readconfig(path.c_str(), nullptr, 64, 1),
                     "ux_configfile", "topic_table");
    EXPECT_ASSERTION((void)ux_readconfig(path.c_str(), table, 0, 1),
                     "ux_hashtable", "buckets");
}

} // namespace
