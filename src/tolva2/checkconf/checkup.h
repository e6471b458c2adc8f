/*
 * What every check needs: the settings as they were written, the home, and
 * where findings go.
 */
#ifndef TOLVA2_CHECKCONF_CHECKUP_H
#define TOLVA2_CHECKCONF_CHECKUP_H

#include "tolva2/checkconf/config_text.h"
#include "tolva2/checkconf/known_key.h"

#include <cassert>

struct checkup {
    const config_text *text;
    const char *home;
    bool open_wanted; /* everybody may send, and that is wanted */
    findings *found;
};

/* Where a setting comes from; the key must be one. */
[[nodiscard]] inline const written_setting &written(const checkup &all,
                                                    const char *key) {
    int32_t number = key_number(key);
    assert(number != NO_KEY);
    return all.text->settings[number];
}

#endif
