/*
 * The settings that are a number, a truth value or the address to listen at:
 * is what was written what the listener makes of it?
 */
#ifndef TOLVA2_CHECKCONF_VALUES_H
#define TOLVA2_CHECKCONF_VALUES_H

#include "tolva2/checkconf/checkup.h"

#include <netinet/in.h>

/* A finding for each number, truth value and listen address that is none, is
 * outside its range, or makes no sense. Reads the settings in force. */
void check_values(const checkup &all);

/* A number that is written with digits alone, and a sign at most. */
[[nodiscard]] bool is_number(std::string_view text);

/* An address as the system writes it; empty: none. */
struct dotted_text {
    char text[INET_ADDRSTRLEN] = "";
};

/* What the listener takes text for, which may leave numbers out, or have them
 * octal. */
[[nodiscard]] dotted_text as_understood(const char *text);

#endif
