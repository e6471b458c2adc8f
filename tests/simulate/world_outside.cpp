/*
 * Those outside: senders with what they say and how, datagrams, UPS servers
 * with their moods, and children with their ends.
 */
#include "world.h"

#include <cerrno>

namespace simulate {

namespace {

constexpr uint32_t NETWORK = 0xc0000200; /* 192.0.2.0 */
const char HEADER[] = "CONNECT TO TOLVA (SEND)";

uint32_t some_sender(const day_settings &settings, chance *luck) {
    if (!settings.allowed.empty() && !luck->one_in(5)) {
        return settings.allowed[static_cast<size_t>(luck->next()) %
                                settings.allowed.size()];
    }
    if (!settings.members.empty() && luck->one_in(2)) {
        return settings.members[static_cast<size_t>(luck->next()) %
                                settings.members.size()];
    }
    return NETWORK + static_cast<uint32_t>(luck->between(1, 12));
}

std::string parameters(chance *luck) {
    std::string job = std::to_string(luck->between(1, 999999));
    switch (luck->between(0, 15)) {
    case 0:
        return "";
    case 1:
        return "  \"job " + job + "\" \t";
    case 2:
        return "\"\"";
    case 3:
        return "\"a\" \"b " + job + "\"";
    case 4:
        return "1 UPS" + job + " 45";
    case 5:
        return "2 \"low one\" two three " + job;
    case 6:
        return "3 x";
    case 7:
        return "75 nothing";
    case 8:
        return "1 ops " + job + " \"45 or so\" third";
    case 9:
        return "2 ops$x a  \"b c\"";
    case 10:
        return "ops$a " + job + " \"text\"";
    case 11:
        return "4 nobody \"\"";
    case 12:
        return std::string(static_cast<size_t>(luck->between(900, 4000)), 'p') +
               job;
    case 13:
        return "3 " +
               std::string(static_cast<size_t>(luck->between(1, 40)), '$') +
               " tail";
    case 14:
        return "TOLVA  ERROR: " + job + " %s";
    default:
        return "job " + job;
    }
}

std::string other_case(std::string text) {
    for (char &one : text) {
        one = static_cast<char>(one >= 'A' && one <= 'Z' ? one + 32 : one);
    }
    return text;
}

std::string hostile_text(chance *luck) {
    switch (luck->between(0, 8)) {
    case 0:
        return "GET / HTTP/1.0\r\n\r\n";
    case 1:
        return std::string(HEADER) + "\n";
    case 2:
        return std::string(HEADER) + "\r\n";
    case 3:
        return std::string(HEADER) + " MSG_EXECUTE";
    case 4:
        return std::string(HEADER) + " MSG_OTHER EXECUTE x";
    case 5:
        return std::string(HEADER) + " MSG_EXECSTATUS FROBNICATE 1";
    case 6:
        return std::string(HEADER) + std::string(1, '\0') +
               "MSG_EXECUTE EXECUTE";
    case 7: {
        std::string noise;
        for (int64_t left = luck->between(1, 300); left > 0; left--) {
            noise += static_cast<char>(luck->between(0, 255));
        }
        return noise;
    }
    default:
        return std::string(HEADER) + "   \t ";
    }
}

} // namespace

std::string request_text(chance *luck) {
    if (luck->one_in(9)) {
        return hostile_text(luck);
    }
    std::string text = HEADER;
    if (luck->one_in(7)) {
        return luck->one_in(3) ? other_case(text) : text;
    }
    const char *words[] = {"SHUTDOWN", "EXECUTE",  "EXECUTE",   "MSG_ID",
                           "MSG_TEXT", "MAIL_ID",  "MAIL_TEXT", "LOG_ID",
                           "LOG_TEXT", "LOG_TEXT", "LOG"};
    text += luck->one_in(9) ? "x" : " ";
    text += luck->one_in(3) ? "MSG_EXECUTE" : "MSG_EXECSTATUS";
    text += luck->one_in(9) ? " \t " : " ";
    text += luck->pick(words);
    text += " " + parameters(luck);
    return luck->one_in(9) ? other_case(text) : text;
}

bool world::readable(const simulated_socket &one) const {
    if (one.kind == socket_kind::listener) {
        return !backlog.empty() || door_lies;
    }
    if (one.kind == socket_kind::datagrams) {
        return !datagrams.empty() || datagram_error != 0;
    }
    return !one.incoming.empty() || one.ended || one.error != 0 ||
           one.looks_ready;
}

void world::begin_session(const outside_event &event) {
    constexpr size_t BACKLOG = 129;
    if (listener == 0 || backlog.size() >= BACKLOG) {
        return;
    }
    chance dice(event.seed);
    simulated_socket one;
    one.number = next_socket++;
    one.kind = socket_kind::client;
    one.peer = some_sender(plan->settings, &dice);
    one.writable = true;
    one.seed = event.seed;
    int number = one.number;
    sockets[number] = one;
    backlog.push_back({one.peer, number});
    tell("    socket " + std::to_string(number) + " waits at the door");
    if (dice.one_in(60)) {
        door_lies = true;
    }
    if (dice.one_in(50)) {
        const int errors[] = {ECONNABORTED, EPROTO, EAGAIN, EPERM, EINTR};
        accept_error = dice.pick(errors);
    }
    auto with = [this, number](std::function<void(simulated_socket *)> act_on) {
        return [this, number, act_on] {
            auto found = sockets.find(number);
            if (found != sockets.end()) {
                act_on(&found->second);
            }
        };
    };
    const int64_t paces[] = {0,          0,          100,        3000,
                             SECOND / 2, 4 * SECOND, 12 * SECOND};
    int64_t when = now + dice.pick(paces);
    int64_t behaviour = dice.between(0, 99);
    if (behaviour < 4) {
        /* Says nothing, and goes in the end. */
        at(now + 1800 * SECOND,
           with([](simulated_socket *it) { it->ended = true; }));
        return;
    }
    if (behaviour < 8) {
        at(when, with([](simulated_socket *it) { it->ended = true; }));
        return;
    }
    if (behaviour < 13) {
        at(when, with([](simulated_socket *it) { it->error = ECONNRESET; }));
        return;
    }
    std::string text = event.says ? *event.says : request_text(&dice);
    if (behaviour < 20 && !event.says) {
        text += std::string(static_cast<size_t>(dice.between(1, 5000)), ' ') +
                "tail";
    }
    size_t first = text.size();
    if (dice.one_in(8) && first > 0) {
        first = static_cast<size_t>(dice.next()) % text.size() + 1;
    }
    bool half = dice.one_in(25);
    bool lies = dice.one_in(25);
    at(when, with([text, first, half, lies](simulated_socket *it) {
           it->half_received = half;
           it->looks_ready = lies;
           it->incoming += text.substr(0, first);
       }));
    if (first < text.size()) {
        at(when + dice.pick(paces), with([text, first](simulated_socket *it) {
               it->incoming += text.substr(first);
           }));
    }
    if (dice.one_in(10)) {
        at(when + dice.pick(paces),
           with([](simulated_socket *it) { it->ended = true; }));
    }
    if (dice.one_in(10)) {
        at(when + dice.pick(paces),
           with([](simulated_socket *it) { it->error = ECONNRESET; }));
    }
    if (dice.one_in(20)) {
        bool eagain = dice.one_in(2);
        at(when, with([eagain](simulated_socket *it) {
               it->receive_error = eagain ? EAGAIN : EINTR;
           }));
    }
    if (dice.one_in(15)) {
        int64_t writable_then = when + dice.pick(paces) * 10;
        at(when, with([](simulated_socket *it) { it->writable = false; }));
        at(writable_then,
           with([](simulated_socket *it) { it->writable = true; }));
    }
    if (dice.one_in(12)) {
        bool partial = dice.one_in(2);
        at(when, with([partial](simulated_socket *it) {
               it->sends_half = partial;
               it->send_error = partial ? 0 : EAGAIN;
           }));
    }
}

void world::send_datagram(const outside_event &event) {
    if (datagram_socket == 0) {
        return;
    }
    chance dice(event.seed);
    if (dice.one_in(20)) {
        datagram_error = dice.one_in(2) ? EAGAIN : ECONNREFUSED;
        return;
    }
    uint32_t peer = some_sender(plan->settings, &dice);
    if (dice.one_in(15)) {
        peer = dice.one_in(3) ? 0 : 0xffffffff;
    }
    std::string text = dice.one_in(15) ? "" : request_text(&dice);
    text = event.says.value_or(text);
    if (datagrams.size() < 200) {
        datagrams.push_back({peer, text});
    }
}

void world::change_mood(uint64_t seed) {
    if (moods.empty()) {
        return;
    }
    chance dice(seed);
    moods[static_cast<size_t>(dice.next()) % moods.size()] =
        dice.one_in(2) ? mood::answers
                       : static_cast<mood>(dice.between(
                             0, static_cast<int64_t>(mood::mixed)));
}

/* How one exchange goes is decided when it begins. */
void world::begin_connect(simulated_socket *one) {
    chance dice(plan->seed, 1000 + connects);
    connects++;
    mood how = one->server >= 0 ? moods[static_cast<size_t>(one->server)]
                                : mood::refuses;
    if (how == mood::mixed) {
        how = static_cast<mood>(
            dice.between(0, static_cast<int64_t>(mood::mixed) - 1));
    }
    one->seed = (dice.next() & ~static_cast<uint64_t>(0xff)) |
                static_cast<uint64_t>(how);
    int number = one->number;
    const int64_t delays[] = {50, 400, 20000, SECOND};
    int64_t when = now + dice.pick(delays);
    if (how == mood::slow) {
        when += dice.between(1, 100) * SECOND;
    }
    if (how == mood::at_once) {
        one->writable = true;
        return;
    }
    if (how == mood::hangs) {
        /* Some kernels give up in the end. */
        if (dice.one_in(2)) {
            return;
        }
        when += 130 * SECOND;
    }
    bool refused = how == mood::refuses || how == mood::hangs;
    at(when, [this, number, refused] {
        auto found = sockets.find(number);
        if (found == sockets.end()) {
            return;
        }
        found->second.writable = true;
        found->second.error = refused ? ECONNREFUSED : 0;
    });
}

std::string world::odd_answer(chance *dice) {
    if (!plan->answers.empty()) {
        return plan->answers[answers_said++ % plan->answers.size()];
    }
    const char *odd[] = {"0|",   "0|x", "x|0", "0x0", "00|0", "|0",
                         " 0|0", "9|9", "0|0", "\n",  "-1|0", "0|-1"};
    std::string text = dice->pick(odd);
    if (dice->one_in(4)) {
        text += std::string(static_cast<size_t>(dice->between(1, 5000)), '0');
    }
    return text;
}

/* The listener has said a line to a UPS server. */
void world::hear(simulated_socket *one) {
    chance dice(one->seed, static_cast<uint64_t>(++one->lines));
    auto how = static_cast<mood>(one->seed & 0xffU);
    int number = one->number;
    const int64_t delays[] = {50, 400, 20000, SECOND};
    int64_t when = now + dice.pick(delays);
    if (how == mood::slow) {
        when += dice.between(1, 200) * SECOND;
    }
    if (how == mood::silent) {
        return;
    }
    bool first = one->lines == 1;
    std::string said = how == mood::odd ? odd_answer(&dice) : "";
    at(when, [this, number, how, first, said] {
        auto found = sockets.find(number);
        if (found == sockets.end()) {
            return;
        }
        simulated_socket *it = &found->second;
        if (how == mood::garbage) {
            it->incoming += first ? "200 hello" : "?";
        } else if (how == mood::odd) {
            it->incoming += said;
        } else if (how == mood::cut) {
            it->incoming += "7|";
        } else if (how == mood::closes) {
            it->ended = true;
        } else if (how == mood::resets ||
                   (how == mood::resets_later && !first)) {
            it->error = ECONNRESET;
        } else {
            it->incoming += first ? "0|1 welcome" : "0|0 bye";
        }
    });
    if (dice.one_in(10) && how == mood::answers && first) {
        one->looks_ready = true;
    }
}

void world::call_will_fail(uint64_t seed) {
    chance dice(seed);
    const failing calls_that_fail[] = {
        {"socket", EACCES},       {"fcntl", EINVAL},
        {"fcntl", EINVAL},        {"setsockopt", ENOPROTOOPT},
        {"bind", EADDRINUSE},     {"listen", EADDRINUSE},
        {"connect", ENETUNREACH}, {"getsockopt", EINVAL},
        {"send", EPIPE},          {"recv", EIO},
        {"accept", EPERM},        {"open", ENFILE},
        {"fork", EAGAIN},         {"recvfrom", EIO},
    };
    failing_calls.push_back(dice.pick(calls_that_fail));
}

bool world::free_pid(pid_t *pid) {
    const day_settings &chosen = plan->settings;
    for (int i = chosen.first_pid; i <= chosen.last_pid; i++) {
        last_pid =
            last_pid >= chosen.last_pid ? chosen.first_pid : last_pid + 1;
        if (children.count(last_pid) == 0) {
            *pid = last_pid;
            return true;
        }
    }
    return false;
}

pid_t world::begin_child(const std::string &line, uint64_t seed) {
    pid_t pid = 0;
    if (!free_pid(&pid)) {
        return -1;
    }
    chance dice(seed);
    child_process one;
    one.pid = pid;
    one.line = line;
    const int statuses[] = {0,      0,      0,      0,      0x100,  0x300,
                            0x7f00, 0xff00, 0x000f, 0x0009, 0x0086, 0x100};
    one.status = dice.pick(statuses);
    const int64_t lengths[] = {20,           500,          3000,
                               SECOND / 10,  2 * SECOND,   20 * SECOND,
                               300 * SECOND, 1500 * SECOND};
    int64_t end = now + dice.pick(lengths) + dice.between(0, 500);
    int stop = dice.one_in(14) ? (dice.one_in(2) ? 0x137f : 0x147f) : 0;
    uint64_t birth = forks++;
    one.stop_status = 0;
    children[pid] = one;
    if (stop != 0) {
        int64_t middle = now + (end - now) / 2;
        at(middle, [this, pid, stop, birth] {
            (void)birth;
            child_process *it = &children[pid];
            it->stop_status = stop;
            it->reported_stop = false;
            tell("    child " + std::to_string(pid) + " is stopped");
            raise(SIGCHLD);
        });
        if (dice.one_in(3)) {
            /* It goes on before anybody has looked. */
            at(middle + 10,
               [this, pid] { children[pid].reported_stop = true; });
        }
    }
    at(end, [this, pid] {
        child_process *it = &children[pid];
        it->ended = true;
        tell("    child " + std::to_string(pid) + " ends");
        raise(SIGCHLD);
    });
    return pid;
}

} // namespace simulate
