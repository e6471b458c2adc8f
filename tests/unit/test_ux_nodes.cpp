/* Lists walked with range-for, while the body changes them. */
#include "unixtools/ux_nodes.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/* A list of letters; each datum is a place in the alphabet. */
class letters {
  public:
    explicit letters(const std::string &text) {
        ux_list_init(&list, nullptr);
        for (char one : text) {
            append(one);
        }
    }
    ~letters() { ux_list_destroy(&list); }
    letters(const letters &) = delete;
    letters &operator=(const letters &) = delete;

    void append(char one) {
        /* "-" is a node without data. */
        char *data = one == '-' ? nullptr : &alphabet[one - 'a'];
        ASSERT_EQ(ux_list_ins_next(&list, list.tail, data), 0);
    }
    void remove(ux_list_element *node) {
        ASSERT_EQ(ux_list_rem(&list, node, nullptr), 0);
    }
    std::string text() const {
        std::string all;
        for (const char *one : ux_records<char>(&list)) {
            all += one == nullptr ? '-' : *one;
        }
        return all;
    }
    ux_list list;

  private:
    char alphabet[27] = "abcdefghijklmnopqrstuvwxyz";
};

char letter_of(ux_list_element *node) {
    const char *one = ux_record<char>(node);
    return one == nullptr ? '-' : *one;
}

} // namespace

TEST(ux_nodes, go_from_head_to_tail) {
    letters three("abc");
    std::string seen;
    const ux_list_element *last = nullptr;
    for (ux_list_element *node : ux_nodes(&three.list)) {
        EXPECT_EQ(node->prev, last);
        seen += letter_of(node);
        last = node;
    }
    EXPECT_EQ(seen, "abc");
    EXPECT_EQ(last, three.list.tail);
}

TEST(ux_nodes, of_an_empty_list_are_none) {
    letters none("");
    for (ux_list_element *node : ux_nodes(&none.list)) {
        ADD_FAILURE() << letter_of(node);
    }
    for (const char *one : ux_records<char>(&none.list)) {
        ADD_FAILURE() << *one;
    }
}

TEST(ux_nodes, without_data_are_visited_too) {
    letters some("-a--b-");
    std::string seen;
    for (ux_list_element *node : ux_nodes(&some.list)) {
        seen += letter_of(node);
    }
    EXPECT_EQ(seen, "-a--b-");
    EXPECT_EQ(some.text(), "-a--b-") << "their record is null";
}

TEST(ux_nodes, the_one_a_walk_is_at_may_be_removed) {
    for (const char *gone : {"a", "b", "c", "ab", "bc", "ac", "abc"}) {
        letters three("abc");
        std::string seen;
        std::string left = "abc";
        for (ux_list_element *node : ux_nodes(&three.list)) {
            char letter = letter_of(node);
            seen += letter;
            if (std::string(gone).find(letter) != std::string::npos) {
                three.remove(node);
                left.erase(left.find(letter), 1);
            }
        }
        EXPECT_EQ(seen, "abc") << gone;
        EXPECT_EQ(three.text(), left);
    }
}

TEST(ux_nodes, those_behind_a_walk_may_be_removed) {
    letters three("abc");
    std::string seen;
    for (ux_list_element *node : ux_nodes(&three.list)) {
        seen += letter_of(node);
        if (node->prev != nullptr) {
            three.remove(node->prev);
        }
    }
    EXPECT_EQ(seen, "abc");
    EXPECT_EQ(three.text(), "c");
}

TEST(ux_nodes, what_is_appended_is_visited_unless_the_walk_is_at_its_end) {
    letters early("ab");
    std::string seen;
    for (ux_list_element *node : ux_nodes(&early.list)) {
        seen += letter_of(node);
        if (seen == "a") {
            early.append('c');
        }
    }
    EXPECT_EQ(seen, "abc");

    letters late("ab");
    seen.clear();
    for (ux_list_element *node : ux_nodes(&late.list)) {
        seen += letter_of(node);
        if (seen == "ab") {
            late.append('c');
        }
    }
    EXPECT_EQ(seen, "ab");
    EXPECT_EQ(late.text(), "abc");
}

TEST(ux_nodes, a_walk_can_be_left) {
    letters three("abc");
    std::string seen;
    for (ux_list_element *node : ux_nodes(&three.list)) {
        seen += letter_of(node);
        if (seen == "ab") {
            break;
        }
    }
    EXPECT_EQ(seen, "ab");
    EXPECT_EQ(three.text(), "abc");
}

TEST(ux_records, are_the_data_themselves) {
    letters two("ab");
    for (char *one : ux_records<char>(&two.list)) {
        *one = static_cast<char>(*one + 1);
    }
    EXPECT_EQ(two.text(), "bc");
}
