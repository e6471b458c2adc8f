/*
 * What stands in is tried on Linux too: TOLVA_POSIX_ONLY builds everything as
 * for a system that has POSIX alone.
 */

/* Where time has more bits than a word, glibc before 2.37 leads a checked
 * ppoll to the call with the narrow time, which reads a limit wrongly. */
#if __SIZEOF_POINTER__ == 4
#undef _FORTIFY_SOURCE
#endif

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

namespace {

/* Four parts in octal, with zeros in front. */
constexpr size_t LONGEST_DOTTED = 31;

} // namespace

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

namespace {

bool read_dotted(const char *text, in_addr *address) {
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

} // namespace

bool ux_dotted(const char *text, in_addr *address) {
    if (read_dotted(text, address)) {
        return true;
    }
    /* musl takes the blank for a part of the address. */
    char first[LONGEST_DOTTED + 1];
    size_t length = strcspn(text, " \t\n\v\f\r");
    if (!text[length] || length > LONGEST_DOTTED) {
        return false;
    }
    memcpy(first, text, length);
    first[length] = '\0';
    return read_dotted(first, address);
}

ux_text ux_format(const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, format, args);
    size_t size = static_cast<size_t>(length) + 1;
    ux_text text(length < 0 ? nullptr : static_cast<char *>(malloc(size)));
    if (text) {
        vsnprintf(text.get(), size, format, again);
    }
    va_end(again);
    return text;
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
