#include "plan.h"
#include "chance.h"

#include <algorithm>
#include <iterator>

namespace simulate {

namespace {

constexpr uint32_t NETWORK = 0xc0000200; /* 192.0.2.0 */

/* The installed texts, and some for the commands with a number. */
const char *const TEXTS =
    "m756=listening for commands over TCP\n"
    "m757=listener stopped\n"
    "m792=started: %s\n"
    "m793=failed: %s\n"
    "m794=finished without error: %s\n"
    "m795=message received\n"
    "m796=nothing received\n"
    "m814=UPS server %s is alive\n"
    "m819=message ignored\n"
    "m820=TOLVA command ignored\n"
    "m821=listening for commands over UDP\n"
    "m822=no longer listening for commands over UDP\r\n"
    "m824=datagram received from %s\n"
    "m825=ERROR: could not receive a datagram\n"
    "m828=UPS server %s is not alive\n"
    "m829=watching the UPS servers\n"
    "m830=no longer watching the UPS servers\n"
    "m832=UPS server %s is not watched again\n"
    "m835=refused: %s\n"
    "m1=UPS #NAME at #PCT%s done\n"
    "m2=battery of #NAMEx low, #NAME. has %s and 100%sure\n"
    "m3=  plain text with # and %d\n"
    "m4=\n";

/* Those that not every database has. */
const char *const MORE_TEXTS =
    "m836=an earlier AliveProg for %s is no longer followed\n"
    "m838=the sender is %s\n"
    "m839=the script that failed ended with status %s\n"
    "m840=the script that failed was ended by a signal: %s\n"
    "m841=the script that failed is stopped: %s\n"
    "m843=the clock was set back by %s seconds\n"
    "m846=cannot listen on address %s, port %s: %s\n";

std::vector<uint32_t> some_addresses(chance *luck, int64_t least,
                                     int64_t most) {
    std::vector<uint32_t> found;
    for (int64_t left = luck->between(least, most); left > 0; left--) {
        auto host = static_cast<uint32_t>(luck->between(1, 8));
        /* The same one twice does no harm. */
        found.push_back(NETWORK + host);
    }
    return found;
}

void choose_watch(chance *luck, day_settings *chosen) {
    int64_t servers = luck->one_in(3) ? 0 : luck->between(1, 4);
    for (int64_t i = 0; i < servers; i++) {
        chosen->servers.push_back(
            {NETWORK + static_cast<uint32_t>(luck->between(1, 6)),
             luck->one_in(3) ? 7000 : 0});
    }
    const int32_t intervals[] = {60, 300, 900, 900, 1800, 3600};
    chosen->alive_interval = luck->pick(intervals);
    chosen->alive_retries =
        luck->one_in(3) ? 0 : static_cast<int32_t>(luck->between(1, 40));
}

void choose_redundancy(chance *luck, day_settings *chosen) {
    chosen->redundancy = luck->one_in(3) ? "false" : "True";
    chosen->level = static_cast<int32_t>(luck->between(0, 3));
    /* Named members count for nothing where it is off. */
    if (chosen->redundancy == "True" || luck->one_in(4)) {
        for (uint32_t host = 1; host <= 6; host++) {
            if (!luck->one_in(3)) {
                chosen->members.push_back(NETWORK + host);
            }
        }
        if (luck->one_in(15)) {
            for (uint32_t host = 10; host < 45; host++) {
                chosen->members.push_back(NETWORK + host);
            }
            /* Each of the thirty counts. */
            chosen->level = static_cast<int32_t>(luck->between(26, 30));
        }
    }
    chosen->batch_suppress = luck->one_in(4);
    chosen->batch_file =
        luck->one_in(10) ? "" : std::string("/opt/suppressed.sh");
    if (luck->one_in(20)) {
        chosen->batch_file =
            "/" +
            std::string(static_cast<size_t>(luck->between(509, 512)), 'b');
    }
}

void choose_scripts(chance *luck, day_settings *chosen) {
    chosen->shutdown_prog = luck->one_in(15) ? "" : "/opt/shutdown.sh";
    chosen->alive_prog = luck->one_in(6) ? "" : "/opt/notalive.sh";
    chosen->exec_prog = luck->one_in(15) ? "" : "/opt/execute.sh -x";
    chosen->msg_prog = luck->one_in(15) ? "" : "/opt/message.sh";
    chosen->mail_prog = luck->one_in(15) ? "" : "/opt/mail.sh";
}

void choose_log(chance *luck, day_settings *chosen) {
    const log_target targets[] = {log_target::file,     log_target::file,
                                  log_target::file,     log_target::file,
                                  log_target::terminal, log_target::nowhere};
    chosen->log = luck->pick(targets);
    const int32_t sizes[] = {0, 0, 1, 2, 16, 64};
    chosen->log_kib = luck->pick(sizes);
    chosen->log_directory_writable = !luck->one_in(5);
    chosen->unnamed_files = !luck->one_in(5);
}

void choose_system(chance *luck, day_settings *chosen) {
    const int32_t budgets[] = {2, 3, 4, 6, 10, 30, 200, 200, 200};
    chosen->max_fds = luck->pick(budgets);
    chosen->inherited = static_cast<int>(luck->between(3, 6));
    const int extra[] = {0, 3, 4, 5, 12, 60};
    chosen->descriptor_limit =
        chosen->inherited + chosen->max_fds + luck->pick(extra);
    if (luck->one_in(40)) {
        /* Numbers that a wait cannot look at. */
        chosen->inherited = static_cast<int>(luck->between(1015, 1022));
        chosen->descriptor_limit = 2048;
    }
    if (luck->one_in(4)) {
        chosen->last_pid = chosen->first_pid + 40;
    }
    const int32_t levels[] = {-1, -1, 0, 10};
    chosen->debug_level = luck->pick(levels);
    /* Summer and winter, and close to a leap day. */
    const int64_t days[] = {1709100000, 1735600000, 1751300000, 951700000};
    chosen->clock = luck->pick(days) + luck->between(0, 200000);
    chosen->texts = luck->one_in(12) ? "" : TEXTS;
    if (luck->one_in(2)) {
        chosen->texts += MORE_TEXTS;
    }
}

happening pick_fault(chance *luck) {
    const happening faults[] = {
        happening::server_mood,  happening::server_mood,
        happening::server_mood,  happening::server_mood,
        happening::shortage,     happening::shortage,
        happening::no_memory,    happening::no_memory,
        happening::disk_full,    happening::clock_step,
        happening::stray_signal, happening::interruption,
        happening::stray_child,  happening::failing_call,
        happening::failing_call, happening::failing_call,
        happening::limit_change, happening::log_removed,
        happening::texts_lost,   happening::no_processes,
    };
    return luck->pick(faults);
}

happening pick_happening(chance *luck, int64_t faults) {
    int64_t roll = luck->between(1, 100);
    if (roll <= faults) {
        return pick_fault(luck);
    }
    return roll > 82 ? happening::datagram : happening::session;
}

/* Most happens together: that is where orders matter. */
void add_burst(chance *luck, day_plan *plan, int64_t faults) {
    const int64_t widths[] = {SECOND / 1000, SECOND / 20, SECOND, 30 * SECOND};
    int64_t width = luck->pick(widths);
    int64_t start = luck->between(0, DAY - 60 * SECOND);
    int64_t events =
        luck->one_in(20) ? luck->between(60, 160) : luck->between(1, 16);
    for (int64_t i = 0; i < events; i++) {
        plan->events.push_back({0,
                                start + luck->between(0, width),
                                pick_happening(luck, faults),
                                luck->next(),
                                {}});
    }
}

} // namespace

day_plan make_plan(uint64_t seed, int sessions) {
    chance luck(seed);
    day_plan plan;
    plan.seed = seed;
    day_settings *chosen = &plan.settings;
    const int32_t timeouts[] = {0, 1, 10, 10, 30};
    chosen->listen_timeout = luck.pick(timeouts);
    chosen->listen_udp = luck.one_in(4) ? "false" : "true";
    if (!luck.one_in(4)) {
        chosen->allowed = some_addresses(&luck, 1, 6);
    }
    chosen->senders_named = !chosen->allowed.empty() || luck.one_in(5);
    choose_watch(&luck, chosen);
    choose_redundancy(&luck, chosen);
    choose_scripts(&luck, chosen);
    choose_log(&luck, chosen);
    choose_system(&luck, chosen);
    if (sessions == 0) {
        return plan;
    }
    const int64_t shares[] = {0, 5, 12, 30};
    int64_t faults = luck.pick(shares);
    while (plan.events.size() < static_cast<size_t>(sessions)) {
        add_burst(&luck, &plan, faults);
    }
    if (luck.one_in(10)) {
        /* Before the first wait: what opens the listeners fails. */
        for (int i = 0; i < 4; i++) {
            plan.events.push_back(
                {0, 0, happening::failing_call, luck.next(), {}});
        }
    } else if (luck.one_in(20)) {
        plan.events.push_back({0, 0, happening::no_memory, luck.next(), {}});
    }
    if (luck.one_in(4)) {
        int64_t at =
            plan.events[static_cast<size_t>(luck.next()) % plan.events.size()]
                .at;
        plan.events.push_back(
            {0,
             at + luck.between(0, SECOND / 100),
             luck.one_in(4) ? happening::wait_fails : happening::early_stop,
             luck.next(),
             {}});
    }
    std::stable_sort(plan.events.begin(), plan.events.end(),
                     [](const outside_event &a, const outside_event &b) {
                         return a.at < b.at;
                     });
    for (size_t i = 0; i < plan.events.size(); i++) {
        plan.events[i].number = static_cast<int>(i) + 1;
    }
    return plan;
}

} // namespace simulate
