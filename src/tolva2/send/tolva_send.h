/*
 * A whole run of send or check mode: one outbound connection per address, all
 * driven by one select() loop under one time limit, folded into an exit
 * status. Called once, by mode initialisation.
 */
#ifndef TOLVA2_SEND_TOLVA_SEND_H
#define TOLVA2_SEND_TOLVA_SEND_H

#include "unixtools/ux_list.h"

/* Sends command (may be null: the bare request) to every address of the list.
 * timeout in seconds for the whole run, 0: no limit. Returns the process's
 * exit status. */
int32_t send_mode(const ux_list *addresses, int32_t port, int32_t timeout,
                  const char *command);

#endif
