/* The list: what each operation leaves behind, and each invariant broken. */
#include "capture.h"
#include "death.h"
#include "failing_calls.h"
#include "unixtools/ux_list.h"

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

namespace {

using numbers = std::vector<int>;

numbers destroyed;

void note_destroyed(void *data) {
    destroyed.push_back(*static_cast<int *>(data));
}

int value_of(const ux_list_element *element) {
    return *static_cast<const int *>(element->data);
}

/* The data from head to tail; the way back must agree. */
numbers contents(const ux_list &list) {
    numbers forward;
    numbers backward;
    for (ux_list_element *e = list.head; e != nullptr; e = e->next) {
        forward.push_back(value_of(e));
    }
    for (ux_list_element *e = list.tail; e != nullptr; e = e->prev) {
        backward.insert(backward.begin(), value_of(e));
    }
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(list.size, forward.size());
    if (list.head != nullptr && list.tail != nullptr) {
        EXPECT_EQ(list.head->prev, nullptr);
        EXPECT_EQ(list.tail->next, nullptr);
    }
    return forward;
}

class ux_list_test : public testing::Test {
  protected:
    void SetUp() override {
        destroyed.clear();
        ASSERT_EQ(ux_list_init(&list, nullptr), &list);
    }
    void TearDown() override { ux_list_destroy(&list); }
    /* Fills the list with 1 to count. */
    void fill(int count) {
        for (int i = 0; i < count; i++) {
            ASSERT_EQ(ux_list_ins_next(&list, list.tail, &values[i]), 0);
        }
    }
    ux_list_element *at(int index) const {
        ux_list_element *element = list.head;
        while (index-- > 0) {
            element = element->next;
        }
        return element;
    }

