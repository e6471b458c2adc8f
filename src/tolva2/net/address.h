/*
 * Remote parties as IPv4 address records in lists: their text forms, and the
 * resolution of host names, which never takes longer than ten seconds. The
 * option parser adds single addresses, mode initialisation whole lists.
 */
#ifndef TOLVA2_NET_ADDRESS_H
#define TOLVA2_NET_ADDRESS_H

#include "tolva2/base/codes.h"
#include "unixtools/ux_list.h"
#include "unixtools/ux_owned.h"

#include <netinet/in.h>

constexpr uint32_t ADDRESS_TEXT = 16; /* dotted quad and terminator */

/* One remote party; on the heap, owned by its list. */
struct inetaddr {
    mode_code mode; /* when it was added */
    address_kind kind;
    sockaddr_in addr;
    char text[ADDRESS_TEXT];
    int16_t port; /* host byte order, as 16 bits; 0 when none was given */
};

/* Cuts text at its last ":", in place: *host is the text, *port the number
 * behind the ":" or 0. Returns *host, or null for a null or empty text. */
char *split_addr(char **host, int32_t *port, char *text);

/* Reads "[host:]port": cuts text at its last ":", *host is what stands before
 * it or null. Returns the port; 0 for a null or empty text. */
int32_t split_port(char **host, char *text);

/* Builds a record; a host that is no dotted address is resolved first. Null
 * when memory is exhausted or, after a message on standard error, when the
 * name does not resolve. */
[[nodiscard]] ux_owner<inetaddr> new_inetaddr(const char *host, uint16_t port,
                                              address_kind kind,
                                              mode_code mode);

/* Frees a record; a list destructor. */
void destroy_inetaddr(void *data);

/* Appends the address "host[:port]" to list, cutting text in place. False
 * when text is empty or no address could be found. Ends the process with one
 * line when memory is exhausted. */
[[nodiscard]] bool add_inetaddr(ux_list *list, char *text, address_kind kind,
                                mode_code mode);

/* Appends every address of a text separated by white space; those that are
 * none are left out. Returns how many were added. Ends the process with one
 * line when memory is exhausted: a list that lost a member would let in or
 * watch somebody else. */
int32_t get_inetaddr_arr_from_str(ux_list *list, const char *text,
                                  address_kind kind, mode_code mode);

/* Asks the resolver, for as long as it takes. Returns the first IPv4 address
 * as text in a static buffer, or null. */
const char *GetHostAddrFromHostName(const char *name);

/*
 * Arms a one-shot SIGALRM after that many seconds; false on failure. The
 * handler says so on standard error; without SA_RESTART, it interrupts waits.
 */
bool start_timeout(int32_t seconds);
void stop_timeout();
void sigalrm_itimer(int32_t signal);

#endif
