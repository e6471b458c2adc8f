/* The argument strings that are made of what follows a command word. */
#include "capture.h"
#include "failing_calls.h"
#include "temp_dir.h"

#include "tolva2/files/command_params.h"
#include "tolva2/files/msgdb.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

/* Message texts for as long as it lives. */
class message_texts {
  public:
    explicit message_texts(const std::string &content) {
        std::string path = home.file("messages.dat", content);
        EXPECT_TRUE(msgdb_open(path.c_str()));
    }
    ~message_texts() { msgdb_close(); }
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
                              "m1=one\n"
                              "m17=x\n"
                              "m16=quote \"q\"\n";

command_index place(int32_t index) { return static_cast<command_index>(index); }

struct arguments {
    int32_t result;
    std::string text;
};

arguments build(int32_t index, std::string text, size_t size = 4096) {
    std::vector<char> out(size, '~');
    arguments built;
    built.result =
        get_V2command_params(out.data(), size, place(index), text.data());
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

void check(const params_row &row) {
    SCOPED_TRACE("command " + std::to_string(row.index) + " text [" + row.text +
                 "]");
    arguments built = build(row.index, row.text);
    EXPECT_EQ(built.result != 0, row.found);
    if (row.found) {
        EXPECT_EQ(built.text, row.expected);
    }
}

} // namespace

TEST(get_V2command_params, free_text_is_stripped) {
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
        EXPECT_NE(get_V2command_params(out, sizeof out, place(index), nullptr),
                  0);
        EXPECT_STREQ(out, "");
    }
}

TEST(get_V2command_params, free_text_is_cut_two_below_the_size) {
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

TEST(get_V2command_params, a_message_number_becomes_its_filled_text) {
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

TEST(get_V2command_params, a_message_number_without_database_gives_none) {
    msgdb_close();
    EXPECT_EQ(build(2, "12 a").result, 0);
    EXPECT_EQ(build(6, "12 a").result, 0);
}

TEST(get_V2command_params, no_text_is_no_number_and_no_recipient) {
    message_texts texts(standard_texts);
    for (int32_t index : {2, 4, 5, 6}) {
        char out[8] = "old";
        EXPECT_EQ(get_V2command_params(out, sizeof out, place(index), nullptr),
                  0);
        EXPECT_STREQ(out, "") << index;
    }
}

TEST(get_V2command_params, mail_by_number_puts_the_recipient_first) {
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

TEST(get_V2command_params, mail_by_number_without_memory_is_the_recipient) {
    message_texts texts(standard_texts);
    failing_heap none;
    arguments built = build(4, "14 ops");
    EXPECT_EQ(built.result, 4);
    EXPECT_EQ(built.text, "ops ");
}

TEST(get_V2command_params, mail_with_text_puts_the_recipient_first) {
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

TEST(get_V2command_params, a_text_of_one_character_is_a_text) {
    message_texts texts(standard_texts);
    for (const params_row &row :
         {params_row{2, "17", true, "x"}, params_row{6, "17 a", true, "x"},
          params_row{4, "17 ops", true, "ops  \"x\""}}) {
        check(row);
    }
}

TEST(get_V2command_params, says_1_unless_a_message_for_the_mail_is_missing) {
    message_texts texts(standard_texts);
    for (const char *text : {"14", "14 ops"}) {
        for (int32_t index = 0; index <= COMMAND_LOG_TEXT; index++) {
            bool mail_without_recipient = index == 4 && strcmp(text, "14") == 0;
            EXPECT_EQ(build(index, text).result, mail_without_recipient ? 0 : 1)
                << index << text;
        }
    }
    arguments missing = build(4, "99 ops");
    EXPECT_EQ(missing.result, 4) << "as long as the recipient and a blank";
    EXPECT_EQ(missing.text, "ops ");
}

TEST(get_V2command_params, a_recipient_that_just_does_not_fit_is_cut) {
    message_texts texts(standard_texts);
    EXPECT_NE(build(4, "14 abc", 4).result, 0);
    EXPECT_EQ(build(4, "14 abc", 4).text, "ab");
    EXPECT_EQ(build(4, "14 abcd", 4).result, 0);
    EXPECT_NE(build(5, "abcd", 4).result, 0);
    EXPECT_EQ(build(5, "abcd", 4).text, "abc");
    EXPECT_EQ(build(5, "abcde", 4).result, 0);
}

TEST(get_V2command_params, quotes_without_a_character_between_are_left_out) {
    EXPECT_EQ(build(5, "ab text", 6).text, "ab");
    EXPECT_EQ(build(5, "ab text", 7).text, "ab \"t\"");
}

TEST(get_V2command_params, mail_is_cut_to_the_buffer) {
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
    /* The shell would go on behind a quote that is never closed. */
    EXPECT_EQ(long_text.text, "ops \"" + std::string(4095 - 6, 't') + "\"");
}

TEST(get_V2command_params, a_message_filled_beyond_the_buffer_is_cut) {
    message_texts texts("m1=%s%s%s\n");
    std::string word(2000, 'w');
    arguments built = build(2, "1 " + word + " " + word + " " + word);
    EXPECT_NE(built.result, 0);
    EXPECT_EQ(built.text, std::string(4095, 'w'));
    arguments mail = build(4, "1 ops " + word + " " + word + " " + word);
    EXPECT_NE(mail.result, 0);
    EXPECT_EQ(mail.text, "ops  \"" + std::string(4095 - 7, 'w') + "\"");
}

TEST(get_V2command_params, unknown_commands_and_missing_buffers_give_none) {
    char text[] = "text";
    char out[8] = "old";
    for (int32_t index : {-1, 8, 9, 1000, -1000}) {
        strcpy(out, "old");
        EXPECT_EQ(get_V2command_params(out, sizeof out, place(index), text), 0);
        EXPECT_STREQ(out, "") << index;
    }
    EXPECT_EQ(get_V2command_params(nullptr, 8, COMMAND_SHUTDOWN, text), 0);
    strcpy(out, "old");
    EXPECT_EQ(get_V2command_params(out, 0, COMMAND_SHUTDOWN, text), 0);
    EXPECT_STREQ(out, "old");
}

TEST(get_V2command_params, ends_the_buffer_with_a_terminator) {
    char out[8];
    memset(out, '~', sizeof out);
    char text[] = "x";
    EXPECT_EQ(get_V2command_params(out, sizeof out, COMMAND_SHUTDOWN, text), 1);
    EXPECT_STREQ(out, "x");
    EXPECT_EQ(out[7], '\0');
}

TEST(get_V2command_params, traces_what_it_works_on) {
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
