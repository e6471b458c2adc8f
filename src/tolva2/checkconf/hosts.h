/*
 * The lists of addresses in the settings, word by word, as the listener makes
 * records of them: each name is looked up once, however often it stands there.
 */
#ifndef TOLVA2_CHECKCONF_HOSTS_H
#define TOLVA2_CHECKCONF_HOSTS_H

#include "tolva2/checkconf/checkup.h"
#include "tolva2/net/address.h"

/* What a list of addresses is for. */
struct named_hosts_kind {
    const char *key;
    bool ports;  /* may a word have a port? */
    bool listed; /* must it be an address, and no name? */
};

/* A list that was taken apart. Its records are inetaddr, which this module
 * owns: they stay until the process ends. */
class named_hosts {
  public:
    named_hosts() { ux_list_init(&list, nullptr); }
    ~named_hosts() { ux_list_destroy(&list); }
    named_hosts(const named_hosts &) = delete;
    named_hosts &operator=(const named_hosts &) = delete;

    ux_list list; /* those that the listener can use */
    int32_t named = 0;
};

/* Takes the text of a list apart, which may be null: a finding for each word
 * that is no address, or another one than it seems to be. A name that has to
 * be looked up may take ten seconds; then a terminal is told. Ends the process
 * when memory is exhausted. */
void check_hosts(const checkup &all, const named_hosts_kind &kind,
                 const char *text, named_hosts *hosts);

/* Is that address in the list? */
[[nodiscard]] bool lists_address(const named_hosts &hosts, const inetaddr *one);

#endif
