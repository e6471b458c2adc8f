/*
 * Reads, writes and rewrites plain key=value files. The caller describes its
 * settings in a topic table whose rows point at the caller's storage and
 * defaults; in between, a file is a hash table of cfgmodule records.
 */
#ifndef UNIXTOOLS_UX_CONFIGFILE_H
#define UNIXTOOLS_UX_CONFIGFILE_H

#include "unixtools/ux_hashtable.h"

#include <cstdio>

/* Kinds of row; rows of any other type are passed over. */
enum ux_option_type : int32_t {
    UX_OPTION_INTEGER = 1, /* value and default are int32_t */
    UX_OPTION_STRING = 2,  /* value and default are char *, value on the heap */
    UX_OPTION_TEXT = 3,    /* as a string; the client reads more into it */
    UX_OPTION_LITERAL = 4, /* a line that ux_writeconfig writes as it stands */
};

/* One row of the topic table; a row with a null ident ends the table. */
struct ux_option {
    int32_t type;
    const char *ident;   /* the key, or the whole line of a literal */
    void *value;         /* int32_t * or char **; null for a literal */
    void *default_value; /* of the same kind; the text may be null */
    int32_t reserved1;
    int32_t reserved2;
};

/* One parsed line. Each text is null or owned by the record. */
struct cfgmodule {
    char *ident;
    char *value;
    char *comment;
};

/*
 * Fill the table's storage from the file, or from the defaults for keys that
 * are absent or have no value. missing_ok non-zero: a file that cannot be
 * read, or is empty, gives every default. Returns 1, or 0 on failure. Asserts
 * "topic_table".
 */
[[nodiscard]] int32_t ux_readconfig(const char *path, ux_option *topic_table,
                                    uint32_t buckets, int32_t missing_ok);

/*
 * Writes a new file from the table and leaves the process's file-creation
 * mask at octal 026. Returns 1, or 0 and then the file is removed.
 */
[[nodiscard]] int32_t ux_writeconfig(const char *path, ux_option *topic_table);

/*
 * Puts the table's values back into an existing file and keeps its comments,
 * blank lines and order; invalid and unknown lines go, missing keys are
 * appended. Returns 1, or 0; a file that cannot be rewritten to its end stops
 * the process ("ret").
 */
[[nodiscard]] int32_t ux_rewriteconfig(const char *path, ux_option *topic_table,
                                       uint32_t buckets);

/* The steps behind the three, each of use alone. */

/* Heap record with copies of the texts that are not null; null on failure. */
cfgmodule *new_cfgmodule(const char *ident, const char *value,
                         const char *comment);
void destroy_cfgmodule(void *data);
uint32_t hash_cfgmodule(const void *data);
int32_t match_cfgmodule(const void *left, const void *right);

/* Cuts blanks at the front and blanks, CR, LF at the end; null if nothing. */
char *strip(char *text);

/* Cuts CR and LF at the end; null when nothing is left. */
char *strip_newline(char *text);

/*
 * Takes one line apart, in place; result points into it. Returns 1 for a
 * usable line (setting, comment, blank), 0 for an invalid one.
 */
int32_t parse_line(char *line, cfgmodule *result);

/*
 * Stores value_text, or the default when it is null, into the row's storage;
 * what the storage held before is not freed. Returns 0 when there is neither,
 * else 1. Asserts "op && op->type && op->ident".
 */
int32_t set_option_value(ux_option *op, const char *value_text);

/*
 * Adds every setting of the file to table, the last one of a key winning.
 * Returns 1 when the file was read to its end and held at least one line.
 */
int32_t file_to_hashtable(const char *path, ux_hashtable *table);

/*
 * Rewrites the file from the table's records, which are used up. Returns 1,
 * or 0 when no temporary file can be had. Asserts "ret".
 */
int32_t hashtable_to_file(const char *path, ux_option *topic_table,
                          ux_hashtable *table);

/* Writes one record as a line. Returns 1, or 0 at the first failed write. */
int32_t write_cfgmodule(const cfgmodule *record, FILE *stream);

#endif
