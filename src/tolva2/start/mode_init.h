/*
 * What stands between the command line and a mode's loop: settings with the
 * overrides of the command line, log, message texts, address lists, the last
 * checks, detaching. The option parser calls one of the two, once.
 */
#ifndef TOLVA2_START_MODE_INIT_H
#define TOLVA2_START_MODE_INIT_H

#include "unixtools/ux_list.h"
#include "unixtools/ux_owned.h"

/* Prepares and runs listen mode. Null texts, ports of 0 and numbers below 0
 * mean "not given". listen_host and the lists stay the caller's, and the lists
 * may grow. Start-up errors end the process with status 1. Returns recv_mode's
 * result. */
[[nodiscard]] int32_t init_receiver(ux_text cfgfile, const char *listen_host,
                                    int32_t port, int32_t check_port,
                                    ux_list *peers, ux_list *servers,
                                    ux_list *redundant, int32_t retries,
                                    ux_text shutdown_prog, ux_text alive_prog,
                                    int32_t timeout, int32_t check_interval);

/* Prepares and runs send or check mode. Returns send_mode's result. */
[[nodiscard]] int32_t init_sender(const ux_list *addresses, int32_t port,
                                  int32_t timeout, const char *command);

#endif
