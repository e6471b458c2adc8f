/* The hash table: what each operation gives and hands back, bucket by bucket. */
#include "capture.h"
#include "death.h"
#include "failing_calls.h"
#include "unixtools/ux_hashtable.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace {

/* A datum: its key, and a mark that tells two with the same key apart. */
struct datum {
    uint32_t key;
    int mark;
};

std::vector<int> destroyed;

uint32_t hash_datum(const void *data) {
    return static_cast<const datum *>(data)->key;
}

int32_t match_datum(const void *left, const void *right) {
    /* Any non-zero answer means a match. */
    return hash_datum(left) == hash_datum(right) ? -7 : 0;
}

void destroy_datum(void *data) {
    destroyed.push_back(static_cast<datum *>(data)->mark);
}

class ux_hashtable_test : public testing::Test {
  protected:
    void SetUp() override {
        destroyed.clear();
        ASSERT_EQ(start(5), 0);
    }
    void TearDown() override { ux_hashtable_destroy(&ht); }
    int32_t start(uint32_t buckets) {
        return ux_hashtable_init(&ht, buckets, hash_datum, match_datum,
                                 destroy_datum);
    }
    void restart(uint32_t buckets) {
        ux_hashtable_destroy(&ht);
        destroyed.clear();
        ASSERT_EQ(start(buckets), 0);
    }
    std::vector<int> marks(uint32_t bucket) const {
        std::vector<int> found;
        for (ux_list_element *e = ht.table[bucket].head; e; e = e->next) {
            found.push_back(static_cast<datum *>(e->data)->mark);
        }
        EXPECT_EQ(found.size(), ht.table[bucket].size);
        return found;
    }

    ux_hashtable ht;
    datum one{1, 10};
    datum six{6, 60};
    datum eleven{11, 110};
    datum two{2, 20};
    datum other_one{1, 99};
};

using marks_t = std::vector<int>;

struct hash_case {
    const char *text;
    uint32_t expected;
};

class ux_hash_string_test : public testing::Test {
  protected:
    void check(const hash_case &c);
};

void ux_hash_string_test::check(const hash_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(ux_hash_string(c.text), c.expected) << c.text;
}

TEST_F(ux_hash_string_test, texts) {
    for (const hash_case &c :
         {hash_case{"", 5381u}, hash_case{"a", 177670u},
          hash_case{"ab", 5863208u}, hash_case{"ba", 5863240u},
          hash_case{"\x80", 177701u}, hash_case{"\xff", 177828u},
          hash_case{"\xff\xff", 5868579u}, hash_case{"\x01", 177574u},
          hash_case{"ListenPort", 643746713u},
          hash_case{"RedundancyBatchSuppress", 3083633369u},
          hash_case{"\xff\xff\xff\xff\xff\xff\xff\xff", 3824348797u}}) {
        check(c);
    }
}

TEST_F(ux_hashtable_test, record_has_its_fields_in_order) {
    EXPECT_EQ(offsetof(ux_hashtable, buckets), 0u);
    EXPECT_LT(offsetof(ux_hashtable, buckets), offsetof(ux_hashtable, hash));
    EXPECT_LT(offsetof(ux_hashtable, hash), offsetof(ux_hashtable, match));
    EXPECT_LT(offsetof(ux_hashtable, match), offsetof(ux_hashtable, destroy));
    EXPECT_LT(offsetof(ux_hashtable, destroy), offsetof(ux_hashtable, size));
    EXPECT_LT(offsetof(ux_hashtable, size), offsetof(ux_hashtable, table));
}

