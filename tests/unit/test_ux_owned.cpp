/* Owners: each gives back what it holds, once, and keeps errno. */
#include "descriptor_numbers.h"
#include "failing_calls.h"
#include "temp_dir.h"

#include "unixtools/ux_owned.h"

#include <cerrno>
#include <malloc.h>
#include <string>
#include <type_traits>

namespace {

int open_number() {
    int number = dup(STDIN_FILENO);
    EXPECT_GE(number, 0);
    return number;
}

/* A stream with text that no disk has room for. */
ux_file unwritable() {
    ux_file stream(fopen("/dev/full", "w"));
    EXPECT_TRUE(stream);
    EXPECT_GT(fputs("text", stream.get()), 0);
    return stream;
}

/* Notes when it goes, and has something to begin with. */
struct noted {
    int32_t number = -1;
    bool flag = false;
    int *gone = nullptr;
    ux_text text;
    ~noted() {
        if (gone != nullptr) {
            (*gone)++;
        }
    }
};

} // namespace

TEST(ux_fd, is_none_at_first) {
    ux_fd fd;
    EXPECT_FALSE(fd);
    EXPECT_EQ(fd.get(), -1);
    EXPECT_EQ(fd.release(), -1);
    EXPECT_FALSE(ux_fd(-1));
    EXPECT_FALSE(std::is_copy_constructible_v<ux_fd>);
    EXPECT_FALSE(std::is_copy_assignable_v<ux_fd>);
}

TEST(ux_fd, number_0_is_a_descriptor) {
    descriptor_on_loan zero(STDIN_FILENO);
    ux_fd fd = zero.take();
    EXPECT_TRUE(fd);
    EXPECT_EQ(fd.get(), 0);
    fd.reset();
    EXPECT_FALSE(is_open(STDIN_FILENO));
}

