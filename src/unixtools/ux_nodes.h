/*
 * Lists walked with range-for, by their nodes or by their typed records. The
 * successor is fetched before the body runs, so the body may remove the node
 * it is at; what it appends is visited only if the walk is not at its end yet.
 */
#ifndef UNIXTOOLS_UX_NODES_H
#define UNIXTOOLS_UX_NODES_H

#include "unixtools/ux_list.h"

#include <cstddef>

/* A node as it is. */
inline ux_list_element *ux_node(ux_list_element *node) { return node; }

/* The record of a node; may be null. */
template <typename record> record *ux_record(ux_list_element *node) {
    return static_cast<record *>(node->data);
}

/* A list from head to tail, and at the same time the place where a walk is;
 * show says what the body sees of each node. */
template <auto show> class ux_walk {
  public:
    explicit ux_walk(const ux_list *list) { stand_at(list->head); }
    ux_walk begin() const { return *this; }
    std::nullptr_t end() const { return nullptr; }
    bool operator!=(std::nullptr_t) const { return here; }
    auto operator*() const { return show(here); }
    void operator++() { stand_at(next); }

  private:
    void stand_at(ux_list_element *node) {
        here = node;
        next = node ? node->next : nullptr;
    }
    ux_list_element *here = nullptr;
    ux_list_element *next = nullptr;
};

/* for (ux_list_element *node : ux_nodes(list)) */
using ux_nodes = ux_walk<ux_node>;

/* for (inetaddr *entry : ux_records<inetaddr>(list)) */
template <typename record> using ux_records = ux_walk<ux_record<record>>;

#endif
