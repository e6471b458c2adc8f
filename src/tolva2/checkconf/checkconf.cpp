/*
 * tolva-checkconf: what the settings of the listener really mean, before it is
 * started. Reads what the listener reads, with the listener's own functions,
 * and starts, opens to others, and changes nothing.
 */
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/base/trace.h"
#include "tolva2/checkconf/places.h"
#include "tolva2/checkconf/senders.h"
#include "tolva2/checkconf/values.h"
#include "tolva2/checkconf/writers.h"
#include "tolva2/start/program_dir.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int32_t STATUS_CLEAN = 0;
constexpr int32_t STATUS_ERRORS = 1;
constexpr int32_t STATUS_USAGE = 2;

constexpr const char *CONFIG_FILE = "tolva.cfg";
constexpr const char *USAGE =
    "usage: tolva-checkconf [-o] [-p] [-H home] [file]\n"
    "  -o       everybody is to be admitted: AllowedAddresses need not be set\n"
    "  -p       print the settings in force, and where each comes from\n"
    "  -H home  where defaults and scripts are looked for\n"
    "  file     the settings; without it tolva.cfg in the home\n";

struct arguments {
    bool open_wanted = false;
    bool print = false;
    const char *home = nullptr;
    const char *file = nullptr;
};

[[noreturn]] void wrong_usage(const char *what, const char *word) {
    fprintf(stderr, "%s: %s `%s'\n%s", progname, what, word, USAGE);
    exit(STATUS_USAGE);
}

[[noreturn]] void wrong_option(const char *what) {
    const char word[] = {'-', static_cast<char>(optopt), '\0'};
    wrong_usage(what, word);
}

void take_option(int letter, arguments *given) {
    switch (letter) {
    case 'o':
        given->open_wanted = true;
        break;
    case 'p':
        given->print = true;
        break;
    case 'H':
        if (*optarg != '/') {
            wrong_usage("the home is no absolute path:", optarg);
        }
        given->home = optarg;
        break;
    case ':':
        wrong_option("a word is missing behind");
    default:
        if (optopt == '?' || optopt == 'h') {
            fputs(USAGE, stdout);
            exit(fflush(stdout) == 0 ? STATUS_CLEAN : STATUS_ERRORS);
        }
        wrong_option("unknown option");
    }
}

arguments take_arguments(int argc, char **argv) {
    arguments given;
    opterr = 0;
    for (int letter = getopt(argc, argv, "+:opH:"); letter != -1;
         letter = getopt(argc, argv, "+:opH:")) {
        take_option(letter, &given);
    }
    if (optind < argc) {
        given.file = argv[optind++];
    }
    if (optind < argc) {
        wrong_usage("more than one file:", argv[optind]);
    }
    if (given.file && !*given.file) {
        wrong_usage("an empty name for the file:", "");
    }
    return given;
}

/* The home of a listener that is started as we are. */
ux_text find_home(const char *named, const char *argv0) {
    const char *home = named ? named : getenv("TOLVAHOME");
    if (home && *home != '/') {
        fatal("%s: `$TOLVAHOME' (%s): Not an absolute path\n", progname, home);
    }
    if (!home && *BUILT_IN_HOME) {
        home = BUILT_IN_HOME;
    }
    errno = 0;
    ux_text found = home ? ux_copy(home) : find_program_dir(argv0);
    if (!found && errno == ENOMEM) {
        no_memory_to_check();
    }
    if (!found) {
        fatal("%s: could not determine `$TOLVAHOME'\n", progname);
    }
    return found;
}

/* "Key=value # file:line" for each; false when it could not be written. */
bool print_settings(const char *path, const config_text &text) {
    const written_setting *from = text.settings;
    for (const setting_view &one : settings_in_force()) {
        if (one.number) {
            bool interval = one.number == &rp->alive_interval;
            printf("%s=%d", one.key,
                   interval ? std::max(*one.number, ALIVE_INTERVAL_MINIMUM)
                            : *one.number);
        } else {
            printf("%s=%s", one.key, *one.text ? one.text->get() : "");
        }
        if (from->value) {
            printf(" # %s:%d\n", path, from->line);
        } else {
            printf(" # default\n");
        }
        from++;
    }
    return fflush(stdout) == 0 && !ferror(stdout);
}

/* All checks of a file that can be read. */
void check_settings(const char *path, const arguments &given, const char *home,
                    config_text *text, findings *found) {
    if (!read_receiver_config(path, home, 0) ||
        !read_config_text(path, text, found)) {
        fatal("%s: error reading configfile %s: %s\n", progname, path,
              strerror(errno));
    }
    const checkup all{text, home, given.open_wanted, found};
    check_values(all);
    check_senders(all);
    check_places(all);
}

int32_t check_file(const char *path, const char *home, const arguments &given) {
    findings found;
    config_text text;
    bool readable = is_config_file(path, &found);
    check_writers(&found, NO_LINE, path);
    if (readable) {
        check_settings(path, given, home, &text, &found);
    }
    found.say(path, stderr);
    bool printed = !readable || !given.print || print_settings(path, text);
    if (!printed) {
        fatal("%s: the settings cannot be printed: %s\n", progname,
              strerror(errno));
    }
    return found.errors() > 0 ? STATUS_ERRORS : STATUS_CLEAN;
}

/* A socket must never become the standard error that findings go to. */
void fill_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    /* The first that is not wanted goes again. */
    ux_fd superfluous(fd);
}

} // namespace

int main(int argc, char **argv) {
    const char *argv0 = argc > 0 && argv[0] ? argv[0] : "tolva-checkconf";
    fill_standard_descriptors();
    /* A reader who has gone must not make errors look like none. */
    set_signal(SIGPIPE, SIG_IGN, SA_RESTART);
    progname = base_name(argv0);
    arguments given = take_arguments(argc, argv);
    ux_text home = find_home(given.home, argv0);
    ux_text path = given.file ? ux_copy(given.file)
                              : ux_join({home.get(), "/", CONFIG_FILE});
    if (!path) {
        no_memory_to_check();
    }
    return check_file(path.get(), home.get(), given);
}
