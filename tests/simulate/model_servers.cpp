/*
 * UPS servers: a logon and a logoff at each in every cycle, and the members of
 * a redundant set.
 */
#include "model.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace simulate {

namespace {

constexpr size_t MEMBERS = 30;
constexpr size_t BATCH_NAME = 511;

} // namespace

bool model::given_up(const party &server) {
    if (settings.alive_retries > 0 &&
        server.failures >= settings.alive_retries && !server.busy) {
        report(832, server.name);
        return true;
    }
    return false;
}

bool model::lose(party *server) {
    server->socket = 0;
    server->failures++;
    report(828, server->name);
    /* The moment of the failure, which is that of the line if there is one. */
    std::string moment =
        server->name + " " + date_text(clock) + " " + time_text(clock);
    start_script(server, settings.alive_prog, moment.substr(0, 127));
    return !given_up(*server);
}

void model::cancel_all() {
    for (auto one = servers.begin(); one != servers.end();) {
        auto it = one++;
        if (it->socket != 0 && !lose(&*it)) {
            servers.erase(it);
        }
    }
}

void model::start_all() {
    for (auto one = servers.begin(); one != servers.end();) {
        auto it = one++;
        int error = 0;
        int number = 0;
        if (open_sockets() >= settings.max_fds) {
            log_error(EMFILE, "error: ");
            error = -1;
        } else {
            const fact *made = &take(act::socket, "a socket for a server");
            bool out = made->error == EMFILE || made->error == ENFILE;
            if (out && made->held > 0) {
                made = &take(act::socket, "a socket, without the reserve");
            }
            error = made->error;
            number = made->who;
            if (error == 0 && next_is(act::flags_failed)) {
                error = take(act::flags_failed, "").error;
            }
            if (error == 0 && made->result >= 1024) {
                error = EMFILE;
            }
            if (error == 0) {
                const fact &begun = take(act::connect, number, "connect");
                if (begun.peer != it->address || begun.port != it->port) {
                    position--;
                    differs("connect to " + it->name + ":" +
                            std::to_string(it->port));
                }
                error = begun.error == EINPROGRESS ? 0 : begun.error;
            }
            if (error != 0) {
                log_error(error);
            }
        }
        if (error == 0) {
            it->socket = number;
            it->step = 0;
        } else if (!lose(&*it)) {
            servers.erase(it);
        }
    }
}

/* Steps: 0 say logon, 1 hear, 2 say logoff, 3 hear. */
bool model::serve_server(party *server, bool readable, bool writable) {
    bool fine = server->step % 2 == 0 ? writable : readable;
    int number = server->socket;
    fine = fine &&
           take(act::socket_error, number, "the server's socket").result == 0;
    if (fine && server->step % 2 == 0) {
        const fact &sent = take(act::send, number, "a line to the server");
        char line[64];
        snprintf(line, sizeof line, "WINCLIENT %05d %s",
                 static_cast<int>(sent.limit),
                 server->step == 0 ? "LOGON" : "LOGOFF");
        std::string text(line, std::string(line).size() + 1);
        if (sent.text != text) {
            position--;
            differs("the line: " + text);
        }
        fine = sent.result == static_cast<int64_t>(text.size());
    } else if (fine) {
        const fact &came = take(act::receive, number, "the server's answer");
        const std::string &text = came.text;
        bool answer = text.size() >= 3 && isdigit(text[0]) != 0 &&
                      text[1] == '|' && isdigit(text[2]) != 0;
        fine = answer || server->step == 3;
    }
    if (server->step == 3) {
        server->socket = 0;
        server->failures = 0;
        report(814, server->name);
        return true;
    }
    if (!fine) {
        return lose(server);
    }
    if (server->step == 2) {
        if (take(act::shut, number, "no more to the server").limit != SHUT_WR) {
            differs("shutdown of sending");
        }
    }
    server->step++;
    return true;
}

bool model::is_alive(const std::string &name) const {
    for (const party &one : servers) {
        if (one.name == name) {
            return one.socket != 0 && one.failures == 0;
        }
    }
    return false;
}

void model::prepare_redundancy() {
    redundancy.on = settings.redundancy == "True";
    if (redundancy.on) {
        redundancy.batch = settings.batch_file;
        if (redundancy.batch.size() > BATCH_NAME) {
            redundancy.batch.clear();
            write_line("error: RedundancyBatchFile is longer than 511 "
                       "characters and will not be run");
        }
    }
    for (uint32_t one : settings.members) {
        if (redundancy.members.size() < MEMBERS) {
            redundancy.members.push_back(dotted(one));
        }
    }
    redundancy.asked.assign(redundancy.members.size(), false);
    redundancy.lost.assign(redundancy.members.size(), false);
    if (settings.members.size() > MEMBERS) {
        write_line("error: more than 30 RedundancyAddresses, only the first "
                   "30 are used");
    }
}

bool model::completes_shutdown(party *sender) {
    bool enough = true;
    const auto &members = redundancy.members;
    auto member = std::find(members.begin(), members.end(), sender->name);
    if (redundancy.on && settings.level > 0 && members.size() > 1 &&
        member != members.end()) {
        redundancy.asked[static_cast<size_t>(member - members.begin())] = true;
        cancel_all();
        start_all();
        int failed = 0;
        for (size_t i = 0; i < members.size(); i++) {
            if (members[i] != sender->name) {
                redundancy.lost[i] = !is_alive(members[i]);
            }
            failed += redundancy.asked[i] || redundancy.lost[i] ? 1 : 0;
        }
        enough = failed > settings.level;
        if (!enough) {
            write_line("Shutdown suppressed, redundancy-level = " +
                       std::to_string(settings.level) +
                       ", failure count = " + std::to_string(failed) + ".");
            if (!settings.batch_suppress) {
                start_script(sender, redundancy.batch, "");
            }
        }
    }
    std::string answer = enough ? "returning: TRUE\n" : "returning: FALSE\n";
    if (take(act::said, answer).text != answer) {
        position--;
        differs(answer);
    }
    return enough;
}

} // namespace simulate
