/*
 * The listener's settings: one record with a field per key of tolva.cfg, its
 * defaults, and the reading of it. One instance, filled by mode
 * initialisation before listen mode starts, freed after it has ended.
 */
#ifndef TOLVA2_FILES_SETTINGS_H
#define TOLVA2_FILES_SETTINGS_H

#include <cstdint>

/* Fields in the order of the keys; texts are on the heap or null. */
struct receiver_params {
    char *listen_address;
    int32_t listenport;
    int32_t listen_timeout; /* seconds, 0: none */
    char *listen_udp;
    char *allowed_addresses;
    char *alive_addresses;
    int32_t kesdalport;
    char *alive_enabled;
    int32_t alive_interval; /* seconds */
    int32_t alive_retries;
    char *logfile_name;
    char *logfile_enabled;
    int32_t logfile_size; /* KiB */
    char *shutdown_prog;
    char *alive_prog;
    char *exec_prog;
    char *msg_prog;
    char *mail_prog;
    char *msgfile_name;
    char *redundancy_enabled;
    char *redundancy_batch_file;
    char *redundancy_batch_suppress;
    int32_t redundancy_level;
    char *redundancy_addresses;
};

/* The settings in force and their defaults; null until they are read. */
extern receiver_params *rp;
extern receiver_params *rp_defaults;

/*
 * Fills the record from the file at path; what the file does not say takes
 * its default, file names under the directory home (may be null). missing_ok
 * non-zero: the file may be absent. Returns the record, or null on failure.
 */
receiver_params *read_receiver_config(const char *path, const char *home,
                                      int32_t missing_ok);

/* Writes a fresh file, or puts the values into an existing one: 1 or 0. */
int32_t write_receiver_config(const char *path, int32_t fresh);

/* 1 when redundancy is off or has both a batch file and addresses, else 0. */
int32_t check_redundancy_config(const receiver_params *settings);

/* Frees every text of the settings and of the defaults. */
void free_receiver_config();

/* 1 when a truth value is on: "TRUE" in any case. text may be null. */
int32_t setting_is_on(const char *text);

#endif
