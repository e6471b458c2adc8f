/*
 * Reads, writes and rewrites plain key=value files. The caller describes its
 * settings in a topic table whose rows point at the caller's storage and
 * defaults; in between, a file is a hash table of cfgmodule records.
 */
#ifndef UNIXTOOLS_UX_CONFIGFILE_H
#define UNIXTOOLS_UX_CONFIGFILE_H

#include "unixtools/ux_hashtable.h"
#include "unixtools/ux_owned.h"

/* Kinds of row; rows of any other type are passed over. */
enum ux_option_type : int32_t {
    UX_OPTION_INTEGER = 1, /* value and default are numbers */
    UX_OPTION_STRING = 2,  /* value and default are texts */
    UX_OPTION_TEXT = 3,    /* as a string; the client reads more into it */
    UX_OPTION_LITERAL = 4, /* a line that ux_writeconfig writes as it stands */
};

/* Where the caller keeps a value: the member of the row's type, or none. */
struct ux_storage {
    int32_t *number = nullptr;
    ux_text *text = nullptr;
};

/* One row of the topic table; a row with a null ident ends the table. */
struct ux_option {
    ux_option_type type = {};
    const char *ident = nullptr;   /* the key, or the whole line of a literal */
    ux_storage value = {};         /* none for a literal */
    ux_storage default_value = {}; /* may be none; the text may be null */
    int32_t reserved1 = 0;
    int32_t reserved2 = 0;
};

/* What became of a row. */
enum ux_option_result : int32_t {
    UX_OPTION_NO_MEMORY = -1,
    UX_OPTION_NO_DEFAULT = 0, /* neither value nor default: left as it was */
    UX_OPTION_DONE = 1,
};

/* Fill the table's storage from the file, or from the defaults for keys that
 * are absent or have no value. missing_ok non-zero: a file that is absent, a
 * directory or empty, or that may not be opened, gives every default. Returns
 * 1, or 0, and then only some of the storage may have been filled. A file that
 * breaks off, and a lack of memory or descriptors, give 0 whatever missing_ok
 * is. Asserts "topic_table". */
[[nodiscard]] int32_t ux_readconfig(const char *path,
                                    const ux_option *topic_table,
                                    uint32_t buckets, int32_t missing_ok);

/* Writes a new file from the table and leaves the process's file-creation
 * mask at octal 026. Returns 1, or 0 and then the file is removed. Asserts
 * "topic_table". */
[[nodiscard]] int32_t ux_writeconfig(const char *path,
                                     const ux_option *topic_table);

/* Puts the table's values back into an existing file and keeps its comments,
 * blank lines and order; invalid and unknown lines go, missing keys are
 * appended. Returns 1, or 0; a file that cannot be rewritten to its end stops
 * the process ("ret"). Asserts "topic_table". */
[[nodiscard]] int32_t ux_rewriteconfig(const char *path,
                                       const ux_option *topic_table,
                                       uint32_t buckets);

/* The steps behind the three, each of use alone. */

/* Stores value_text, or the default when it is null, into the row's storage,
 * which gives up what it held before. Rows without storage and of other types
 * are done. Asserts "op && op->type && op->ident". */
[[nodiscard]] ux_option_result set_option_value(const ux_option *op,
                                                const char *value_text);

/* Adds every setting of the file to table, the last one of a key winning.
 * Returns 1 when the file was read to its end and held at least one line. */
[[nodiscard]] int32_t file_to_hashtable(const char *path, ux_hashtable *table);

/* Rewrites the file from the table's records, which are used up. Returns 1,
 * or 0 when no temporary file can be had. Asserts "ret". */
[[nodiscard]] int32_t hashtable_to_file(const char *path,
                                        const ux_option *topic_table,
                                        ux_hashtable *table);

#endif
