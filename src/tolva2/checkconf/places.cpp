/*
 * Each thing is looked at in the way that the listener will use it; what is
 * switched off is looked at only when a setting names it.
 */
#include "tolva2/checkconf/places.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/checkconf/program_file.h"
#include "tolva2/checkconf/writers.h"
#include "tolva2/files/events.h"
#include "tolva2/files/msgdb.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <iterator>
#include <sys/stat.h>

namespace {

/* Events with a higher number came later: a database that was there before
 * does not have them, which is no reason not to start. */
constexpr int32_t LAST_NEEDED_EVENT = 835;

constexpr size_t NUMBER_TEXT = 12;

bool always() { return true; }

bool is_watching() { return setting_is_on(rp->alive_enabled.get()); }

bool runs_batch_file() {
    return setting_is_on(rp->redundancy_enabled.get()) &&
           !setting_is_on(rp->redundancy_batch_suppress.get());
}

struct script_rule {
    const char *key;
    ux_text receiver_params::*command;
    bool (*used)();
};

constexpr script_rule SCRIPTS[] = {
    {"ShutdownProg", &receiver_params::shutdown_prog, always},
    {"ExecProg", &receiver_params::exec_prog, always},
    {"MsgProg", &receiver_params::msg_prog, always},
    {"MailProg", &receiver_params::mail_prog, always},
    {"AliveProg", &receiver_params::alive_prog, is_watching},
    {"RedundancyBatchFile", &receiver_params::redundancy_batch_file,
     runs_batch_file},
};

void check_scripts(const checkup &all) {
    for (const script_rule &rule : SCRIPTS) {
        const char *command = (rp->*rule.command).get();
        if (command && (rule.used() || written(all, rule.key).value)) {
            check_command(all, rule.key, command);
        }
    }
}

struct directory_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};
using directory_owner = std::unique_ptr<DIR, directory_closer>;

ux_text in_directory(const char *directory, const char *name) {
    ux_text path = ux_join({directory, "/", name});
    if (!path) {
        no_memory_to_check();
    }
    return path;
}

/* What could be run in the name of an action. Links never are. */
void check_action(const checkup &all, const char *path) {
    struct stat status;
    if (lstat(path, &status) < 0) {
        say_unseen(all.found, NO_LINE, path);
    } else if (S_ISREG(status.st_mode) && access(path, X_OK) == 0) {
        check_program(all, NO_LINE, path, path);
    } else if (S_ISREG(status.st_mode)) {
        check_writers(all.found, NO_LINE, path);
    }
}

void say_no_directory(const checkup &all, const char *path) {
    if (errno == ENOMEM) {
        no_memory_to_check();
    }
    all.found->error(NO_LINE, "%s cannot be looked into: %s", path,
                     strerror(errno));
}

void check_actions(const checkup &all) {
    ux_text path = in_directory(all.home, "actions.d");
    directory_owner directory(opendir(path.get()));
    if (!directory) {
        if (errno != ENOENT) {
            say_no_directory(all, path.get());
        }
        return;
    }
    check_writers(all.found, NO_LINE, path.get());
    errno = 0;
    while (const dirent *entry = readdir(directory.get())) {
        check_action(all, in_directory(path.get(), entry->d_name).get());
        errno = 0;
    }
    if (errno != 0) {
        say_no_directory(all, path.get());
    }
}

/* A path that means the same wherever the listener is started. */
bool is_absolute(const checkup &all, const char *key, const char *path) {
    if (*path != '/') {
        all.found->error(
            written(all, key).line,
            "%s: `%s' depends on where the listener is started: write the whole path, from / on, without quotes",
            key, path);
    }
    return *path == '/';
}

void check_log_directory(const checkup &all, int32_t line, const char *path) {
    const char *slash = strrchr(path, '/');
    size_t length = slash == path ? 1 : static_cast<size_t>(slash - path);
    ux_text directory = ux_join({std::string_view(path, length)});
    if (!directory) {
        no_memory_to_check();
    }
    struct stat status;
    if (stat(directory.get(), &status) == 0 && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
    } else if (access(directory.get(), W_OK | X_OK) == 0) {
        return;
    }
    all.found->error(
        line,
        "LogfileName: the log cannot be written in %s (%s): make the directory, or name another",
        directory.get(), strerror(errno));
}

