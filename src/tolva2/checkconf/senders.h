/*
 * Who may send, who is watched, and what follows from it for redundant
 * senders: who reads one of the three lists must have read the others.
 */
#ifndef TOLVA2_CHECKCONF_SENDERS_H
#define TOLVA2_CHECKCONF_SENDERS_H

#include "tolva2/checkconf/checkup.h"

/* A finding for each sender that is not, or not only, the one that was meant.
 * Reads the settings in force. */
void check_senders(const checkup &all);

#endif
