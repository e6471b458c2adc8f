/*
 * The options as such: what one of them looks like, which letters there are,
 * and the record of what they say. The command line hands the arguments over
 * one by one; what an option is to be refused for stands in a table here.
 */
#ifndef TOLVA2_START_OPTIONS_H
#define TOLVA2_START_OPTIONS_H

#include "tolva2/base/codes.h"
#include "tolva2/net/address.h"
#include "unixtools/ux_list.h"
#include "unixtools/ux_owned.h"

#include <cstdint>
#include <string_view>

/* A list of address records; those that it has at its end go with it. */
class address_list {
  public:
    address_list() { ux_list_init(&list, destroy_inetaddr); }
    ~address_list() {
        if (!is_empty()) {
            ux_list_destroy(&list);
        }
    }
    address_list(const address_list &) = delete;
    address_list &operator=(const address_list &) = delete;

    [[nodiscard]] bool is_empty() const { return list.size == 0; }
    ux_list *get() { return &list; }

  private:
    ux_list list{};
};

/* What the arguments say. Null texts, ports of 0 and numbers below 0 were not
 * given. The lists go in the order peers, servers, redundant. */
struct cmdline_options {
    mode_code mode = MODE_NONE;
    ux_text cfgfile{};
    char *listen_host = nullptr; /* part of an argument */
    int32_t port = 0;
    int32_t check_port = 0;
    int32_t retries = -1;
    ux_text shutdown_prog{};
    ux_text alive_prog{};
    int32_t timeout = -1;
    int32_t check_interval = -1;
    ux_text command{};
    address_list redundant{};
    address_list servers{};
    address_list peers{};
};

/* An argument that begins with "-", as an option. */
struct typed_option {
    const char *whole;
    char letter; /* in lower case; NUL for "-" */
    char third;  /* as typed; NUL for none */
};

/* Reads an argument that begins with "-"; the result points to it. */
[[nodiscard]] typed_option read_option(const char *argument);

/* True when a row with these letters is for the option. They are the option's
 * letter, then each third character that the row is for, with NUL for no third
 * one; without any of them it is for all. */
[[nodiscard]] constexpr bool is_for(std::string_view letters,
                                    const typed_option &option) {
    return letters[0] == option.letter &&
           (letters.size() == 1 ||
            letters.find(option.third, 1) != letters.npos);
}

/* Puts into the record what an option says; value is the argument behind it,
 * which may be cut up, or null when that is none or another option. Returns
 * true when the option has used the value. One that is unknown, in the wrong
 * mode or without a good value ends the process with one line and status 1. */
[[nodiscard]] bool take_option(cmdline_options *options, const char *argument,
                               char *value);

#endif
