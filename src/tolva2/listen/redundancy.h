/*
 * Holds a bare shutdown request back until enough of the redundant senders
 * have asked for one or are not alive. One record for the whole run of listen
 * mode; what a member has asked for is never forgotten.
 */
#ifndef TOLVA2_LISTEN_REDUNDANCY_H
#define TOLVA2_LISTEN_REDUNDANCY_H

#include "tolva2/files/settings.h"
#include "tolva2/net/connection.h"

constexpr int32_t REDUNDANCY_MEMBERS = 30;
constexpr uint32_t BATCH_FILE_SIZE = 512;

struct redundancy_record {
    bool enabled;
    int32_t level;
    int32_t count;  /* addresses configured */
    int32_t active; /* members, counted up to 4 */
    const char *addr[REDUNDANCY_MEMBERS];
    bool inuse[REDUNDANCY_MEMBERS];
    bool shutdown[REDUNDANCY_MEMBERS]; /* has asked */
    bool notalive[REDUNDANCY_MEMBERS]; /* at the last request */
    bool batch_suppress;
    char batch_file[BATCH_FILE_SIZE];
};

/* Builds the record from the settings and the members' list, whose entries
 * must outlive it. Members past the 30th and a batch file name that does not
 * fit are left out, with a line in the log. */
void init_redundant_shutdowns(const receiver_params *settings,
                              const ux_list *address_list);

/* A request came from cn's address: true when the shutdown is to be carried
 * out, false when it is suppressed. Asks the servers again, may run the batch file,
 * and always says "returning: ..." on standard error. */
[[nodiscard]] bool track_redundant_shutdowns(connection *cn);

/* The members and their flags as trace lines. */
void show_redundancy_table(const redundancy_record *record);

#endif
