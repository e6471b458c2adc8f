/*
 * A doubly linked list of untyped data pointers. It never looks into the
 * data, owns only its elements, and stops the process as soon as one of its
 * invariants is broken, so that a corrupted list is never walked further.
 */
#ifndef UNIXTOOLS_UX_LIST_H
#define UNIXTOOLS_UX_LIST_H

#include <cstdint>

struct ux_list_element {
    void *data;
    ux_list_element *next;
    ux_list_element *prev;
};

struct ux_list {
    uint32_t size;
    void (*destroy)(void *data); /* may be null */
    ux_list_element *head;
    ux_list_element *tail;
};

/* Makes list empty, with destroy (may be null) for ux_list_destroy. Returns
 * list, which may be null and is then left alone. */
ux_list *ux_list_init(ux_list *list, void (*destroy)(void *data));

/* Removes every element from the tail to the head, hands each non-null datum
 * to destroy, and clears the record to zero. Asserts "list". */
void ux_list_destroy(ux_list *list);

/* Insert a new element holding data after or before element; into an empty
 * list with a null element only. Return 0, or -1 for a null list or when
 * memory is exhausted, and then nothing has changed. */
[[nodiscard]] int32_t ux_list_ins_next(ux_list *list, ux_list_element *element,
                                       void *data);
[[nodiscard]] int32_t ux_list_ins_prev(ux_list *list, ux_list_element *element,
                                       void *data);

/* Unlinks and frees element; its datum goes to *data_out when that is not
 * null and is never freed. Asserts "list" and "element". Returns 0. */
int32_t ux_list_rem(ux_list *list, ux_list_element *element, void **data_out);

#endif
