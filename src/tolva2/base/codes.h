/*
 * The numbers that several modules and the wire agree on: mode codes, kinds
 * of address, event bits, default ports. Constants only, includes nothing of
 * the program's own.
 */
#ifndef TOLVA2_BASE_CODES_H
#define TOLVA2_BASE_CODES_H

#include <cstdint>

/* What this run of the program does. */
enum mode_code : int32_t {
    MODE_NONE = 0,
    MODE_LISTEN = 1,      /* -l: the daemon */
    MODE_SEND = 2,        /* -s, -se: send a command */
    MODE_SEND_STATUS = 3, /* -sr: send a command, wait for its exit status */
    MODE_CHECK = 4,       /* -sc: is a UPS management server alive? */
};

/* What stands behind an address; also the type of a connection to it. */
enum address_kind : int32_t {
    ADDR_NONE = 0,
    ADDR_PEER = 1,      /* a listener to send to, or a sender */
    ADDR_BROADCAST = 2, /* a broadcast address; any UDP conversation */
    ADDR_KESDAL = 4,    /* a UPS management server */
};

/* What a socket waits for, and what the wait has found; may be both. */
enum event_bits : int32_t {
    EVENT_NONE = 0,
    EVENT_READABLE = 2,
    EVENT_WRITABLE = 4,
};

constexpr event_bits operator|(event_bits a, event_bits b) {
    return static_cast<event_bits>(static_cast<int32_t>(a) |
                                   static_cast<int32_t>(b));
}

constexpr int32_t DEFAULT_PORT = 6003;        /* listener, TCP and UDP */
constexpr int32_t DEFAULT_KESDAL_PORT = 5769; /* UPS management server */
constexpr int32_t DEFAULT_SEND_TIMEOUT = 10;  /* seconds, for a whole run */

/* Bytes of the largest stream text with its terminator, either direction. */
constexpr uint32_t TEXT_BUFFER = 4096;

/* Characters of the largest datagram: what fits an Ethernet frame. */
constexpr uint32_t DATAGRAM_TEXT = 1472;

#endif