    ux_list list;
    int values[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
};

TEST(ux_list_layout, has_its_fields_in_order) {
    EXPECT_EQ(offsetof(ux_list, size), 0u);
    EXPECT_LT(offsetof(ux_list, size), offsetof(ux_list, destroy));
    EXPECT_LT(offsetof(ux_list, destroy), offsetof(ux_list, head));
    EXPECT_LT(offsetof(ux_list, head), offsetof(ux_list, tail));
    EXPECT_EQ(offsetof(ux_list_element, data), 0u);
    EXPECT_LT(offsetof(ux_list_element, data), offsetof(ux_list_element, next));
    EXPECT_LT(offsetof(ux_list_element, next), offsetof(ux_list_element, prev));
    EXPECT_TRUE((std::is_same_v<decltype(ux_list::size), uint32_t>));
}

TEST_F(ux_list_test, init_overwrites_whatever_was_there) {
    ux_list garbage;
    memset(static_cast<void *>(&garbage), 0x5a, sizeof garbage);
    EXPECT_EQ(ux_list_init(&garbage, note_destroyed), &garbage);
    EXPECT_EQ(garbage.size, 0u);
    EXPECT_EQ(garbage.destroy, note_destroyed);
    EXPECT_EQ(garbage.head, nullptr);
    EXPECT_EQ(garbage.tail, nullptr);
}

TEST_F(ux_list_test, init_hands_a_null_list_back) {
    EXPECT_EQ(ux_list_init(nullptr, note_destroyed), nullptr);
}

TEST_F(ux_list_test, first_element_is_head_and_tail) {
    ASSERT_EQ(ux_list_ins_next(&list, nullptr, &values[0]), 0);
    EXPECT_EQ(list.head, list.tail);
    EXPECT_EQ(list.head->data, &values[0]);
    EXPECT_EQ(contents(list), numbers({1}));
}

TEST_F(ux_list_test, first_element_may_come_by_ins_prev) {
    ASSERT_EQ(ux_list_ins_prev(&list, nullptr, &values[0]), 0);
    EXPECT_EQ(list.head, list.tail);
    EXPECT_EQ(contents(list), numbers({1}));
}

TEST_F(ux_list_test, ins_next_inserts_behind_tail_head_and_inner) {
    fill(2);
    ASSERT_EQ(ux_list_ins_next(&list, list.tail, &values[2]), 0);
    EXPECT_EQ(contents(list), numbers({1, 2, 3}));
    ASSERT_EQ(ux_list_ins_next(&list, list.head, &values[3]), 0);
    EXPECT_EQ(contents(list), numbers({1, 4, 2, 3}));
    ASSERT_EQ(ux_list_ins_next(&list, at(2), &values[4]), 0);
    EXPECT_EQ(contents(list), numbers({1, 4, 2, 5, 3}));
    EXPECT_EQ(value_of(list.tail), 3);
}

TEST_F(ux_list_test, ins_prev_inserts_before_head_tail_and_inner) {
    fill(2);
    ASSERT_EQ(ux_list_ins_prev(&list, list.head, &values[2]), 0);
    EXPECT_EQ(contents(list), numbers({3, 1, 2}));
    ASSERT_EQ(ux_list_ins_prev(&list, list.tail, &values[3]), 0);
    EXPECT_EQ(contents(list), numbers({3, 1, 4, 2}));
    ASSERT_EQ(ux_list_ins_prev(&list, at(1), &values[4]), 0);
    EXPECT_EQ(contents(list), numbers({3, 5, 1, 4, 2}));
    EXPECT_EQ(value_of(list.head), 3);
}

TEST_F(ux_list_test, insertion_into_a_null_list_fails) {
    fill(1);
    EXPECT_EQ(ux_list_ins_next(nullptr, nullptr, &values[0]), -1);
    EXPECT_EQ(ux_list_ins_next(nullptr, list.head, &values[0]), -1);
    EXPECT_EQ(ux_list_ins_prev(nullptr, nullptr, &values[0]), -1);
    EXPECT_EQ(ux_list_ins_prev(nullptr, list.head, &values[0]), -1);
    EXPECT_EQ(contents(list), numbers({1}));
}

TEST_F(ux_list_test, insertion_without_memory_changes_nothing) {
    {
        failing_heap none;
        EXPECT_EQ(ux_list_ins_next(&list, nullptr, &values[0]), -1);
        EXPECT_EQ(ux_list_ins_prev(&list, nullptr, &values[0]), -1);
        EXPECT_EQ(contents(list), numbers{});
    }
    failing_heap two_left(2);
    fill(2);
    EXPECT_EQ(ux_list_ins_next(&list, list.tail, &values[2]), -1);
    EXPECT_EQ(ux_list_ins_prev(&list, list.head, &values[2]), -1);
    EXPECT_EQ(contents(list), numbers({1, 2}));
}

TEST_F(ux_list_test, may_hold_null_data) {
    ASSERT_EQ(ux_list_ins_next(&list, nullptr, nullptr), 0);
    EXPECT_EQ(list.size, 1u);
    void *out = &list;
    EXPECT_EQ(ux_list_rem(&list, list.head, &out), 0);
    EXPECT_EQ(out, nullptr);
}

TEST_F(ux_list_test, removing_the_only_element_empties_the_list) {
    fill(1);
    void *out = nullptr;
    EXPECT_EQ(ux_list_rem(&list, list.head, &out), 0);
    EXPECT_EQ(out, &values[0]);
    EXPECT_EQ(list.size, 0u);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
    fill(2);
    EXPECT_EQ(contents(list), numbers({1, 2}));
}

TEST_F(ux_list_test, removing_the_tail_of_two_leaves_the_head_as_tail) {
    fill(2);
    void *out = nullptr;
    EXPECT_EQ(ux_list_rem(&list, list.tail, &out), 0);
    EXPECT_EQ(out, &values[1]);
    EXPECT_EQ(list.head, list.tail);
    EXPECT_EQ(contents(list), numbers({1}));
}

TEST_F(ux_list_test, removing_the_head_of_two_leaves_the_tail_as_head) {
    fill(2);
    void *out = nullptr;
    EXPECT_EQ(ux_list_rem(&list, list.head, &out), 0);
    EXPECT_EQ(out, &values[0]);
    EXPECT_EQ(list.head, list.tail);
    EXPECT_EQ(contents(list), numbers({2}));
}

TEST_F(ux_list_test, removes_inner_elements) {
    fill(4);
    void *out = nullptr;
    EXPECT_EQ(ux_list_rem(&list, at(1), &out), 0);
    EXPECT_EQ(out, &values[1]);
    EXPECT_EQ(contents(list), numbers({1, 3, 4}));
    EXPECT_EQ(ux_list_rem(&list, at(1), &out), 0);
    EXPECT_EQ(out, &values[2]);
    EXPECT_EQ(contents(list), numbers({1, 4}));
}

TEST_F(ux_list_test,
       rem_without_data_out_neither_frees_nor_destroys_the_datum) {
    list.destroy = note_destroyed;
    fill(3);
    EXPECT_EQ(ux_list_rem(&list, at(1), nullptr), 0);
    EXPECT_EQ(destroyed, numbers{});
    EXPECT_EQ(contents(list), numbers({1, 3}));
    EXPECT_EQ(values[1], 2);
}

TEST_F(ux_list_test, destroy_goes_from_tail_to_head_and_clears_the_record) {
    list.destroy = note_destroyed;
    fill(4);
    ux_list_destroy(&list);
    EXPECT_EQ(destroyed, numbers({4, 3, 2, 1}));
    ux_list zero;
    memset(static_cast<void *>(&zero), 0, sizeof zero);
    EXPECT_EQ(list.size, zero.size);
    EXPECT_EQ(list.destroy, zero.destroy);
    EXPECT_EQ(list.head, zero.head);
    EXPECT_EQ(list.tail, zero.tail);
}

TEST_F(ux_list_test, destroy_of_an_empty_list_only_clears_the_record) {
    list.destroy = note_destroyed;
    ux_list_destroy(&list);
    EXPECT_EQ(destroyed, numbers{});
    EXPECT_EQ(list.destroy, nullptr);
    EXPECT_EQ(list.size, 0u);
}

TEST_F(ux_list_test, destroy_without_destructor_drops_the_data) {
    fill(3);
    ux_list_destroy(&list);
    EXPECT_EQ(list.size, 0u);
    EXPECT_EQ(values[2], 3);
}

TEST_F(ux_list_test, destroy_hands_no_null_datum_out) {
    list.destroy = note_destroyed;
    ASSERT_EQ(ux_list_ins_next(&list, nullptr, &values[0]), 0);
    ASSERT_EQ(ux_list_ins_next(&list, list.tail, nullptr), 0);
    ASSERT_EQ(ux_list_ins_next(&list, list.tail, &values[2]), 0);
    ux_list_destroy(&list);
    EXPECT_EQ(destroyed, numbers({3, 1}));
}

TEST_F(ux_list_test, gives_back_the_memory_of_what_was_removed) {
    int64_t before = heap_blocks();
    fill(3);
    EXPECT_EQ(heap_blocks(), before + 3);
    EXPECT_EQ(ux_list_rem(&list, list.head, nullptr), 0);
    EXPECT_EQ(heap_blocks(), before + 2);
    ux_list_destroy(&list);
    EXPECT_EQ(heap_blocks(), before);
}

TEST_F(ux_list_test, names_its_functions_above_trace_level_5_only) {
    auto use = [this] {
        ux_list other;
        ux_list_init(&other, nullptr);
        EXPECT_EQ(ux_list_ins_next(&other, nullptr, &values[0]), 0);
        EXPECT_EQ(ux_list_ins_prev(&other, other.head, &values[1]), 0);
        ux_list_rem(&other, other.head, nullptr);
        ux_list_destroy(&other);
    };
    for (int32_t level : {-1, 0, 1, 5}) {
        EXPECT_EQ(traced(level, use), "") << level;
    }
    for (int32_t level : {6, 10}) {
        EXPECT_EQ(traced(level, use), "TRACEIN: ux_list_init\n"
                                      "TRACEIN: ux_list_ins_next\n"
                                      "TRACEIN: ux_list_ins_prev\n"
                                      "TRACEIN: ux_list_rem\n"
                                      "TRACEIN: ux_list_destroy\n"
                                      "TRACEIN: ux_list_rem\n")
            << level;
    }
}

using ux_list_death = ux_list_test;

TEST_F(ux_list_death, destroy_needs_a_list) {
    EXPECT_ASSERTION(ux_list_destroy(nullptr), "ux_list", "list");
}

TEST_F(ux_list_death, destroy_checks_the_record_before_each_removal) {
    fill(2);
    EXPECT_ASSERTION((list.size = 0, ux_list_destroy(&list)), "ux_list",
                     "list->size");
    EXPECT_ASSERTION((list.head = nullptr, ux_list_destroy(&list)), "ux_list",
                     "list->head");
}

TEST_F(ux_list_death, destroy_checks_that_everything_is_gone) {
    EXPECT_ASSERTION((list.size = 1, ux_list_destroy(&list)), "ux_list",
                     "!list->size");
    ux_list_element stray{};
    EXPECT_ASSERTION((list.head = &stray, ux_list_destroy(&list)), "ux_list",
                     "!list->head");
}

TEST_F(ux_list_death, ins_next_on_an_empty_list_checks_ends_size_and_element) {
    ux_list_element stray{};
    EXPECT_ASSERTION((void)ux_list_ins_next(&list, &stray, &values[0]),
                     "ux_list", "!element");
    EXPECT_ASSERTION((list.tail = &stray,
                      (void)ux_list_ins_next(&list, nullptr, &values[0])),
                     "ux_list", "!list->tail");
    EXPECT_ASSERTION(
        (list.size = 1, (void)ux_list_ins_next(&list, nullptr, &values[0])),
        "ux_list", "!list->size");
}

TEST_F(ux_list_death, ins_next_has_no_form_that_inserts_at_the_head) {
    fill(1);
    EXPECT_ASSERTION((void)ux_list_ins_next(&list, nullptr, &values[1]),
                     "ux_list", "0");
}

TEST_F(ux_list_death, ins_next_checks_the_links_of_a_filled_list) {
    fill(3);
    EXPECT_ASSERTION((list.tail = nullptr,
                      (void)ux_list_ins_next(&list, list.head, &values[3])),
                     "ux_list", "list->tail");
    EXPECT_ASSERTION(
        (list.size = 0, (void)ux_list_ins_next(&list, list.head, &values[3])),
        "ux_list", "list->size");
    EXPECT_ASSERTION((list.tail = list.head,
                      (void)ux_list_ins_next(&list, list.head, &values[3])),
                     "ux_list", "list->tail != element");
    EXPECT_ASSERTION((list.head->next->prev = list.tail,
                      (void)ux_list_ins_next(&list, list.head, &values[3])),
                     "ux_list", "newelement->next->prev == element");
    EXPECT_ASSERTION((list.head->next = nullptr,
                      (void)ux_list_ins_next(&list, list.head, &values[3])),
                     "ux_list", "list->tail == element");
}

TEST_F(ux_list_death, ins_prev_on_an_empty_list_checks_ends_and_element) {
    ux_list_element stray{};
    EXPECT_ASSERTION((void)ux_list_ins_prev(&list, &stray, &values[0]),
                     "ux_list", "!element");
    EXPECT_ASSERTION((list.head = &stray,
                      (void)ux_list_ins_prev(&list, nullptr, &values[0])),
                     "ux_list", "!list->head");
    EXPECT_ASSERTION((list.tail = &stray,
                      (void)ux_list_ins_prev(&list, nullptr, &values[0])),
                     "ux_list", "!list->tail");
}

TEST_F(ux_list_death, ins_prev_has_no_form_that_inserts_at_the_tail) {
    fill(1);
    EXPECT_ASSERTION((void)ux_list_ins_prev(&list, nullptr, &values[1]),
                     "ux_list", "0");
}

TEST_F(ux_list_death, ins_prev_decides_emptiness_by_size) {
    fill(2);
    EXPECT_ASSERTION(
        (list.size = 0, (void)ux_list_ins_prev(&list, list.head, &values[3])),
        "ux_list", "!list->head");
    EXPECT_ASSERTION((list.size = 1, list.head = nullptr,
                      (void)ux_list_ins_prev(&list, list.tail, &values[3])),
                     "ux_list", "list->head");
}

TEST_F(ux_list_death, ins_prev_checks_the_links_of_a_filled_list) {
    fill(3);
    EXPECT_ASSERTION((list.tail = nullptr,
                      (void)ux_list_ins_prev(&list, list.head, &values[3])),
                     "ux_list", "list->tail");
    EXPECT_ASSERTION((list.head = list.tail,
                      (void)ux_list_ins_prev(&list, list.tail, &values[3])),
                     "ux_list", "list->head != element");
    EXPECT_ASSERTION((list.tail->prev->next = list.head,
                      (void)ux_list_ins_prev(&list, list.tail, &values[3])),
                     "ux_list", "newelement->prev->next == element");
    EXPECT_ASSERTION((list.tail->prev = nullptr,
                      (void)ux_list_ins_prev(&list, list.tail, &values[3])),
                     "ux_list", "list->head == element");
}

TEST_F(ux_list_death, rem_needs_list_and_element) {
    fill(1);
    EXPECT_ASSERTION(ux_list_rem(nullptr, list.head, nullptr), "ux_list",
                     "list");
    EXPECT_ASSERTION(ux_list_rem(&list, nullptr, nullptr), "ux_list",
                     "element");
    EXPECT_ASSERTION(ux_list_rem(nullptr, nullptr, nullptr), "ux_list", "list");
}

TEST_F(ux_list_death, rem_checks_the_record) {
    fill(3);
    EXPECT_ASSERTION(
        (list.head = nullptr, ux_list_rem(&list, list.tail, nullptr)),
        "ux_list", "list->head");
    EXPECT_ASSERTION(
        (list.tail = nullptr, ux_list_rem(&list, list.head, nullptr)),
        "ux_list", "list->tail");
    EXPECT_ASSERTION((list.size = 0, ux_list_rem(&list, list.head, nullptr)),
                     "ux_list", "list->size > 0");
}

TEST_F(ux_list_death, rem_checks_the_only_element) {
    fill(1);
    ux_list_element stray{};
    EXPECT_ASSERTION(
        (list.head->prev = &stray, ux_list_rem(&list, list.head, nullptr)),
        "ux_list", "!element->prev");
    EXPECT_ASSERTION(
        (list.head->next = &stray, ux_list_rem(&list, list.head, nullptr)),
        "ux_list", "!element->next");
    EXPECT_ASSERTION((list.size = 2, ux_list_rem(&list, list.head, nullptr)),
                     "ux_list", "list->size == 1");
}

TEST_F(ux_list_death, rem_checks_the_head) {
    fill(2);
    EXPECT_ASSERTION(
        (list.head->next = nullptr, ux_list_rem(&list, list.head, nullptr)),
        "ux_list", "element->next");
    EXPECT_ASSERTION((list.size = 1, ux_list_rem(&list, list.head, nullptr)),
                     "ux_list", "list->size > 1");
}

TEST_F(ux_list_death, rem_checks_the_tail) {
    fill(2);
    ux_list_element stray{};
    EXPECT_ASSERTION(
        (list.tail->prev = nullptr, ux_list_rem(&list, list.tail, nullptr)),
        "ux_list", "element->prev");
    EXPECT_ASSERTION((list.size = 1, ux_list_rem(&list, list.tail, nullptr)),
                     "ux_list", "list->size > 1");
    EXPECT_ASSERTION(
        (list.tail->next = &stray, ux_list_rem(&list, list.tail, nullptr)),
        "ux_list", "!element->next");
}

TEST_F(ux_list_death, rem_checks_an_inner_element) {
    fill(3);
    EXPECT_ASSERTION((list.size = 2, ux_list_rem(&list, at(1), nullptr)),
                     "ux_list", "list->size > 2");
    ux_list_element *inner = at(1);
    EXPECT_ASSERTION(
        (inner->next = nullptr, ux_list_rem(&list, inner, nullptr)), "ux_list",
        "element->next");
    EXPECT_ASSERTION(
        (inner->prev = nullptr, ux_list_rem(&list, inner, nullptr)), "ux_list",
        "element->prev");
}

} // namespace
