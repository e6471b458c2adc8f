/*
 * The entry: settles the process-wide state in a fixed order, hands the
 * command line over and turns the mode's result into the exit status.
 */
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/base/trace.h"
#include "tolva2/start/cmdline.h"
#include "tolva2/start/program_dir.h"
#include "unixtools/ux_number.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

constexpr rlim_t DESCRIPTOR_BUDGET = 256;
constexpr int32_t DESCRIPTOR_CEILING = 1024;
constexpr int32_t KEPT_FOR_FILES = 10;
constexpr int32_t RESERVE_CAP = 246;

[[noreturn]] void start_up_failed(const char *call)
{
    error_printf(stderr, ERROR_EXIT, "%s: %s: \n: %s\n", progname, call,
                 strerror(errno));
    abort();
}

/* A socket must never become the standard output that the log goes to. */
void fill_standard_descriptors()
{
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

void read_trace_level()
{
    const char *level = getenv("TOLVADEBUG");
    if (level) {
        debug_level = ux_atoi(level);
    }
}

void find_home()
{
    const char *home = getenv("TOLVAHOME");
    if (!home) {
        return;
    }
    if (home[0] != '/') {
        error_printf(stderr, ERROR_EXIT,
                     "%s: `$TOLVAHOME' (%s): Not an absolute path\n", progname,
                     home);
    }
    home_dir = strdup(home);
}

void settle_home(const char *argv0)
{
    find_home();
    if (!home_dir) {
        home_dir = find_program_dir(argv0);
    }
    if (!home_dir) {
        error_printf(stderr, ERROR_EXIT,
                     "%s: could not determine `$TOLVAHOME'\n", progname);
    }
    debug_printf("DEBUG: workdir = >%s<\n", home_dir);
}

void read_limit(rlimit *limit)
{
    if (getrlimit(RLIMIT_NOFILE, limit) < 0) {
        error_printf(stderr, ERROR_EXIT, "%s: getrlimit(): %s\n", progname,
                     strerror(errno));
    }
}

int32_t smaller(int32_t a, int32_t b)
{
    return a < b ? a : b;
}

/* How many descriptors we may use: up to 256, raising a lower soft limit. */
void settle_descriptor_budget()
{
    rlimit limit;
    read_limit(&limit);
    rlim_t budget = limit.rlim_cur;
    if (budget >= DESCRIPTOR_BUDGET) {
        budget = DESCRIPTOR_BUDGET;
    } else {
        rlim_t target = limit.rlim_max < DESCRIPTOR_BUDGET ? limit.rlim_max
                                                           : DESCRIPTOR_BUDGET;
        rlimit raised{target, limit.rlim_max};
        if (budget < target && setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            budget = target;
        }
    }
    max_fds = smaller(static_cast<int32_t>(budget), DESCRIPTOR_CEILING);
    fd_reserve = smaller(max_fds - KEPT_FOR_FILES, RESERVE_CAP);
}

/* Puts the home directory in front of PATH. Returns the text that the
 * environment now uses. */
char *extend_search_path()
{
    errno = 0;
    const char *path = getenv("PATH");
    if (!path) {
        start_up_failed("getenv()");
    }
    size_t size = strlen(home_dir) + strlen(path) + 7;
    char *entry = static_cast<char *>(malloc(size));
    if (!entry) {
        start_up_failed("malloc()");
    }
    snprintf(entry, size, "PATH=%s:%s", home_dir, path);
    if (putenv(entry) != 0) {
        start_up_failed("putenv()");
    }
    return entry;
}

} // namespace

int main(int argc, char **argv)
{
    const char *argv0 = argc > 0 && argv[0] ? argv[0] : "tolva";
    fill_standard_descriptors();
    /* A reader of our output that has gone must not keep a command back. */
    set_signal(SIGPIPE, SIG_IGN, SA_RESTART);
    own_pid = getpid();
    read_trace_level();
    progname = strdup(base_name(argv0));
    settle_home(argv0);
    settle_descriptor_budget();
    char *path_entry = extend_search_path();
    int32_t status = check_input(argc, argv);
    unsetenv("PATH");
    free(path_entry);
    free(home_dir);
    free(progname);
    exit(status);
}
