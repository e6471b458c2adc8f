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
#include <utility>

using namespace std::string_view_literals;

namespace {

using record = cmdline_options;

constexpr int32_t PORT_MAX = 65535;

/* --- what becomes of a value: false when it is of no use ------------------ */

using store_function = bool (*)(record *options, char *value);

bool store_nothing(record * /*options*/, char * /*value*/) {
    return true;
}

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

bool is_port(int32_t port) {
    return port >= 1 && port <= PORT_MAX;
}

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
ux_text make_command(mode_code mode, const char *value) {
    switch (mode) {
    case MODE_SEND:
        return ux_join({VERB_EXECUTE, " ", value});
    case MODE_SEND_STATUS:
        return ux_join({VERB_EXECSTATUS, " ", value});
    default:
        return ux_copy(VERB_SCAN);
    }
}

bool store_command(record *options, char *value) {
    bool sends =
        options->mode == MODE_SEND || options->mode == MODE_SEND_STATUS;
    if (sends && !value) {
        return true;
    }
    options->command = make_command(options->mode, value);
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
    third,         /* no such option, whatever stands behind it */
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
constexpr refusal unknown_a{fault::third,
    "%s: unknown parameter: `-a%c' (-? for help).\n"};

constexpr refusal no_script_mode{fault::mode,
    "%s: no execute parameter possible in send-mode: `-b%c' (-? for help).\n"};
constexpr refusal no_script{fault::value_missing,
    "%s: missing parameter: -b%c `<file>' (-? for help).\n"};
constexpr refusal unknown_b{fault::third,
    "%s: unknown parameter: `-b%c' (-? for help).\n"};

constexpr refusal no_configfile_mode{fault::mode,
    "%s: configfile not used in send-mode: `-c'.\n"};
constexpr refusal no_configfile{fault::value_missing,
    "%s: missing parameter: -c `<file>' (-? for help).\n"};

constexpr refusal no_port{fault::value_missing,
    "%s: missing parameter for -p%c `<port>' (-? for help).\n"};
constexpr refusal unknown_p{fault::third,
    "%s: unknown parameter: `-p%c' (-? for help).\n"};
constexpr const char *bad_port =
    "%s: invalid parameter: -p%c `%s' (-? for help).\n";

constexpr refusal no_retries{fault::value_missing,
    "%s: missing parameter: -r%c `<num>' (-? for help).\n"};
constexpr refusal unknown_r{fault::third,
    "%s: unknown parameter: `-r%c' (-? for help).\n"};
constexpr const char *bad_retries =
    "%s: invalid parameter: -r%c `%s' (-? for help).\n";

constexpr refusal no_command{fault::value_in_mode,
    "%s: no \"command\" parameter possible in send-mode(kesdal): `-sc' (-? for help).\n"};

constexpr refusal no_time{fault::value_missing,
    "%s: missing parameter: -t%c `<time>' (-? for help).\n"};
constexpr refusal unknown_t{fault::third,
    "%s: unknown parameter: `-t%c' (-? for help).\n"};
constexpr const char *bad_time =
    "%s: invalid parameter: -t%c `%s' (-? for help).\n";
/* clang-format on */

/* --- the options ---------------------------------------------------------- */

/* Modes as bits. */
constexpr uint32_t in(mode_code mode) {
    return 1U << mode;
}

constexpr uint32_t EVERY_MODE = ~0U;

/* Of two rows that are for the same option, the first one counts. */
struct option_row {
    std::string_view letters;        /* see is_for */
    uint32_t modes;                  /* where it is allowed, with a value */
    bool uses_value;                 /* when there is one */
    refusal refusals[3];             /* in this order */
    store_function store;            /* null when it is always refused */
    const char *bad_value = nullptr; /* refused for a value of no use */
};

/* clang-format off */
constexpr option_row OPTION_ROWS[] = {
    /* addresses */
    {"ab", in(MODE_SEND), true, {no_broadcast_address, no_broadcast_mode},
     store_address<&record::peers, ADDR_BROADCAST>},
    {"ac", in(MODE_CHECK), true, {no_server_address, no_server_mode},
     store_address<&record::peers, ADDR_KESDAL>},
    {"a\0r"sv, EVERY_MODE, true, {no_address}, store_party},
    {"a", EVERY_MODE, true, {unknown_a}, nullptr},

    /* scripts */
    {"bs", in(MODE_LISTEN), true, {no_script_mode, no_script},
     store_text<&record::shutdown_prog>},
    {"ba", in(MODE_LISTEN), true, {no_script_mode, no_script},
     store_text<&record::alive_prog>},
    {"b", in(MODE_LISTEN), true, {no_script_mode, no_script, unknown_b},
     nullptr},

    /* configuration file */
    {"c", in(MODE_LISTEN), true, {no_configfile_mode, no_configfile},
     store_text<&record::cfgfile>},

    /* foreground and trace level */
    {"d", EVERY_MODE, true, {}, store_trace_level},

    /* listen mode, known by now */
    {"l", EVERY_MODE, false, {}, store_nothing},

    /* ports */
    {"pc", EVERY_MODE, true, {no_port}, store_check_port, bad_port},
    {"p\0r"sv, EVERY_MODE, true, {no_port}, store_port, bad_port},
    {"p", EVERY_MODE, true, {no_port, unknown_p}, nullptr},

    /* retries */
    {"r\0c"sv, EVERY_MODE, true, {no_retries},
     store_count<&record::retries>, bad_retries},
    {"r", EVERY_MODE, true, {no_retries, unknown_r}, nullptr},

    /* send mode, known by now, and its command */
    {"s", in(MODE_SEND) | in(MODE_SEND_STATUS), true, {no_command},
     store_command},

    /* times */
    {"tc", EVERY_MODE, true, {no_time},
     store_count<&record::check_interval>, bad_time},
    {"t\0r"sv, EVERY_MODE, true, {no_time},
     store_count<&record::timeout>, bad_time},
    {"t", EVERY_MODE, true, {no_time, unknown_t}, nullptr},
};
/* clang-format on */

/* refuse() gives each text these: program, third character, value. */
constexpr bool is_printable(const char *text) {
    return !text || converts_only(text, "scs");
}

constexpr bool all_are_printable() {
    for (const option_row &row : OPTION_ROWS) {
        bool fits = is_printable(row.bad_value);
        for (const refusal &one : row.refusals) {
            fits = fits && is_printable(one.text);
        }
        if (!fits) {
            return false;
        }
    }
    return true;
}

static_assert(all_are_printable());

[[noreturn]] void refuse(const char *text, const typed_option &option,
                         const char *value) {
    fatal(text, progname, option.third, value ? value : "");
}

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
    case fault::third:
        return true;
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
            refuse(one.text, option, value);
        }
    }
    if (!row.store(options, value)) {
        refuse(row.bad_value, option, value);
    }
    return row.uses_value && value;
}
