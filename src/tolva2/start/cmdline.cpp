/*
 * From the arguments to a mode: the mode first, since it decides which options
 * are allowed, then the arguments from left to right, then the call. What an
 * option means is left to the table of options.
 */
#include "tolva2/start/cmdline.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/start/help.h"
#include "tolva2/start/mode_init.h"
#include "tolva2/start/options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

using namespace std::string_view_literals;

namespace {

using argument_span = std::span<char *const>;

/* Program names that choose a mode. */
constexpr struct {
    std::string_view name;
    mode_code mode;
} NAME_ROWS[] = {
    {"sendtolva", MODE_SEND},
    {"listentolva", MODE_LISTEN},
};

/* Options that choose a mode; MODE_NONE for an error. */
/* clang-format off */
constexpr struct {
    std::string_view letters; /* see is_for */
    mode_code mode;
} MODE_ROWS[] = {
    {"l", MODE_LISTEN},
    {"s\0e"sv, MODE_SEND},
    {"sr", MODE_SEND_STATUS},
    {"sc", MODE_CHECK},
    {"s", MODE_NONE},
};
/* clang-format on */

argument_span behind_program(argument_span arguments) {
    return arguments.empty() ? arguments : arguments.subspan(1);
}

bool is_option(const char *argument) { return argument[0] == '-'; }

/* Some options show a text, and that is all. */
void show_text(const typed_option &option) {
    if (option.letter == '?' || option.letter == 'h') {
        help();
    } else if (option.letter == 'v') {
        version();
    } else {
        return;
    }
    exit(0);
}

/* The mode that an option chooses, the one there is for any other option. */
mode_code scan_option(const typed_option &option, mode_code mode) {
    for (const auto &row : MODE_ROWS) {
        if (!is_for(row.letters, option)) {
            continue;
        }
        if (mode != MODE_NONE) {
            fatal("%s: doubled mode parameter: `-l' and `-s'! (-? for help).\n",
                  progname);
        }
        if (row.mode == MODE_NONE) {
            fatal("%s: unknown parameter: `-s%c' (-? for help).\n", progname,
                  option.third);
        }
        return row.mode;
    }
    return mode;
}

mode_code choose_mode(argument_span arguments) {
    for (const auto &row : NAME_ROWS) {
        if (row.name == progname) {
            return row.mode;
        }
    }
    if (behind_program(arguments).empty()) {
        fatal("%s: missing parameter! (-? for help).\n", progname);
    }
    mode_code mode = scan_mode(arguments);
    if (mode == MODE_NONE) {
        fatal("%s: missing parameter: `-l' or `-s'! (-? for help).\n",
              progname);
    }
    return mode;
}

/* The words run together without separators; null for none. */
ux_text join_words(argument_span words) {
    ux_text text;
    for (const char *word : words) {
        text = ux_join({text ? text.get() : "", word});
        if (!text) {
            fatal("%s: %s\n", progname, strerror(errno));
        }
    }
    return text;
}

/* The first word is no option: it is skipped, and all that follows is the
 * shutdown script's command line. */
void take_words(cmdline_options *options, argument_span words) {
    if (options->mode != MODE_LISTEN) {
        fatal("%s: unknown parameter: `%s' (-? for help).\n", progname,
              words[0]);
    }
    if (options->shutdown_prog) {
        fatal("%s: superfluous parameter: `%s' (-? for help).\n", progname,
              words[0]);
    }
    options->shutdown_prog = join_words(words.subspan(1));
}

void take_arguments(cmdline_options *options, argument_span arguments) {
    while (!arguments.empty()) {
        if (!is_option(arguments[0])) {
            take_words(options, arguments);
            return;
        }
        bool has_value = arguments.size() > 1 && !is_option(arguments[1]);
        char *value = has_value ? arguments[1] : nullptr;
        bool used = take_option(options, arguments[0], value);
        arguments = arguments.subspan(used ? 2 : 1);
    }
}

/* The value, or its default when it was not given. */
int32_t value_or(int32_t value, int32_t least, int32_t default_value) {
    return value >= least ? value : default_value;
}

/* Refused with that text when there is nobody to talk to. */
int32_t dispatch_send(cmdline_options *o, address_list *parties, int32_t port,
                      const char *refusal) {
    if (parties->is_empty()) {
        fatal("%s: %s\n", progname, refusal);
    }
    return init_sender(parties->get(), port,
                       value_or(o->timeout, 0, DEFAULT_SEND_TIMEOUT),
                       o->command.get());
}

int32_t dispatch(cmdline_options *o) {
    switch (o->mode) {
    case MODE_LISTEN:
        return init_receiver(
            std::move(o->cfgfile), o->listen_host, o->port, o->check_port,
            o->peers.get(), o->servers.get(), o->redundant.get(), o->retries,
            std::move(o->shutdown_prog), std::move(o->alive_prog), o->timeout,
            o->check_interval);
    case MODE_CHECK:
        return dispatch_send(
            o, &o->servers, value_or(o->check_port, 1, DEFAULT_KESDAL_PORT),
            "missing address parameter: `-ac <host[:port]>'! (-? for help).");
    default:
        return dispatch_send(
            o, &o->peers, value_or(o->port, 1, DEFAULT_PORT),
            "missing address parameter: `-a <host[:port]>'! (-? for help).");
    }
}

} // namespace

mode_code scan_mode(std::span<char *const> arguments) {
    trace_in();
    mode_code mode = MODE_NONE;
    for (const char *argument : behind_program(arguments)) {
        if (is_option(argument)) {
            typed_option option = read_option(argument);
            show_text(option);
            mode = scan_option(option, mode);
        }
    }
    return mode;
}

int32_t check_input(std::span<char *const> arguments) {
    trace_in();
    /* The mode is found before the lists are made. */
    cmdline_options options{.mode = choose_mode(arguments)};
    take_arguments(&options, behind_program(arguments));
    return dispatch(&options);
}
