#include "tolva2/start/cmdline.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/net/address.h"
#include "tolva2/net/wire.h"
#include "tolva2/start/help.h"
#include "tolva2/start/mode_init.h"
#include "unixtools/ux_number.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr int32_t PORT_MAX = 65535;
constexpr size_t JOIN_STEP = 1024;

/* What the arguments say. Texts are on the heap unless noted. */
struct cmdline_options {
    mode_code mode = MODE_NONE;
    char *cfgfile = nullptr;
    char *listen_host = nullptr; /* part of an argument */
    int32_t port = 0;
    int32_t check_port = 0;
    int32_t retries = -1;
    char *shutdown_prog = nullptr;
    char *alive_prog = nullptr;
    int32_t timeout = -1;
    int32_t check_interval = -1;
    char *command = nullptr;
    ux_list peers{};
    ux_list servers{};
    ux_list redundant{};
};

/* Replaces *text by a copy of value. */
void copy_value(char **text, const char *value)
{
    free(*text);
    *text = strdup(value);
    if (!*text) {
        fatal("%s: malloc(): %s\n", progname, strerror(errno));
    }
}

void add_address(ux_list *list, char *value, address_kind kind, mode_code mode)
{
    if (!add_inetaddr(list, value, kind, mode)) {
        fatal("%s: could not handle address [%s]\n", progname, value);
    }
}

/* A number that must not be negative. */
int32_t read_count(const char *option, const char *value)
{
    int32_t number = ux_atoi(value);
    if (number < 0) {
        fatal("%s: invalid parameter: -%c%c `%s' (-? for help).\n", progname,
              tolower(static_cast<unsigned char>(option[1])), option[2], value);
    }
    return number;
}

/*
 * One function per option letter. option is the whole argument, value the one
 * behind it or null; the result tells whether the value was used.
 */

bool option_a(cmdline_options *o, const char *option, char *value)
{
    switch (option[2]) {
    case 'b':
        if (!value) {
            fatal(
                "%s: missing parameter for -ab `<ip-address>'(-? for help).\n",
                progname);
        }
        if (o->mode != MODE_SEND) {
            fatal(
                "%s: broadcast only possible in send_mode(tolva) -s[e] (-? for help).\n",
                progname);
        }
        add_address(&o->peers, value, ADDR_BROADCAST, o->mode);
        break;
    case 'c':
        if (!value) {
            fatal(
                "%s: missing parameter for -ac `<host[:port]>'(-? for help).\n",
                progname);
        }
        if (o->mode != MODE_CHECK) {
            fatal(
                "%s: kesdal/kesnor address not possible in send_mode(tolva) -s[e] (-? for help).\n",
                progname);
        }
        add_address(&o->peers, value, ADDR_KESDAL, o->mode);
        break;
    case '\0':
    case 'r':
        if (!value) {
            fatal(
                "%s: missing parameter for -a `<host[:port]>'(-? for help).\n",
                progname);
        }
        if (o->mode == MODE_CHECK) {
            add_address(&o->servers, value, ADDR_KESDAL, o->mode);
        } else {
            add_address(&o->peers, value, ADDR_PEER, o->mode);
        }
        break;
    default:
        fatal("%s: unknown parameter: `-a%c' (-? for help).\n", progname,
              option[2]);
    }
    return true;
}

bool option_b(cmdline_options *o, const char *option, char *value)
{
    if (o->mode != MODE_LISTEN) {
        fatal(
            "%s: no execute parameter possible in send-mode: `-b%c' (-? for help).\n",
            progname, option[2]);
    }
    if (!value) {
        fatal("%s: missing parameter: -b%c `<file>' (-? for help).\n", progname,
              option[2]);
    }
    switch (option[2]) {
    case 's':
        copy_value(&o->shutdown_prog, value);
        break;
    case 'a':
        copy_value(&o->alive_prog, value);
        break;
    default:
        fatal("%s: unknown parameter: `-b%c' (-? for help).\n", progname,
              option[2]);
    }
    return true;
}

bool option_c(cmdline_options *o, const char *option, char *value)
{
    static_cast<void>(option);
    if (o->mode != MODE_LISTEN) {
        fatal("%s: configfile not used in send-mode: `-c'.\n", progname);
    }
    if (!value) {
        fatal("%s: missing parameter: -c `<file>' (-? for help).\n", progname);
    }
    copy_value(&o->cfgfile, value);
    return true;
}

bool option_d(cmdline_options *o, const char *option, char *value)
{
    static_cast<void>(o);
    static_cast<void>(option);
    debug_level = value ? ux_atoi(value) : 0;
    return value != nullptr;
}

bool option_l(cmdline_options *o, const char *option, char *value)
{
    static_cast<void>(o);
    static_cast<void>(option);
    static_cast<void>(value);
    return false;
}

bool is_port(int32_t port)
{
    return port >= 1 && port <= PORT_MAX;
}

