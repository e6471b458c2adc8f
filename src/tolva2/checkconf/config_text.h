/*
 * A settings file as it was written: which line each setting comes from, and
 * in which words. What a line may mean is up to the parser that the listener
 * reads it with; what it was meant to be is guessed at here.
 */
#ifndef TOLVA2_CHECKCONF_CONFIG_TEXT_H
#define TOLVA2_CHECKCONF_CONFIG_TEXT_H

#include "tolva2/checkconf/findings.h"
#include "tolva2/files/settings.h"

/* Where a setting comes from. */
struct written_setting {
    int32_t line = NO_LINE; /* the last one with its key */
    ux_text value;          /* in its words; null: no value, so the default */
};

/* In the order of settings_in_force(). */
struct config_text {
    written_setting settings[SETTING_COUNT];
};

/* Reads the file, which can be opened and holds text. Every line that is no
 * setting, or one that the listener does not know, is a finding. Ends the
 * process when memory is exhausted. False when the file breaks off. */
[[nodiscard]] bool read_config_text(const char *path, config_text *text,
                                    findings *found);

/* Is the file one that the listener can make sense of: there, readable, not
 * empty, and plain text? A finding when it is not. */
[[nodiscard]] bool is_config_file(const char *path, findings *found);

#endif
