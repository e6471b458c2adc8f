/*
 * The logon and logoff at a UPS management server that shows it to be alive,
 * one handler per step. Both modes install the first handler and a pair of
 * endings; everything after that happens here.
 */
#ifndef TOLVA2_NET_KESDAL_H
#define TOLVA2_NET_KESDAL_H

#include "tolva2/net/connection.h"

/* Handlers of a record whose connect is under way, in this order. The first
 * three call the record's cancel ending on any failure; the last cannot fail
 * and calls its end ending. Each asserts "cn". */
void do_kesdal_send_logon(ux_list_element *node, event_bits events);
void do_kesdal_recv_logon(ux_list_element *node, event_bits events);
void do_kesdal_send_logoff(ux_list_element *node, event_bits events);
void do_kesdal_recv_logoff(ux_list_element *node, event_bits events);

#endif
