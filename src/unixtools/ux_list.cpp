/*
 * The doubly linked list. Each operation asserts what it relies on, where it
 * relies on it, and in a fixed order: the first broken invariant is named.
 */
#include "unixtools/ux_list.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_owned.h"

#include <cassert>

namespace {

ux_list_element *new_element(void *data) {
    auto *element = ux_new<ux_list_element>();
    if (element) {
        element->data = data;
    }
    return element;
}

} // namespace

ux_list *ux_list_init(ux_list *list, void (*destroy)(void *data)) {
    trace_in();
    if (list) {
        *list = ux_list{0, destroy, nullptr, nullptr};
    }
    return list;
}

void ux_list_destroy(ux_list *list) {
    trace_in();
    assert(list);
    while (list->tail) {
        assert(list->size);
        assert(list->head);
        void *data = nullptr;
        if (ux_list_rem(list, list->tail, &data) == 0 && list->destroy &&
            data) {
            list->destroy(data);
        }
    }
    assert(!list->size);
    assert(!list->head);
    assert(!list->tail);
    *list = ux_list{};
}

int32_t ux_list_ins_next(ux_list *list, ux_list_element *element, void *data) {
    trace_in();
    if (!list) {
        return -1;
    }
    ux_list_element *newelement = new_element(data);
    if (!newelement) {
        return -1;
    }
    if (!list->head) {
        assert(!list->tail);
        assert(!list->size);
        assert(!element);
        list->head = newelement;
        list->tail = newelement;
    } else {
        if (!element) {
            assert(0);
        }
        assert(list->tail);
        assert(list->size);
        newelement->next = element->next;
        newelement->prev = element;
        if (newelement->next) {
            assert(list->tail != element);
            assert(newelement->next->prev == element);
            newelement->next->prev = newelement;
        } else {
            assert(list->tail == element);
            list->tail = newelement;
        }
        element->next = newelement;
    }
    list->size++;
    return 0;
}

int32_t ux_list_ins_prev(ux_list *list, ux_list_element *element, void *data) {
    trace_in();
    if (!list) {
        return -1;
    }
    ux_list_element *newelement = new_element(data);
    if (!newelement) {
        return -1;
    }
    if (!list->size) {
        assert(!list->head);
        assert(!list->tail);
        assert(!element);
        list->head = newelement;
        list->tail = newelement;
    } else {
        if (!element) {
            assert(0);
        }
        assert(list->head);
        assert(list->tail);
        assert(list->size);
        newelement->next = element;
        newelement->prev = element->prev;
        if (newelement->prev) {
            assert(list->head != element);
            assert(newelement->prev->next == element);
            newelement->prev->next = newelement;
        } else {
            assert(list->head == element);
            list->head = newelement;
        }
        element->prev = newelement;
    }
    list->size++;
    return 0;
}

int32_t ux_list_rem(ux_list *list, ux_list_element *element, void **data_out) {
    trace_in();
    assert(list);
    assert(element);
    if (data_out) {
        *data_out = element->data;
    }
    assert(list->head);
    assert(list->tail);
    assert(list->size > 0);
    if (element == list->head) {
        assert(!element->prev);
        list->head = element->next;
        if (element == list->tail) {
            assert(!element->next);
            assert(list->size == 1);
            list->tail = nullptr;
        } else {
            assert(element->next);
            assert(list->size > 1);
            list->head->prev = nullptr;
        }
    } else {
        assert(element->prev);
        element->prev->next = element->next;
        if (element == list->tail) {
            assert(list->size > 1);
            assert(!element->next);
            list->tail = element->prev;
        } else {
            assert(list->size > 2);
            assert(element->next);
            element->next->prev = element->prev;
        }
    }
    ux_delete(element);
    list->size--;
    return 0;
}
