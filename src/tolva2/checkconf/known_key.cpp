/*
 * How far two words are apart is counted in a row of the usual table, which
 * holds for the letters of the key so far.
 */
#include "tolva2/checkconf/known_key.h"
#include "tolva2/files/settings.h"

#include <algorithm>
#include <cctype>
#include <strings.h>

namespace {

constexpr size_t LONGEST_WORD = 40; /* longer than any key */

char lower(char letter) {
    return static_cast<char>(tolower(static_cast<unsigned char>(letter)));
}

/* The letters to be changed, added or taken away; word is not too long. */
size_t distance(std::string_view word, std::string_view key) {
    size_t row[LONGEST_WORD + 1] = {};
    for (size_t i = 0; i <= word.size(); i++) {
        row[i] = i;
    }
    for (char letter : key) {
        size_t diagonal = row[0]++;
        for (size_t i = 0; i < word.size(); i++) {
            size_t changed = diagonal + (lower(word[i]) != lower(letter));
            diagonal = row[i + 1];
            row[i + 1] = std::min({changed, row[i] + 1, diagonal + 1});
        }
    }
    return row[word.size()];
}

bool same_in_any_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/* The first key that is the word in the eyes of same. */
template <typename equality>
int32_t find_key(std::string_view word, equality same) {
    int32_t number = 0;
    for (const setting_view &one : settings_in_force()) {
        if (same(word, std::string_view(one.key))) {
            return number;
        }
        number++;
    }
    return NO_KEY;
}

} // namespace

int32_t key_number(std::string_view word) {
    return find_key(word, std::equal_to<std::string_view>());
}

int32_t key_in_any_case(std::string_view word) {
    return find_key(word, same_in_any_case);
}

int32_t nearest_key(std::string_view word) {
    if (word.size() > LONGEST_WORD) {
        return NO_KEY;
    }
    size_t best = word.size() / 2 + 1;
    int32_t nearest = NO_KEY;
    int32_t number = 0;
    for (const setting_view &one : settings_in_force()) {
        size_t apart = distance(word, one.key);
        if (apart < best) {
            best = apart;
            nearest = number;
        }
        number++;
    }
    return nearest;
}

const char *key_name(int32_t number) {
    return settings_in_force()[static_cast<size_t>(number)].key;
}
