/*
 * The keys of the settings by name, and the one that somebody may have meant
 * who wrote another.
 */
#ifndef TOLVA2_CHECKCONF_KNOWN_KEY_H
#define TOLVA2_CHECKCONF_KNOWN_KEY_H

#include <cstdint>
#include <string_view>

constexpr int32_t NO_KEY = -1;

/* The number of a key in the order of the settings, or NO_KEY. Keys are
 * case-sensitive. */
[[nodiscard]] int32_t key_number(std::string_view word);

/* The same, whatever the case of the word is. */
[[nodiscard]] int32_t key_in_any_case(std::string_view word);

/* The key that takes the fewest letters to be changed, added or taken away, in
 * any case; NO_KEY when that would be more than half of the word. */
[[nodiscard]] int32_t nearest_key(std::string_view word);

/* The key of a number, which must be one. */
[[nodiscard]] const char *key_name(int32_t number);

#endif
