#include "tolva2/base/signals.h"

int32_t set_signal(int number, void (*handler)(int), int flags)
{
    struct sigaction action {
    };
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    return sigaction(number, &action, nullptr) == 0;
}
