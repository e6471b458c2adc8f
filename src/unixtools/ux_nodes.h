/*
 * Lists walked with range-for, by their nodes or by their typed records. The
 * successor is fetched before the body runs, so the body may remove the node
 * it is at; what it appends is visited only if the walk is not at its end yet.
 */
#ifndef UNIXTOOLS_UX_NODES_H
#define UNIXTOOLS_UX_NODES_H

#include "unixtools/ux_list.h"

/* A node as it is. */
inline ux_list_element *ux_node(ux_list_element *node) {
    return node;
}

/* The record of a node; may be null. */
template <typename record> record *ux_record(ux_list_element *node) {
    return static_cast<record *>(node->data);
}

/* A list from head to tail; show says what the body sees of each node. */
template <auto show> class ux_walk {
  public:
    explicit ux_walk(const ux_list *list) : head(list->head) {}

    class iterator {
      public:
        explicit iterator(ux_list_element *node)
            : here(node), next(node ? node->next : nullptr) {}
        auto operator*() const { return show(here); }
        iterator &operator++() { return *this = iterator(next); }
        bool operator!=(const iterator &other) const {
            return here != other.here;
        }

      private:
        ux_list_element *here;
        ux_list_element *next;
    };

    iterator begin() const { return iterator(head); }
    iterator end() const { return iterator(nullptr); }

  private:
    ux_list_element *head;
};

/* for (ux_list_element *node : ux_nodes(list)) */
using ux_nodes = ux_walk<ux_node>;

/* for (inetaddr *entry : ux_records<inetaddr>(list)) */
template <typename record> using ux_records = ux_walk<ux_record<record>>;

#endif
