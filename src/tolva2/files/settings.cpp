/*
 * A setting lives in one row: its key, its field, its default. The rows that
 * the reading and writing of the file go by are made of them when it is read
 * or written.
 */
#include "tolva2/files/settings.h"
#include "tolva2/base/codes.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_configfile.h"

#include <algorithm>
#include <iterator>
#include <strings.h>

receiver_params *rp = nullptr;
receiver_params *rp_defaults = nullptr;

namespace {

constexpr uint32_t SETTINGS_BUCKETS = 64;

using params = receiver_params;

struct setting {
    ux_option_type type;
    int32_t default_number;
    const char *default_text; /* null: none */
    const char *key;          /* or the line of a header */
    int32_t params::*number = nullptr;
    ux_text params::*text = nullptr;
};

/* A line that a fresh file begins with. */
constexpr setting header(const char *line) {
    return {UX_OPTION_LITERAL, 0, nullptr, line};
}

constexpr setting number(const char *key, int32_t params::*field,
                         int32_t value) {
    return {UX_OPTION_INTEGER, value, nullptr, key, field};
}

constexpr setting text(const char *key, ux_text params::*field,
                       const char *value) {
    return {UX_OPTION_TEXT, 0, value, key, nullptr, field};
}

/* Its default is the file of that name in the home directory. */
constexpr setting file(const char *key, ux_text params::*field,
                       const char *name) {
    return {UX_OPTION_STRING, 0, name, key, nullptr, field};
}

constexpr setting SETTINGS[] = {
    header("#"),
    header("# TOLVA Configuration (v-3.00.0-1)"),
    header("#"),
    /* the local address that is listened at, and its port, TCP and UDP */
    text("ListenAddress", &params::listen_address, "0.0.0.0"),
    number("ListenPort", &params::listenport, DEFAULT_PORT),
    /* seconds until a sender who says nothing is dropped; 0: never */
    number("ListenTimeout", &params::listen_timeout, 10),
    /* is UDP listened at too? */
    text("ListenUDP", &params::listen_udp, "true"),
    /* whose requests are carried out; none: everybody's */
    text("AllowedAddresses", &params::allowed_addresses, nullptr),
    /* the UPS management servers to watch, and their port */
    text("AliveAddresses", &params::alive_addresses, nullptr),
    number("AlivePort", &params::kesdalport, DEFAULT_KESDAL_PORT),
    /* are they watched? */
    text("AliveEnabled", &params::alive_enabled, "false"),
    /* seconds from one watch to the next, which mode_init keeps from 60 up */
    number("AliveInterval", &params::alive_interval, 1800),
    /* further attempts before a server counts as not alive */
    number("AliveRetries", &params::alive_retries, 0),
    /* the operator's log, whether there is one, and its greatest size in KiB */
    file("LogfileName", &params::logfile_name, "tolva.log"),
    text("LogfileEnabled", &params::logfile_enabled, "true"),
    number("LogfileSize", &params::logfile_size, 1024),
    /* the scripts: for a shutdown, for a server that is not alive, for each
     * kind of command */
    file("ShutdownProg", &params::shutdown_prog, "tolva_shutdown.sh"),
    file("AliveProg", &params::alive_prog, "tolva_notalive.sh"),
    file("ExecProg", &params::exec_prog, "tolva_execute.sh"),
    file("MsgProg", &params::msg_prog, "tolva_message.sh"),
    file("MailProg", &params::mail_prog, "tolva_mail.sh"),
    /* the numbered texts */
    file("MsgDatName", &params::msgfile_name, "messages.dat"),
    /* is a bare shutdown request held back until enough senders have failed? */
    text("RedundancyEnabled", &params::redundancy_enabled, "false"),
    /* the script for a request that is held back, and whether it is not run */
    file("RedundancyBatchFile", &params::redundancy_batch_file,
         "ShutdownSuppressed.sh"),
    text("RedundancyBatchSuppress", &params::redundancy_batch_suppress,
         "false"),
    /* the failures that are borne, and the senders that are counted */
    number("RedundancyLevel", &params::redundancy_level, 0),
    text("RedundancyAddresses", &params::redundancy_addresses, nullptr),
};

constexpr bool is_header(const setting &one) {
    return one.type == UX_OPTION_LITERAL;
}

static_assert(std::size(SETTINGS) -
                  static_cast<size_t>(std::ranges::count_if(SETTINGS,
                                                            is_header)) ==
              SETTING_COUNT);

/* The settings as the file's rows; the last one ends the table. */
using option_table = std::array<ux_option, std::size(SETTINGS) + 1>;

struct {
    params in_force;
    params defaults;
} state;

/* Where a record holds a setting. */
ux_storage storage_of(params *record, const setting &one) {
    return {one.number ? &(record->*one.number) : nullptr,
            one.text ? &(record->*one.text) : nullptr};
}

option_table make_table(params *values, params *defaults) {
    option_table table;
    auto row = table.begin();
    for (const setting &one : SETTINGS) {
        *row++ = {one.type, one.key, storage_of(values, one),
                  storage_of(defaults, one)};
    }
    return table;
}

setting_views views_of(const params &record) {
    setting_views views;
    auto view = views.begin();
    for (const setting &one : SETTINGS) {
        if (!is_header(one)) {
            *view++ = {one.key, one.number ? &(record.*one.number) : nullptr,
                       one.text ? &(record.*one.text) : nullptr};
        }
    }
    return views;
}

/* The default of a text, which for a file is home/file, or file alone without
 * a home. Null when it has none, and when memory is exhausted. */
ux_text make_default(const setting &one, const char *home) {
    const char *text = one.default_text;
    bool in_home = one.type == UX_OPTION_STRING && !ux_is_empty(home);
    return in_home ? ux_join({home, "/", text}) : ux_copy(text);
}

/* Gives every field its default: false when memory is exhausted. */
bool fill_defaults(params *defaults, const char *home) {
    for (const setting &one : SETTINGS) {
        if (one.number) {
            defaults->*one.number = one.default_number;
        }
        if (one.text) {
            defaults->*one.text = make_default(one, home);
            if (one.default_text && !(defaults->*one.text)) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

receiver_params *read_receiver_config(const char *path, const char *home,
                                      int32_t missing_ok) {
    trace_in();
    params values;
    params defaults;
    if (!fill_defaults(&defaults, home)) {
        return nullptr;
    }
    const option_table table = make_table(&values, &defaults);
    if (!ux_readconfig(path, table.data(), SETTINGS_BUCKETS, missing_ok)) {
        return nullptr;
    }
    state.in_force = std::move(values);
    state.defaults = std::move(defaults);
    rp = &state.in_force;
    rp_defaults = &state.defaults;
    return rp;
}

int32_t write_receiver_config(const char *path, int32_t fresh) {
    trace_in();
    const option_table table = make_table(&state.in_force, &state.defaults);
    return fresh ? ux_writeconfig(path, table.data())
                 : ux_rewriteconfig(path, table.data(), SETTINGS_BUCKETS);
}

int32_t check_redundancy_config(const receiver_params *settings) {
    trace_in();
    return !setting_is_on(settings->redundancy_enabled.get()) ||
           !(ux_is_empty(settings->redundancy_batch_file.get()) ||
             ux_is_empty(settings->redundancy_addresses.get()));
}

void free_receiver_config() {
    trace_in();
    state = {};
}

setting_views settings_in_force() { return views_of(state.in_force); }

setting_views settings_by_default() { return views_of(state.defaults); }

bool setting_is_on(const char *text) {
    return text && strcasecmp(text, "TRUE") == 0;
}
