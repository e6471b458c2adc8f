/*
 * The command line: which mode, which options, and the call of that mode.
 * main hands the arguments over; every usage error ends the process here with
 * one line and status 1.
 */
#ifndef TOLVA2_START_CMDLINE_H
#define TOLVA2_START_CMDLINE_H

#include "tolva2/base/codes.h"

#include <cstdint>
#include <span>

/* Reads the arguments, some of them cut up in place, and runs the mode that
 * they or the program's name choose. Returns its result. The first argument is
 * the program's own word, which is not looked at: progname has its name. */
[[nodiscard]] int32_t check_input(std::span<char *const> arguments);

/* The mode that the arguments name, the first of them left out as above;
 * MODE_NONE for none. Serves -?, -h and -v. */
[[nodiscard]] mode_code scan_mode(std::span<char *const> arguments);

#endif