TEST(ux_fd, closes_when_it_goes) {
    int number = open_number();
    {
        ux_fd fd(number);
        EXPECT_TRUE(fd);
        EXPECT_EQ(fd.get(), number);
        EXPECT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
}

TEST(ux_fd, closes_once) {
    ux_fd fd(open_number());
    int number = fd.get();
    fd.reset();
    EXPECT_FALSE(fd);
    ux_fd other(open_number());
    ASSERT_EQ(other.get(), number) << "the system gives the lowest number";
    fd.reset();
    EXPECT_TRUE(is_open(number)) << "it belongs to another by now";
}

TEST(ux_fd, what_is_released_stays_open) {
    ux_fd fd(open_number());
    int number = fd.get();
    EXPECT_EQ(fd.release(), number);
    EXPECT_FALSE(fd);
    fd.reset();
    EXPECT_TRUE(is_open(number));
    close(number);
}

TEST(ux_fd, takes_another_and_closes_what_it_had) {
    ux_fd fd(open_number());
    int first = fd.get();
    int second = open_number();
    fd.reset(second);
    EXPECT_EQ(fd.get(), second);
    EXPECT_FALSE(is_open(first));
    EXPECT_TRUE(is_open(second));
}

TEST(ux_fd, moves) {
    ux_fd first(open_number());
    int number = first.get();
    ux_fd second = std::move(first);
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(second.get(), number);

    ux_fd third(open_number());
    int closed = third.get();
    third = std::move(second);
    EXPECT_FALSE(second); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(third.get(), number);
    EXPECT_TRUE(is_open(number));
    EXPECT_FALSE(is_open(closed));
    third = ux_fd();
    EXPECT_FALSE(is_open(number));
}

TEST(ux_fd, a_move_to_itself_changes_nothing) {
    ux_fd fd(open_number());
    int number = fd.get();
    ux_fd *same = &fd;
    fd = std::move(*same);
    EXPECT_EQ(fd.get(), number);
    EXPECT_TRUE(is_open(number));
}

TEST(ux_fd, keeps_errno) {
    ux_fd fd(open_number());
    close(fd.get());
    errno = EPERM;
    fd.reset();
    EXPECT_EQ(errno, EPERM) << "not that of the close";
}

TEST(ux_file, closes_when_it_goes_and_writes_what_is_buffered) {
    temp_dir home;
    int number = -1;
    {
        ux_file stream(fopen(home.path("file").c_str(), "w"));
        ASSERT_TRUE(stream);
        number = fileno(stream.get());
        fputs("text", stream.get());
        EXPECT_EQ(read_file(home.path("file")), "");
    }
    EXPECT_FALSE(is_open(number));
    EXPECT_EQ(read_file(home.path("file")), "text");
}

TEST(ux_file, keeps_errno) {
    ux_file stream = unwritable();
    errno = EPERM;
    stream.reset();
    EXPECT_EQ(errno, EPERM) << "not that of the write";
}

TEST(ux_close, tells_whether_all_was_written) {
    temp_dir home;
    ux_file stream(fopen(home.path("file").c_str(), "w"));
    ASSERT_TRUE(stream);
    fputs("text", stream.get());
    EXPECT_TRUE(ux_close(std::move(stream)));
    EXPECT_EQ(read_file(home.path("file")), "text");

    ux_file full = unwritable();
    int number = fileno(full.get());
    errno = 0;
    EXPECT_FALSE(ux_close(std::move(full)));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(is_open(number)) << "closed all the same";
}

TEST(ux_copy, is_a_text_of_its_own) {
    char text[] = "one \xe4";
    ux_text copy = ux_copy(text);
    ASSERT_TRUE(copy);
    text[0] = 'X';
    EXPECT_STREQ(copy.get(), "one \xe4");
    EXPECT_STREQ(ux_copy("").get(), "");
    EXPECT_FALSE(ux_copy(nullptr));
}

TEST(ux_copy, is_null_when_memory_is_exhausted) {
    failing_heap exhausted;
    EXPECT_FALSE(ux_copy("text"));
    EXPECT_FALSE(ux_copy(""));
}

TEST(ux_join, puts_one_part_behind_the_other) {
    EXPECT_STREQ(ux_join({"one", " ", "two"}).get(), "one two");
    EXPECT_STREQ(ux_join({"", "x", ""}).get(), "x");
    EXPECT_STREQ(ux_join({"alone"}).get(), "alone");
    EXPECT_STREQ(ux_join({""}).get(), "");
    EXPECT_STREQ(ux_join({}).get(), "");
    /* A part need not be terminated. */
    EXPECT_STREQ(ux_join({std::string_view("abcd", 2), "-"}).get(), "ab-");
    /* There is room for the terminator: this fills what malloc gives. */
    ux_text full = ux_join({"123456789012", "345678901234"});
    EXPECT_GT(malloc_usable_size(full.get()), 24u);
    std::string part(5000, 'p');
    EXPECT_EQ(std::string(ux_join({part, part}).get()), part + part);
}

TEST(ux_join, is_null_when_memory_is_exhausted) {
    failing_heap exhausted;
    EXPECT_FALSE(ux_join({"one", "two"}));
    EXPECT_FALSE(ux_join({}));
}

TEST(ux_is_empty, for_null_and_no_characters) {
    EXPECT_TRUE(ux_is_empty(nullptr));
    EXPECT_TRUE(ux_is_empty(""));
    EXPECT_FALSE(ux_is_empty(" "));
    EXPECT_FALSE(ux_is_empty("\xff"));
}

TEST(ux_new, begins_as_its_type_says) {
    ux_owner<noted> one(ux_new<noted>());
    ASSERT_TRUE(one);
    EXPECT_EQ(one->number, -1);
    EXPECT_FALSE(one->flag);
    EXPECT_EQ(one->gone, nullptr);
    EXPECT_FALSE(one->text);

    struct plain {
        int32_t number;
        char text[64];
    };
    ux_owner<plain> zeroed(ux_new<plain>());
    ASSERT_TRUE(zeroed);
    EXPECT_EQ(zeroed->number, 0);
    for (char c : zeroed->text) {
        EXPECT_EQ(c, '\0');
    }
}

TEST(ux_new, is_null_when_memory_is_exhausted) {
    failing_heap limit(1);
    ux_owner<noted> first(ux_new<noted>());
    EXPECT_TRUE(first);
    EXPECT_FALSE(ux_owner<noted>(ux_new<noted>()));
}

TEST(ux_delete, ends_the_record_with_what_it_owns) {
    int gone = 0;
    noted *one = ux_new<noted>();
    ASSERT_NE(one, nullptr);
    one->gone = &gone;
    one->text = ux_copy("on the heap as well");
    ux_delete(one);
    EXPECT_EQ(gone, 1);
    ux_delete<noted>(nullptr);
}

TEST(ux_owner, deletes_once) {
    int gone = 0;
    {
        ux_owner<noted> one(ux_new<noted>());
        one->gone = &gone;
        ux_owner<noted> other = std::move(one);
        EXPECT_EQ(gone, 0);
    }
    EXPECT_EQ(gone, 1);
}
