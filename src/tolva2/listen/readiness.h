/*
 * What a service manager that has asked for it is told: that the listener
 * listens, and that it ends. Without one nothing happens.
 */
#ifndef TOLVA2_LISTEN_READINESS_H
#define TOLVA2_LISTEN_READINESS_H

/* Takes the manager's socket out of the environment, where scripts would find
 * it, and says that the listener listens. A failure is a log line. */
void announce_ready();

/* Says that the listener ends, to whom announce_ready() has spoken. */
void announce_stopping();

#endif
