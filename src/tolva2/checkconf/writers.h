/*
 * Who else than root can change a file that root runs or reads: through the
 * file itself, or through a directory on the way to it.
 */
#ifndef TOLVA2_CHECKCONF_WRITERS_H
#define TOLVA2_CHECKCONF_WRITERS_H

#include "tolva2/checkconf/checkup.h"

/* A finding in that line when the file, or the directory, at path can be
 * changed by others than root, and one in no line for each directory on the way
 * there. Who runs the check counts as root, and so does the owner of "/". A
 * path that leads nowhere has only its directories looked at. */
void check_writers(findings *found, int32_t line, const char *path);

/* Called when a path could not be looked at, and errno tells why: a finding,
 * unless it leads nowhere. What is not seen would pass for right. Ends the
 * process when memory is exhausted. */
void say_unseen(findings *found, int32_t line, const char *path);

#endif