TEST_F(ux_hashtable_test, init_prepares_every_bucket) {
    EXPECT_EQ(ht.buckets, 5u);
    EXPECT_EQ(ht.size, 0u);
    EXPECT_EQ(ht.hash, hash_datum);
    EXPECT_EQ(ht.match, match_datum);
    EXPECT_EQ(ht.destroy, destroy_datum);
    for (uint32_t bucket = 0; bucket < 5; bucket++) {
        EXPECT_EQ(ht.table[bucket].size, 0u);
        EXPECT_EQ(ht.table[bucket].destroy, destroy_datum);
        EXPECT_EQ(ht.table[bucket].head, nullptr);
        EXPECT_EQ(ht.table[bucket].tail, nullptr);
    }
}

TEST_F(ux_hashtable_test, init_without_memory_leaves_the_record_alone) {
    ux_hashtable fresh;
    memset(static_cast<void *>(&fresh), 0x5a, sizeof fresh);
    ux_hashtable before = fresh;
    failing_heap none;
    EXPECT_EQ(
        ux_hashtable_init(&fresh, 3, hash_datum, match_datum, destroy_datum),
        -1);
    EXPECT_EQ(memcmp(&fresh, &before, sizeof fresh), 0);
}

TEST_F(ux_hashtable_test, destroy_gives_back_the_memory) {
    int64_t before = heap_blocks();
    ux_hashtable other{};
    ASSERT_EQ(ux_hashtable_init(&other, 7, hash_datum, match_datum, nullptr),
              0);
    EXPECT_EQ(heap_blocks(), before + 1);
    ux_hashtable_destroy(&other);
    EXPECT_EQ(heap_blocks(), before);
}

TEST_F(ux_hashtable_test, destroy_goes_through_the_buckets_in_order) {
    for (datum *d : {&two, &one, &six, &eleven}) {
        ASSERT_EQ(ux_hashtable_insert(&ht, d), 0);
    }
    ux_hashtable_destroy(&ht);
    EXPECT_EQ(destroyed, marks_t({110, 60, 10, 20}));
    EXPECT_EQ(ht.buckets, 0u);
    EXPECT_EQ(ht.size, 0u);
    EXPECT_EQ(ht.hash, nullptr);
    EXPECT_EQ(ht.match, nullptr);
    EXPECT_EQ(ht.destroy, nullptr);
    EXPECT_EQ(ht.table, nullptr);
}

TEST_F(ux_hashtable_test, destroy_without_destructor_drops_the_data) {
    ux_hashtable plain;
    ASSERT_EQ(ux_hashtable_init(&plain, 2, hash_datum, match_datum, nullptr),
              0);
    ASSERT_EQ(ux_hashtable_insert(&plain, &one), 0);
    ux_hashtable_destroy(&plain);
    EXPECT_EQ(destroyed, marks_t{});
}

TEST_F(ux_hashtable_test, the_bucket_is_the_hash_modulo_the_buckets) {
    datum large{UINT32_MAX, 1};
    for (datum *d : {&one, &six, &eleven, &two, &large}) {
        ASSERT_EQ(ux_hashtable_insert(&ht, d), 0);
    }
    EXPECT_EQ(ht.size, 5u);
    EXPECT_EQ(marks(0), marks_t({1}));
    EXPECT_EQ(marks(1), marks_t({10, 60, 110}));
    EXPECT_EQ(marks(2), marks_t({20}));
    EXPECT_EQ(marks(3), marks_t{});
    EXPECT_EQ(marks(4), marks_t{});
}

TEST_F(ux_hashtable_test, insert_refuses_a_second_datum_of_a_key) {
    ASSERT_EQ(ux_hashtable_insert(&ht, &one), 0);
    ASSERT_EQ(ux_hashtable_insert(&ht, &six), 0);
    EXPECT_EQ(ux_hashtable_insert(&ht, &other_one), 1);
    EXPECT_EQ(ux_hashtable_insert(&ht, &one), 1);
    EXPECT_EQ(ht.size, 2u);
    EXPECT_EQ(marks(1), marks_t({10, 60}));
    EXPECT_EQ(destroyed, marks_t{});
}

