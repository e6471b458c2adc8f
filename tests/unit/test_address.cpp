/* Addresses as texts: how they are cut, read and put into lists. */
#include "address_list.h"
#include "children.h"
#include "failing_calls.h"
#include "resolver.h"

#include <netinet/in.h>

namespace {

/* As the program: the text is cut up in place, so it gets a copy. */
bool add(address_list &list, std::string text, address_kind kind = ADDR_PEER) {
    return add_inetaddr(list.get(), text.data(), kind, MODE_SEND);
}

struct split_row {
    const char *text;
    const char *host;
    int32_t port;
};

} // namespace

TEST(split_addr, cuts_at_the_last_colon) {
    const split_row rows[] = {
        {"host", "host", 0},
        {"192.168.1.10:6004", "192.168.1.10", 6004},
        {"h:1:2", "h:1", 2},
        {"h:abc", "h", 0},
        {"h:", "h", 0},
        {":", "", 0},
        {":77", "", 77},
        {"[::1]:80", "[::1]", 80},
        {"::1", ":", 1},
        {"h: 12x", "h", 12},
        {"h:-3", "h", -3},
        {"h:70000", "h", 70000},
        {"h:4294973299", "h", 2147483647},
        {"h:-99999999999", "h", -2147483647 - 1},
        {"\xe4:5", "\xe4", 5},
    };
    for (const split_row &row : rows) {
        std::string text = row.text;
        char *host = nullptr;
        int32_t port = 99;
        EXPECT_EQ(split_addr(&host, &port, text.data()), text.data());
        EXPECT_EQ(host, text.data());
        EXPECT_STREQ(host, row.host) << row.text;
        EXPECT_EQ(port, row.port) << row.text;
    }
}

TEST(split_addr, gives_null_for_nothing) {
    char empty[] = "";
    char *host = empty;
    int32_t port = 5;
    EXPECT_EQ(split_addr(&host, &port, nullptr), nullptr);
    EXPECT_EQ(split_addr(&host, &port, empty), nullptr);
}

TEST(split_port, reads_a_port_with_or_without_host) {
    const split_row rows[] = {
        {"6003", nullptr, 6003},
        {"10.0.0.1:7000", "10.0.0.1", 7000},
        {"a:b:9", "a:b", 9},
        {":81", "", 81},
        {"host", nullptr, 0},
        {"host:", "host", 0},
        {"70000", nullptr, 70000},
        {"-1", nullptr, -1},
        {"4294973299", nullptr, 2147483647},
        {"h:4294973299", "h", 2147483647},
    };
    for (const split_row &row : rows) {
        std::string text = row.text;
        char before[] = "before";
        char *host = before;
        EXPECT_EQ(split_port(&host, text.data()), row.port) << row.text;
        if (row.host == nullptr) {
            EXPECT_EQ(host, nullptr) << row.text;
            EXPECT_EQ(text, row.text);
        } else {
            EXPECT_EQ(host, text.data()) << row.text;
            EXPECT_STREQ(host, row.host);
        }
    }
}

TEST(split_port, gives_zero_for_nothing) {
    char empty[] = "";
    char *host = nullptr;
    EXPECT_EQ(split_port(&host, nullptr), 0);
    EXPECT_EQ(split_port(&host, empty), 0);
}

TEST(add_inetaddr, appends_in_order) {
    address_list list;
    EXPECT_TRUE(add(list, "10.0.0.1"));
    EXPECT_TRUE(add(list, "10.0.0.2:81", ADDR_BROADCAST));
    EXPECT_TRUE(add(list, "myhost:7"));
    EXPECT_EQ(list.content(), "10.0.0.1:0 10.0.0.2:81 10.1.2.3:7");
    EXPECT_EQ(list.last()->kind, ADDR_PEER);
    EXPECT_EQ(list.last()->mode, MODE_SEND);
}

TEST(add_inetaddr, cuts_the_text_in_place) {
    address_list list;
    char text[] = "10.0.0.2:81";
    EXPECT_TRUE(add_inetaddr(list.get(), text, ADDR_PEER, MODE_SEND));
    EXPECT_STREQ(text, "10.0.0.2");
    EXPECT_STREQ(text + 9, "81");
}

TEST(add_inetaddr, cuts_a_port_to_16_bits) {
    struct row {
        const char *text;
        uint16_t port;
    };
    const row rows[] = {
        {"10.0.0.1:70000", 4464},
        {"10.0.0.1:65536", 0},
        {"10.0.0.1:65535", 65535},
        {"10.0.0.1:-1", 65535},
        {"10.0.0.1:x", 0},
        /* Past 32 bits: the largest number, not what happens to be left. */
        {"10.0.0.1:4294973299", 65535},
    };
    for (const row &one : rows) {
        address_list list;
        EXPECT_TRUE(add(list, one.text));
        EXPECT_EQ(list.last()->port, static_cast<int16_t>(one.port))
            << one.text;
        EXPECT_EQ(ntohs(list.last()->addr.sin_port), one.port) << one.text;
    }
}

