/* Command words, the words of a text, and templates filled with parameters. */
#include "capture.h"
#include "failing_calls.h"

#include "tolva2/files/command_params.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string stripped(std::string text) {
    const char *result = strip_params(text.data());
    return result == nullptr ? "(none)" : result;
}

/* patch_msg_param of a template with room for size characters. */
struct patched {
    std::string text;
    int32_t length;
};

patched patch(const std::string &pattern, const char *params,
              size_t size = 4095) {
    /* Exactly the bytes that may be written, for the sanitizers. */
    size_t room = pattern.size() > size ? pattern.size() : size;
    std::vector<char> buffer(room + 1, '~');
    memcpy(buffer.data(), pattern.c_str(), pattern.size() + 1);
    patched result;
    result.length = patch_msg_param(buffer.data(), size, params);
    result.text = buffer.data();
    return result;
}

} // namespace

TEST(is_V2command, gives_the_place_in_the_table) {
    const char *words[] = {"SHUTDOWN", "EXECUTE",   "MSG_ID", "MSG_TEXT",
                           "MAIL_ID",  "MAIL_TEXT", "LOG_ID", "LOG_TEXT"};
    for (int32_t i = 0; i < 8; i++) {
        EXPECT_EQ(is_V2command(words[i]), i) << words[i];
    }
    EXPECT_EQ(COMMAND_SHUTDOWN, 0);
    EXPECT_EQ(COMMAND_EXECUTE, 1);
    EXPECT_EQ(COMMAND_MSG_ID, 2);
    EXPECT_EQ(COMMAND_MSG_TEXT, 3);
    EXPECT_EQ(COMMAND_MAIL_ID, 4);
    EXPECT_EQ(COMMAND_MAIL_TEXT, 5);
    EXPECT_EQ(COMMAND_LOG_ID, 6);
    EXPECT_EQ(COMMAND_LOG_TEXT, 7);
}

TEST(is_V2command, ignores_case) {
    EXPECT_EQ(is_V2command("msg_text"), 3);
    EXPECT_EQ(is_V2command("ShutDown"), 0);
    EXPECT_EQ(is_V2command("lOG_iD"), 6);
}

TEST(is_V2command, compares_the_whole_word) {
    for (const char *word :
         {"MSG", "MSG_", "MSG_TEXTX", "SHUTDOW", "SHUTDOWN ", " SHUTDOWN",
          "EXEC", "MSG_EXECUTE", "MSG-ID", "SHUTDOWN\n", "\xe4", "0"}) {
        EXPECT_EQ(is_V2command(word), -1) << word;
    }
    EXPECT_EQ(is_V2command(""), -1);
    EXPECT_EQ(is_V2command(nullptr), -1);
}

TEST(is_V2command, traces_every_word_it_tries) {
    EXPECT_EQ(
        traced(1, [] { EXPECT_EQ(is_V2command("msg_id"), COMMAND_MSG_ID); }),
        "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
        "DEBUG: compare = [MSG_ID]\n");
    EXPECT_EQ(
        traced(1, [] { EXPECT_EQ(is_V2command("unknown"), COMMAND_UNKNOWN); }),
        "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
        "DEBUG: compare = [MSG_ID]\nDEBUG: compare = [MSG_TEXT]\n"
        "DEBUG: compare = [MAIL_ID]\nDEBUG: compare = [MAIL_TEXT]\n"
        "DEBUG: compare = [LOG_ID]\nDEBUG: compare = [LOG_TEXT]\n");
    EXPECT_EQ(
        traced(0, [] { EXPECT_EQ(is_V2command("msg_id"), COMMAND_MSG_ID); }),
        "");
}

TEST(split_word, cuts_word_after_word_and_stands_behind_one_delimiter) {
    std::string text = " \tone  two\tthree";
    char *rest = text.data();
    EXPECT_STREQ(split_word(&rest, " \t"), "one");
    EXPECT_STREQ(rest, " two\tthree");
    EXPECT_STREQ(split_word(&rest, " \t"), "two");
    EXPECT_STREQ(rest, "three");
    EXPECT_STREQ(split_word(&rest, " \t"), "three");
    EXPECT_STREQ(rest, "");
    EXPECT_EQ(split_word(&rest, " \t"), nullptr);
    EXPECT_EQ(split_word(&rest, " \t"), nullptr);
}

