/*
 * Addresses as the command line or the settings give them, in a list of their
 * own.
 */
#ifndef TESTS_UNIT_ADDRESS_LIST_H
#define TESTS_UNIT_ADDRESS_LIST_H

#include "tolva2/net/address.h"
#include "unixtools/ux_nodes.h"

#include <gtest/gtest.h>

#include <string>

class address_list {
  public:
    explicit address_list(const std::string &text = "",
                          address_kind kind = ADDR_PEER,
                          mode_code mode = MODE_SEND) {
        ux_list_init(&list, destroy_inetaddr);
        get_inetaddr_arr_from_str(&list, text.c_str(), kind, mode);
    }
    ~address_list() { ux_list_destroy(&list); }
    address_list(const address_list &) = delete;
    address_list &operator=(const address_list &) = delete;

    address_list &add(const std::string &host, uint16_t port,
                      mode_code mode = MODE_SEND,
                      address_kind kind = ADDR_PEER) {
        std::string text = host + ":" + std::to_string(port);
        EXPECT_TRUE(add_inetaddr(&list, text.data(), kind, mode));
        return *this;
    }
    ux_list *get() { return &list; }
    const ux_list *get() const { return &list; }
    uint32_t size() const { return list.size; }
    const inetaddr *entry(int position) const {
        ux_list_element *node = list.head;
        while (position-- > 0) {
            node = node->next;
        }
        return ux_record<inetaddr>(node);
    }
    const inetaddr *last() const { return ux_record<inetaddr>(list.tail); }
    /* "text:port text:port", in order. */
    std::string content() const {
        std::string all;
        for (const inetaddr *one : ux_records<inetaddr>(&list)) {
            all += all.empty() ? "" : " ";
            all += std::string(one->text) + ":" + std::to_string(one->port);
        }
        return all;
    }

  private:
    ux_list list;
};

#endif