TEST_F(ux_hashtable_test, insert_without_memory_changes_nothing) {
    failing_heap none;
    EXPECT_EQ(ux_hashtable_insert(&ht, &one), -1);
    EXPECT_EQ(ht.size, 0u);
    EXPECT_EQ(marks(1), marks_t{});
}

TEST_F(ux_hashtable_test, replace_of_a_new_key_takes_the_datum) {
    void *data = &one;
    EXPECT_EQ(ux_hashtable_replace(&ht, &data), 0);
    EXPECT_EQ(data, nullptr);
    data = &six;
    EXPECT_EQ(ux_hashtable_replace(&ht, &data), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(ht.size, 2u);
    EXPECT_EQ(marks(1), marks_t({10, 60}));
}

TEST_F(ux_hashtable_test, replace_of_a_known_key_hands_the_old_datum_back) {
    for (datum *d : {&one, &six}) {
        ASSERT_EQ(ux_hashtable_insert(&ht, d), 0);
    }
    void *data = &other_one;
    EXPECT_EQ(ux_hashtable_replace(&ht, &data), 1);
    EXPECT_EQ(data, &one);
    EXPECT_EQ(ht.size, 2u);
    EXPECT_EQ(marks(1), marks_t({99, 60}));
    EXPECT_EQ(destroyed, marks_t{});
}

TEST_F(ux_hashtable_test,
       replace_without_memory_leaves_the_datum_to_the_caller) {
    void *data = &one;
    failing_heap none;
    EXPECT_EQ(ux_hashtable_replace(&ht, &data), -1);
    EXPECT_EQ(data, &one);
    EXPECT_EQ(ht.size, 0u);
}

TEST_F(ux_hashtable_test, remove_hands_the_stored_datum_back) {
    for (datum *d : {&one, &six, &eleven}) {
        ASSERT_EQ(ux_hashtable_insert(&ht, d), 0);
    }
    datum key{6, 0};
    void *data = &key;
    EXPECT_EQ(ux_hashtable_remove(&ht, &data), 0);
    EXPECT_EQ(data, &six);
    EXPECT_EQ(ht.size, 2u);
    EXPECT_EQ(marks(1), marks_t({10, 110}));
    EXPECT_EQ(destroyed, marks_t{});
}

TEST_F(ux_hashtable_test, remove_of_an_absent_key_changes_nothing) {
    ASSERT_EQ(ux_hashtable_insert(&ht, &one), 0);
    for (datum *absent : {&six, &two}) {
        void *data = absent;
        EXPECT_EQ(ux_hashtable_remove(&ht, &data), -1);
        EXPECT_EQ(data, absent);
    }
    EXPECT_EQ(ht.size, 1u);
    EXPECT_EQ(marks(1), marks_t({10}));
}

TEST_F(ux_hashtable_test, lookup_finds_and_keeps) {
    for (datum *d : {&one, &six}) {
        ASSERT_EQ(ux_hashtable_insert(&ht, d), 0);
    }
    datum key{6, 0};
    void *data = &key;
    EXPECT_EQ(ux_hashtable_lookup(&ht, &data), 0);
    EXPECT_EQ(data, &six);
    EXPECT_EQ(ht.size, 2u);
    EXPECT_EQ(marks(1), marks_t({10, 60}));
}

TEST_F(ux_hashtable_test, lookup_of_an_absent_key_changes_nothing) {
    ASSERT_EQ(ux_hashtable_insert(&ht, &one), 0);
    void *data = &eleven;
    EXPECT_EQ(ux_hashtable_lookup(&ht, &data), -1);
    EXPECT_EQ(data, &eleven);
}

TEST_F(ux_hashtable_test, one_bucket_is_a_list_in_order_of_insertion) {
    restart(1);
    for (datum *d : {&eleven, &two, &one, &six}) {
        ASSERT_EQ(ux_hashtable_insert(&ht, d), 0);
    }
    EXPECT_EQ(marks(0), marks_t({110, 20, 10, 60}));
    EXPECT_EQ(ux_hashtable_insert(&ht, &other_one), 1);
    void *data = &other_one;
    EXPECT_EQ(ux_hashtable_replace(&ht, &data), 1);
    EXPECT_EQ(data, &one);
    EXPECT_EQ(marks(0), marks_t({110, 20, 99, 60}));
    data = &two;
    EXPECT_EQ(ux_hashtable_remove(&ht, &data), 0);
    EXPECT_EQ(marks(0), marks_t({110, 99, 60}));
    data = &two;
    EXPECT_EQ(ux_hashtable_lookup(&ht, &data), -1);
    data = &six;
    EXPECT_EQ(ux_hashtable_lookup(&ht, &data), 0);
    EXPECT_EQ(ht.size, 3u);
}

TEST_F(ux_hashtable_test, many_keys_are_all_found_again) {
    std::vector<datum> data(2000);
    for (uint32_t i = 0; i < data.size(); i++) {
        data[i] = datum{i * 2654435761u, static_cast<int>(i)};
        ASSERT_EQ(ux_hashtable_insert(&ht, &data[i]), 0);
    }
    EXPECT_EQ(ht.size, 2000u);
    for (datum &d : data) {
        void *found = &d;
        ASSERT_EQ(ux_hashtable_remove(&ht, &found), 0);
        EXPECT_EQ(found, &d);
    }
    EXPECT_EQ(ht.size, 0u);
}

TEST_F(ux_hashtable_test, tells_bucket_and_size_at_level_1) {
    auto insert = [this] { (void)ux_hashtable_insert(&ht, &six); };
    auto replace = [this] {
        void *data = &eleven;
        (void)ux_hashtable_replace(&ht, &data);
    };
    auto lookup = [this] {
        void *data = &two;
        (void)ux_hashtable_lookup(&ht, &data);
    };
    auto remove = [this] {
        void *data = &six;
        (void)ux_hashtable_remove(&ht, &data);
    };
    EXPECT_EQ(traced(1, insert), "DEBUG: bucket = 1\n");
    EXPECT_EQ(traced(1, replace), "DEBUG: bucket = 1\nDEBUG: list->size = 1\n");
    EXPECT_EQ(traced(1, replace), "DEBUG: bucket = 1\nDEBUG: list->size = 2\n");
    EXPECT_EQ(traced(1, lookup), "DEBUG: bucket = 2\n");
    EXPECT_EQ(traced(1, remove), "");
}

TEST_F(ux_hashtable_test, is_silent_at_levels_0_and_below) {
    for (int32_t level : {-1, 0}) {
        EXPECT_EQ(traced(level,
                         [this] {
                             void *data = &one;
                             (void)ux_hashtable_insert(&ht, &one);
                             (void)ux_hashtable_replace(&ht, &data);
                             (void)ux_hashtable_lookup(&ht, &data);
                             (void)ux_hashtable_remove(&ht, &data);
                             ux_hash_string("text");
                             ux_hashtable other;
                             (void)ux_hashtable_init(&other, 1, hash_datum,
                                                     match_datum, nullptr);
                             ux_hashtable_destroy(&other);
                         }),
                  "")
            << level;
    }
}

TEST_F(ux_hashtable_test, names_every_entry_point_above_level_5) {
    auto first_line = [](const std::string &text) {
        return text.substr(0, text.find('\n') + 1);
    };
    for (int32_t level : {6, 10}) {
        ux_hashtable other;
        void *data = &one;
        EXPECT_EQ(first_line(traced(level,
                                    [&] {
                                        (void)ux_hashtable_init(
                                            &other, 1, hash_datum, match_datum,
                                            nullptr);
                                    })),
                  "TRACEIN: ux_hashtable_init\n");
        EXPECT_EQ(first_line(traced(
                      level, [&] { (void)ux_hashtable_insert(&other, &one); })),
                  "TRACEIN: ux_hashtable_insert\n");
        EXPECT_EQ(
            first_line(traced(
                level, [&] { (void)ux_hashtable_replace(&other, &data); })),
            "TRACEIN: ux_hashtable_replace\n");
        EXPECT_EQ(
            first_line(traced(
                level, [&] { (void)ux_hashtable_lookup(&other, &data); })),
            "TRACEIN: ux_hashtable_lookup\n");
        EXPECT_EQ(
            first_line(traced(
                level, [&] { (void)ux_hashtable_remove(&other, &data); })),
            "TRACEIN: ux_hashtable_remove\n");
        EXPECT_EQ(
            first_line(traced(level, [&] { ux_hashtable_destroy(&other); })),
            "TRACEIN: ux_hashtable_destroy\n");
    }
}

using ux_hashtable_death = ux_hashtable_test;

TEST_F(ux_hashtable_death, init_needs_a_record_and_buckets) {
    ux_hashtable other;
    EXPECT_ASSERTION(
        (void)ux_hashtable_init(nullptr, 1, hash_datum, match_datum, nullptr),
        "ux_hashtable", "ht");
    EXPECT_ASSERTION(
        (void)ux_hashtable_init(&other, 0, hash_datum, match_datum, nullptr),
        "ux_hashtable", "buckets");
}

TEST_F(ux_hashtable_death, destroy_needs_a_record) {
    EXPECT_ASSERTION(ux_hashtable_destroy(nullptr), "ux_hashtable", "ht");
}

TEST_F(ux_hashtable_death, insert_needs_record_and_datum) {
    EXPECT_ASSERTION((void)ux_hashtable_insert(nullptr, &one), "ux_hashtable",
                     "ht");
    EXPECT_ASSERTION((void)ux_hashtable_insert(&ht, nullptr), "ux_hashtable",
                     "data");
}

TEST_F(ux_hashtable_death, the_others_need_record_reference_and_datum) {
    using operation = int32_t (*)(ux_hashtable *, void **);
    for (operation op :
         {ux_hashtable_replace, ux_hashtable_remove, ux_hashtable_lookup}) {
        void *data = &one;
        void *none = nullptr;
        EXPECT_ASSERTION(op(nullptr, &data), "ux_hashtable", "ht");
        EXPECT_ASSERTION(op(nullptr, nullptr), "ux_hashtable", "ht");
        EXPECT_ASSERTION(op(&ht, nullptr), "ux_hashtable", "data");
        EXPECT_ASSERTION(op(&ht, &none), "ux_hashtable", "*data");
    }
}

TEST_F(ux_hashtable_death, stored_null_data_stop_every_walk) {
    ASSERT_EQ(ux_list_ins_next(&ht.table[1], nullptr, nullptr), 0);
    EXPECT_ASSERTION((void)ux_hashtable_insert(&ht, &one), "ux_hashtable",
                     "element->data");
    using operation = int32_t (*)(ux_hashtable *, void **);
    for (operation op :
         {ux_hashtable_replace, ux_hashtable_remove, ux_hashtable_lookup}) {
        void *data = &one;
        EXPECT_ASSERTION(op(&ht, &data), "ux_hashtable", "element->data");
    }
    /* Each says which of them it was. */
    void *data = &one;
    EXPECT_DEATH((void)ux_hashtable_insert(&ht, &one),
                 "ux_hashtable_insert.*element->data");
    EXPECT_DEATH((void)ux_hashtable_replace(&ht, &data),
                 "ux_hashtable_replace.*element->data");
    EXPECT_DEATH((void)ux_hashtable_remove(&ht, &data),
                 "ux_hashtable_remove.*element->data");
    EXPECT_DEATH((void)ux_hashtable_lookup(&ht, &data),
                 "ux_hashtable_lookup.*element->data");
}

} // namespace
