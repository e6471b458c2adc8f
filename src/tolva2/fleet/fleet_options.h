/*
 * The command line of tolva-fleet.
 */
#ifndef TOLVA2_FLEET_FLEET_OPTIONS_H
#define TOLVA2_FLEET_FLEET_OPTIONS_H

#include "tolva2/base/codes.h"
#include "tolva2/fleet/results.h"

#include <span>

constexpr int32_t DEFAULT_CONNECT_LIMIT = 5;
constexpr int32_t DEFAULT_SCRIPT_LIMIT = 10;

struct fleet_options {
    bool dry_run = false;                    /* -n */
    bool quiet = false;                      /* -q */
    int32_t whole = 0;                       /* seconds, -t; 0: no such limit */
    int32_t connect = DEFAULT_CONNECT_LIMIT; /* seconds, -c */
    int32_t script = 0; /* seconds, -s; 0: as long as -t lets it */
    int32_t port = DEFAULT_PORT;
    result_form form = result_form::text;
    const char *earlier = nullptr; /* -r; null: none */
    const char *label = nullptr;   /* -l; null: none */
    const char *lock = nullptr;    /* -L; null: none */
    const char *hosts = nullptr;   /* the file */
    std::span<char *const> words;  /* the command, or with -L a program */
};

/* What to do after reading the command line. */
enum class option_result {
    run,
    end_well, /* help or version have been printed */
    wrong,    /* a line on standard error has said what */
};

struct read_options {
    option_result result = option_result::run;
    fleet_options options;
};

/* Reads the command line; argv must be kept. */
[[nodiscard]] read_options read_command_line(int argc, char **argv);

#endif
