/*
 * Redundant senders: would their requests ever be held back, and would they
 * ever be let through?
 */
#ifndef TOLVA2_CHECKCONF_MEMBERS_H
#define TOLVA2_CHECKCONF_MEMBERS_H

#include "tolva2/checkconf/hosts.h"

/* A finding for each member that can never ask or is always taken for dead,
 * and for a level that decides nothing. allowed is empty when everybody may
 * send; watched is empty when nobody is. */
void check_members(const checkup &all, const named_hosts &allowed,
                   const named_hosts &watched);

/* What becomes of every bare shutdown request of a member. */
enum class verdict {
    depends,      /* on the others, as it should be */
    never,        /* it is held back, whatever has failed */
    always,       /* it is let through, whoever is alive */
    not_held_back /* nothing is: fewer than two members, or no level */
};

/* members can be used, and of so many of them nothing is known, so that they
 * count as failed. */
[[nodiscard]] verdict judge_redundancy(int32_t level, int32_t members,
                                       int32_t unknown);

#endif
