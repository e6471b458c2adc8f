#include "tolva2/listen/child.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

const sigset_t *child_mask = nullptr;

namespace
{

constexpr int HANDLED_SIGNALS[] = {SIGTERM, SIGQUIT, SIGINT, SIGCHLD};

/* "program params", or program alone, on the heap; null without memory. */
char *new_command_line(const char *program, const char *params)
{
    bool has_params = params && *params;
    size_t size = strlen(program) + (has_params ? strlen(params) : 0) + 2;
    char *line = static_cast<char *>(malloc(size));
    if (line) {
        snprintf(line, size, "%s%s%s", program, has_params ? " " : "",
                 has_params ? params : "");
    }
    return line;
}

/* Our handlers would swallow a signal that is meant for the script. */
void drop_handlers()
{
    for (int number : HANDLED_SIGNALS) {
        struct sigaction action;
        if (sigaction(number, nullptr, &action) == 0 &&
            action.sa_handler != SIG_IGN) {
            signal(number, SIG_DFL);
        }
    }
}

[[noreturn]] void run_shell(const char *line)
{
    drop_handlers();
    if (child_mask) {
        sigprocmask(SIG_SETMASK, child_mask, nullptr);
    }
    execl("/bin/sh", "sh", "-c", line, static_cast<char *>(nullptr));
    _exit(127);
}

} // namespace

int32_t fork_and_exec(connection *cn, const char *program, const char *params)
{
    trace_in();
    if (!program || !*program) {
        return 0;
    }
    char *line = new_command_line(program, params);
    if (!line) {
        log_system(errno);
        return 0;
    }
    report(event::script_started, line);
    pid_t child = fork();
    if (child == 0) {
        run_shell(line);
    }
    if (child < 0) {
        log_system(errno);
        free(line);
        return 0;
    }
    if (!cn) {
        free(line);
        return 1;
    }
    /* An older script of the same record goes on unwatched. */
    free(cn->cmdline);
    cn->cmdline = line;
    cn->busy = 1;
    cn->pid = child;
    cn->child_owed = 1;
    return 1;
}
