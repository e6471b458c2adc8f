/*
 * Reads a number out of a text with the C library, which goes to 64 bits, and
 * keeps it within the 32 that the program counts in.
 */
#include "unixtools/ux_number.h"

#include <algorithm>
#include <cstdlib>

int32_t ux_atoi(const char *text) {
    /* strtoll saturates by itself, far outside what is kept here. */
    long long value = strtoll(text, nullptr, 10);
    return static_cast<int32_t>(
        std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}
