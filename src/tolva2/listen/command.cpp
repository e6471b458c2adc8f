/*
 * Two ways: from a command to its script, by the place of its word in a
 * table, and from a script that has ended to the record that follows it.
 */
#include "tolva2/listen/command.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/request.h"
#include "tolva2/files/settings.h"
#include "tolva2/listen/alive.h"
#include "tolva2/listen/child.h"
#include "tolva2/listen/redundancy.h"
#include "tolva2/listen/reply.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <span>
#include <sys/wait.h>

namespace {

/* The script of each command word; null: the text goes to the log. */
constexpr ux_text receiver_params::*COMMAND_SCRIPTS[] = {
    &receiver_params::shutdown_prog, /* SHUTDOWN */
    &receiver_params::exec_prog,     /* EXECUTE */
    &receiver_params::msg_prog,      /* MSG_ID */
    &receiver_params::msg_prog,      /* MSG_TEXT */
    &receiver_params::mail_prog,     /* MAIL_ID */
    &receiver_params::mail_prog,     /* MAIL_TEXT */
    nullptr,                         /* LOG_ID */
    nullptr,                         /* LOG_TEXT */
};

/* Writes the text to the log; a wanted reply goes out without any child. */
bool exec_log_command(connection *cn, const char *text) {
    bool logged = *text && log_message(0, text);
    if (cn->want_reply) {
        cn->busy = true;
        expect_reply(cn, logged ? 0 : 1);
    }
    return logged;
}

/* Why a script counts as failed. */
void report_failure(int status) {
    if (WIFSIGNALED(status)) {
        report(event::script_killed, strsignal(WTERMSIG(status)));
    } else if (WIFSTOPPED(status)) {
        report(event::script_stopped, strsignal(WSTOPSIG(status)));
    } else {
        char text[16];
        snprintf(text, sizeof text, "%d", WEXITSTATUS(status));
        report(event::script_status, text);
    }
}

/* A script has ended or was stopped: log it and serve who waits for it. */
void finish_child(ux_list *list, ux_list_element *node, int status) {
    connection *cn = record_of(node);
    if (!WIFSTOPPED(status)) {
        /* The number may belong to another child from now on. */
        cn->child_owed = false;
    }
    const char *line = cn->cmdline ? cn->cmdline.get() : "";
    if (status == 0) {
        report(event::script_finished, line);
    } else {
        report(event::script_failed, line);
        report_failure(status);
    }
    cn->busy = false;
    if (cn->type == ADDR_KESDAL) {
        cn->cmdline.reset();
        check_alive_retries(node);
    } else if (cn->want_reply) {
        expect_reply(cn, WIFEXITED(status) ? WEXITSTATUS(status) : status);
    } else {
        unregister_connection(list, node);
    }
}

struct ended_child {
    pid_t pid; /* 0: served */
    int status;
};

/* Children that have ended or were stopped, and whose records have not been
 * found yet. They are collected in the system's order, so that a thousand
 * scripts need not be asked one by one, and served in that of the lists. */
struct {
    ended_child children[256];
    size_t count;
} collected;

std::span<ended_child> collected_children() {
    return {collected.children, collected.count};
}

/* A child that was stopped and has ended since has only ended. */
void note_child(pid_t pid, int status) {
    for (ended_child &child : collected_children()) {
        if (child.pid == pid) {
            child.status = status;
            return;
        }
    }
    collected.children[collected.count++] = {pid, status};
}

/* True when there may be more than could be noted. */
bool collect_children() {
    collected.count = 0;
    while (collected.count < std::size(collected.children)) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG | WUNTRACED);
        if (pid <= 0) {
            return pid < 0 && errno == EINTR;
        }
        note_child(pid, status);
    }
    return true;
}

/* The collected child that the record follows, or null. */
ended_child *child_of(const connection *cn) {
    if (!cn || !cn->child_owed) {
        return nullptr;
    }
    for (ended_child &child : collected_children()) {
        if (child.pid == cn->pid) {
            return &child;
        }
    }
    return nullptr;
}

} // namespace

bool exec_V1command(connection *cn) {
    trace_in();
    return track_redundant_shutdowns(cn) &&
           fork_and_exec(cn, rp->shutdown_prog.get(), nullptr);
}

bool exec_V2command(connection *cn, char *text) {
    trace_in();
    const command_request request = parse_command(text);
    if (request.wants_status && cn->type == ADDR_PEER) {
        cn->want_reply = true;
    }
    if (request.fault != command_fault::none) {
        report(request.fault == command_fault::unknown ? event::command_unknown
                                                       : event::not_understood);
        return false;
    }
    ux_text receiver_params::*script = COMMAND_SCRIPTS[request.index];
    return script ? fork_and_exec(cn, (rp->*script).get(), request.params)
                  : exec_log_command(cn, request.params);
}

void handle_sigchld(ux_list *list) {
    trace_in();
    for (ux_list_element *node : ux_nodes(list)) {
        ended_child *child = child_of(record_of(node));
        if (child) {
            child->pid = 0;
            finish_child(list, node, child->status);
        }
    }
}

void reap_children() {
    trace_in();
    bool more = true;
    while (more) {
        more = collect_children();
        if (clients->size > 0) {
            handle_sigchld(clients);
        }
        if (connections->size > 0) {
            handle_sigchld(connections);
        }
    }
}
