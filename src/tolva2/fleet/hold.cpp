/*
 * The lock is the kernel's, on a file that is there anyway: no file of ours
 * can be left behind by a power failure, and a full or read-only disk does not
 * matter. It belongs to the open descriptor, which the program inherits.
 */
#include "tolva2/fleet/hold.h"
#include "tolva2/base/process_state.h"
#include "unixtools/ux_owned.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>

int32_t hold_and_run(const char *file, std::span<char *const> program) {
    ux_fd opened(open(file, O_RDONLY));
    if (!opened) {
        fprintf(stderr, "%s: cannot read %s: %s\n", progname, file,
                strerror(errno));
        return 2;
    }
    if (flock(opened.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            fprintf(stderr,
                    "%s: %s is in use by another run; nothing was sent\n",
                    progname, file);
            return 2;
        }
        /* A file system without locks: the run is worth more. */
        fprintf(stderr, "%s: cannot lock %s: %s\n", progname, file,
                strerror(errno));
    }
    if (opened.get() != LOCK_DESCRIPTOR &&
        dup2(opened.get(), LOCK_DESCRIPTOR) < 0) {
        fprintf(stderr, "%s: %s\n", progname, strerror(errno));
        return 2;
    }
    if (opened.get() == LOCK_DESCRIPTOR) {
        [[maybe_unused]] int kept = opened.release();
    }
    opened.reset();
    execv(program[0], program.data());
    fprintf(stderr, "%s: cannot run %s: %s\n", progname, program[0],
            strerror(errno));
    return 2;
}
