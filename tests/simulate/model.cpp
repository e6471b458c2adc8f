/*
 * The reading of the facts, and the listener's loop as it must be.
 */
#include "model.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <strings.h>
#include <sys/socket.h>

namespace simulate {

model::model(const day_plan &of, const std::vector<fact> &happened)
    : settings(of.settings), facts(happened) {}

const fact *model::peek() {
    for (; position < facts.size(); position++) {
        const fact &one = facts[position];
        if (one.what == act::signal) {
            child_ended = child_ended || one.result == SIGCHLD;
            stopped = stopped || one.result == SIGTERM ||
                      one.result == SIGQUIT || one.result == SIGINT;
        } else if (one.what == act::log_removed) {
            log.clear();
            log_exists = false;
        } else if (one.what != act::outside) {
            return &one;
        }
    }
    return nullptr;
}

bool model::next_is(act what) {
    const fact *one = peek();
    return one != nullptr && one->what == what;
}

void model::differs(const std::string &expected) {
    const fact *one = peek();
    fail("must come: " + expected + "\n     comes: " +
         (one != nullptr ? "#" + std::to_string(position) + " " + describe(*one)
                         : "nothing more"));
}

const fact &model::take(act what, const std::string &why) {
    if (!next_is(what)) {
        differs(why);
    }
    const fact &one = facts[position++];
    clock = one.clock;
    return one;
}

const fact &model::take(act what, int who, const std::string &why) {
    if (!next_is(what) || peek()->who != who) {
        differs(why + " (socket " + std::to_string(who) + ")");
    }
    return take(what, why);
}

bool model::memory_fails(which_call call) {
    if (next_is(act::no_memory) && peek()->who == 0 && peek()->limit == call) {
        take(act::no_memory, "");
        return true;
    }
    return false;
}

int model::open_sockets() const {
    int count = (door != 0 ? 1 : 0) + (datagram_socket != 0 ? 1 : 0);
    for (const auto *parties : {&senders, &servers}) {
        for (const party &one : *parties) {
            count += one.socket != 0 ? 1 : 0;
        }
    }
    return count;
}

/* --- what is opened ------------------------------------------------------- */

void model::cannot_listen(int error, const std::string &how) {
    log_error(error);
    std::string text;
    if (!look_up(846, &text)) {
        return;
    }
    write_line("cannot listen on address 0.0.0.0, port " +
               std::to_string(LISTEN_PORT) + ": " + strerror(error));
    std::string answer =
        "tolva: cannot listen on ListenAddress=0.0.0.0 ListenPort=" +
        std::to_string(LISTEN_PORT) + " (" + how + "): " + strerror(error) +
        "\n";
    if (take(act::said, answer).text != answer) {
        position--;
        differs(answer);
    }
}

bool model::open_door() {
    const fact &made = take(act::socket, "a socket for the door");
    int error = made.result < 0 ? made.error : 0;
    int number = made.who;
    if (made.limit != SOCK_STREAM) {
        differs("a stream socket");
    }
    if (error == 0 && next_is(act::flags_failed)) {
        error = take(act::flags_failed, "").error;
    }
    if (error == 0 && made.result >= 1024) {
        error = EMFILE;
    }
    if (error == 0 && next_is(act::option_failed)) {
        log_error(take(act::option_failed, "").error);
    }
    if (error == 0) {
        const fact &bound = take(act::bind, number, "bind");
        error = bound.error;
        if (bound.peer != 0 || bound.port != LISTEN_PORT) {
            differs("bind to the configured address and port");
        }
    }
    if (error == 0) {
        const fact &heard = take(act::listen, number, "listen");
        error = heard.error;
        if (heard.limit != 128) {
            differs("a backlog of 128");
        }
    }
    if (error != 0) {
        cannot_listen(error, "tcp");
        return false;
    }
    door = number;
    report(756);
    return true;
}

/* Nobody is told: it matters to a listener that follows at once. */
void model::reuse_may_fail() {
    if (next_is(act::option_failed) && peek()->limit == SO_REUSEADDR) {
        take(act::option_failed, "");
    }
}

bool model::open_datagrams() {
    const fact &made = take(act::socket, "a socket for datagrams");
    int error = made.result < 0 ? made.error : 0;
    if (made.limit != SOCK_DGRAM) {
        differs("a datagram socket");
    }
    for (act failure : {act::flags_failed, act::option_failed}) {
        if (error == 0 && next_is(failure)) {
            error = take(failure, "").error;
        }
    }
    if (error == 0 && made.result >= 1024) {
        error = EMFILE;
    }
    if (error == 0) {
        reuse_may_fail();
        const fact &bound = take(act::bind, made.who, "bind of datagrams");
        error = bound.error;
        if (bound.port != LISTEN_PORT) {
            differs("bind to the configured port");
        }
    }
    if (error == 0) {
        reuse_may_fail();
    }
    if (error != 0) {
        cannot_listen(error, "udp");
        return false;
    }
    datagram_socket = made.who;
    report(821);
    return true;
}

bool model::open_servers() {
    /* A record and its place in the list, for each. */
    int64_t made = facts[position - 1].blocks;
    for (const watched_server &one : settings.servers) {
        made += 2;
        if (next_is(act::no_memory) && peek()->blocks < made &&
            memory_fails(CALL_CALLOC)) {
            log_error(ENOMEM);
            return false;
        }
        party server;
        server.is_server = true;
        server.address = one.address;
        server.name = dotted(one.address);
        server.port = one.port != 0 ? one.port : SERVER_PORT;
        servers.push_back(server);
    }
    report(829);
    last_cycle = now - settings.alive_interval + 5;
    return true;
}

/* --- the wait ------------------------------------------------------------- */

int model::accepting() const {
    if (open_sockets() >= settings.max_fds) {
        return 1;
    }
    if (pause.waiting && open_sockets() >= pause.open_then &&
        now == pause.when) {
        return 2;
    }
    return 0;
}

bool model::crowded() {
    return accepting() != 0 &&
           take(act::look_at_door, "a look at the door").result != 0;
}

/* Those who have said nothing in time go; -1 when nobody is waited for. */
int64_t model::late_senders() {
    int64_t result = -1;
    int64_t furthest = now + settings.listen_timeout;
    for (auto one = senders.begin(); one != senders.end();) {
        auto it = one++;
        if (it->deadline == 0) {
            continue;
        }
        if (now >= it->deadline) {
            log_error(ETIMEDOUT, "error: ");
            senders.erase(it);
        } else if (it->deadline > furthest) {
            it->deadline = furthest;
            result = furthest;
        } else {
            return it->deadline - now;
        }
    }
    return result;
}

int64_t model::expected_limit() {
    int64_t limit = -1;
    if (!senders.empty() && settings.listen_timeout != 0) {
        limit = late_senders();
    }
    if (!servers.empty()) {
        int64_t left = settings.alive_interval - (now - last_cycle);
        if (left <= 0) {
            left = crowded() ? 1 : 0;
        }
        limit = limit < 0 ? left : std::min(limit, left);
    }
    if ((accepting() == 2 || now == datagrams_failed) &&
        (limit < 0 || limit > 1)) {
        limit = 1;
    }
    return limit;
}

namespace {

std::string show(const std::set<int> &numbers) {
    std::string text;
    for (int one : numbers) {
        text += " " + std::to_string(one);
    }
    return text;
}

} // namespace

void model::expect_wait() {
    int64_t limit = expected_limit();
    std::set<int> readable;
    std::set<int> writable;
    if (accepting() == 0) {
        readable.insert(door);
    }
    if (datagram_socket != 0 && now != datagrams_failed) {
        readable.insert(datagram_socket);
    }
    for (const party &one : senders) {
        if (one.socket != 0 && !one.heard) {
            readable.insert(one.socket);
        } else if (one.armed) {
            writable.insert(one.socket);
        }
    }
    int64_t used = 0;
    for (const auto *parties : {&senders, &servers}) {
        for (const party &one : *parties) {
            used += one.has_line ? 3 : 2;
        }
    }
    for (const party &one : servers) {
        if (one.socket != 0) {
            (one.step % 2 == 0 ? writable : readable).insert(one.socket);
        }
    }
    std::string expected = "a wait of " + std::to_string(limit) +
                           " s to read from" + show(readable) + " to write to" +
                           show(writable) + ", " +
                           std::to_string(open_sockets()) + " sockets open";
    if (!next_is(act::wait)) {
        differs(expected);
    }
    const fact &asked = *peek();
    if (blocks < 0) {
        blocks = asked.blocks - used;
    }
    if (asked.limit != limit || asked.sockets != open_sockets() ||
        std::set<int>(asked.readable.begin(), asked.readable.end()) !=
            readable ||
        std::set<int>(asked.writable.begin(), asked.writable.end()) !=
            writable) {
        differs(expected);
    }
    if (asked.blocks != blocks + used) {
        differs(expected + " and " + std::to_string(blocks + used) +
                " blocks on the heap, not " + std::to_string(asked.blocks));
    }
    take(act::wait, expected);
}

bool model::pass() {
    expect_wait();
    const fact &found = take(act::waited, "the end of the wait");
    int64_t before = now;
    now = clock;
    if (now < before) {
        report(843, std::to_string(before - now));
    }
    last_cycle = std::min(last_cycle, now);
    if (found.result < 0) {
        if (found.error != EINTR) {
            log_error(found.error);
        }
        return found.error == EINTR;
    }
    if (found.result == 0) {
        bool due =
            !servers.empty() && now - last_cycle >= settings.alive_interval;
        if (due && !crowded()) {
            last_cycle = now;
            cancel_all();
            start_all();
        }
        return true;
    }
    std::set<int> readable(found.readable.begin(), found.readable.end());
    std::set<int> writable(found.writable.begin(), found.writable.end());
    if (readable.count(door) != 0) {
        admit();
    }
    if (datagram_socket != 0 && readable.count(datagram_socket) != 0) {
        receive_datagram();
    }
    for (auto one = senders.begin(); one != senders.end();) {
        auto it = one++;
        bool stays = true;
        if (readable.count(it->socket) != 0) {
            stays = receive(&*it);
        } else if (writable.count(it->socket) != 0) {
            stays = reply(&*it);
        }
        if (!stays) {
            senders.erase(it);
        }
    }
    for (auto one = servers.begin(); one != servers.end();) {
        auto it = one++;
        bool reads = readable.count(it->socket) != 0;
        bool writes = writable.count(it->socket) != 0;
        if ((reads || writes) && !serve_server(&*it, reads, writes)) {
            servers.erase(it);
        }
    }
    return true;
}

void model::check_end() {
    for (const party &one : senders) {
        if (facts.back().at > DAY + 3600 * SECOND && !one.owed) {
            fail("a sender is left in the evening");
        }
    }
}

void model::run() {
    now = facts.front().clock;
    prepare_redundancy();
    if (next_is(act::reserve_failed)) {
        take(act::reserve_failed, "");
    }
    bool udp = strcasecmp(settings.listen_udp.c_str(), "true") == 0 &&
               !settings.allowed.empty();
    if (open_door() && (!udp || open_datagrams()) &&
        (settings.servers.empty() || open_servers())) {
        for (;;) {
            peek();
            if (stopped) {
                check_end();
                break;
            }
            if (child_ended) {
                collect();
                child_ended = false;
            }
            if (!pass()) {
                break;
            }
        }
    }
    if (!servers.empty()) {
        report(830);
    }
    if (datagram_socket != 0) {
        reuse_may_fail();
        report(822);
    }
    if (door != 0) {
        report(757);
    }
    if (peek() != nullptr) {
        differs("the end");
    }
}

} // namespace simulate
