#include "unixtools/ux_number.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

struct number_case {
    const char *text;
    int32_t expected;
};

class ux_number : public testing::Test {
  protected:
    void check(const number_case &c);
};

void ux_number::check(const number_case &c) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(ux_atoi(c.text), c.expected) << "of >" << c.text << "<";
}

TEST_F(ux_number, texts) {
    for (const number_case &c : {number_case{"", 0},
                                 number_case{"0", 0},
                                 number_case{"-0", 0},
                                 number_case{"6003", 6003},
                                 number_case{"+6003", 6003},
                                 number_case{"-6003", -6003},
                                 number_case{"0010", 10},
                                 number_case{"  \t\n\v\f\r42", 42},
                                 number_case{" -7 ", -7},
                                 number_case{"12abc", 12},
                                 number_case{"12 34", 12},
                                 number_case{"abc", 0},
                                 number_case{"a12", 0},
                                 number_case{"0x10", 0},
                                 number_case{"1e3", 1},
                                 number_case{"3.9", 3},
                                 number_case{"--5", 0},
                                 number_case{"+-5", 0},
                                 number_case{"- 5", 0},
                                 number_case{"-", 0},
                                 number_case{"+", 0},
                                 number_case{" ", 0},
                                 number_case{"\xe4"
                                             "5",
                                             0},
                                 number_case{"5\xe4", 5},
                                 number_case{"\xb2", 0}}) {
        check(c);
    }
}

TEST_F(ux_number, past_32_bits) {
    for (const number_case &c :
         {number_case{"2147483646", 2147483646},
          number_case{"2147483647", INT32_MAX},
          number_case{"2147483648", INT32_MAX},
          number_case{"4294967295", INT32_MAX},
          number_case{"4294967296", INT32_MAX},
          /* 6003 more than 2 to the 32nd is not port 6003. */
          number_case{"4294973299", INT32_MAX},
          number_case{"9223372036854775807", INT32_MAX},
          number_case{"9223372036854775808", INT32_MAX},
          number_case{"18446744073709557619", INT32_MAX},
          number_case{"99999999999999999999999999", INT32_MAX},
          number_case{"-2147483647", -2147483647},
          number_case{"-2147483648", INT32_MIN},
          number_case{"-2147483649", INT32_MIN},
          number_case{"-4294961293", INT32_MIN},
          number_case{"-9223372036854775809", INT32_MIN},
          number_case{"-99999999999999999999999", INT32_MIN}}) {
        check(c);
    }
}

TEST(ux_number_long, many_digits_neither_wrap_nor_overrun) {
    EXPECT_EQ(ux_atoi(std::string(5000, '9').c_str()), INT32_MAX);
    EXPECT_EQ(ux_atoi(('-' + std::string(5000, '9')).c_str()), INT32_MIN);
    EXPECT_EQ(ux_atoi((std::string(5000, '0') + "7").c_str()), 7);
    EXPECT_EQ(ux_atoi((std::string(5000, ' ') + "8").c_str()), 8);
}

} // namespace
