/*
 * Takes AllowedAddresses and AliveAddresses apart, and hands both to the check
 * of the redundant senders.
 */
#include "tolva2/checkconf/senders.h"
#include "tolva2/checkconf/hosts.h"
#include "tolva2/checkconf/members.h"
#include "unixtools/ux_nodes.h"
#include "unixtools/ux_number.h"

#include <arpa/inet.h>
#include <cerrno>

namespace {

constexpr named_hosts_kind ALLOWED{"AllowedAddresses", false, false};
constexpr named_hosts_kind WATCHED{"AliveAddresses", true, false};

/* The accounts of people. */
constexpr int32_t FIRST_USER = 1000;
constexpr int32_t LAST_USER = 60000;

constexpr uint32_t LOOPBACK_NETWORK = 127;

/* The fields of an account. */
constexpr int32_t NUMBER_FIELD = 2;
constexpr int32_t SHELL_FIELD = 6;

/* What stands behind so many colons, or nothing. */
std::string_view field(std::string_view line, int32_t colons) {
    for (; colons > 0; colons--) {
        size_t colon = line.find(':');
        line.remove_prefix(colon == line.npos ? line.size() : colon + 1);
    }
    return line.substr(0, line.find(':'));
}

/* A login shell is one that lets somebody in. */
bool is_user(std::string_view account) {
    int32_t number = ux_atoi(field(account, NUMBER_FIELD).data());
    std::string_view shell = field(account, SHELL_FIELD);
    return !account.starts_with('#') && number >= FIRST_USER &&
           number <= LAST_USER && shell.find("nologin") == shell.npos &&
           shell.find("/false") == shell.npos;
}

/* Has this host users of its own? Asks no directory service, which may be far
 * away. Where the accounts cannot be read it may have. */
bool has_users() {
    ux_file accounts(fopen("/etc/passwd", "re"));
    char *line = nullptr;
    size_t size = 0;
    bool found = !accounts;
    errno = accounts ? 0 : errno;
    while (!found && getline(&line, &size, accounts.get()) >= 0) {
        found = is_user(line);
    }
    ux_text buffer(line);
    if (errno == ENOMEM) {
        no_memory_to_check();
    }
    return found || ferror(accounts.get());
}

bool is_loopback(const inetaddr *host) {
    return ntohl(host->addr.sin_addr.s_addr) >> 24 == LOOPBACK_NETWORK;
}

void check_loopback(const checkup &all, const named_hosts &allowed) {
    for (const inetaddr *host : ux_records<inetaddr>(&allowed.list)) {
        if (is_loopback(host) && has_users()) {
            all.found->warning(
                written(all, ALLOWED.key).line,
                "%s admits %s, so every user of this host can do what root can: take it away after the trial",
                ALLOWED.key, host->text);
        }
    }
}

void check_allowed(const checkup &all, named_hosts *allowed) {
    int32_t line = written(all, ALLOWED.key).line;
    check_hosts(all, ALLOWED, rp->allowed_addresses.get(), allowed);
    if (allowed->named == 0 && !all.open_wanted) {
        all.found->error(
            line,
            "%s is not set, so everybody who reaches the port could do what root can: write %s=<the addresses of the hosts that send>",
            ALLOWED.key, ALLOWED.key);
    } else if (allowed->named > 0 && allowed->list.size == 0) {
        all.found->error(
            line,
            "%s holds no address that can be used, so nobody is admitted: write the addresses of the hosts that send",
            ALLOWED.key);
    }
    check_loopback(all, *allowed);
}

void check_udp(const checkup &all, const named_hosts &allowed) {
    if (setting_is_on(rp->listen_udp.get()) && allowed.named > 0) {
        all.found->warning(
            written(all, "ListenUDP").line,
            "ListenUDP is on, and the sender of a datagram can be forged: write ListenUDP=FALSE, unless broadcasts are needed");
    }
}

void check_watched(const checkup &all, named_hosts *watched) {
    bool on = setting_is_on(rp->alive_enabled.get());
    const char *servers = rp->alive_addresses.get();
    if (on && ux_is_empty(servers)) {
        all.found->error(
            written(all, "AliveEnabled").line,
            "AliveEnabled is on, but nothing is watched: write AliveAddresses=<the UPS servers>");
    } else if (on) {
        check_hosts(all, WATCHED, servers, watched);
    } else if (!ux_is_empty(servers)) {
        all.found->warning(
            written(all, WATCHED.key).line,
            "%s is set, but nothing is watched: write AliveEnabled=TRUE",
            WATCHED.key);
    }
}

} // namespace

void check_senders(const checkup &all) {
    named_hosts allowed;
    named_hosts watched;
    check_allowed(all, &allowed);
    check_udp(all, allowed);
    check_watched(all, &watched);
    check_members(all, allowed, watched);
}
