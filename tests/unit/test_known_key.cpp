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

TEST(known_key, half_of_the_word_is_not_too_far_away) {
    EXPECT_EQ(nearest("istenPort"), "ListenPort");
    EXPECT_EQ(nearest("abcdefghijListenPort"), "ListenPort");
    EXPECT_EQ(nearest("abcdefghijkListenPort"), "none");
    EXPECT_EQ(nearest("abcdefghijklmnopqrstu"), "none");
}

TEST(known_key, of_two_that_are_as_near_the_first_is_taken) {
    bool name_first = key_number("LogfileName") < key_number("LogfileSize");
    EXPECT_EQ(nearest("LogfileNixe"),
              name_first ? "LogfileName" : "LogfileSize");
}

TEST(known_key, a_word_of_more_than_40_letters_is_no_key) {
    const std::string key = "RedundancyBatchSuppress";
    EXPECT_EQ(nearest(key + std::string(40 - key.size(), 'x')), key);
    EXPECT_EQ(nearest(key + std::string(41 - key.size(), 'x')), "none");
}

} // namespace
