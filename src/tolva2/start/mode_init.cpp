/*
 * Readies a mode and runs it: for the listener settings, log, message texts,
 * address lists and the last checks, in an order that the user can see; for
 * the sender the message texts alone.
 */
#include "tolva2/start/mode_init.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/msgdb.h"
#include "tolva2/files/settings.h"
#include "tolva2/listen/tolva_receive.h"
#include "tolva2/net/address.h"
#include "tolva2/send/tolva_send.h"
#include "tolva2/start/daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *CONFIG_FILE = "tolva.cfg";
constexpr const char *LOG_FILE = "tolva.log";
constexpr const char *MESSAGE_FILE = "messages.dat";

/* Why a file that is there cannot be read, or 0. */
int32_t open_error(const char *path) {
    ux_fd file(open(path, O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) < 0) {
        return errno == ENOENT ? 0 : errno;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : 0;
}

/* Settings that are there, but that nobody could open. */
struct unread_settings {
    ux_text path;
    int32_t error; /* 0: there are none */
};

/* Reads the file that was named, or else the one in the home directory, which
 * may be missing. */
unread_settings read_settings(ux_text cfgfile) {
    bool named = cfgfile != nullptr;
    ux_text path =
        named ? std::move(cfgfile) : ux_join({home_dir, "/", CONFIG_FILE});
    if (!path) {
        fatal("%s: malloc():: %s\n", progname, strerror(errno));
    }
    debug_printf("DEBUG: init_receiver: %s configfile=%s\n",
                 named ? "existing" : "new", path.get());
    if (!read_receiver_config(path.get(), home_dir, named ? 0 : 1)) {
        fatal("%s: error reading configfile %s\n", progname, path.get());
    }
    int32_t error = open_error(path.get());
    return {std::move(path), error};
}

/* Puts text, if there is one, into the place of a setting. */
void override_text(ux_text *setting, ux_text text) {
    if (text) {
        *setting = std::move(text);
    }
}

void override_listen_address(const char *listen_host) {
    ux_text address = ux_copy(listen_host);
    /* Without it the listener would listen where nobody asked it to. */
    if (listen_host && !address) {
        fatal("%s: malloc(): %s\n", progname, strerror(errno));
    }
    override_text(&rp->listen_address, std::move(address));
}

void override_number(int32_t *setting, int32_t number, int32_t least) {
    if (number >= least) {
        *setting = number;
    }
}

void open_log() {
    if (!setting_is_on(rp->logfile_enabled.get())) {
        return;
    }
    const char *name = rp->logfile_name.get();
    if (ux_is_empty(name)) {
        error_printf(stderr, ERROR_CONTINUE,
                     "%s: empty pathname for `%s': log to file disabled\n",
                     progname, LOG_FILE);
    } else if (!logfile_open(name, rp->logfile_size)) {
        /* No log is open yet, so it can only be the memory for its name. */
        fatal("%s: error initializing logfile %s\n", progname, name);
    } else {
        log_into_file();
    }
}

/* One "-a" on the command line replaces both lists of the settings. */
void fill_address_lists(ux_list *peers, ux_list *servers) {
    if (peers->size > 0 || servers->size > 0) {
        return;
    }
    const char *allowed = rp->allowed_addresses.get();
    if (!ux_is_empty(allowed) &&
        !get_inetaddr_arr_from_str(peers, allowed, ADDR_PEER, MODE_LISTEN)) {
        log_message(
            0,
            "error: no address of AllowedAddresses can be used, nobody is admitted");
    }
    if (setting_is_on(rp->alive_enabled.get())) {
        get_inetaddr_arr_from_str(servers, rp->alive_addresses.get(),
                                  ADDR_KESDAL, MODE_LISTEN);
    }
}

/* An address list that is empty is an open door, unless it was meant not to
 * be: then nothing in it could be used. */
void warn_of_open_door(const ux_list *peers) {
    if (peers->size == 0 && ux_is_empty(rp->allowed_addresses.get())) {
        report(event::everybody_admitted);
    }
}

void check_scripts(const ux_list *peers, const ux_list *servers) {
    if (peers->size > 0 && ux_is_empty(rp->shutdown_prog.get())) {
        fatal("%s: missing parameter: -bs <file> (-? for help).\n", progname);
    }
    if (servers->size > 0 && ux_is_empty(rp->alive_prog.get())) {
        fatal("%s: missing parameter: -ba <file> (-? for help).\n", progname);
    }
}

void fill_redundant_list(ux_list *redundant) {
    if (!check_redundancy_config(rp)) {
        fatal("%s: invalid redundancy configuration (-? for help).\n",
              progname);
    }
    if (setting_is_on(rp->redundancy_enabled.get())) {
        get_inetaddr_arr_from_str(redundant, rp->redundancy_addresses.get(),
                                  ADDR_PEER, MODE_LISTEN);
    }
}

void open_messages() {
    const char *name = rp->msgfile_name.get();
    errno = 0;
    if (!msgdb_open(name)) {
        /* Without a file the log is silent; without memory nothing is sure. */
        error_printf(stderr, errno == ENOMEM ? ERROR_EXIT : ERROR_CONTINUE,
                     "%s: error initializing messages database [%s]\n",
                     progname, name ? name : "");
    }
}

/* Of the working directory; else of the home, where one was built in. */
void open_sender_messages() {
    if (msgdb_open(MESSAGE_FILE)) {
        return;
    }
    if (*BUILT_IN_HOME) {
        ux_text installed = ux_join({home_dir, "/", MESSAGE_FILE});
        if (installed && msgdb_open(installed.get())) {
            return;
        }
    }
    error_printf(stderr, ERROR_CONTINUE,
                 "%s: error initializing messages database %s\n", progname,
                 MESSAGE_FILE);
}

void show_settings() {
    const char *name = rp->msgfile_name.get();
    debug_printf("DEBUG: rp->msgfile_name = %s\n", name ? name : "");
    debug_printf("DEBUG: rp->listenport = %d\n", rp->listenport);
    debug_printf("DEBUG: rp->kesdalport = %d\n", rp->kesdalport);
}

/* Without a process or a session of its own it serves nevertheless. */
void detach() {
    if (daemonize(0, 1) < 0) {
        log_system(errno);
    }
    own_pid = getpid();
    if (daemonized) {
        log_as(own_pid);
    }
}

} // namespace

