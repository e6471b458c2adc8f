/*
 * The calls beyond POSIX of 2008, and nowhere else: each has something that
 * does the same where a system has not got it.
 */
#ifndef UNIXTOOLS_UX_PORTABLE_H
#define UNIXTOOLS_UX_PORTABLE_H

#include "unixtools/ux_owned.h"

#include <csignal>
#include <cstdarg>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>

/* Whoever sends ignores SIGPIPE as well, so it can be done without. */
#ifndef MSG_NOSIGNAL
#define MSG_NOSIGNAL 0
#endif

/* Waits until fd can be read, no longer than limit unless that is null, with
 * mask as the signal mask meanwhile. 1 when it can be, 0 when time is up, -1
 * with errno on error. */
[[nodiscard]] int ux_wait_readable(int fd, const timespec *limit,
                                   const sigset_t *mask);

/* The IPv4 address that a text of digits and dots stands for, with anything
 * behind a blank: false when it stands for none, and address stays as it
 * was. */
[[nodiscard]] bool ux_dotted(const char *text, in_addr *address);

/* The text that printf would write; null with errno when memory is
 * exhausted. */
[[nodiscard]] [[gnu::format(printf, 1, 0)]] ux_text
ux_format(const char *format, va_list args);

/* A new file that is nobody else's, open for reading and writing and closed
 * in programs that are started; name ends in "XXXXXX", which becomes what the
 * file is called. -1 with errno on error. */
[[nodiscard]] int ux_new_file(char *name);

#endif
