/*
 * Each option is a row: which letters it has, in which modes it is allowed,
 * what it is refused for and with which text, and what becomes of its value.
 * The rows are gone through in one place, and one place prints.
 */
#include "tolva2/start/options.h"
#include "tolva2/base/format.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/net/wire.h"
#include "unixtools/ux_number.h"

#include <cctype>
#include <cerrno>
#include <cstring>

using namespace std::string_view_literals;

namespace {

using record = cmdline_options;

constexpr int32_t PORT_MAX = 65535;

/* --- what becomes of a value: false when it is of no use ------------------ */

using store_function = bool (*)(record *options, char *value);

bool store_nothing(record * /*options*/, char * /*value*/) { return true; }

bool store_trace_level(record * /*options*/, char *value) {
    debug_level = value ? ux_atoi(value) : 0;
    return true;
}

/* A later text replaces an earlier one. */
template <ux_text record::*field>
bool store_text(record *options, char *value) {
    options->*field = ux_copy(value);
    if (!(options->*field)) {
        fatal("%s: malloc(): %s\n", progname, strerror(errno));
    }
    return true;
}

/* A number that must not be negative. */
template <int32_t record::*field>
bool store_count(record *options, char *value) {
    options->*field = ux_atoi(value);
    return options->*field >= 0;
}

bool is_port(int32_t port) { return port >= 1 && port <= PORT_MAX; }

bool store_port(record *options, char *value) {
    options->port = split_port(&options->listen_host, value);
    return is_port(options->port);
}

bool store_check_port(record *options, char *value) {
    options->check_port = ux_atoi(value);
    return is_port(options->check_port);
}

template <address_list record::*field, address_kind kind>
bool store_address(record *options, char *value) {
    ux_list *list = (options->*field).get();
    if (!add_inetaddr(list, value, kind, options->mode)) {
        fatal("%s: could not handle address [%s]\n", progname, value);
    }
    return true;
}

/* Whoever is talked to in this mode. */
bool store_party(record *options, char *value) {
    return options->mode == MODE_CHECK
               ? store_address<&record::servers, ADDR_KESDAL>(options, value)
               : store_address<&record::peers, ADDR_PEER>(options, value);
}

/* The verb of the mode; a check has nothing behind it. */
bool store_command(record *options, char *value) {
    bool waits = options->mode == MODE_SEND_STATUS;
    bool sends = waits || options->mode == MODE_SEND;
    if (sends && !value) {
        return true;
    }
    const char *verb = waits ? VERB_EXECSTATUS : VERB_EXECUTE;
    options->command = sends ? ux_join({verb, " ", value}) : ux_copy(VERB_SCAN);
    if (!options->command) {
        fatal("%s: : %s\n", progname, strerror(errno));
    }
    return true;
}

/* --- what an option is refused for ---------------------------------------- */

enum class fault {
    none,
    value_missing, /* nothing behind it, or another option */
    mode,          /* not in this mode */
    value_in_mode, /* in this mode only without a value */
};

struct refusal {
    fault what = fault::none;
    const char *text = nullptr;
};

/* clang-format off */
constexpr refusal no_address{fault::value_missing,
    "%s: missing parameter for -a `<host[:port]>'(-? for help).\n"};
constexpr refusal no_broadcast_address{fault::value_missing,
    "%s: missing parameter for -ab `<ip-address>'(-? for help).\n"};
constexpr refusal no_server_address{fault::value_missing,
    "%s: missing parameter for -ac `<host[:port]>'(-? for help).\n"};
constexpr refusal no_broadcast_mode{fault::mode,
    "%s: broadcast only possible in send_mode(tolva) -s[e] (-? for help).\n"};
constexpr refusal no_server_mode{fault::mode,
    "%s: kesdal/kesnor address not possible in send_mode(tolva) -s[e] (-? for help).\n"};
constexpr refusal no_script_mode{fault::mode,
    "%s: no execute parameter possible in send-mode: `-b%c' (-? for help).\n"};
constexpr refusal no_script{fault::value_missing,
    "%s: missing parameter: -b%c `<file>' (-? for help).\n"};
constexpr refusal no_configfile_mode{fault::mode,
    "%s: configfile not used in send-mode: `-c'.\n"};
constexpr refusal no_configfile{fault::value_missing,
    "%s: missing parameter: -c `<file>' (-? for help).\n"};
constexpr refusal no_port{fault::value_missing,
    "%s: missing parameter for -p%c `<port>' (-? for help).\n"};
constexpr refusal no_retries{fault::value_missing,
    "%s: missing parameter: -r%c `<num>' (-? for help).\n"};
constexpr refusal no_command{fault::value_in_mode,
    "%s: no \"command\" parameter possible in send-mode(kesdal): `-sc' (-? for help).\n"};
constexpr refusal no_time{fault::value_missing,
    "%s: missing parameter: -t%c `<time>' (-? for help).\n"};
/* clang-format on */

/* --- the options ---------------------------------------------------------- */

/* Modes as bits. */
constexpr uint32_t in(mode_code mode) { return 1U << mode; }

constexpr uint32_t EVERY_MODE = ~0U;

/* Of two rows that are for the same option, the first one counts. A value is
 * used where there is one, but for store_nothing. */
struct option_row {
    std::string_view letters; /* see is_for */
    uint32_t modes;           /* where it is allowed, with a value */
    refusal refusals[2];      /* in this order */
    store_function store;     /* null: no such option */
};

/* clang-format off */
constexpr option_row OPTION_ROWS[] = {
    /* addresses */
    {"ab", in(MODE_SEND), {no_broadcast_address, no_broadcast_mode},
     store_address<&record::peers, ADDR_BROADCAST>},
    {"ac", in(MODE_CHECK), {no_server_address, no_server_mode},
     store_address<&record::peers, ADDR_KESDAL>},
    {"a\0r"sv, EVERY_MODE, {no_address}, store_party},
    {"a", EVERY_MODE, {}, nullptr},

    /* scripts */
    {"bs", in(MODE_LISTEN), {no_script_mode, no_script},
     store_text<&record::shutdown_prog>},
    {"ba", in(MODE_LISTEN), {no_script_mode, no_script},
     store_text<&record::alive_prog>},
    {"b", in(MODE_LISTEN), {no_script_mode, no_script}, nullptr},

    /* configuration file */
    {"c", in(MODE_LISTEN), {no_configfile_mode, no_configfile},
     store_text<&record::cfgfile>},

    /* foreground and trace level */
    {"d", EVERY_MODE, {}, store_trace_level},

    /* listen mode, known by now */
    {"l", EVERY_MODE, {}, store_nothing},

    /* ports */
    {"pc", EVERY_MODE, {no_port}, store_check_port},
    {"p\0r"sv, EVERY_MODE, {no_port}, store_port},
    {"p", EVERY_MODE, {no_port}, nullptr},

    /* retries */
    {"r\0c"sv, EVERY_MODE, {no_retries}, store_count<&record::retries>},
    {"r", EVERY_MODE, {no_retries}, nullptr},

    /* send mode, known by now, and its command */
    {"s", in(MODE_SEND) | in(MODE_SEND_STATUS), {no_command}, store_command},

    /* times */
    {"tc", EVERY_MODE, {no_time}, store_count<&record::check_interval>},
    {"t\0r"sv, EVERY_MODE, {no_time}, store_count<&record::timeout>},
    {"t", EVERY_MODE, {no_time}, nullptr},
};
/* clang-format on */

/* Each text is given the program's name and the third character. */
constexpr bool all_are_printable() {
    for (const option_row &row : OPTION_ROWS) {
        for (const refusal &one : row.refusals) {
            if (one.text && !converts_only(one.text, "sc")) {
                return false;
            }
        }
    }
    return true;
}

static_assert(all_are_printable());

/* The row of an option; without one the process ends. */
const option_row &find_row(const typed_option &option) {
    for (const option_row &row : OPTION_ROWS) {
        if (is_for(row.letters, option)) {
            return row;
        }
    }
    fatal("%s: unknown parameter: `%s' (-? for help).\n", progname,
          option.whole);
}

bool has_fault(fault what, bool is_allowed, bool has_value) {
    switch (what) {
    case fault::value_missing:
        return !has_value;
    case fault::mode:
        return !is_allowed;
    case fault::value_in_mode:
        return !is_allowed && has_value;
    default:
        return false;
    }
}

} // namespace

typed_option read_option(const char *argument) {
    int letter = tolower(static_cast<unsigned char>(argument[1]));
    return {argument, static_cast<char>(letter), letter ? argument[2] : '\0'};
}

bool take_option(cmdline_options *options, const char *argument, char *value) {
    const typed_option option = read_option(argument);
    const option_row &row = find_row(option);
    bool is_allowed = (row.modes & in(options->mode)) != 0;
    for (const refusal &one : row.refusals) {
        if (has_fault(one.what, is_allowed, value != nullptr)) {
            fatal(one.text, progname, option.third);
        }
    }
    if (!row.store) {
        fatal("%s: unknown parameter: `-%c%c' (-? for help).\n", progname,
              option.letter, option.third);
    }
    if (!row.store(options, value)) {
        fatal("%s: invalid parameter: -%c%c `%s' (-? for help).\n", progname,
              option.letter, option.third, value);
    }
    return value && row.store != store_nothing;
}