int32_t init_receiver(ux_text cfgfile, const char *listen_host, int32_t port,
                      int32_t check_port, ux_list *peers, ux_list *servers,
                      ux_list *redundant, int32_t retries,
                      ux_text shutdown_prog, ux_text alive_prog,
                      int32_t timeout, int32_t check_interval) {
    trace_in();
    unread_settings unread = read_settings(std::move(cfgfile));
    override_text(&rp->shutdown_prog, std::move(shutdown_prog));
    override_text(&rp->alive_prog, std::move(alive_prog));
    override_listen_address(listen_host);
    open_log();
    if (unread.error != 0) {
        log_message(2, "error: cannot read %s, the defaults hold: %s",
                    unread.path.get(), strerror(unread.error));
    }
    open_messages();
    override_number(&rp->listenport, port, 1);
    override_number(&rp->kesdalport, check_port, 1);
    override_number(&rp->alive_retries, retries, 0);
    override_number(&rp->listen_timeout, timeout, 0);
    override_number(&rp->alive_interval, check_interval, 0);
    rp->alive_interval = std::max(rp->alive_interval, ALIVE_INTERVAL_MINIMUM);
    show_settings();
    fill_address_lists(peers, servers);
    check_scripts(peers, servers);
    warn_of_open_door(peers);
    fill_redundant_list(redundant);
    if (debug_level < 0) {
        detach();
    }
    int32_t result = recv_mode(rp, peers, servers, redundant);
    free_receiver_config();
    logfile_close();
    msgdb_close();
    return result;
}

int32_t init_sender(const ux_list *addresses, int32_t port, int32_t timeout,
                    const char *command) {
    trace_in();
    open_sender_messages();
    report(event::sender_started);
    int32_t result = send_mode(addresses, port, timeout, command);
    report(event::sender_finished);
    msgdb_close();
    return result;
}
