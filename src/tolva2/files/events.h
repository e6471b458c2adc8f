/*
 * The operator's events by name: which message of the database each one is,
 * how many texts it is given, and what has happened when it is reported. What
 * it says is up to the database; an event without a text there is silent.
 */
#ifndef TOLVA2_FILES_EVENTS_H
#define TOLVA2_FILES_EVENTS_H

#include "tolva2/files/logfile.h"
#include "tolva2/files/msgdb.h"

#include <concepts>

/* A message of the database that is given that many texts. */
template <int32_t count> struct event_message { int32_t number; };

/* One that not every database knows. */
template <int32_t count> struct added_event { int32_t number; };

/* clang-format off */
namespace event
{
/* Of both modes. */
constexpr event_message<1> server_alive{814};     /* UPS server: its address */
constexpr event_message<1> server_not_alive{828}; /* UPS server: its address */
constexpr event_message<0> not_understood{819};   /* no request, no reply */

/* Of the sender; the text is the address. */
constexpr event_message<0> sender_started{758};
constexpr event_message<0> sender_finished{759};
constexpr event_message<1> connecting{785};
constexpr event_message<1> command_sent{787};
constexpr event_message<1> send_failed{753};
constexpr event_message<1> broadcasting{833};
constexpr event_message<0> broadcast_failed{810};

/* Of the listener. */
constexpr event_message<0> tcp_listening{756};
constexpr event_message<0> tcp_stopped{757};
constexpr event_message<0> udp_listening{821};
constexpr event_message<0> udp_stopped{822};
constexpr event_message<0> watch_started{829};
constexpr event_message<0> watch_stopped{830};
constexpr event_message<1> server_dropped{832};   /* for good: its address */
constexpr event_message<1> refused{835};          /* the sender's address */
constexpr event_message<0> message_received{795};
constexpr event_message<0> nothing_received{796};
constexpr event_message<1> datagram_received{824}; /* the sender's address */
constexpr event_message<0> datagram_failed{825};
constexpr event_message<0> command_unknown{820};  /* or empty */
constexpr event_message<1> script_started{792};   /* its command line */
constexpr event_message<1> script_finished{794};  /* its command line */
constexpr event_message<1> script_failed{793};    /* its command line */

/* Told beside those above, where the database has a text for it. */
constexpr added_event<1> script_abandoned{836}; /* the server's address */
constexpr added_event<2> members_missing{837};  /* usable, named */
constexpr added_event<1> request_from{838};     /* over TCP: the sender's */
constexpr added_event<1> script_status{839};    /* it ended with, not 0 */
constexpr added_event<1> script_killed{840};    /* by which signal */
constexpr added_event<1> script_stopped{841};   /* by which signal */
constexpr added_event<0> everybody_admitted{842};
constexpr added_event<1> clock_set_back{843};   /* seconds */
constexpr added_event<1> reply_unusable{844};   /* the listener's address */
constexpr added_event<1> no_answer{845};        /* in time: its address */
constexpr added_event<3> cannot_listen{846};       /* address, port, why */

/* All of them, for who looks at a database as a whole. */
constexpr int32_t NUMBERS[] = {
    server_alive.number, server_not_alive.number, not_understood.number,
    sender_started.number, sender_finished.number, connecting.number,
    command_sent.number, send_failed.number, broadcasting.number,
    broadcast_failed.number, tcp_listening.number, tcp_stopped.number,
    udp_listening.number, udp_stopped.number, watch_started.number,
    watch_stopped.number, server_dropped.number, refused.number,
    message_received.number, nothing_received.number, datagram_received.number,
    datagram_failed.number, command_unknown.number, script_started.number,
    script_finished.number, script_failed.number, script_abandoned.number,
    members_missing.number, request_from.number, script_status.number,
    script_killed.number, script_stopped.number, everybody_admitted.number,
    clock_set_back.number, reply_unusable.number, no_answer.number,
    cannot_listen.number};
} // namespace event
/* clang-format on */

/* Logs an event with its texts, as many as it is declared with. True when a
 * line was written. */
template <std::convertible_to<const char *>... texts>
bool report(event_message<sizeof...(texts)> what, texts... arguments) {
    return log_message(sizeof...(texts), msgdb_get(what.number), arguments...);
}

/* The same; without a text nothing is done, and nothing traced. */
template <std::convertible_to<const char *>... texts>
bool report(added_event<sizeof...(texts)> what, texts... arguments) {
    const char *text = msgdb_peek(what.number);
    return text && log_message(sizeof...(texts), text, arguments...);
}

#endif
