/*
 * Listen mode's sockets, signals and main loop. Called once, by mode
 * initialisation, when everything else is prepared.
 */
#ifndef TOLVA2_LISTEN_TOLVA_RECEIVE_H
#define TOLVA2_LISTEN_TOLVA_RECEIVE_H

#include "tolva2/files/settings.h"
#include "unixtools/ux_list.h"

/* Serves commands until a stop signal. allowed: who may send, empty for all;
 * alive: the servers to watch; redundancy: the redundant senders. Keeps
 * settings as rp. Returns the running flag: 0 after a stop signal, non-zero
 * when the sockets could not be opened or waiting failed. */
int32_t recv_mode(receiver_params *settings, const ux_list *allowed,
                  const ux_list *alive, const ux_list *redundancy);

#endif
