/*
 * The steps that turn the process into a daemon, one function for each that
 * takes more than a call.
 */
#include "tolva2/start/daemon.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_owned.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

/* Goes on in a child; false when there is none. The parent never returns. */
bool leave_parent() {
    pid_t child = fork();
    if (child > 0) {
        _exit(0);
    }
    return child == 0;
}

/* None of the three is ever closed: a socket would take its number, and then
 * the log would go there. One that cannot be replaced stays as it is. */
void redirect_standard_descriptors() {
    ux_fd null_device(open("/dev/null", O_RDWR));
    if (!null_device) {
        return;
    }
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        dup2(null_device.get(), fd);
    }
    if (null_device.get() <= STDERR_FILENO) {
        static_cast<void>(null_device.release());
    }
}

} // namespace

int32_t daemonize(int32_t change_dir, int32_t redirect_std) {
    trace_in();
    /* What is buffered now would otherwise be lost with the parents. */
    fflush(nullptr);
    /* No session leader in the end: a terminal can never be ours again. */
    if (!leave_parent() || setsid() < 0 || !leave_parent()) {
        return -1;
    }
    if (change_dir && chdir("/") < 0) {
        debug_printf("DEBUG: chdir to the root directory failed\n");
    }
    if (redirect_std) {
        redirect_standard_descriptors();
    }
    daemonized = true;
    return 0;
}
