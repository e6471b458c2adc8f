/*
 * Ways for a child of a death test to run into a wall: no more descriptors,
 * no room in files, no rights. They change the process for good.
 */
#ifndef TESTS_UNIT_STARVE_H
#define TESTS_UNIT_STARVE_H

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>
#include <unistd.h>

inline void set_limit(int resource, rlim_t value) {
    rlimit limit;
    if (getrlimit(static_cast<__rlimit_resource_t>(resource), &limit) != 0) {
        abort();
    }
    limit.rlim_cur = value;
    if (setrlimit(static_cast<__rlimit_resource_t>(resource), &limit) != 0) {
        abort();
    }
}

/* No file can be opened any more. */
inline void no_more_descriptors() { set_limit(RLIMIT_NOFILE, 0); }

/* No file grows beyond that many bytes; writing on just fails. */
inline void limit_files_to(rlim_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    set_limit(RLIMIT_FSIZE, bytes);
}

/* Permissions count from here on, also for root. */
inline void become_nobody() {
    constexpr unsigned NOBODY = 65534;
    if (geteuid() == 0 && (setegid(NOBODY) != 0 || seteuid(NOBODY) != 0)) {
        abort();
    }
}

#endif