void check_log(const checkup &all) {
    const char *key = "LogfileName";
    const char *path = rp->logfile_name.get();
    int32_t line = written(all, key).line;
    struct stat status;
    if (!setting_is_on(rp->logfile_enabled.get()) || ux_is_empty(path) ||
        !is_absolute(all, key, path)) {
        return;
    }
    if (stat(path, &status) < 0) {
        check_log_directory(all, line, path);
    } else if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
        all.found->error(line, "%s: %s is no file: name another", key, path);
    } else if (access(path, R_OK | W_OK) < 0) {
        all.found->error(
            line,
            "%s: %s cannot be written (%s): name another, or let it be written",
            key, path, strerror(errno));
    }
}

/* The numbers that the database lacks, with blanks between them. */
struct number_list {
    char text[std::size(event::NUMBERS) * NUMBER_TEXT] = "";
    size_t length = 0;

    void add(int32_t number) {
        int written = snprintf(text + length, sizeof text - length, "%s%d",
                               length > 0 ? " " : "", number);
        length += static_cast<size_t>(written);
    }
};

/* Does the database lack it? Ends the process when that cannot be known. */
bool lacks_event(int32_t number) {
    if (msgdb_lists(number)) {
        return false;
    }
    if (errno != 0) {
        fatal("%s: %s: %s\n", progname, rp->msgfile_name.get(),
              strerror(errno));
    }
    return true;
}

/* The numbers from least to most that the database lacks. */
number_list missing_events(int32_t least, int32_t most) {
    number_list missing;
    for (int32_t number : event::NUMBERS) {
        if (number >= least && number <= most && lacks_event(number)) {
            missing.add(number);
        }
    }
    return missing;
}

void check_texts(const checkup &all, int32_t line, const char *path) {
    number_list needed = missing_events(0, LAST_NEEDED_EVENT);
    if (needed.length > 0) {
        all.found->error(
            line,
            "MsgDatName: %s has no line for %s, so these events leave the log without a word: take the lines from the shipped messages.dat, or write m%.*s= to be silent",
            path, needed.text, static_cast<int>(strcspn(needed.text, " ")),
            needed.text);
    }
    number_list later = missing_events(LAST_NEEDED_EVENT + 1, INT32_MAX);
    if (later.length > 0) {
        all.found->warning(
            line,
            "MsgDatName: %s is older than the program and does not have %s: take the lines from the shipped messages.dat",
            path, later.text);
    }
}

void check_database(const checkup &all) {
    const char *key = "MsgDatName";
    const char *path = rp->msgfile_name.get();
    int32_t line = written(all, key).line;
    if (ux_is_empty(path) || !is_absolute(all, key, path)) {
        return;
    }
    check_writers(all.found, line, path);
    if (!msgdb_open(path) || access(path, R_OK) < 0) {
        if (errno == ENOMEM) {
            no_memory_to_check();
        }
        all.found->error(
            line,
            "%s: %s: %s, so the log stays empty: put the shipped messages.dat there",
            key, path, strerror(errno));
    } else {
        check_texts(all, line, path);
    }
    msgdb_close();
}

void check_rehearsal(const checkup &all) {
    ux_text path = in_directory(all.home, "rehearsal");
    struct stat status;
    /* A link to nowhere counts for the scripts, too. */
    if (lstat(path.get(), &status) == 0) {
        all.found->warning(
            NO_LINE,
            "%s is there, so that no shutdown is carried out: remove it when the rehearsal is over",
            path.get());
    } else {
        say_unseen(all.found, NO_LINE, path.get());
    }
}

} // namespace

void check_places(const checkup &all) {
    check_scripts(all);
    check_actions(all);
    check_log(all);
    check_database(all);
    check_rehearsal(all);
}
