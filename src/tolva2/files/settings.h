/*
 * The listener's settings: one record with a field per key of tolva.cfg, its
 * defaults, and the reading of it. One instance, filled by mode
 * initialisation before listen mode starts, freed after it has ended.
 */
#ifndef TOLVA2_FILES_SETTINGS_H
#define TOLVA2_FILES_SETTINGS_H

#include "unixtools/ux_owned.h"

#include <array>
#include <cstddef>
#include <cstdint>

/* What a shorter AliveInterval is taken as, in seconds. */
constexpr int32_t ALIVE_INTERVAL_MINIMUM = 60;

/* Fields in the order of the keys; a text may be null. */
struct receiver_params {
    ux_text listen_address;
    int32_t listenport = 0;
    int32_t listen_timeout = 0; /* seconds, 0: none */
    ux_text listen_udp;
    ux_text allowed_addresses;
    ux_text alive_addresses;
    int32_t kesdalport = 0;
    ux_text alive_enabled;
    int32_t alive_interval = 0; /* seconds */
    int32_t alive_retries = 0;
    ux_text logfile_name;
    ux_text logfile_enabled;
    int32_t logfile_size = 0; /* KiB */
    ux_text shutdown_prog;
    ux_text alive_prog;
    ux_text exec_prog;
    ux_text msg_prog;
    ux_text mail_prog;
    ux_text msgfile_name;
    ux_text redundancy_enabled;
    ux_text redundancy_batch_file;
    ux_text redundancy_batch_suppress;
    int32_t redundancy_level = 0;
    ux_text redundancy_addresses;
};

/* The settings in force and their defaults; null until they are read. */
extern receiver_params *rp;
extern receiver_params *rp_defaults;

/* Fills the record from the file at path; what the file does not say takes
 * its default, file names under the directory home (may be null). missing_ok
 * non-zero: the file may be absent or empty. Returns the record, or null on
 * failure, memory that is exhausted included: then the settings in force stay
 * as they are. */
[[nodiscard]] receiver_params *
read_receiver_config(const char *path, const char *home, int32_t missing_ok);

/* Writes a fresh file, or puts the values into an existing one: 1 or 0. */
[[nodiscard]] int32_t write_receiver_config(const char *path, int32_t fresh);

/* 1 when redundancy is off or has both a batch file and addresses, else 0. */
[[nodiscard]] int32_t check_redundancy_config(const receiver_params *settings);

/* Empties the settings and the defaults. */
void free_receiver_config();

/* One setting: its key, and where its number or its text is; the other of the
 * two is null. */
struct setting_view {
    const char *key;
    const int32_t *number;
    const ux_text *text; /* which may be none */
};

constexpr size_t SETTING_COUNT = 24;
using setting_views = std::array<setting_view, SETTING_COUNT>;

/* Every setting in force and every default, in the order of the keys' table.
 * The keys are there before anything is read, too. Of the values a new reading
 * makes new ones. */
[[nodiscard]] setting_views settings_in_force();
[[nodiscard]] setting_views settings_by_default();

/* Is a truth value on, "TRUE" in any case? text may be null. */
[[nodiscard]] bool setting_is_on(const char *text);

#endif
