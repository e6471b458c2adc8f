/*
 * Descriptors that are kept back for the files a listener cannot do without:
 * its log, the copy that is made while the log is cut, the message texts. A
 * house full of clients leaves them alone; who must open a file gives them up,
 * and the loop takes them again.
 */
#ifndef TOLVA2_FILES_RESERVE_H
#define TOLVA2_FILES_RESERVE_H

#include "unixtools/ux_owned.h"

#include <cstdint>

/* Takes what is missing of the reserve, at numbers that leave the low ones to
 * sockets. Returns 0 when it is whole, else the error that kept it from it. */
int32_t fill_reserve();

/* Closes what the reserve holds: false when that is nothing. */
bool give_up_reserve();

/* Gives it up if that can mend the error of a call that opens something: true
 * when the call is worth another attempt. */
[[nodiscard]] bool reserve_helps(int32_t error);

/* fopen, with the reserve given up when there is no other descriptor. */
[[nodiscard]] ux_file open_file(const char *path, const char *mode);

#endif
