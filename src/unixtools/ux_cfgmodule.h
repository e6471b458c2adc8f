/*
 * One setting of a key=value file as a record on the heap, and what a hash
 * table needs to keep such records by their key. The same three texts, owned
 * or seen in a line, are written back as a line.
 */
#ifndef UNIXTOOLS_UX_CFGMODULE_H
#define UNIXTOOLS_UX_CFGMODULE_H

#include "unixtools/ux_cfgline.h"
#include "unixtools/ux_owned.h"

#include <cstdint>
#include <cstdio>

/* Each text may be null. A record with an ident alone serves as a key. */
struct cfgmodule {
    ux_text ident;
    ux_text value;
    ux_text comment;
};

/* Heap record with copies of the texts that are not null; null when memory is
 * exhausted. The caller owns it, and gives it to destroy_cfgmodule or to a
 * table that will. */
[[nodiscard]] cfgmodule *new_cfgmodule(const char *ident, const char *value,
                                       const char *comment);
void destroy_cfgmodule(void *data);

/* The hash of the ident alone; an absent one counts as empty. */
[[nodiscard]] uint32_t hash_cfgmodule(const void *data);

/* 1 when both records have the same ident, byte for byte, else 0. Either may
 * be null. */
[[nodiscard]] int32_t match_cfgmodule(const void *left, const void *right);

/* The texts of a record, for as long as it lives. */
[[nodiscard]] config_line view_cfgmodule(const cfgmodule *record);

/* Writes the texts as a line: key=value when there is an ident, and the
 * comment. Returns 1, or 0 at the first failed write. */
[[nodiscard]] int32_t write_cfgmodule(const config_line *texts, FILE *stream);

#endif
