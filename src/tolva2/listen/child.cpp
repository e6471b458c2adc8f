/*
 * From a program and its parameters to a shell that runs them. Between fork
 * and exec the child gives back what the listener has done to its signals.
 */
#include "tolva2/listen/child.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace {

constexpr int HANDLED_SIGNALS[] = {SIGTERM, SIGQUIT, SIGINT, SIGCHLD};

/* "program params", or program alone; null without memory. */
ux_text new_command_line(const char *program, const char *params) {
    if (ux_is_empty(params)) {
        return ux_copy(program);
    }
    return ux_join({program, " ", params});
}

/* Our handlers would swallow a signal that is meant for the script. */
void drop_handlers() {
    for (int number : HANDLED_SIGNALS) {
        struct sigaction action;
        if (sigaction(number, nullptr, &action) == 0 &&
            action.sa_handler != SIG_IGN) {
            signal(number, SIG_DFL);
        }
    }
}

[[noreturn]] void run_shell(const char *line) {
    drop_handlers();
    /* Scripts start with SIGCHLD held back, and nothing else. */
    sigset_t script_mask;
    sigemptyset(&script_mask);
    sigaddset(&script_mask, SIGCHLD);
    sigprocmask(SIG_SETMASK, &script_mask, nullptr);
    execl("/bin/sh", "sh", "-c", line, static_cast<char *>(nullptr));
    _exit(127);
}

} // namespace

bool fork_and_exec(connection *cn, const char *program, const char *params) {
    trace_in();
    if (ux_is_empty(program)) {
        return false;
    }
    ux_text line = new_command_line(program, params);
    if (!line) {
        log_system(errno);
        return false;
    }
    report(event::script_started, line.get());
    pid_t child = fork();
    if (child == 0) {
        run_shell(line.get());
    }
    if (child < 0) {
        log_system(errno);
        return false;
    }
    if (cn) {
        /* An older script of the same record goes on unwatched. */
        if (cn->child_owed) {
            report(event::script_abandoned, cn->ipaddr);
        }
        cn->cmdline = std::move(line);
        cn->busy = true;
        cn->pid = child;
        cn->child_owed = true;
    }
    return true;
}
