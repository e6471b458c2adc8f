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
#include "unixtools/ux_owned.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr rlim_t DESCRIPTOR_BUDGET = 256;
constexpr int32_t DESCRIPTOR_CEILING = 1024;
constexpr int32_t KEPT_FOR_FILES = 10;
constexpr int32_t RESERVE_CAP = 246;

[[noreturn]] void start_up_failed(const char *call) {
    fatal("%s: %s: \n: %s\n", progname, call, strerror(errno));
}

/* A socket must never become the standard output that the log goes to. */
void fill_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    /* The first that is not wanted goes again. */
    ux_fd superfluous(fd);
}

void read_trace_level() {
    if (const char *level = getenv("TOLVADEBUG")) {
        debug_level = ux_atoi(level);
    }
}

/* A copy of TOLVAHOME, or the home that was built in, or the directory of the
 * executable. */
ux_text find_home(const char *argv0) {
    const char *home = getenv("TOLVAHOME");
    if (home && home[0] != '/') {
        fatal("%s: `$TOLVAHOME' (%s): Not an absolute path\n", progname, home);
    }
    if (!home && *BUILT_IN_HOME) {
        home = BUILT_IN_HOME;
    }
    ux_text found = home ? ux_copy(home) : find_program_dir(argv0);
    if (!found && home) {
        start_up_failed("malloc()");
    }
    if (!found) {
        fatal("%s: could not determine `$TOLVAHOME'\n", progname);
    }
    debug_printf("DEBUG: workdir = >%s<\n", found.get());
    return found;
}

/* How many descriptors we may use: up to 256, raising a lower soft limit. */
void settle_descriptor_budget() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0) {
        fatal("%s: getrlimit(): %s\n", progname, strerror(errno));
    }
    rlim_t budget = std::min(limit.rlim_cur, DESCRIPTOR_BUDGET);
    rlim_t target = std::min(limit.rlim_max, DESCRIPTOR_BUDGET);
    rlimit raised{target, limit.rlim_max};
    if (budget < target && setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        budget = target;
    }
    max_fds = std::min(static_cast<int32_t>(budget), DESCRIPTOR_CEILING);
    fd_reserve = std::min(max_fds - KEPT_FOR_FILES, RESERVE_CAP);
}

/* Puts the home directory in front of PATH. The environment uses the text
 * that is returned for as long as PATH is set. */
ux_text extend_search_path() {
    errno = 0;
    const char *path = getenv("PATH");
    if (!path) {
        start_up_failed("getenv()");
    }
    ux_text entry = ux_join({"PATH=", home_dir, ":", path});
    if (!entry) {
        start_up_failed("malloc()");
    }
    if (putenv(entry.get()) != 0) {
        start_up_failed("putenv()");
    }
    return entry;
}

/* The program from its first step to the mode's result. */
int32_t run(int argc, char **argv) {
    const char *argv0 = argc > 0 && argv[0] ? argv[0] : "tolva";
    fill_standard_descriptors();
    /* A reader of our output that has gone must not keep a command back. */
    set_signal(SIGPIPE, SIG_IGN, SA_RESTART);
    own_pid = getpid();
    read_trace_level();
    progname = base_name(argv0);
    ux_text name = ux_copy(progname);
    if (!name) {
        start_up_failed("malloc()");
    }
    progname = name.get();
    ux_text home = find_home(argv0);
    home_dir = home.get();
    settle_descriptor_budget();
    ux_text path_entry = extend_search_path();
    int32_t status = check_input({argv, static_cast<size_t>(argc)});
    unsetenv("PATH");
    return status;
}

} // namespace

int main(int argc, char **argv) { exit(run(argc, argv)); }
