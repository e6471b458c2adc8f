/*
 * Senders: who is let in, what becomes of what they say, and what they get.
 */
#include "model.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <strings.h>

namespace simulate {

namespace {

constexpr int FIRST_UNWATCHABLE = 1024;
constexpr size_t COLLECTED_AT_ONCE = 256;

} // namespace

bool model::is_allowed(uint32_t address) const {
    return std::find(settings.allowed.begin(), settings.allowed.end(),
                     address) != settings.allowed.end();
}

/* One failure may be one client's; no descriptors, or the same failure again,
 * is a state that is told once and waited out. */
void model::refused(int error) {
    bool again = pause.error == error;
    if (!pause.told && !again) {
        log_error(error);
    }
    bool shortage = error == EMFILE || error == ENFILE || error == ENOBUFS ||
                    error == ENOMEM;
    pause.waiting = again || shortage;
    pause.told = pause.waiting;
    pause.error = error;
    pause.open_then = open_sockets();
    pause.when = clock;
}

void model::admit() {
    bool alone = open_sockets() <= 2;
    int error = 0;
    if (next_is(act::reserve_failed)) {
        error = take(act::reserve_failed, "").error;
    }
    const fact *came = nullptr;
    if (error == 0 || alone) {
        bool whole = error == 0;
        came = &take(act::accept, door, "accept");
        if (whole && came->held != 2) {
            position--;
            differs("a whole reserve before somebody is let in");
        }
        bool out = came->error == EMFILE || came->error == ENFILE;
        if (out && alone && came->held > 0) {
            came = &take(act::accept, door, "accept, without the reserve");
        }
        error = came->error;
        if (error == 0 && came->limit >= FIRST_UNWATCHABLE) {
            error = EMFILE;
        }
    }
    if (error != 0) {
        refused(error);
        return;
    }
    uint32_t address = came->peer;
    int socket = static_cast<int>(came->result);
    pause.waiting = false;
    pause.error = 0;
    if (pause.told) {
        pause.told = take(act::look_at_door, "is more waiting?").result != 0;
    }
    if (settings.senders_named && !is_allowed(address)) {
        report(835, dotted(address));
        return;
    }
    if (new_sender(address, socket)) {
        senders.back().over_tcp = true;
        senders.back().deadline = now + settings.listen_timeout;
    }
}

bool model::new_sender(uint32_t address, int socket) {
    bool lost = memory_fails(CALL_CALLOC);
    if (!lost && socket != 0 && next_is(act::option_failed)) {
        take(act::option_failed, "");
    }
    if (lost || memory_fails(CALL_CALLOC)) {
        log_error(ENOMEM);
        return false;
    }
    party sender;
    sender.address = address;
    sender.name = dotted(address);
    sender.socket = socket;
    senders.push_back(sender);
    return true;
}

void model::receive_datagram() {
    const fact &came = take(act::datagram, datagram_socket, "a datagram");
    if (came.limit != 4095) {
        differs("room for 4095 bytes");
    }
    bool again = datagram_refused;
    datagram_refused =
        came.error != 0 && came.error != EAGAIN && came.error != EINTR;
    if (came.result <= 0) {
        if (again && datagram_refused) {
            datagrams_failed = now;
        }
        report(825);
        return;
    }
    uint32_t address = came.peer;
    report(824, dotted(address));
    if (address == 0 || !is_allowed(address)) {
        report(835, dotted(address));
        return;
    }
    std::string text = came.text.c_str();
    if (strncasecmp(text.c_str(), "CONNECT TO TOLVA (SEND)", 23) != 0) {
        report(819);
        return;
    }
    if (!new_sender(address, 0)) {
        return;
    }
    auto it = std::prev(senders.end());
    it->heard = true;
    run_request(&*it, text);
    if (!it->busy) {
        senders.erase(it);
    }
}

bool model::receive(party *sender) {
    const fact &came = take(act::receive, sender->socket, "a message is read");
    if (came.limit != 4095) {
        differs("room for 4095 bytes");
    }
    if (came.result < 0 && (came.error == EAGAIN || came.error == EINTR)) {
        return true;
    }
    sender->heard = true;
    if (came.result < 0) {
        log_error(came.error);
    }
    if (came.result <= 0) {
        report(796);
    } else {
        report(795);
        report(838, sender->name);
        run_request(sender, came.text.c_str());
    }
    sender->deadline = 0;
    if (!sender->busy) {
        return false;
    }
    if (!sender->wants_reply) {
        sender->socket = 0;
    }
    return true;
}

void model::run_request(party *sender, const std::string &text) {
    request asked = read_request(text);
    if (asked.kind == 0) {
        report(819);
    } else if (asked.kind == 1) {
        if (completes_shutdown(sender)) {
            start_script(sender, settings.shutdown_prog, "");
        }
    } else {
        run_command(sender, asked);
    }
}

void model::run_command(party *sender, const request &asked) {
    sender->wants_reply = asked.wants_status && sender->over_tcp;
    if (asked.fault != 0) {
        report(asked.fault);
        return;
    }
    const std::string *scripts[] = {
        &settings.shutdown_prog, &settings.exec_prog, &settings.msg_prog,
        &settings.msg_prog,      &settings.mail_prog, &settings.mail_prog};
    if (asked.command < 6) {
        start_script(sender, *scripts[asked.command], asked.parameters);
        return;
    }
    bool logged = !asked.parameters.empty() &&
                  write_line(asked.parameters.substr(0, 1023));
    if (sender->wants_reply) {
        sender->busy = true;
        sender->armed = true;
        sender->status = logged ? 0 : 1;
    }
}

bool model::start_script(party *of, const std::string &program,
                         const std::string &parameters) {
    if (program.empty()) {
        return false;
    }
    if (memory_fails(parameters.empty() ? CALL_STRDUP : CALL_MALLOC)) {
        log_error(ENOMEM);
        return false;
    }
    std::string line = program + (parameters.empty() ? "" : " " + parameters);
    report(792, line);
    const fact &born = take(act::fork, "fork for: " + line);
    if (born.result < 0) {
        log_error(born.error);
        return false;
    }
    if (born.text != "/bin/sh sh -c " + line) {
        position--;
        differs("a shell with: " + line);
    }
    if (of->owed) {
        report(836, of->name);
    }
    of->has_line = true;
    of->line = line;
    of->busy = true;
    of->owed = true;
    of->pid = born.result;
    return true;
}

bool model::reply(party *sender) {
    if (take(act::socket_error, sender->socket, "the socket's state").result ==
        0) {
        std::string program = sender->line.substr(0, sender->line.find(' '));
        std::string text = "CONNECT TO TOLVA (REPLY) COMMAND=" + program +
                           " PID=" + std::to_string(sender->pid) +
                           " EXITSTATUS=" + std::to_string(sender->status);
        if (!next_is(act::send) || peek()->text != text) {
            differs("a reply: " + text);
        }
        take(act::send, sender->socket, "the reply");
    }
    return false;
}

void model::collect() {
    std::vector<std::pair<int64_t, int>> ended;
    do {
        ended.clear();
        while (ended.size() < COLLECTED_AT_ONCE && next_is(act::collect)) {
            const fact &one = take(act::collect, "");
            auto known =
                std::find_if(ended.begin(), ended.end(),
                             [&](auto &it) { return it.first == one.result; });
            if (known == ended.end()) {
                ended.emplace_back(one.result, static_cast<int>(one.limit));
            } else {
                known->second = static_cast<int>(one.limit);
            }
        }
        bool full = ended.size() == COLLECTED_AT_ONCE;
        for (auto *parties : {&senders, &servers}) {
            for (auto one = parties->begin(); one != parties->end();) {
                auto it = one++;
                auto child = std::find_if(
                    ended.begin(), ended.end(), [&](auto &candidate) {
                        return it->owed && candidate.first == it->pid;
                    });
                if (child != ended.end()) {
                    child->first = 0;
                    if (!finish(&*it, child->second)) {
                        parties->erase(it);
                    }
                }
            }
        }
        if (!full) {
            break;
        }
    } while (true);
}

bool model::finish(party *of, int status) {
    bool only_stopped = (status & 0xff) == 0x7f;
    of->owed = only_stopped;
    int shown = (status & 0x7f) == 0 ? (status >> 8) & 0xff : status;
    report(shown == 0 ? 794 : 793, of->line);
    if (only_stopped) {
        report(841, strsignal((status >> 8) & 0xff));
    } else if ((status & 0x7f) != 0) {
        report(840, strsignal(status & 0x7f));
    } else if (shown != 0) {
        report(839, std::to_string(shown));
    }
    of->busy = false;
    if (of->is_server) {
        of->line.clear();
        of->has_line = false;
        return !given_up(*of);
    }
    if (!of->wants_reply) {
        return false;
    }
    of->status = shown;
    of->armed = true;
    return true;
}

} // namespace simulate
