/* The key that somebody meant who wrote another. */
#include "tolva2/checkconf/known_key.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string nearest(std::string_view word) {
    int32_t key = nearest_key(word);
    return key == NO_KEY ? "none" : key_name(key);
}

TEST(known_key, a_key_is_found_as_it_is_written_alone) {
    EXPECT_STREQ(key_name(key_number("ListenPort")), "ListenPort");
    EXPECT_EQ(key_number("listenport"), NO_KEY);
    EXPECT_EQ(key_number("ListenPor"), NO_KEY);
    EXPECT_EQ(key_number(""), NO_KEY);
}

TEST(known_key, the_case_may_be_left_aside) {
    EXPECT_EQ(key_in_any_case("LISTENPORT"), key_number("ListenPort"));
    EXPECT_EQ(key_in_any_case("ListenPorts"), NO_KEY);
}

TEST(known_key, the_nearest_one_takes_the_fewest_letters) {
    EXPECT_EQ(nearest("AllowedAdresses"), "AllowedAddresses");
    EXPECT_EQ(nearest("AllowedAddress"), "AllowedAddresses");
    EXPECT_EQ(nearest("AliveAdress"), "AliveAddresses");
    EXPECT_EQ(nearest("shutdownprogram"), "ShutdownProg");
    EXPECT_EQ(nearest("LogFileNam"), "LogfileName");
    EXPECT_EQ(nearest("ExecProc"), "ExecProg");
}

TEST(known_key, what_is_too_far_away_is_none) {
    for (const char *word : {"Colour", "x", "", "Port"}) {
        EXPECT_EQ(nearest(word), "none") << word;
    }
    EXPECT_EQ(nearest(std::string(5000, 'A')), "none");
}

} // namespace
