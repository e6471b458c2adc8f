/*
 * What stands in the file system around the settings: scripts, actions, log,
 * message texts, and the file that makes a shutdown a rehearsal.
 */
#ifndef TOLVA2_CHECKCONF_PLACES_H
#define TOLVA2_CHECKCONF_PLACES_H

#include "tolva2/checkconf/checkup.h"

/* A finding for each file that is missing, cannot be used, or can be changed
 * by others than root. Reads the settings in force. Opens the message database
 * and closes it again; makes and changes nothing. */
void check_places(const checkup &all);

#endif
