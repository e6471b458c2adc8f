/*
 * A fuzzer's bytes as the terminated texts that the parsers are given, each
 * on the heap, so that a read past the end is seen.
 */
#ifndef TESTS_FUZZ_INPUT_H
#define TESTS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

/* A terminated copy; the caller frees it. */
inline char *fuzz_text(const uint8_t *data, size_t size) {
    char *text = static_cast<char *>(malloc(size + 1));
    if (!text) {
        abort();
    }
    memcpy(text, data, size);
    text[size] = '\0';
    return text;
}

/* Stops the fuzzer when something that must hold does not. */
inline void fuzz_check(bool holds) {
    if (!holds) {
        abort();
    }
}

#endif
