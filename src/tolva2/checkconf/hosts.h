/*
 * The lists of addresses in the settings, word by word, as the listener makes
 * records of them: each name is looked up once, however often it stands there.
 */
#ifndef TOLVA2_CHECKCONF_HOSTS_H
#define TOLVA2_CHECKCONF_HOSTS_H

#include "tolva2/checkconf/checkup.h"
#include "tolva2/net/address.h"

/* What a list of addresses is for. */
struct host_list_kind {
    const char *key;
    bool ports;  /* may a word have a port? */
    bool listed; /* must it be an address, and no name? */
};

/* A list that was taken apart. Its records are inetaddr, which this module
 * owns: they stay until the process ends. */
class host_list {
  public:
    host_list() { ux_list_init(&list, nullptr); }
    ~host_list() { ux_list_destroy(&list); }
    host_list(const host_list &) = delete;
    host_list &operator=(const host_list &) = delete;

    ux_list list; /* those that the listener can use */
    int32_t named = 0;
};

/* Takes the text of a list apart, which may be null: a finding for each word
 * that is no address, or another one than it seems to be. A name that has to
 * be looked up may take ten seconds; then a terminal is told. Ends the process
 * when memory is exhausted. */
void check_hosts(const checkup &all, const host_list_kind &kind,
                 const char *text, host_list *hosts);

/* Is that address in the list? */
[[nodiscard]] bool lists_address(const host_list &hosts, const inetaddr *one);

#endif
