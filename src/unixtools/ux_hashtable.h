/*
 * A chained hash table of untyped data pointers, with the caller's hash and
 * match functions; each bucket is a list in order of insertion. The
 * configuration file engine is its user. Data are stored, never copied.
 */
#ifndef UNIXTOOLS_UX_HASHTABLE_H
#define UNIXTOOLS_UX_HASHTABLE_H

#include "unixtools/ux_list.h"

struct ux_hashtable {
    uint32_t buckets;
    uint32_t (*hash)(const void *data);
    int32_t (*match)(const void *left, const void *right);
    void (*destroy)(void *data); /* may be null */
    uint32_t size;
    ux_list *table;
};

/* h = h * 33 + byte from 5381 on, over unsigned bytes, wrapping at 32 bits. */
uint32_t ux_hash_string(const char *text);

/* Prepares ht with that many buckets. Asserts "ht" and "buckets". Returns 0,
 * or -1 when memory is exhausted, and then ht is unchanged. */
[[nodiscard]] int32_t ux_hashtable_init(ux_hashtable *ht, uint32_t buckets,
                                        uint32_t (*hash)(const void *data),
                                        int32_t (*match)(const void *left,
                                                         const void *right),
                                        void (*destroy)(void *data));

/* Destroys every datum and the table; clears the record. Asserts "ht". */
void ux_hashtable_destroy(ux_hashtable *ht);

/* Stores data under its key. Returns 0; 1 when the key is there already, and
 * then the caller still owns data; -1 when memory is exhausted. */
[[nodiscard]] int32_t ux_hashtable_insert(ux_hashtable *ht, void *data);

/* Stores *data. A datum with the same key is handed back in *data, which the
 * caller then owns: 1. Otherwise *data becomes null: 0. Out of memory: -1,
 * *data is unchanged. */
[[nodiscard]] int32_t ux_hashtable_replace(ux_hashtable *ht, void **data);

/* Takes out the datum with the key of *data; it is handed back in *data and
 * belongs to the caller. Returns 0, or -1 when there is none. */
[[nodiscard]] int32_t ux_hashtable_remove(ux_hashtable *ht, void **data);

/* Finds the datum with the key of *data and puts it into *data; the table
 * keeps it. Returns 0, or -1 when there is none. */
[[nodiscard]] int32_t ux_hashtable_lookup(ux_hashtable *ht, void **data);

#endif
