/*
 * Where the program was started from. Two path helpers that start-up uses to
 * find the program's name and, without TOLVAHOME, its home directory.
 */
#ifndef TOLVA2_START_PROGRAM_DIR_H
#define TOLVA2_START_PROGRAM_DIR_H

/* Points just behind the last "/" of path, or at path itself. */
const char *base_name(const char *path);

/*
 * The directory that holds the running executable, from argv[0] and, when
 * that has no "/", from PATH. Returns a heap text that the caller frees, or
 * null when nothing is found, a path is too long or memory is exhausted.
 */
char *find_program_dir(const char *argv0);

#endif
