/*
 * The hash table: the caller's hash picks a bucket, the caller's match finds
 * the element in it, and the list does the rest.
 */
#include "unixtools/ux_hashtable.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_nodes.h"

#include <cassert>
#include <cstdlib>
#include <span>
#include <utility>

namespace {

/* The bucket that holds, or would hold, the key of data. */
ux_list *bucket_of(const ux_hashtable *ht, const void *data, bool shown) {
    uint32_t bucket = ht->hash(data) % ht->buckets;
    if (shown) {
        debug_printf("DEBUG: bucket = %u\n", bucket);
    }
    return &ht->table[bucket];
}

std::span<ux_list> buckets_of(const ux_hashtable *ht) {
    return {ht->table, ht->buckets};
}

} // namespace

uint32_t ux_hash_string(const char *text) {
    trace_in();
    uint32_t h = 5381;
    while (*text) {
        h = h * 33 + static_cast<unsigned char>(*text++);
    }
    return h;
}

int32_t ux_hashtable_init(ux_hashtable *ht, uint32_t buckets,
                          uint32_t (*hash)(const void *data),
                          int32_t (*match)(const void *left, const void *right),
                          void (*destroy)(void *data)) {
    trace_in();
    assert(ht);
    assert(buckets);
    /* By hand: the record belongs to the caller and holds a plain pointer. */
    void *table = calloc(buckets, sizeof(ux_list));
    if (!table) {
        return -1;
    }
    *ht = {buckets, hash, match, destroy, 0, static_cast<ux_list *>(table)};
    for (ux_list &bucket : buckets_of(ht)) {
        ux_list_init(&bucket, destroy);
    }
    return 0;
}

void ux_hashtable_destroy(ux_hashtable *ht) {
    trace_in();
    assert(ht);
    for (ux_list &bucket : buckets_of(ht)) {
        ux_list_destroy(&bucket);
    }
    free(ht->table);
    *ht = ux_hashtable{};
}

/* The four operations walk a bucket alike. Each does so itself, so that a
 * datum that is missing stops the process in the operation's own name. */

int32_t ux_hashtable_insert(ux_hashtable *ht, void *data) {
    trace_in();
    assert(ht);
    assert(data);
    ux_list *list = bucket_of(ht, data, true);
    for (const ux_list_element *element : ux_nodes(list)) {
        assert(element->data);
        if (ht->match(data, element->data)) {
            return 1;
        }
    }
    int32_t result = ux_list_ins_next(list, list->tail, data);
    if (result == 0) {
        ht->size++;
    }
    return result;
}

int32_t ux_hashtable_replace(ux_hashtable *ht, void **data) {
    trace_in();
    assert(ht);
    assert(data);
    assert(*data);
    ux_list *list = bucket_of(ht, *data, true);
    debug_printf("DEBUG: list->size = %u\n", list->size);
    for (ux_list_element *element : ux_nodes(list)) {
        assert(element->data);
        if (ht->match(*data, element->data)) {
            std::swap(*data, element->data);
            return 1;
        }
    }
    int32_t result = ux_list_ins_next(list, list->tail, *data);
    if (result == 0) {
        *data = nullptr;
        ht->size++;
    }
    return result;
}

int32_t ux_hashtable_remove(ux_hashtable *ht, void **data) {
    trace_in();
    assert(ht);
    assert(data);
    assert(*data);
    ux_list *list = bucket_of(ht, *data, false);
    for (ux_list_element *element : ux_nodes(list)) {
        assert(element->data);
        if (ht->match(*data, element->data)) {
            if (ux_list_rem(list, element, data) != 0) {
                return -1;
            }
            ht->size--;
            return 0;
        }
    }
    return -1;
}

int32_t ux_hashtable_lookup(ux_hashtable *ht, void **data) {
    trace_in();
    assert(ht);
    assert(data);
    assert(*data);
    for (const ux_list_element *element :
         ux_nodes(bucket_of(ht, *data, true))) {
        assert(element->data);
        if (ht->match(*data, element->data)) {
            *data = element->data;
            return 0;
        }
    }
    return -1;
}
