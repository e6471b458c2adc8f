/* Command words and the argument strings made of what follows them. */
#include "sessions.h"

#include <cstdlib>

namespace
{

bool memory_exhausted = false;

[[maybe_unused]] char *strdup_or_fail(const char *text)
{
    return memory_exhausted ? nullptr : strdup(text);
}

[[maybe_unused]] void *malloc_or_fail(size_t size)
{
    return memory_exhausted ? nullptr : malloc(size);
}

[[maybe_unused]] void *calloc_or_fail(size_t count, size_t size)
{
    return memory_exhausted ? nullptr : calloc(count, size);
}

} // namespace

#undef strdup
#define strdup strdup_or_fail
#define malloc malloc_or_fail
#define calloc calloc_or_fail
#include "tolva2/files/command_params.cpp" // NOLINT(bugprone-suspicious-include)
#undef strdup
#undef malloc
#undef calloc

namespace
{

/* Message texts for as long as it lives. */
class message_texts
{
  public:
    explicit message_texts(const std::string &content)
    {
        std::string path = home.file("messages.dat", content);
        EXPECT_EQ(msgdb_open(path.c_str()), 1);
    }
    ~message_texts()
    {
        msgdb_close();
    }
    message_texts(const message_texts &) = delete;
    message_texts &operator=(const message_texts &) = delete;

  private:
    temp_dir home;
};

const char standard_texts[] = "m12=UPS #NAME at #PCT%s done\n"
                              "m13=load %s, time %s.\n"
                              "m14=plain\n"
                              "m15=#ONE\n"
                              "m0=zero\n"
                              "m16=quote \"q\"\n";

std::string stripped(std::string text)
{
    const char *result = strip_params(text.data());
    return result == nullptr ? "(none)" : result;
}

/* patch_msg_param of a template with room for size characters. */
struct patched {
    std::string text;
    int32_t length;
};

patched patch(const std::string &pattern, const char *params,
              size_t size = 4095)
{
    /* Exactly the bytes that may be written, for the sanitizers. */
    size_t room = pattern.size() > size ? pattern.size() : size;
    std::vector<char> buffer(room + 1, '~');
    memcpy(buffer.data(), pattern.c_str(), pattern.size() + 1);
    patched result;
    result.length = patch_msg_param(buffer.data(), size, params);
    result.text = buffer.data();
    return result;
}

struct arguments {
    int32_t result;
    std::string text;
};

arguments build(int32_t index, std::string text, size_t size = 4096)
{
    std::vector<char> out(size, '~');
    arguments built;
    built.result = get_V2command_params(out.data(), size, index, text.data());
    EXPECT_NE(memchr(out.data(), '\0', size), nullptr) << "no terminator";
    built.text = out.data();
    return built;
}

/* What get_V2command_params should make of one text. */
struct params_row {
    int32_t index;
    const char *text;
    bool found;
    const char *expected;
};

void check(const params_row &row)
{
    SCOPED_TRACE("command " + std::to_string(row.index) + " text [" + row.text +
                 "]");
    arguments built = build(row.index, row.text);
    EXPECT_EQ(built.result != 0, row.found);
    if (row.found) {
        EXPECT_EQ(built.text, row.expected);
    }
}

} // namespace