bool option_p(cmdline_options *o, const char *option, char *value)
{
    if (!value) {
        fatal("%s: missing parameter for -p%c `<port>' (-? for help).\n",
              progname, option[2]);
    }
    switch (option[2]) {
    case 'c':
        o->check_port = ux_atoi(value);
        if (!is_port(o->check_port)) {
            fatal("%s: invalid parameter: -pc `%s' (-? for help).\n", progname,
                  value);
        }
        break;
    case '\0':
    case 'r':
        o->port = split_port(&o->listen_host, value);
        if (!is_port(o->port)) {
            fatal("%s: invalid parameter: -p%c `%s' (-? for help).\n", progname,
                  option[2], value);
        }
        break;
    default:
        fatal("%s: unknown parameter: `-p%c' (-? for help).\n", progname,
              option[2]);
    }
    return true;
}

bool option_r(cmdline_options *o, const char *option, char *value)
{
    if (!value) {
        fatal("%s: missing parameter: -r%c `<num>' (-? for help).\n", progname,
              option[2]);
    }
    switch (option[2]) {
    case '\0':
    case 'c':
        o->retries = read_count(option, value);
        break;
    default:
        fatal("%s: unknown parameter: `-r%c' (-? for help).\n", progname,
              option[2]);
    }
    return true;
}

/* "verb value" on the heap; null when memory is exhausted. */
char *join_command(const char *verb, const char *value)
{
    size_t size = strlen(verb) + 1 + strlen(value) + 1;
    char *command = static_cast<char *>(malloc(size));
    if (command) {
        snprintf(command, size, "%s %s", verb, value);
    }
    return command;
}

/* Takes over the command, unless memory for it was exhausted. */
void set_command(cmdline_options *o, char *command)
{
    if (!command) {
        fatal("%s: : %s\n", progname, strerror(errno));
    }
    free(o->command);
    o->command = command;
}

bool option_s(cmdline_options *o, const char *option, char *value)
{
    static_cast<void>(option);
    if (o->mode != MODE_SEND && o->mode != MODE_SEND_STATUS) {
        if (value) {
            fatal(
                "%s: no \"command\" parameter possible in send-mode(kesdal): `-sc' (-? for help).\n",
                progname);
        }
        set_command(o, strdup(VERB_SCAN));
        return false;
    }
    if (value) {
        const char *verb =
            o->mode == MODE_SEND ? VERB_EXECUTE : VERB_EXECSTATUS;
        set_command(o, join_command(verb, value));
    }
    return value != nullptr;
}

bool option_t(cmdline_options *o, const char *option, char *value)
{
    if (!value) {
        fatal("%s: missing parameter: -t%c `<time>' (-? for help).\n", progname,
              option[2]);
    }
    switch (option[2]) {
    case 'c':
        o->check_interval = read_count(option, value);
        break;
    case '\0':
    case 'r':
        o->timeout = read_count(option, value);
        break;
    default:
        fatal("%s: unknown parameter: `-t%c' (-? for help).\n", progname,
              option[2]);
    }
    return true;
}

/* clang-format off */
constexpr struct {
    char letter;
    bool (*take)(cmdline_options *o, const char *option, char *value);
} option_table[] = {
    {'a', option_a}, /* addresses */
    {'b', option_b}, /* scripts */
    {'c', option_c}, /* configuration file */
    {'d', option_d}, /* foreground and trace level */
    {'l', option_l}, /* listen mode, known by now */
    {'p', option_p}, /* ports */
    {'r', option_r}, /* retries */
    {'s', option_s}, /* send mode, known by now, and its command */
    {'t', option_t}, /* times */
};
/* clang-format on */

/* Handles one option: true when it has used the value. */
bool take_option(cmdline_options *o, const char *option, char *value)
{
    int letter = tolower(static_cast<unsigned char>(option[1]));
    for (const auto &row : option_table) {
        if (row.letter == letter) {
            return row.take(o, option, value);
        }
    }
    fatal("%s: unknown parameter: `%s' (-? for help).\n", progname, option);
}

/*
 * Everything behind the first plain word becomes the shutdown script's
 * command line, run together without separators.
 */
void join_words(cmdline_options *o, int32_t argc, char **argv, int32_t first)
{
    size_t size = 0;
    size_t length = 0;
    for (int32_t i = first; i < argc; i++) {
        size_t word = strlen(argv[i]);
        while (length + word + 1 > size) {
            size += JOIN_STEP;
        }
        void *block = realloc(o->shutdown_prog, size);
        if (!block) {
            fatal("%s: %s\n", progname, strerror(errno));
        }
        o->shutdown_prog = static_cast<char *>(block);
        memcpy(o->shutdown_prog + length, argv[i], word + 1);
        length += word;
    }
}

/* A word that is no option: it takes all that follows. */
void take_word(cmdline_options *o, int32_t argc, char **argv, int32_t i)
{
    if (o->mode != MODE_LISTEN) {
        fatal("%s: unknown parameter: `%s' (-? for help).\n", progname,
              argv[i]);
    }
    if (o->shutdown_prog) {
        fatal("%s: superfluous parameter: `%s' (-? for help).\n", progname,
              argv[i]);
    }
    join_words(o, argc, argv, i + 1);
}

