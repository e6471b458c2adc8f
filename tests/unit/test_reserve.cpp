/* Two descriptors are kept back for files, whoever else wants them. */
#include "descriptor_numbers.h"
#include "failing_calls.h"
#include "temp_dir.h"

#include "tolva2/base/process_state.h"
#include "tolva2/files/reserve.h"

namespace {

/* Nothing is held, before and after. */
class no_reserve {
  public:
    explicit no_reserve(int32_t budget = 256) : before(max_fds) {
        max_fds = budget;
        give_up_reserve();
    }
    ~no_reserve() {
        give_up_reserve();
        max_fds = before;
    }
    no_reserve(const no_reserve &) = delete;
    no_reserve &operator=(const no_reserve &) = delete;

  private:
    int32_t before;
    /* As most systems have it: nothing past what a wait can look at. */
    descriptor_limit limit{FD_SETSIZE};
};

} // namespace

TEST(fill_reserve, takes_two_descriptors_and_no_more) {
    no_reserve none;
    int before = descriptors_in_use();
    EXPECT_EQ(fill_reserve(), 0);
    EXPECT_EQ(descriptors_in_use(), before + 2);
    EXPECT_EQ(fill_reserve(), 0);
    EXPECT_EQ(descriptors_in_use(), before + 2);
}

TEST(fill_reserve, needs_nothing_more_while_it_is_whole) {
    no_reserve none(200);
    ASSERT_EQ(fill_reserve(), 0);
    {
        failing_call none_left("open", EMFILE);
        EXPECT_EQ(fill_reserve(), 0);
    }
    EXPECT_TRUE(is_open(200));
    EXPECT_TRUE(is_open(201));
}

TEST(fill_reserve, leaves_the_low_numbers_to_sockets) {
    no_reserve none(200);
    int lowest = lowest_free_number();
    ASSERT_LT(lowest, 150);
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_EQ(lowest_free_number(), lowest);
    EXPECT_TRUE(is_open(200));
    EXPECT_TRUE(is_open(201));
}

TEST(fill_reserve, stands_at_the_end_of_the_budget_when_nothing_is_behind_it) {
    no_reserve none(200);
    descriptor_limit limit(200);
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_TRUE(is_open(198));
    EXPECT_TRUE(is_open(199));
}

TEST(fill_reserve, moves_when_the_limit_is_lowered_below_it) {
    no_reserve none(200);
    ASSERT_EQ(fill_reserve(), 0);
    descriptor_limit limit(150);
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_FALSE(is_open(200));
    EXPECT_FALSE(is_open(201));
    std::vector<ux_fd> others = take_numbers_below(150);
    EXPECT_TRUE(open_file("/dev/null", "r"));
}

TEST(fill_reserve, moves_when_the_limit_is_lowered_to_its_very_number) {
    no_reserve none(200);
    ASSERT_EQ(fill_reserve(), 0);
    descriptor_limit limit(201);
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_TRUE(is_open(200)) << "the last one that can be had";
    EXPECT_FALSE(is_open(201));
}

TEST(fill_reserve, takes_low_numbers_where_there_are_no_others) {
    for (int32_t budget : {1 << 30, 1, 0}) {
        no_reserve none(budget);
        int before = descriptors_in_use();
        EXPECT_EQ(fill_reserve(), 0) << budget;
        EXPECT_EQ(descriptors_in_use(), before + 2);
    }
}

TEST(fill_reserve, is_not_inherited_by_scripts) {
    no_reserve none(200);
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_NE(fcntl(200, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(201, F_GETFD) & FD_CLOEXEC, 0);
    max_fds = 1 << 30;
    give_up_reserve();
    int lowest = lowest_free_number();
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_NE(fcntl(lowest, F_GETFD) & FD_CLOEXEC, 0);
}

TEST(fill_reserve, tells_why_it_is_not_whole) {
    no_reserve none;
    for (int spare : {0, 1}) {
        no_descriptors limit(spare);
        EXPECT_EQ(fill_reserve(), EMFILE) << spare;
    }
    give_up_reserve();
    failing_call refused("open", ENFILE);
    EXPECT_EQ(fill_reserve(), ENFILE);
}

TEST(fill_reserve, completes_what_it_could_get_before) {
    no_reserve none;
    int before = descriptors_in_use();
    {
        failing_call only_one("open", EMFILE, 1);
        EXPECT_EQ(fill_reserve(), EMFILE);
    }
    EXPECT_EQ(descriptors_in_use(), before + 1);
    EXPECT_EQ(fill_reserve(), 0);
    EXPECT_EQ(descriptors_in_use(), before + 2);
}

TEST(give_up_reserve, closes_both_and_says_whether_there_was_one) {
    no_reserve none;
    int before = descriptors_in_use();
    EXPECT_FALSE(give_up_reserve());
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_TRUE(give_up_reserve());
    EXPECT_EQ(descriptors_in_use(), before);
    EXPECT_FALSE(give_up_reserve());
    {
        failing_call only_one("open", EMFILE, 1);
        ASSERT_EQ(fill_reserve(), EMFILE);
    }
    EXPECT_TRUE(give_up_reserve()) << "one is better than none";
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST(reserve_helps, against_a_want_of_descriptors_and_of_nothing_else) {
    no_reserve none;
    for (int shortage : {EMFILE, ENFILE}) {
        EXPECT_FALSE(reserve_helps(shortage)) << "there is none";
        ASSERT_EQ(fill_reserve(), 0);
        for (int other : {0, ENOMEM, ENOENT}) {
            EXPECT_FALSE(reserve_helps(other));
        }
        EXPECT_TRUE(reserve_helps(shortage)) << "nothing was given up before";
        EXPECT_FALSE(give_up_reserve());
    }
}

TEST(open_file, leaves_the_reserve_alone_while_there_are_others) {
    no_reserve none;
    temp_dir home;
    ASSERT_EQ(fill_reserve(), 0);
    int before = descriptors_in_use();
    ux_file file = open_file(home.path("log").c_str(), "a");
    ASSERT_TRUE(file);
    EXPECT_EQ(descriptors_in_use(), before + 1);
    fputs("line\n", file.get());
    EXPECT_TRUE(ux_close(std::move(file)));
    EXPECT_EQ(read_file(home.path("log")), "line\n");
}

TEST(open_file, lives_on_the_reserve_when_nothing_else_is_left) {
    no_reserve none(200);
    temp_dir home;
    std::string path = home.file("log", "text\n");
    bool first = false;
    bool second = false;
    bool third = true;
    int error = 0;
    {
        descriptor_limit limit(200);
        EXPECT_EQ(fill_reserve(), 0);
        std::vector<ux_fd> others = take_numbers_below(200);
        ux_file log = open_file(path.c_str(), "r");
        first = log != nullptr;
        ux_file copy = open_file(home.path("copy").c_str(), "w");
        second = copy != nullptr;
        ux_file one_too_many = open_file(path.c_str(), "r");
        error = errno;
        third = one_too_many != nullptr;
    }
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
    EXPECT_FALSE(third);
    EXPECT_EQ(error, EMFILE);
    EXPECT_FALSE(give_up_reserve()) << "it has been given up";
}

TEST(open_file, keeps_the_reserve_when_that_is_not_what_is_missing) {
    no_reserve none;
    ASSERT_EQ(fill_reserve(), 0);
    EXPECT_FALSE(open_file("/no/such/directory/log", "r"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(give_up_reserve());
}