TEST(add_inetaddr, adds_nothing_for_nothing_or_an_unknown_name) {
    program_name name("prog");
    address_list list;
    EXPECT_FALSE(add_inetaddr(list.get(), nullptr, ADDR_PEER, MODE_SEND));
    EXPECT_FALSE(add(list, ""));
    capture errors(STDERR_FILENO);
    EXPECT_FALSE(add(list, "unknown.invalid:5"));
    EXPECT_FALSE(add(list, "[::1]:80"));
    EXPECT_FALSE(add(list, "h:1:2"));
    EXPECT_EQ(errors.text(), unresolved("unknown.invalid") +
                                 unresolved("[::1]") + unresolved("h:1"));
    EXPECT_EQ(list.size(), 0u);
}

TEST(add_inetaddr, ends_the_process_when_the_list_cannot_grow) {
    program_name name("prog");
    ending end = in_child([] {
        address_list list;
        /* What is left goes to the record. */
        failing_heap limit(1);
        add(list, "10.0.0.1");
    });
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.err,
              std::string("prog: malloc(): ") + strerror(ENOMEM) + "\n");
}

TEST(get_inetaddr_arr_from_str, takes_every_white_space_as_separator) {
    address_list list;
    EXPECT_EQ(get_inetaddr_arr_from_str(
                  list.get(),
                  "  127.0.0.1 127.0.0.2:5\t127.0.0.3\n127.0.0.4\v127.0.0.5"
                  "\f127.0.0.6\r\n 127.0.0.7 \n",
                  ADDR_KESDAL, MODE_LISTEN),
              7);
    EXPECT_EQ(list.content(),
              "127.0.0.1:0 127.0.0.2:5 127.0.0.3:0 127.0.0.4:0 127.0.0.5:0 "
              "127.0.0.6:0 127.0.0.7:0");
    EXPECT_EQ(list.last()->kind, ADDR_KESDAL);
    EXPECT_EQ(list.last()->mode, MODE_LISTEN);
}

TEST(get_inetaddr_arr_from_str, does_not_take_commas_as_separators) {
    program_name name("prog");
    address_list list;
    capture errors(STDERR_FILENO);
    EXPECT_EQ(get_inetaddr_arr_from_str(list.get(), "10.0.0.1,10.0.0.2",
                                        ADDR_PEER, MODE_LISTEN),
              0);
    EXPECT_EQ(errors.text(), unresolved("10.0.0.1,10.0.0.2"));
}

TEST(get_inetaddr_arr_from_str, leaves_out_what_fails_and_goes_on) {
    program_name name("prog");
    address_list list;
    capture errors(STDERR_FILENO);
    EXPECT_EQ(get_inetaddr_arr_from_str(list.get(),
                                        "10.0.0.1 unknown.invalid myhost",
                                        ADDR_PEER, MODE_LISTEN),
              2);
    EXPECT_EQ(errors.text(), unresolved("unknown.invalid"));
    EXPECT_EQ(list.content(), "10.0.0.1:0 10.1.2.3:0");
}

TEST(get_inetaddr_arr_from_str, works_on_a_copy) {
    address_list list;
    const char text[] = "10.0.0.1:5 10.0.0.2";
    EXPECT_EQ(
        get_inetaddr_arr_from_str(list.get(), text, ADDR_PEER, MODE_LISTEN), 2);
    EXPECT_STREQ(text, "10.0.0.1:5 10.0.0.2");
}

TEST(get_inetaddr_arr_from_str, gives_zero_for_nothing) {
    address_list list;
    EXPECT_EQ(
        get_inetaddr_arr_from_str(list.get(), nullptr, ADDR_PEER, MODE_LISTEN),
        0);
    EXPECT_EQ(get_inetaddr_arr_from_str(list.get(), "", ADDR_PEER, MODE_LISTEN),
              0);
    EXPECT_EQ(
        get_inetaddr_arr_from_str(list.get(), " \t\n", ADDR_PEER, MODE_LISTEN),
        0);
    EXPECT_EQ(list.size(), 0u);
}

/* A list that lost a member would let in or watch somebody else. */
TEST(get_inetaddr_arr_from_str, ends_the_process_when_memory_is_exhausted) {
    program_name name("tolva");
    for (int left = 0; left < 5; left++) {
        ending end = in_child([left] {
            address_list list;
            failing_heap exhausted(left);
            get_inetaddr_arr_from_str(list.get(), "10.0.0.1 10.0.0.2",
                                      ADDR_PEER, MODE_LISTEN);
        });
        EXPECT_EQ(end.status, 1) << left;
        EXPECT_EQ(end.err,
                  std::string("tolva: malloc(): ") + strerror(ENOMEM) + "\n");
    }
}
