/*
 * Clients whose commands are run.
 */
#ifndef TESTS_UNIT_COMMAND_FIXTURE_H
#define TESTS_UNIT_COMMAND_FIXTURE_H

#include "listener_fixture.h"

#include "tolva2/listen/command.h"
#include "tolva2/net/sockets.h"

inline connection *add_client(address_kind type = ADDR_PEER, int fd = -1,
                              const char *address = "127.0.0.1") {
    return add_record(clients, MODE_LISTEN, type, address, fd);
}

inline bool run_text(connection *cn, std::string text) {
    return exec_V2command(cn, text.data());
}

#endif
