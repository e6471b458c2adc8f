/*
 * A file of lines that stays below a limit: new lines go in at its end, and
 * when one finds no room the oldest go. The log is such a file; nothing of it
 * is kept open or remembered between two lines.
 */
#ifndef TOLVA2_FILES_BOUNDED_FILE_H
#define TOLVA2_FILES_BOUNDED_FILE_H

#include <cstdint>
#include <string_view>

/* Appends one line, and creates the file for it. A limit above 0 keeps the
 * file below that many bytes. True when the whole line is in the file; of one
 * that could not be written, on a full disk, no part stays there. */
[[nodiscard]] bool append_bounded(const char *path, int64_t limit,
                                  std::string_view line);

/* Cuts the head off a file that has reached allowed bytes: what is too much,
 * a tenth of the limit, and the rest of the line there. True when nothing was
 * to be done, or it is done and what was kept has come back in an odd number
 * of blocks of 8,192 bytes. After an even number the file has been cut too. */
[[nodiscard]] bool check_size(const char *path, int64_t limit, int64_t allowed);

#endif
