/*
 * The one place that fills the record in which the system is told what to do
 * on a signal.
 */
#include "tolva2/base/signals.h"

bool set_signal(int number, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    return sigaction(number, &action, nullptr) == 0;
}
