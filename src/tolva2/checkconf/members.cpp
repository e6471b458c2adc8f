/*
 * The listener lets a request through when more members have failed than the
 * level says: the one that asks, each that has asked, and each that is not
 * alive. Who is not watched is never alive.
 */
#include "tolva2/checkconf/members.h"
#include "tolva2/listen/redundancy.h"
#include "unixtools/ux_nodes.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr named_hosts_kind MEMBERS{"RedundancyAddresses", false, true};

/* Does the address stand in the list before that node? */
bool stands_before(const ux_list *list, const ux_list_element *node) {
    const auto *one = static_cast<const inetaddr *>(node->data);
    for (ux_list_element *earlier : ux_nodes(list)) {
        if (earlier == node) {
            return false;
        }
        if (ux_record<inetaddr>(earlier)->addr.sin_addr.s_addr ==
            one->addr.sin_addr.s_addr) {
            return true;
        }
    }
    return false;
}

/* The members that count: those the listener has room for. */
int32_t count_members(const named_hosts &members) {
    return std::min(static_cast<int32_t>(members.list.size),
                    REDUNDANCY_MEMBERS);
}

/* Complains about each member that cannot play its part. Returns of how many
 * nothing is known. */
int32_t check_each(const checkup &all, const named_hosts &members,
                   const named_hosts &allowed, const named_hosts &watched) {
    int32_t line = written(all, MEMBERS.key).line;
    int32_t unknown = 0;
    for (ux_list_element *node : ux_nodes(&members.list)) {
        const auto *member = ux_record<inetaddr>(node);
        if (stands_before(&members.list, node)) {
            all.found->error(
                line,
                "%s: %s stands there twice, and can fail only once: take one away",
                MEMBERS.key, member->text);
        }
        if (allowed.named > 0 && !lists_address(allowed, member)) {
            all.found->error(
                line,
                "%s: %s may not send, so it can never ask for a shutdown: add it to AllowedAddresses",
                MEMBERS.key, member->text);
        }
        if (!lists_address(watched, member)) {
            unknown++;
            if (watched.named > 0) {
                all.found->error(
                    line,
                    "%s: nothing is known of %s, so it always counts as not alive: add it to AliveAddresses",
                    MEMBERS.key, member->text);
            }
        }
    }
    return std::min(unknown, REDUNDANCY_MEMBERS);
}

void say_verdict(const checkup &all, int32_t members, int32_t unknown) {
    const char *key = "RedundancyLevel";
    int32_t level = rp->redundancy_level;
    int32_t line = written(all, key).line;
    switch (judge_redundancy(level, members, unknown)) {
    case verdict::depends:
        return;
    case verdict::never:
        all.found->error(
            line,
            "%s is %d, but at most %d members can fail, so no shutdown that one of them asks for is ever let through: write a level from 1 to %d",
            key, level, members, members - 1);
        return;
    case verdict::always:
        all.found->error(
            line,
            "%s is %d, but %d members always count as not alive, so every shutdown is let through at once: add them to AliveAddresses",
            key, level, unknown);
        return;
    case verdict::not_held_back:
        break;
    }
    if (members < 2) {
        all.found->error(
            written(all, MEMBERS.key).line,
            "%s has %d member that can be used, so every shutdown is let through at once: name two or more",
            MEMBERS.key, members);
    } else {
        all.found->error(
            line,
            "%s is %d, so every shutdown is let through at once: write a level from 1 to %d",
            key, level, members - 1);
    }
}

void check_batch_file(const checkup &all) {
    const char *name = rp->redundancy_batch_file.get();
    if (!ux_is_empty(name) && strlen(name) >= BATCH_FILE_SIZE) {
        all.found->error(
            written(all, "RedundancyBatchFile").line,
            "RedundancyBatchFile is longer than %u characters and is not run: give it a shorter name",
            BATCH_FILE_SIZE - 1);
    }
}

void say_not_enabled(const checkup &all) {
    const written_setting &members = written(all, MEMBERS.key);
    if (members.value) {
        all.found->warning(
            members.line,
            "%s is set, but no shutdown is held back: write RedundancyEnabled=TRUE",
            MEMBERS.key);
    }
}

} // namespace

verdict judge_redundancy(int32_t level, int32_t members, int32_t unknown) {
    if (level <= 0 || members < 2) {
        return verdict::not_held_back;
    }
    if (level >= members) {
        return verdict::never;
    }
    /* Fewest count when one asks of whom nothing is known: it counts once. */
    int32_t fewest = std::max(unknown, 1);
    return fewest > level ? verdict::always : verdict::depends;
}

void check_members(const checkup &all, const named_hosts &allowed,
                   const named_hosts &watched) {
    if (!setting_is_on(rp->redundancy_enabled.get())) {
        say_not_enabled(all);
        return;
    }
    int32_t line = written(all, MEMBERS.key).line;
    if (!check_redundancy_config(rp)) {
        all.found->error(
            written(all, "RedundancyEnabled").line,
            "RedundancyEnabled is on without %s, so the listener does not start: write %s=<the redundant UPS servers>",
            MEMBERS.key, MEMBERS.key);
        return;
    }
    named_hosts members;
    check_hosts(all, MEMBERS, rp->redundancy_addresses.get(), &members);
    if (members.named > REDUNDANCY_MEMBERS) {
        all.found->error(
            line,
            "%s holds %d addresses, and only the first %d are used: take the others away",
            MEMBERS.key, members.named, REDUNDANCY_MEMBERS);
    }
    if (watched.named == 0) {
        all.found->error(
            line,
            "%s: nothing is known of any member, so each always counts as not alive: write AliveEnabled=TRUE and the members into AliveAddresses",
            MEMBERS.key);
    }
    int32_t unknown = check_each(all, members, allowed, watched);
    say_verdict(all, count_members(members), unknown);
    check_batch_file(all);
}
