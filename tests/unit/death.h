/*
 * What a child of a death test leaves behind: the text of a failed assertion
 * as a regular expression.
 */
#ifndef TESTS_UNIT_DEATH_H
#define TESTS_UNIT_DEATH_H

#include <gtest/gtest.h>

#include <csignal>
#include <string>

/*
 * Matches the failed assertion of exactly that condition in file, which is
 * named by its module: "ux_list" is ux_list.cpp.
 */
inline std::string assertion(const std::string &module,
                             const std::string &condition) {
    std::string pattern = module + "\\.cpp:[0-9]+: .*Assertion `";
    for (char c : condition) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern + "' failed";
}

/* The statement must abort the process with that failed assertion. */
#define EXPECT_ASSERTION(statement, module, condition)                         \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT),                   \
                assertion(module, condition))

#endif