void take_arguments(cmdline_options *o, int32_t argc, char **argv)
{
    int32_t i = 1;
    while (i < argc) {
        if (argv[i][0] != '-') {
            take_word(o, argc, argv, i);
            return;
        }
        char *value = nullptr;
        if (i + 1 < argc && argv[i + 1][0] != '-') {
            value = argv[i + 1];
        }
        i += take_option(o, argv[i], value) ? 2 : 1;
    }
}

mode_code choose_mode(int32_t argc, char **argv)
{
    if (strcmp(progname, "sendtolva") == 0) {
        return MODE_SEND;
    }
    if (strcmp(progname, "listentolva") == 0) {
        return MODE_LISTEN;
    }
    if (argc < 2) {
        fatal("%s: missing parameter! (-? for help).\n", progname);
    }
    mode_code mode = scan_mode(argc, argv);
    if (mode == MODE_NONE) {
        fatal("%s: missing parameter: `-l' or `-s'! (-? for help).\n",
              progname);
    }
    return mode;
}

/* The value, or its default when it was not given. */
int32_t value_or(int32_t value, int32_t least, int32_t default_value)
{
    return value >= least ? value : default_value;
}

int32_t dispatch_send(const cmdline_options *o)
{
    if (o->peers.size == 0) {
        fatal(
            "%s: missing address parameter: `-a <host[:port]>'! (-? for help).\n",
            progname);
    }
    return init_sender(&o->peers, value_or(o->port, 1, DEFAULT_PORT),
                       value_or(o->timeout, 0, DEFAULT_SEND_TIMEOUT),
                       o->command);
}

int32_t dispatch_check(const cmdline_options *o)
{
    if (o->servers.size == 0) {
        fatal(
            "%s: missing address parameter: `-ac <host[:port]>'! (-? for help).\n",
            progname);
    }
    return init_sender(
        &o->servers, value_or(o->check_port, 1, DEFAULT_KESDAL_PORT),
        value_or(o->timeout, 0, DEFAULT_SEND_TIMEOUT), o->command);
}

int32_t dispatch_listen(cmdline_options *o)
{
    int32_t result = init_receiver(
        o->cfgfile, o->listen_host, o->port, o->check_port, &o->peers,
        &o->servers, &o->redundant, o->retries, o->shutdown_prog, o->alive_prog,
        o->timeout, o->check_interval);
    /* They have become settings, and were freed with them. */
    o->cfgfile = nullptr;
    o->shutdown_prog = nullptr;
    o->alive_prog = nullptr;
    return result;
}

int32_t dispatch(cmdline_options *o)
{
    switch (o->mode) {
    case MODE_LISTEN:
        return dispatch_listen(o);
    case MODE_SEND:
    case MODE_SEND_STATUS:
        return dispatch_send(o);
    case MODE_CHECK:
        return dispatch_check(o);
    default:
        fatal("%s: missing parameter: `-l' or `-s'! (-? for help).\n",
              progname);
    }
}

} // namespace

mode_code scan_mode(int32_t argc, char **argv)
{
    trace_in();
    mode_code mode = MODE_NONE;
    for (int32_t i = 1; i < argc; i++) {
        if (argv[i][0] != '-') {
            continue;
        }
        int letter = tolower(static_cast<unsigned char>(argv[i][1]));
        if (letter == '?' || letter == 'h') {
            help();
            exit(0);
        }
        if (letter == 'v') {
            version();
            exit(0);
        }
        if (letter != 'l' && letter != 's') {
            continue;
        }
        if (mode != MODE_NONE) {
            fatal("%s: doubled mode parameter: `-l' and `-s'! (-? for help).\n",
                  progname);
        }
        if (letter == 'l') {
            mode = MODE_LISTEN;
            continue;
        }
        switch (argv[i][2]) {
        case '\0':
        case 'e':
            mode = MODE_SEND;
            break;
        case 'r':
            mode = MODE_SEND_STATUS;
            break;
        case 'c':
            mode = MODE_CHECK;
            break;
        default:
            fatal("%s: unknown parameter: `-s%c' (-? for help).\n", progname,
                  argv[i][2]);
        }
    }
    return mode;
}

int32_t check_input(int32_t argc, char **argv)
{
    trace_in();
    cmdline_options options;
    options.mode = choose_mode(argc, argv);
    ux_list *lists[] = {&options.peers, &options.servers, &options.redundant};
    for (ux_list *list : lists) {
        ux_list_init(list, destroy_inetaddr);
    }
    take_arguments(&options, argc, argv);
    int32_t result = dispatch(&options);
    for (ux_list *list : lists) {
        if (list->size > 0) {
            ux_list_destroy(list);
        }
    }
    free(options.shutdown_prog);
    free(options.alive_prog);
    free(options.command);
    return result;
}
