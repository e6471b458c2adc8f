/*
 * Who counts as failed, and whether that is enough: the members' table and
 * the one question that is asked of it.
 */
#include "tolva2/listen/redundancy.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/events.h"
#include "tolva2/files/logfile.h"
#include "tolva2/listen/alive.h"
#include "tolva2/listen/child.h"

#include <algorithm>
#include <cstring>

namespace {

/* Active members are counted no further: only "more than one" matters. */
constexpr int32_t ACTIVE_CAP = 4;

redundancy_record redundancy;

/* The same member: both texts non-empty and equal byte for byte. */
bool same_member(const char *a, const char *b) {
    return *a && *b && strcmp(a, b) == 0;
}

void copy_batch_file(const char *name) {
    if (!name) {
        return;
    }
    size_t size = strlen(name) + 1;
    if (size > sizeof redundancy.batch_file) {
        /* A cut name would be another script. */
        log_message(
            0,
            "error: RedundancyBatchFile is longer than 511 characters and will not be run");
        return;
    }
    memcpy(redundancy.batch_file, name, size);
}

void fill_members(const ux_list *address_list) {
    int32_t i = 0;
    for (const inetaddr *entry : ux_records<inetaddr>(address_list)) {
        if (i == REDUNDANCY_MEMBERS) {
            break;
        }
        redundancy.addr[i] = entry->text;
        redundancy.inuse[i] = true;
        i++;
    }
    redundancy.active = std::min(i, ACTIVE_CAP);
    if (redundancy.count > REDUNDANCY_MEMBERS) {
        log_message(
            0,
            "error: more than 30 RedundancyAddresses, only the first 30 are used");
    }
}

/* Fewer than were named: the others hold nothing back, and count for nothing. */
void count_members(const char *addresses) {
    int32_t named = 0;
    for (const char *word = addresses; word && *word;) {
        word += strspn(word, " \t\n\v\f\r");
        named += *word ? 1 : 0;
        word += strcspn(word, " \t\n\v\f\r");
    }
    if (redundancy.count < named) {
        char usable[16];
        char all[16];
        snprintf(usable, sizeof usable, "%d", redundancy.count);
        snprintf(all, sizeof all, "%d", named);
        report(event::members_missing, usable, all);
    }
}

/* The slot of the member with that address, or -1. */
int32_t find_member(const char *address) {
    for (int32_t i = 0; i < REDUNDANCY_MEMBERS; i++) {
        if (redundancy.inuse[i] && same_member(redundancy.addr[i], address)) {
            return i;
        }
    }
    return -1;
}

/* Asks every server anew; who cannot even be asked is not alive. */
void refresh_members(const char *sender) {
    alive::cancel_connections();
    alive::start_connections();
    for (int32_t i = 0; i < REDUNDANCY_MEMBERS; i++) {
        if (redundancy.inuse[i] && !same_member(redundancy.addr[i], sender)) {
            redundancy.notalive[i] = !check_alive_single(redundancy.addr[i]);
        }
    }
}

int32_t count_failed() {
    int32_t count = 0;
    for (int32_t i = 0; i < REDUNDANCY_MEMBERS; i++) {
        if (redundancy.inuse[i] &&
            (redundancy.shutdown[i] || redundancy.notalive[i])) {
            count++;
        }
    }
    return count;
}

void suppress_shutdown(connection *cn, int32_t count) {
    char text[128];
    snprintf(text, sizeof text,
             "Shutdown suppressed, redundancy-level = %d, failure count = %d.",
             redundancy.level, count);
    log_message(0, text);
    if (!redundancy.batch_suppress) {
        fork_and_exec(cn, redundancy.batch_file, nullptr);
    }
}

/* Tracking applies and cn's sender is a member: is its request enough? */
bool request_completes(connection *cn) {
    if (!redundancy.enabled || redundancy.level <= 0 ||
        redundancy.active <= 1) {
        return true;
    }
    int32_t sender = find_member(cn->ipaddr);
    if (sender < 0) {
        return true;
    }
    redundancy.shutdown[sender] = true;
    refresh_members(cn->ipaddr);
    int32_t count = count_failed();
    if (count > redundancy.level) {
        return true;
    }
    suppress_shutdown(cn, count);
    return false;
}

} // namespace

void init_redundant_shutdowns(const receiver_params *settings,
                              const ux_list *address_list) {
    trace_in();
    redundancy = redundancy_record{};
    redundancy.enabled = setting_is_on(settings->redundancy_enabled.get());
    redundancy.level = settings->redundancy_level;
    redundancy.count = static_cast<int32_t>(address_list->size);
    redundancy.batch_suppress =
        setting_is_on(settings->redundancy_batch_suppress.get());
    if (redundancy.enabled) {
        copy_batch_file(settings->redundancy_batch_file.get());
    }
    fill_members(address_list);
    if (redundancy.enabled) {
        count_members(settings->redundancy_addresses.get());
    }
    show_redundancy_table(&redundancy);
}

bool track_redundant_shutdowns(connection *cn) {
    trace_in();
    bool result = request_completes(cn);
    show_redundancy_table(&redundancy);
    fprintf(stderr, "returning: %s\n", result ? "TRUE" : "FALSE");
    return result;
}

void show_redundancy_table(const redundancy_record *record) {
    trace_in();
    debug_printf("DEBUG: %s\t%s\t%s\n", "IP-Address", "Shutdown", "NotAlive");
    for (int32_t i = 0; i < REDUNDANCY_MEMBERS; i++) {
        if (record->inuse[i]) {
            debug_printf("DEBUG: %s\t%-8s\t%-8s\n", record->addr[i],
                         record->shutdown[i] ? "x" : "",
                         record->notalive[i] ? "x" : "");
        }
    }
}
