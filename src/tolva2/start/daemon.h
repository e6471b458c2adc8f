/*
 * Cuts the process off from its terminal. Listen mode calls it when all its
 * start-up checks have passed and no trace level was given.
 */
#ifndef TOLVA2_START_DAEMON_H
#define TOLVA2_START_DAEMON_H

#include <cstdint>

/* Forks twice with a new session between, so that no terminal can be had
 * again; the parents end with _exit(0). change_dir non-zero: go to "/".
 * redirect_std non-zero: descriptors 0 to 2 become "/dev/null"; what cannot
 * be opened or replaced leaves them as they are. Sets daemonized. Returns 0, or
 * -1 when fork or setsid fails. */
int32_t daemonize(int32_t change_dir, int32_t redirect_std);

#endif