TEST(split_word, splits_at_the_delimiters_it_is_given) {
    std::string text = "$ops$x y";
    char *rest = text.data();
    EXPECT_STREQ(split_word(&rest, " \t$"), "ops");
    EXPECT_STREQ(rest, "x y");
    text = "\n\xe4 b";
    rest = text.data();
    EXPECT_STREQ(split_word(&rest, " \t"), "\n\xe4");
    text = " \t ";
    rest = text.data();
    EXPECT_EQ(split_word(&rest, " \t"), nullptr);
}

TEST(strip_params, trims_and_takes_off_one_pair_of_quotes) {
    struct row {
        const char *text;
        const char *expected;
    };
    const row rows[] = {
        {"text", "text"},
        {"  \t text with  blanks \t ", "text with  blanks"},
        {"  \"Power fail\"  ", "Power fail"},
        {"\"Power fail\"", "Power fail"},
        {"\" inner \"", " inner "},
        {"\"\"", "(none)"},
        {" \t\"\" ", "(none)"},
        {"\" \"", " "},
        {"\"", "\""},
        {" \" ", "\""},
        {"\"a", "\"a"},
        {"a\"", "a\""},
        {"\"a\" b", "\"a\" b"},
        {"a \"b\"", "a \"b\""},
        {"a \"b\" c", "a \"b\" c"},
        {"\"one\" \"two\"", "\"one\" \"two\""},
        {"\"a\"b\"", "\"a\"b\""},
        {"\"\"\"\"", "\"\"\"\""},
        {"'a b'", "'a b'"},
        {"", "(none)"},
        {" \t \t", "(none)"},
        {"\n", "\n"},
        {" a\n ", "a\n"},
        {"\"a\"\n", "\"a\"\n"},
        {" \xe4\xff ", "\xe4\xff"},
        {"\xa0x\xa0", "\xa0x\xa0"},
    };
    for (const row &one : rows) {
        EXPECT_EQ(stripped(one.text), one.expected) << "[" << one.text << "]";
    }
    EXPECT_EQ(strip_params(nullptr), nullptr);
}

TEST(strip_params, works_in_place) {
    char text[] = "  \"ab\"  ";
    EXPECT_EQ(strip_params(text), text + 3);
    EXPECT_STREQ(text + 3, "ab");
}

TEST(patch_msg_param, recognises_placeholders) {
    struct row {
        const char *pattern;
        const char *params;
        const char *expected;
    };
    const row rows[] = {
        {"plain", "a b", "plain"},
        {"", "a", ""},
        /* "#" and upper case, digits, "_" up to a blank, mark or end */
        {"#NAME", "a", "a"},
        {"#NAME.", "a", "a."},
        {"#NAME rest", "a", "a rest"},
        {"#NAME\trest", "a", "a\trest"},
        {"#A_1,#2B;", "a b", "a,b;"},
        {"#_", "a", "a"},
        {"#9%", "a", "a%"},
        {"#A#B", "a b", "ab"},
        {"(#A)[#B]", "a b", "(a)[b]"},
        {"#NAMEx", "a", "#NAMEx"},
        {"#NAMEx #Y", "a", "#NAMEx a"},
        {"#name", "a", "#name"},
        {"#", "a", "#"},
        {"# X", "a", "# X"},
        {"##A", "a", "#a"},
        {"#A\n", "a", "#A\n"},
        {"#A\xe4", "a", "#A\xe4"},
        {"#\xc4", "a", "#\xc4"},
        /* "%s" unless a letter or digit follows */
        {"%s", "a", "a"},
        {"%s %s", "a b", "a b"},
        {"%s%s", "a b", "ab"},
        {"%s.", "a", "a."},
        {"%s_", "a", "a_"},
        {"%sx", "a", "%sx"},
        {"%s1", "a", "%s1"},
        {"%s\xe4", "a", "a\xe4"},
        {"%d %S %", "a", "%d %S %"},
        {"%%s", "a", "%a"},
        {"100% sure", "a", "100% sure"},
        /* as many as there are parameters */
        {"UPS #NAME at #PCT%s done", "UPS1 45", "UPS UPS1 at 45%s done"},
        {"#A #B #C", "one", "one #B #C"},
        {"#A %s", "", "#A %s"},
        {"#A %s", nullptr, "#A %s"},
        {"%s", "a b c", "a"},
        /* what is put in is not looked at again */
        {"%s %s", "%s #A", "%s #A"},
        {"\xe4 %s \xff", "\xf6", "\xe4 \xf6 \xff"},
    };
    for (const row &one : rows) {
        patched result = patch(one.pattern, one.params);
        EXPECT_EQ(result.text, one.expected) << "[" << one.pattern << "]";
        EXPECT_EQ(result.length, static_cast<int32_t>(strlen(one.expected)));
    }
}

