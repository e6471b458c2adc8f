/*
 * Where the program was started from. Two path helpers that start-up uses to
 * find the program's name and, without TOLVAHOME, its home directory.
 */
#ifndef TOLVA2_START_PROGRAM_DIR_H
#define TOLVA2_START_PROGRAM_DIR_H

#include "unixtools/ux_owned.h"

/* Points just behind the last "/" of path, or at path itself. */
const char *base_name(const char *path);

/* The directory that holds the running executable, from argv[0] and, when
 * that has no "/", from PATH. Null when nothing is found, a path is too long or
 * memory is exhausted. */
[[nodiscard]] ux_text find_program_dir(const char *argv0);

#endif
