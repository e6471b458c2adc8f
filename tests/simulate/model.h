/*
 * What must happen, told from the listener's description and not from its
 * source: the model reads what the system was asked and what it answered, one
 * fact after the other, and says what has to come next.
 */
#ifndef TESTS_SIMULATE_MODEL_H
#define TESTS_SIMULATE_MODEL_H

#include "facts.h"
#include "plan.h"

#include <list>
#include <set>

namespace simulate {

/* A sender that is served, or a UPS server that is watched. */
struct party {
    int socket = 0; /* 0: none */
    uint32_t address = 0;
    std::string name{};
    bool over_tcp = false, is_server = false;
    /* A sender. */
    int64_t deadline = 0;
    bool wants_reply = false;
    int status = -1;
    bool armed = false; /* the reply waits for the socket */
    bool heard = false;
    /* Its script. */
    bool busy = false, owed = false;
    int64_t pid = 0;
    bool has_line = false;
    std::string line{};
    /* A server. */
    int port = 0, failures = 0, step = 0;
};

/* A request's text, taken apart. */
struct request {
    int kind = 0; /* 0: none, 1: the bare header, 2: a command */
    int fault = 0;
    bool wants_status = false;
    int command = -1;
    std::string parameters{};
};

class model {
  public:
    model(const day_plan &of, const std::vector<fact> &happened);
    /* Reads the day through; a difference is the end. */
    void run();

  private:
    const day_settings &settings;
    const std::vector<fact> &facts;
    size_t position = 0;
    int64_t clock = 0;

    bool stopped = false, child_ended = false;
    int64_t now = 0, last_cycle = 0, datagrams_failed = 0;
    bool datagram_refused = false;
    int door = 0, datagram_socket = 0;
    std::list<party> senders{};
    std::list<party> servers{};
    int64_t blocks = -1; /* on the heap, besides the parties */
    struct {
        bool waiting = false, told = false;
        int error = 0, open_then = 0;
        int64_t when = 0;
    } pause{};
    struct {
        bool on = false;
        std::vector<std::string> members{};
        std::vector<bool> asked{}, lost{};
        std::string batch{};
    } redundancy{};
    bool log_exists = false;
    std::string log{};

    /* Reading: model.cpp */
    const fact *peek();
    bool next_is(act what);
    const fact &take(act what, const std::string &why);
    const fact &take(act what, int who, const std::string &why);
    bool memory_fails(which_call call); /* at this point */
    [[noreturn]] void differs(const std::string &expected);

    /* The loop: model.cpp */
    void cannot_listen(int error, const std::string &how);
    bool open_door();
    void reuse_may_fail();
    bool open_datagrams();
    bool open_servers();
    bool pass();
    int64_t expected_limit();
    int64_t late_senders();
    void expect_wait();
    int open_sockets() const;
    int accepting() const; /* 0: yes, 1: no, 2: not now */
    bool crowded();
    void check_end();

    /* Senders: model_senders.cpp */
    void admit();
    void refused(int error);
    bool is_allowed(uint32_t address) const;
    bool new_sender(uint32_t address, int socket);
    void receive_datagram();
    bool receive(party *sender); /* false: it is gone */
    void run_request(party *sender, const std::string &text);
    void run_command(party *sender, const request &asked);
    bool reply(party *sender);
    void collect();
    bool finish(party *of, int status); /* false: it is gone */
    bool start_script(party *of, const std::string &program,
                      const std::string &parameters);

    /* Servers: model_servers.cpp */
    void cancel_all();
    void start_all();
    bool lose(party *server); /* false: it is given up */
    bool given_up(const party &server);
    bool serve_server(party *server, bool readable, bool writable);
    bool is_alive(const std::string &name) const;
    void prepare_redundancy();
    bool completes_shutdown(party *sender);

    /* Texts: model_texts.cpp */
    request read_request(std::string text);
    std::string read_parameters(int command, std::string rest, bool *found);
    std::string fill(const std::string &text, const std::string *parameters,
                     bool *filled);
    bool look_up(int number, std::string *text);
    bool report(int number, const std::string &with = "");
    bool write_line(const std::string &text);
    bool append_to_log(const std::string &line);
    bool cut_log(int64_t offset);
    void log_error(int error, const char *prefix = "system: ");
    bool opens(which_file which);
};

/* Dotted, and as the log shows a moment. */
std::string dotted(uint32_t address);
std::string date_text(int64_t clock);
std::string time_text(int64_t clock);

} // namespace simulate

#endif
