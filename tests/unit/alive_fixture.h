/*
 * A listener that watches servers, and servers on loopback for it.
 */
#ifndef TESTS_UNIT_ALIVE_FIXTURE_H
#define TESTS_UNIT_ALIVE_FIXTURE_H

#include "listener_fixture.h"

#include "tolva2/listen/command.h"

/* A listener that watches servers. */
class server_watch : public listener {
  public:
    explicit server_watch(int32_t retries = 0) {
        settings.alive_retries = retries;
    }
    connection *add(const char *address, uint16_t port) {
        connection *cn =
            add_record(connections, MODE_LISTEN, ADDR_KESDAL, address);
        cn->addr = loopback(address, port);
        return cn;
    }
    /* Runs the alive script's command line into a file of arguments. */
    void log_arguments() {
        std::string script = log.directory().file(
            "alive.sh", "echo \"$@\" >> " + result_path() + "\n");
        settings.alive_prog = text("sh " + script);
    }
    std::string result_path() const { return log.directory().path("result"); }
};

/* A server for one exchange. */
class server {
  public:
    explicit server(const char *address = "127.0.0.1")
        : listening(listening_socket(address)) {}
    uint16_t port() const { return local_port(listening.get()); }
    void accept_one() {
        ASSERT_TRUE(wait_for(listening.get(), POLLIN));
        peer.reset(accept(listening.get(), nullptr, nullptr));
    }
    void answer(const char *text) const { send_bytes_to(peer.get(), text); }
    ux_fd listening;
    ux_fd peer;
};

/* Lets the record's handler go on when its socket is ready. */
inline void advance(ux_list_element *node, event_bits event) {
    const connection *cn = record_of(node);
    ASSERT_TRUE(
        wait_for(cn->fd.get(), event == EVENT_READABLE ? POLLIN : POLLOUT));
    ASSERT_NE(cn->handler, nullptr);
    cn->handler(node, event);
}

/* Collects scripts until the record's one is through. */
inline void collect(const connection *cn) {
    EXPECT_TRUE(wait_until([&] {
        reap_children();
        return !cn->busy;
    }));
}

#endif
