/*
 * The three signals and their names.
 */
#include "tolva2/fleet/fleet_stop.h"
#include "tolva2/base/signals.h"

#include <array>
#include <csignal>

namespace {

volatile sig_atomic_t stop_signal = 0;

void note_signal(int number) { stop_signal = number; }

struct stop_name {
    int number;
    const char *name;
};
constexpr std::array<stop_name, 3> STOPS{
    {{SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}}};

} // namespace

void handle_stops() {
    sigset_t stops;
    sigemptyset(&stops);
    stop_signal = 0;
    for (const stop_name &stop : STOPS) {
        struct sigaction before {};
        sigaction(stop.number, nullptr, &before);
        /* Who has started us under nohup or in the background means it. */
        if (before.sa_handler != SIG_IGN) {
            sigaddset(&stops, stop.number);
            set_signal(stop.number, note_signal, 0);
        }
    }
    /* Who has started us may have had them blocked. */
    sigprocmask(SIG_UNBLOCK, &stops, nullptr);
}

bool has_stopped() { return stop_signal != 0; }

const char *stop_text() {
    for (const stop_name &stop : STOPS) {
        if (stop.number == stop_signal) {
            return stop.name;
        }
    }
    return nullptr;
}

void forget_stops() { stop_signal = 0; }
