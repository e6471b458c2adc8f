#include "tolva2/files/settings.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_configfile.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

receiver_params *rp = nullptr;
receiver_params *rp_defaults = nullptr;

namespace
{

constexpr uint32_t SETTINGS_BUCKETS = 64;

receiver_params settings_in_force;
receiver_params default_settings;

/* A key, its type, and the field of the record that holds it. */
#define KEY_ROW(type, key, field)                                              \
    {                                                                          \
        type, key, &settings_in_force.field, &default_settings.field, 0, 0     \
    }
#define HEADER_ROW(text)                                                       \
    {                                                                          \
        UX_OPTION_LITERAL, text, nullptr, nullptr, 0, 0                        \
    }

/* clang-format off */
ux_option key_table[] = {
    HEADER_ROW("#"),
    HEADER_ROW("# TOLVA Configuration (v-3.00.0-1)"),
    HEADER_ROW("#"),
    KEY_ROW(UX_OPTION_TEXT, "ListenAddress", listen_address),
    KEY_ROW(UX_OPTION_INTEGER, "ListenPort", listenport),
    KEY_ROW(UX_OPTION_INTEGER, "ListenTimeout", listen_timeout),
    KEY_ROW(UX_OPTION_TEXT, "ListenUDP", listen_udp),
    KEY_ROW(UX_OPTION_TEXT, "AllowedAddresses", allowed_addresses),
    KEY_ROW(UX_OPTION_TEXT, "AliveAddresses", alive_addresses),
    KEY_ROW(UX_OPTION_INTEGER, "AlivePort", kesdalport),
    KEY_ROW(UX_OPTION_TEXT, "AliveEnabled", alive_enabled),
    KEY_ROW(UX_OPTION_INTEGER, "AliveInterval", alive_interval),
    KEY_ROW(UX_OPTION_INTEGER, "AliveRetries", alive_retries),
    KEY_ROW(UX_OPTION_STRING, "LogfileName", logfile_name),
    KEY_ROW(UX_OPTION_TEXT, "LogfileEnabled", logfile_enabled),
    KEY_ROW(UX_OPTION_INTEGER, "LogfileSize", logfile_size),
    KEY_ROW(UX_OPTION_STRING, "ShutdownProg", shutdown_prog),
    KEY_ROW(UX_OPTION_STRING, "AliveProg", alive_prog),
    KEY_ROW(UX_OPTION_STRING, "ExecProg", exec_prog),
    KEY_ROW(UX_OPTION_STRING, "MsgProg", msg_prog),
    KEY_ROW(UX_OPTION_STRING, "MailProg", mail_prog),
    KEY_ROW(UX_OPTION_STRING, "MsgDatName", msgfile_name),
    KEY_ROW(UX_OPTION_TEXT, "RedundancyEnabled", redundancy_enabled),
    KEY_ROW(UX_OPTION_STRING, "RedundancyBatchFile", redundancy_batch_file),
    KEY_ROW(UX_OPTION_TEXT, "RedundancyBatchSuppress",
            redundancy_batch_suppress),
    KEY_ROW(UX_OPTION_INTEGER, "RedundancyLevel", redundancy_level),
    KEY_ROW(UX_OPTION_TEXT, "RedundancyAddresses", redundancy_addresses),
    {0, nullptr, nullptr, nullptr, 0, 0},
};

/* The defaults that are files in the home directory. */
const struct {
    char *receiver_params::*field;
    const char *file;
} path_defaults[] = {
    {&receiver_params::logfile_name, "tolva.log"},
    {&receiver_params::shutdown_prog, "tolva_shutdown.sh"},
    {&receiver_params::alive_prog, "tolva_notalive.sh"},
    {&receiver_params::exec_prog, "tolva_execute.sh"},
    {&receiver_params::msg_prog, "tolva_message.sh"},
    {&receiver_params::mail_prog, "tolva_mail.sh"},
    {&receiver_params::msgfile_name, "messages.dat"},
    {&receiver_params::redundancy_batch_file, "ShutdownSuppressed.sh"},
};

/* The other defaults that are texts. */
const struct {
    char *receiver_params::*field;
    const char *text;
} text_defaults[] = {
    {&receiver_params::listen_address, "0.0.0.0"},
    {&receiver_params::listen_udp, "true"},
    {&receiver_params::alive_enabled, "false"},
    {&receiver_params::logfile_enabled, "true"},
    {&receiver_params::redundancy_enabled, "false"},
    {&receiver_params::redundancy_batch_suppress, "false"},
};
/* clang-format on */

/* home/file, or file alone without a home; null when memory is exhausted. */
char *path_in_home(const char *home, const char *file)
{
    if (!home || !*home) {
        return strdup(file);
    }
    size_t size = strlen(home) + 1 + strlen(file) + 1;
    char *path = static_cast<char *>(malloc(size));
    if (path) {
        snprintf(path, size, "%s/%s", home, file);
    }
    return path;
}

void fill_defaults(const char *home)
{
    default_settings.listenport = 6003;
    default_settings.listen_timeout = 10;
    default_settings.kesdalport = 5769;
    default_settings.alive_interval = 1800;
    default_settings.alive_retries = 0;
    default_settings.logfile_size = 1024;
    default_settings.redundancy_level = 0;
    for (const auto &row : text_defaults) {
        free(default_settings.*row.field);
        default_settings.*row.field = strdup(row.text);
    }
    for (const auto &row : path_defaults) {
        free(default_settings.*row.field);
        default_settings.*row.field = path_in_home(home, row.file);
    }
}

/* Frees the texts of every row; value or default_value names the storage. */
void free_texts(void *ux_option::*storage)
{
    for (const ux_option &row : key_table) {
        if (row.type == UX_OPTION_STRING || row.type == UX_OPTION_TEXT) {
            auto *text = static_cast<char **>(row.*storage);
            free(*text);
            *text = nullptr;
        }
    }
}

} // namespace

receiver_params *read_receiver_config(const char *path, const char *home,
                                      int32_t missing_ok)
{
    trace_in();
    fill_defaults(home);
    /* What an earlier reading left would be lost, or taken for a value. */
    free_texts(&ux_option::value);
    if (!ux_readconfig(path, key_table, SETTINGS_BUCKETS, missing_ok)) {
        return nullptr;
    }
    rp = &settings_in_force;
    rp_defaults = &default_settings;
    return rp;
}

int32_t write_receiver_config(const char *path, int32_t fresh)
{
    trace_in();
    return fresh ? ux_writeconfig(path, key_table)
                 : ux_rewriteconfig(path, key_table, SETTINGS_BUCKETS);
}

int32_t check_redundancy_config(const receiver_params *settings)
{
    trace_in();
    const char *file = settings->redundancy_batch_file;
    const char *addresses = settings->redundancy_addresses;
    return !setting_is_on(settings->redundancy_enabled) ||
           (file && *file && addresses && *addresses);
}

void free_receiver_config()
{
    trace_in();
    free_texts(&ux_option::default_value);
    free_texts(&ux_option::value);
}

int32_t setting_is_on(const char *text)
{
    return text && strcasecmp(text, "TRUE") == 0;
}
