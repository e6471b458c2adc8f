/*
 * What happens on a signal, set in one call. Every mode uses it for the
 * signals that it handles or ignores.
 */
#ifndef TOLVA2_BASE_SIGNALS_H
#define TOLVA2_BASE_SIGNALS_H

#include <csignal>

/* Gives a signal a handler, SIG_IGN or SIG_DFL, with an empty mask. flags are
 * those of sigaction(): without SA_RESTART the signal interrupts waits.
 * False when that failed. */
bool set_signal(int number, void (*handler)(int), int flags);

#endif
