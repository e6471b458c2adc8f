/*
 * What stands in is tried on Linux too: TOLVA_POSIX_ONLY builds everything as
 * for a system that has POSIX alone.
 */
#include "unixtools/ux_portable.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>

#if defined _GNU_SOURCE || defined __FreeBSD__ || defined __OpenBSD__
#define HAS_PPOLL 1
#endif
#if defined HAS_PPOLL || defined __APPLE__
#define HAS_INET_ATON 1
#define HAS_MKOSTEMP 1
#endif

int ux_wait_readable(int fd, const timespec *limit, const sigset_t *mask) {
#ifdef HAS_PPOLL
    pollfd one{fd, POLLIN, 0};
    return ppoll(&one, 1, limit, mask);
#else
    /* This wait cannot see higher numbers. */
    if (fd >= FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return pselect(fd + 1, &readable, nullptr, nullptr, limit, mask);
#endif
}

bool ux_dotted(const char *text, in_addr *address) {
#ifdef HAS_INET_ATON
    return inet_aton(text, address) != 0;
#else
    /* What it returns for an error is an address too. */
    in_addr_t found = inet_addr(text);
    if (found == INADDR_NONE && strcmp(text, "255.255.255.255") != 0) {
        return false;
    }
    address->s_addr = found;
    return true;
#endif
}

int ux_new_file(char *name) {
#ifdef HAS_MKOSTEMP
    return mkostemp(name, O_CLOEXEC);
#else
    int fd = mkstemp(name);
    if (fd >= 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    return fd;
#endif
}
