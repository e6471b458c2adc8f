/*
 * Puts the settings of a table into the lines of an old file, so that its
 * comments, blank lines and order stay. A record is used up by the line that
 * it is written to, so that each setting is written once.
 */
#ifndef UNIXTOOLS_UX_CFGMERGE_H
#define UNIXTOOLS_UX_CFGMERGE_H

#include "unixtools/ux_hashtable.h"

#include <cstdio>
#include <string_view>

/* Writes the table's record of a key with that comment, and destroys it; a key
 * that the table does not hold writes nothing. False when a write failed or
 * memory is exhausted. */
[[nodiscard]] bool merge_setting(const char *ident, std::string_view comment,
                                 ux_hashtable *table, FILE *merged);

/* Writes the lines of config to merged, those of settings with the values of
 * the table. Invalid lines and keys that the table does not hold, or no more,
 * go. False when config was not read to its end, or as above. */
[[nodiscard]] bool merge_lines(FILE *config, FILE *merged, ux_hashtable *table);

/* Puts what was merged in the place of the file at path. False when not all of
 * it could be written, and then the file is cut short. */
[[nodiscard]] bool replace_file(const char *path, FILE *merged);

#endif
