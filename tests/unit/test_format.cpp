/*
 * What the tables' proof of their own formats lets through.
 */
#include "tolva2/base/format.h"

#include <gtest/gtest.h>

namespace {

struct row {
    const char *text;
    const char *order;
    bool result;
};

constexpr row ROWS[] = {
    {"", "", true},
    {"plain", "", true},
    {"plain", "scs", true},
    {"%s", "scs", true},
    {"%s: -a%c", "scs", true},
    {"%s: -a%c `%s'", "scs", true},
    {"%s%c%s", "scs", true},
    {"%s: `%s'", "scs", false},
    {"%c", "scs", false},
    {"%s%c%s%s", "scs", false},
    {"%s", "", false},
    {"%d", "scs", false},
    {"%5s", "s", false},
    {"100%", "s", false},
    {"%", "", false},
    {"%%", "s", false},
    {"%s%%", "ss", false},
};

TEST(converts_only_test, knows_the_order) {
    for (const row &one : ROWS) {
        EXPECT_EQ(converts_only(one.text, one.order), one.result)
            << one.text << " " << one.order;
    }
}

/* And that while compiling. */
static_assert(converts_only("%s: %c", "scs"));
static_assert(!converts_only("%s: %s", "scs"));

} // namespace
