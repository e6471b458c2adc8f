#include "tolva2/start/daemon.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/* Goes on in a child; -1 when there is none. The parent never returns. */
int32_t leave_parent()
{
    pid_t child = fork();
    if (child > 0) {
        _exit(0);
    }
    return child < 0 ? -1 : 0;
}

} // namespace

int32_t daemonize(int32_t change_dir, int32_t redirect_std)
{
    trace_in();
    /* What is buffered now would otherwise be lost with the parents. */
    fflush(nullptr);
    if (leave_parent() < 0 || setsid() < 0) {
        return -1;
    }
    /* No longer a session leader: a terminal can never be ours again. */
    if (leave_parent() < 0) {
        return -1;
    }
    if (change_dir && chdir("/") < 0) {
        debug_printf("DEBUG: chdir to the root directory failed\n");
    }
    if (redirect_std) {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        int null_fd = open("/dev/null", O_RDWR);
        for (int copies = 0; copies < 2 && null_fd >= 0; copies++) {
            if (dup(null_fd) < 0) {
                break;
            }
        }
    }
    daemonized = 1;
    return 0;
}
