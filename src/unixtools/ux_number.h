/*
 * Numbers out of texts that anybody may have written. One function, for the
 * option parser, the settings and the wire alike.
 */
#ifndef UNIXTOOLS_UX_NUMBER_H
#define UNIXTOOLS_UX_NUMBER_H

#include <cstdint>

/* atoi for untrusted text: leading white space and a sign, then digits up to
 * the first other character; no digits give 0. A number that does not fit 32
 * bits becomes the nearest one that does, so that 4294973299 is never taken
 * for port 6003. text must not be null. */
int32_t ux_atoi(const char *text);

#endif
