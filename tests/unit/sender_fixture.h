/*
 * Send and check mode as their steps see them: a run before its first
 * connection, and one with a connection that is open. What is static in the
 * mode is reached from here.
 */
#ifndef TESTS_UNIT_SENDER_FIXTURE_H
#define TESTS_UNIT_SENDER_FIXTURE_H

#include "sessions.h"

#include "tolva2/send/tolva_send.cpp" // NOLINT(bugprone-suspicious-include)

/* A kind of connection that nobody knows. */
constexpr auto NO_KIND = static_cast<address_kind>(8);

inline const std::string request_header = "CONNECT TO TOLVA (SEND)";
inline const std::string reply_header = "CONNECT TO TOLVA (REPLY)";

/* A run before its first connection. */
class fresh_run {
  public:
    explicit fresh_run(const char *text = nullptr) : lists(-1) {
        sender::run = {};
        sender::run.command = text;
    }
    operator_log log;
    session_lists lists;
};

/* One record with an open connection. */
class conversation : public fresh_run {
  public:
    explicit conversation(const char *text = nullptr,
                          mode_code mode = MODE_SEND,
                          address_kind type = ADDR_PEER)
        : fresh_run(text) {
        set_nonblocking(pair.near.get());
        number = pair.near.release();
        cn = add_record(connections, mode, type, "127.0.0.1", number,
                        EVENT_WRITABLE);
        cn->handler = sender::do_send_tolva;
        cn->ends = &sender::SEND_ENDS;
    }
    void await_reply() { wait_in(cn, EVENT_READABLE, sender::do_rcv_tolva); }
    void reply(const std::string &bytes) {
        send_bytes_to(pair.far.get(), bytes);
        EXPECT_TRUE(wait_for(number, POLLIN));
        sender::do_rcv_tolva(connections->head, EVENT_READABLE);
    }
    bool is_gone() const {
        return connections->size == 0 && !is_open(number) &&
               open_descriptors() == 0 && nothing_is_watched();
    }
    tcp_pair pair;
    int number;
    connection *cn;
};

inline std::string status_reply(int status) {
    return reply_header +
           " COMMAND=x PID=1 EXITSTATUS=" + std::to_string(status);
}

#endif