TEST(is_V2command, gives_the_place_in_the_table)
{
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

TEST(is_V2command, ignores_case)
{
    EXPECT_EQ(is_V2command("msg_text"), 3);
    EXPECT_EQ(is_V2command("ShutDown"), 0);
    EXPECT_EQ(is_V2command("lOG_iD"), 6);
}

TEST(is_V2command, compares_the_whole_word)
{
    for (const char *word :
         {"MSG", "MSG_", "MSG_TEXTX", "SHUTDOW", "SHUTDOWN ", " SHUTDOWN",
          "EXEC", "MSG_EXECUTE", "MSG-ID", "SHUTDOWN\n", "\xe4", "0"}) {
        EXPECT_EQ(is_V2command(word), -1) << word;
    }
    EXPECT_EQ(is_V2command(""), -1);
    EXPECT_EQ(is_V2command(nullptr), -1);
}

TEST(is_V2command, traces_every_word_it_tries)
{
    EXPECT_EQ(traced(1, [] { is_V2command("msg_id"); }),
              "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
              "DEBUG: compare = [MSG_ID]\n");
    EXPECT_EQ(traced(1, [] { is_V2command("unknown"); }),
              "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
              "DEBUG: compare = [MSG_ID]\nDEBUG: compare = [MSG_TEXT]\n"
              "DEBUG: compare = [MAIL_ID]\nDEBUG: compare = [MAIL_TEXT]\n"
              "DEBUG: compare = [LOG_ID]\nDEBUG: compare = [LOG_TEXT]\n");
    EXPECT_EQ(traced(0, [] { is_V2command("msg_id"); }), "");
}

TEST(split_word, cuts_word_after_word_and_stands_behind_one_delimiter)
{
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

TEST(split_word, splits_at_the_delimiters_it_is_given)
{
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

TEST(strip_params, trims_and_takes_off_one_pair_of_quotes)
{
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

TEST(strip_params, works_in_place)
{
    char text[] = "  \"ab\"  ";
    EXPECT_EQ(strip_params(text), text + 3);
    EXPECT_STREQ(text + 3, "ab");
}

TEST(patch_msg_param, recognises_placeholders)
{
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

TEST(patch_msg_param, takes_parameters_one_after_the_other)
{
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

TEST(patch_msg_param, stops_at_size_characters)
{
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

TEST(patch_msg_param, does_not_change_the_parameters)
{
    std::string params = "\"a b\" c";
    EXPECT_EQ(patch("%s %s", params.c_str()).text, "a b c");
    EXPECT_EQ(params, "\"a b\" c");
}

TEST(patch_msg_param, gives_zero_when_memory_is_exhausted)
{
    char buffer[16] = "%s";
    memory_exhausted = true;
    EXPECT_EQ(patch_msg_param(buffer, 15, "a"), 0);
    memory_exhausted = false;
}

TEST(patch_msg_param, traces_each_parameter)
{
    auto body = [] { patch("%s %s", "one"); };
    EXPECT_EQ(traced(1, body), "DEBUG: param = [one]\nDEBUG: param = [NULL]\n");
    EXPECT_EQ(traced(0, body), "");
}

TEST(get_V2command_params, free_text_is_stripped)
{
    for (int32_t index : {0, 1, 3, 7}) {
        const params_row rows[] = {
            {index, "backup now", true, "backup now"},
            {index, "  \"UPS on battery\" ", true, "UPS on battery"},
            {index, "", true, ""},
            {index, " \t", true, ""},
            {index, "\"\"", true, ""},
            {index, "\"a\" \"b\"", true, "\"a\" \"b\""},
            {index, "%s #NAME $HOME", true, "%s #NAME $HOME"},
            {index, "\xe4\xff", true, "\xe4\xff"},
        };
        for (const params_row &row : rows) {
            check(row);
        }
        char out[8] = "old";
        EXPECT_NE(get_V2command_params(out, sizeof out, index, nullptr), 0);
        EXPECT_STREQ(out, "");
    }
}

TEST(get_V2command_params, free_text_is_cut_two_below_the_size)
{
    for (int32_t index : {0, 1, 3, 7}) {
        arguments fits = build(index, "123456", 8);
        EXPECT_EQ(fits.text, "123456");
        arguments cut = build(index, "1234567", 8);
        EXPECT_EQ(cut.text, "123456");
        EXPECT_NE(cut.result, 0);
        arguments large = build(index, std::string(5000, 'x'));
        EXPECT_EQ(large.text, std::string(4094, 'x'));
    }
}

TEST(get_V2command_params, a_message_number_becomes_its_filled_text)
{
    message_texts texts(standard_texts);
    for (int32_t index : {2, 6}) {
        const params_row rows[] = {
            {index, "12 UPS1 45", true, "UPS UPS1 at 45%s done"},
            {index, " \t12\tUPS1 45 99 ", true, "UPS UPS1 at 4599 done"},
            {index, "12", true, "UPS #NAME at #PCT%s done"},
            {index, "13 \"5 kW\" 7", true, "load 5 kW, time 7."},
            {index, "13 \"5 kW\"", true, "load 5, time kW."},
            {index, "14 a b", true, "plain"},
            {index, "012 x", true, "UPS x at #PCT%s done"},
            {index, "14x", true, "plain"},
            {index, "+14", true, "plain"},
            {index, "", false, ""},
            {index, " \t", false, ""},
            {index, "0 a", false, ""},
            {index, "x14", false, ""},
            {index, "\"14\"", false, ""},
            {index, "99 a", false, ""},
            {index, "-14 a", false, ""},
            /* 4294967310 is 14 and 2^32. */
            {index, "4294967310 a", false, ""},
            {index, "99999999999999999999 a", false, ""},
        };
        for (const params_row &row : rows) {
            check(row);
        }
    }
}

TEST(get_V2command_params, a_message_number_without_database_gives_none)
{
    msgdb_close();
    EXPECT_EQ(build(2, "12 a").result, 0);
    EXPECT_EQ(build(6, "12 a").result, 0);
}

TEST(get_V2command_params, no_text_is_no_number_and_no_recipient)
{
    message_texts texts(standard_texts);
    for (int32_t index : {2, 4, 5, 6}) {
        char out[8] = "old";
        EXPECT_EQ(get_V2command_params(out, sizeof out, index, nullptr), 0);
        EXPECT_STREQ(out, "") << index;
    }
}

TEST(get_V2command_params, mail_by_number_puts_the_recipient_first)
{
    message_texts texts(standard_texts);
    const params_row rows[] = {
        {4, "14 ops", true, "ops  \"plain\""},
        {4, "13 ops 5 7", true, "ops  \"load 5, time 7.\""},
        {4, "13 ops \"5 7\"", true, "ops  \"load 5, time 7.\""},
        {4, "13 ops \"5 7\" 8", true, "ops  \"load 5 7, time 8.\""},
        {4, "13 ops$5 7", true, "ops  \"load 5, time 7.\""},
        {4, "13 $ops$ 5 7", true, "ops  \"load 5, time 7.\""},
        {4, "13  \t ops", true, "ops  \"load %s, time %s.\""},
        {4, "16 ops", true, "ops  \"quote \"q\"\""},
        {4, "99 ops a b", true, "ops "},
        {4, "13", false, ""},
        {4, "13 $ $", false, ""},
        {4, "0 ops", false, ""},
        {4, "x ops", false, ""},
        {4, "", false, ""},
    };
    for (const params_row &row : rows) {
        check(row);
    }
}

TEST(get_V2command_params, mail_by_number_without_memory_is_the_recipient)
{
    message_texts texts(standard_texts);
    memory_exhausted = true;
    arguments built = build(4, "14 ops");
    memory_exhausted = false;
    EXPECT_EQ(built.result, 4);
    EXPECT_EQ(built.text, "ops ");
}

TEST(get_V2command_params, mail_with_text_puts_the_recipient_first)
{
    const params_row rows[] = {
        {5, "ops \"Battery low\"", true, "ops \"Battery low\""},
        {5, "ops Battery low", true, "ops \"Battery low\""},
        {5, "ops   text ", true, "ops \"text\""},
        {5, "ops$x", true, "ops \"x\""},
        {5, "a@b.example$Some text", true, "a@b.example \"Some text\""},
        {5, "ops", true, "ops"},
        {5, "ops \"\"", true, "ops"},
        {5, "ops$", true, "ops"},
        {5, " \t$ops text", true, "ops \"text\""},
        {5, "ops \"a\" \"b\"", true, "ops \"\"a\" \"b\"\""},
        {5, "", false, ""},
        {5, " $\t", false, ""},
    };
    for (const params_row &row : rows) {
        check(row);
    }
}

TEST(get_V2command_params, mail_is_cut_to_the_buffer)
{
    message_texts texts(standard_texts);
    /* Whatever is cut where, out stays a text within its bytes. */
    for (size_t size = 1; size < 24; size++) {
        arguments by_text = build(5, "recipient some text", size);
        EXPECT_LT(by_text.text.size(), size);
        arguments by_number = build(4, "13 recipient a b", size);
        EXPECT_LT(by_number.text.size(), size);
        EXPECT_LT(build(2, "12 aaaaaaaaaaaa b", size).text.size(), size);
        EXPECT_LT(build(3, "some text that is long", size).text.size(), size);
    }
    std::string recipient(5000, 'r');
    EXPECT_EQ(build(5, recipient + " text").result, 0);
    EXPECT_EQ(build(4, "14 " + recipient + " text").result, 0);
    arguments long_text = build(5, "ops " + std::string(5000, 't'));
    EXPECT_NE(long_text.result, 0);
    EXPECT_EQ(long_text.text.substr(0, 8), "ops \"ttt");
    EXPECT_GE(long_text.text.size(), 4090u);
}

TEST(get_V2command_params, a_message_filled_beyond_the_buffer_is_cut)
{
    message_texts texts("m1=%s%s%s\n");
    std::string word(2000, 'w');
    arguments built = build(2, "1 " + word + " " + word + " " + word);
    EXPECT_NE(built.result, 0);
    EXPECT_EQ(built.text, std::string(4095, 'w'));
    arguments mail = build(4, "1 ops " + word + " " + word + " " + word);
    EXPECT_NE(mail.result, 0);
    EXPECT_EQ(mail.text.substr(0, 8), "ops  \"ww");
    EXPECT_GE(mail.text.size(), 4090u);
}

TEST(get_V2command_params, unknown_commands_and_missing_buffers_give_none)
{
    char text[] = "text";
    char out[8] = "old";
    for (int32_t index : {-1, 8, 9, 1000, -1000}) {
        strcpy(out, "old");
        EXPECT_EQ(get_V2command_params(out, sizeof out, index, text), 0);
        EXPECT_STREQ(out, "") << index;
    }
    EXPECT_EQ(get_V2command_params(nullptr, 8, 0, text), 0);
    strcpy(out, "old");
    EXPECT_EQ(get_V2command_params(out, 0, 0, text), 0);
    EXPECT_STREQ(out, "old");
}

TEST(get_V2command_params, ends_the_buffer_with_a_terminator)
{
    char out[8];
    memset(out, '~', sizeof out);
    char text[] = "x";
    EXPECT_EQ(get_V2command_params(out, sizeof out, 0, text), 1);
    EXPECT_STREQ(out, "x");
    EXPECT_EQ(out[7], '\0');
}

TEST(get_V2command_params, traces_what_it_works_on)
{
    message_texts texts(standard_texts);
    auto lines = [](int32_t index, const char *text) {
        std::string kept;
        std::string all = traced(1, [&] { build(index, text); });
        for (size_t start = 0; start < all.size();) {
            size_t end = all.find('\n', start) + 1;
            std::string line = all.substr(start, end - start);
            kept += line.find("param =") == std::string::npos ? line : "";
            start = end;
        }
        return kept;
    };
    EXPECT_EQ(lines(0, " \"a b\" "), "DEBUG: ptr3 = [a b]\n");
    EXPECT_EQ(lines(7, " "), "DEBUG: ptr3 = [NULL]\n");
    EXPECT_EQ(lines(6, "13 a b"),
              "DEBUG: buffer = [load %s, time %s.]\nDEBUG: ptrptr = [a b]\n");
    EXPECT_EQ(lines(2, "13 a b"),
              "DEBUG: params = [13 a b]\n"
              "DEBUG: buffer = [load %s, time %s.]\nDEBUG: ptrptr = [a b]\n");
    EXPECT_EQ(lines(4, "13 ops \"a\""), "DEBUG: ptr5 = [a]\n");
}
