/*
 * What becomes of the requests of redundant senders, against the listener's
 * rule, tried with each sender in every state that the others can be in.
 */
#include "tolva2/checkconf/members.h"

#include <gtest/gtest.h>

#include <bit>
#include <set>
#include <string>

namespace {

/* Members are bits; those that are not watched are the lowest ones. */
bool let_through(int32_t level, uint32_t sender, uint32_t asked, uint32_t dead,
                 uint32_t unknown) {
    uint32_t failed = sender | asked | ((dead | unknown) & ~sender);
    return std::popcount(failed) > level;
}

/* All answers that a request can get. */
std::set<bool> answers(int32_t level, int32_t members, int32_t unknown) {
    std::set<bool> found;
    uint32_t all = (1u << members) - 1;
    for (uint32_t sender = 1; sender <= all; sender <<= 1) {
        for (uint32_t asked = 0; asked <= all; asked++) {
            for (uint32_t dead = 0; dead <= all; dead++) {
                found.insert(let_through(level, sender, asked, dead,
                                         (1u << unknown) - 1));
            }
        }
    }
    return found;
}

verdict expected(int32_t level, int32_t members, int32_t unknown) {
    std::set<bool> found = answers(level, members, unknown);
    if (found.size() == 2) {
        return verdict::depends;
    }
    return found.contains(true) ? verdict::always : verdict::never;
}

TEST(judge_redundancy, says_what_the_rule_of_the_listener_comes_to) {
    for (int32_t members = 2; members <= 5; members++) {
        for (int32_t level = 1; level <= members + 1; level++) {
            for (int32_t unknown = 0; unknown <= members; unknown++) {
                EXPECT_EQ(judge_redundancy(level, members, unknown),
                          expected(level, members, unknown))
                    << level << " of " << members << ", unknown " << unknown;
            }
        }
    }
}

TEST(judge_redundancy, nothing_is_held_back_without_two_members_or_a_level) {
    for (int32_t members : {0, 1}) {
        EXPECT_EQ(judge_redundancy(1, members, 0), verdict::not_held_back);
    }
    for (int32_t level : {0, -1}) {
        EXPECT_EQ(judge_redundancy(level, 3, 0), verdict::not_held_back);
    }
}

} // namespace
