/*
 * The command line: which mode, which options, and the call of that mode.
 * main hands the arguments over; every usage error ends the process here with
 * one line and status 1.
 */
#ifndef TOLVA2_START_CMDLINE_H
#define TOLVA2_START_CMDLINE_H

#include "tolva2/base/codes.h"

#include <cstdint>

/*
 * Reads the arguments, some of them cut up in place, and runs the mode that
 * they or the program's name choose. Returns its result.
 */
int32_t check_input(int32_t argc, char **argv);

/* The mode that the arguments name, MODE_NONE for none. Serves -?, -h and -v. */
mode_code scan_mode(int32_t argc, char **argv);

#endif
