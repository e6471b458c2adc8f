/*
 * The entry of tolva-fleet: what it may need from outside is settled first,
 * then everything is checked that can be before anything is sent.
 */
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/fleet/fleet_plan.h"
#include "tolva2/fleet/fleet_run.h"
#include "tolva2/fleet/hold.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>

namespace {

constexpr int32_t NOTHING_SENT = 2;

/* A connection must never become standard output. Where there is no
 * /dev/null, a socket that leads nowhere is as good. */
void fill_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
        if (fd < 0) {
            fd = socket(AF_UNIX, SOCK_STREAM, 0);
        }
    }
    ux_fd superfluous(fd);
}

int32_t refuse(const char *what, const char *name, const char *why) {
    fprintf(stderr, "%s: %s%s%s%s; nothing was sent\n", progname, what, name,
            *why ? ": " : "", why);
    return NOTHING_SENT;
}

bool names_anybody(host_list *list) {
    return std::any_of(list->begin(), list->end(),
                       [](const fleet_host &host) { return !host.fault; });
}

/* Leaves out what an earlier run has done: an exit status, or 0. */
int32_t leave_out_done(host_list *list, const char *path) {
    file_text results = read_file(path);
    if (!results.bytes) {
        return refuse("cannot read ", path, strerror(errno));
    }
    if (!skip_done(list, {results.bytes.get(), results.length})) {
        return refuse("not a file of results (-o tsv or json): ", path, "");
    }
    return 0;
}

int32_t run_with(const fleet_options &options) {
    fleet_command command = make_command(options.words);
    if (!command.text) {
        return refuse(command.fault ? command.fault.get() : strerror(ENOMEM),
                      "", "");
    }
    file_text hosts = read_file(options.hosts);
    if (!hosts.bytes) {
        return refuse("cannot read ", options.hosts, strerror(errno));
    }
    host_list list = parse_hosts(std::move(hosts.bytes), hosts.length,
                                 static_cast<uint16_t>(options.port));
    if (!list.room) {
        return refuse(strerror(ENOMEM), "", "");
    }
    if (list.count == 0) {
        return refuse("no host in ", options.hosts, "");
    }
    if (options.earlier) {
        int32_t status = leave_out_done(&list, options.earlier);
        if (status != 0) {
            return status;
        }
    }
    bool anybody = names_anybody(&list);
    int32_t status = options.dry_run ? show_fleet(&list, command, options)
                                     : run_fleet(&list, command, options);
    return anybody ? status : NOTHING_SENT;
}

} // namespace

int main(int argc, char **argv) {
    fill_standard_descriptors();
    set_signal(SIGPIPE, SIG_IGN, SA_RESTART);
    set_signal(SIGXFSZ, SIG_IGN, SA_RESTART);
    set_signal(SIGCHLD, SIG_DFL, SA_RESTART);
    progname = "tolva-fleet";
    read_options read = read_command_line(argc, argv);
    if (read.result != option_result::run) {
        return read.result == option_result::end_well ? 0 : NOTHING_SENT;
    }
    return read.options.lock
               ? hold_and_run(read.options.lock, read.options.words)
               : run_with(read.options);
}
