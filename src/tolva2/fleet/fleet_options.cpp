/*
 * Options as getopt() finds them. Numbers are plain: seconds and ports have
 * neither sign nor fraction nor leading zeros.
 */
#include "tolva2/fleet/fleet_options.h"
#include "tolva2/base/process_state.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int32_t LONGEST_LIMIT = 9999999; /* seconds */

constexpr char USAGE[] =
    "usage: tolva-fleet [-nq] [-t seconds] [-c seconds] [-s seconds] [-p port]\n"
    "                   [-o text|tsv|json] [-l label] [-r file]\n"
    "                   HOSTS COMMAND [WORD ...]\n"
    "       tolva-fleet -L file PROGRAM [WORD ...]\n"
    "Sends a command to every host of the file HOSTS (\"-\": standard input)\n"
    "and says what has become of it at each.\n"
    "  -t  limit of the whole (none)\n"
    "  -c  limit for the name and the connection of a host (5)\n"
    "  -s  limit for the script of a host (what -t leaves; 10 without -t)\n"
    "  -p  port of the listeners (6003)\n"
    "  -n  only show what would be sent, and to whom\n"
    "  -q  no progress\n"
    "  -o  form of the results: text, tsv or json (text)\n"
    "  -l  label in front of each line of text\n"
    "  -r  leave out the hosts that are done in this file of results\n"
    "  -L  lock the file, become the program; 2: somebody else has the lock\n"
    "Exit status: 0 all done, 1 some not, 2 nothing sent.\n";

/* Options end at the first word that is none: the command has words of its
 * own. The C library of GNU wants to be told. */
#ifdef __GLIBC__
constexpr char OPTIONS[] = "+:nqt:c:s:p:o:r:l:L:hv";
#else
constexpr char OPTIONS[] = ":nqt:c:s:p:o:r:l:L:hv";
#endif

struct form_name {
    const char *name;
    result_form form;
};

constexpr std::array<form_name, 3> FORMS{{{"text", result_form::text},
                                          {"tsv", result_form::table},
                                          {"json", result_form::json}}};

/* A number of 1 to most, or 0. */
int32_t plain_number(const char *text, int32_t most) {
    size_t length = strlen(text);
    if (length == 0 || length > 7 || *text == '0' ||
        strspn(text, "0123456789") != length) {
        return 0;
    }
    long value = strtol(text, nullptr, 10);
    return value <= most ? static_cast<int32_t>(value) : 0;
}

read_options wrong(const char *what, const char *text) {
    fprintf(stderr, "%s: %s%s (-? for help)\n", progname, what, text);
    return {option_result::wrong, {}};
}

bool take_form(fleet_options *options, const char *name) {
    for (const form_name &known : FORMS) {
        if (strcmp(name, known.name) == 0) {
            options->form = known.form;
            return true;
        }
    }
    return false;
}

/* Takes an option: null, or what is wrong with its value. */
const char *take_option(fleet_options *options, int letter, char *value) {
    switch (letter) {
    case 'n':
        options->dry_run = true;
        return nullptr;
    case 'q':
        options->quiet = true;
        return nullptr;
    case 't':
        options->whole = plain_number(value, LONGEST_LIMIT);
        return options->whole ? nullptr : "-t takes whole seconds, not ";
    case 'c':
        options->connect = plain_number(value, LONGEST_LIMIT);
        return options->connect ? nullptr : "-c takes whole seconds, not ";
    case 's':
        options->script = plain_number(value, LONGEST_LIMIT);
        return options->script ? nullptr : "-s takes whole seconds, not ";
    case 'p':
        options->port = plain_number(value, 65535);
        return options->port ? nullptr : "-p takes a port, not ";
    case 'o':
        return take_form(options, value) ? nullptr
                                         : "-o takes text, tsv or json, not ";
    case 'r':
        options->earlier = value;
        return nullptr;
    case 'l':
        options->label = value;
        return nullptr;
    default:
        options->lock = value;
        return nullptr;
    }
}

/* What stands behind the options. */
read_options take_arguments(fleet_options options,
                            std::span<char *const> arguments) {
    if (options.lock) {
        if (arguments.empty() || arguments[0][0] != '/') {
            return wrong("-L takes a program by its full path", "");
        }
        options.words = arguments;
        return {option_result::run, options};
    }
    if (arguments.size() < 2) {
        return wrong(arguments.empty() ? "no list of hosts" : "no command", "");
    }
    if (options.script == 0 && options.whole == 0) {
        options.script = DEFAULT_SCRIPT_LIMIT;
    }
    options.hosts = arguments[0];
    options.words = arguments.subspan(1);
    return {option_result::run, options};
}

/* An option that is none, or one that asks for a text. */
read_options take_other(int letter) {
    if (letter == 'h' || (letter == '?' && optopt == '?')) {
        fputs(USAGE, stdout);
        return {option_result::end_well, {}};
    }
    if (letter == 'v') {
        puts("tolva-fleet 3.0.0");
        return {option_result::end_well, {}};
    }
    char text[] = {'-', static_cast<char>(optopt), '\0'};
    return letter == ':' ? wrong("a value is missing behind ", text)
                         : wrong("unknown option ", text);
}

} // namespace

read_options read_command_line(int argc, char **argv) {
    fleet_options options;
    int letter;
    while ((letter = getopt(argc, argv, OPTIONS)) != -1) {
        if (letter == '?' || letter == ':' || letter == 'h' || letter == 'v') {
            return take_other(letter);
        }
        if (const char *fault = take_option(&options, letter, optarg)) {
            return wrong(fault, optarg);
        }
    }
    return take_arguments(options,
                          {argv + optind, static_cast<size_t>(argc - optind)});
}