TEST(patch_msg_param, takes_parameters_one_after_the_other) {
    struct row {
        const char *params;
        const char *expected;
    };
    const row rows[] = {
        {"a b c", "a|b|c"},
        {"  a \t b  ", "a|b|#C"},
        {"\"a b\" c", "a b|c|#C"},
        {"\"a b\"c", "a b|c|#C"},
        {"\"a b\"\"c d\" e", "a b|c d|e"},
        /* Behind a closing quote stands a blank: the next quote is text. */
        {"\"a b\" \"c d\"", "a b|\"c|d\""},
        {"a \"b c\" d", "a|b c|d"},
        /* Two blanks: the quote is not what is looked at. */
        {"A  \"B C\"", "A|\"B|C\""},
        {"A\t\"B C\" D", "A|B C|D"},
        {"\"no end", "no end|#B|#C"},
        {"\"no end here", "no end here|#B|#C"},
        {"\"\" x", "|x|#C"},
        {"\"\"\"\"\"\"", "||"},
        {"\"", "|#B|#C"},
        {"a\"b c\"d", "a\"b|c\"d|#C"},
        {"a\nb c", "a\nb|c|#C"},
        {" ", "#A|#B|#C"},
        {"a ", "a|#B|#C"},
    };
    for (const row &one : rows) {
        EXPECT_EQ(patch("#A|#B|#C", one.params).text, one.expected)
            << "[" << one.params << "]";
    }
}

TEST(patch_msg_param, stops_at_size_characters) {
    EXPECT_EQ(patch("0123456789", "a", 10).text, "0123456789");
    EXPECT_EQ(patch("0123456789", "a", 10).length, 10);
    EXPECT_EQ(patch("0123456789", "a", 9).text, "012345678");
    EXPECT_EQ(patch("0123456789", "a", 9).length, 9);
    EXPECT_EQ(patch("%s-%s", "0123456789 abc", 10).text, "0123456789");
    EXPECT_EQ(patch("%s-%s", "0123456789 abc", 11).text, "0123456789-");
    EXPECT_EQ(patch("%s-%s", "0123456789 abc", 12).text, "0123456789-a");
    EXPECT_EQ(patch("%s-%s", "0123456789 abc", 14).text, "0123456789-abc");
    EXPECT_EQ(patch("%s-%s", "0123456789 abc", 14).length, 14);
    EXPECT_EQ(patch("ab", nullptr, 0).text, "");
    std::string long_parameter(5000, 'p');
    patched full = patch("%s tail", long_parameter.c_str(), 4095);
    EXPECT_EQ(full.text, long_parameter.substr(0, 4095));
    EXPECT_EQ(full.length, 4095);
}

TEST(patch_msg_param, does_not_change_the_parameters) {
    std::string params = "\"a b\" c";
    EXPECT_EQ(patch("%s %s", params.c_str()).text, "a b c");
    EXPECT_EQ(params, "\"a b\" c");
}

TEST(patch_msg_param, gives_zero_when_memory_is_exhausted) {
    char buffer[16] = "%s";
    failing_heap none;
    EXPECT_EQ(patch_msg_param(buffer, 15, "a"), 0);
    EXPECT_STREQ(buffer, "%s");
}

TEST(patch_msg_param, traces_each_parameter) {
    auto body = [] { patch("%s %s", "one"); };
    EXPECT_EQ(traced(1, body), "DEBUG: param = [one]\nDEBUG: param = [NULL]\n");
    EXPECT_EQ(traced(0, body), "");
}
