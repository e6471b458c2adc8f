/*
 * The operator's log, the one way to report an event: a line with date, time
 * and process id in a file that is kept below a limit, or on standard output
 * as long as the process has one. No handle is kept between lines.
 */
#ifndef TOLVA2_FILES_LOGFILE_H
#define TOLVA2_FILES_LOGFILE_H

#include <cstdint>
#include <ctime>

/* Names the log file and its limit in KiB (0 or less: unlimited). False when
 * name is null or empty, a log is open, or memory is exhausted. Lines do not
 * go there before log_into_file(). */
[[nodiscard]] bool logfile_open(const char *name, int32_t size_kib);
void logfile_close();

/* From now on lines go to the log file, or to standard output. What goes to
 * a file that is not open is lost. */
void log_into_file(bool on = true);

/* The process id that lines show from now on; it is 0 to begin with. */
void log_as(int32_t pid);

/* Cuts the log file now if it has reached its limit. False when no log is
 * open or the cut failed; see check_size for what counts as failed. */
bool logfile_trim();

/* Writes one line. Leading white space and "TOLVA " go, a leading "ERROR: "
 * becomes "error: ". False when nothing was written; a process without file
 * log and without terminal drops the line and says true. */
bool log_write_line(const char *text);

/* Fills at most count "%s" of format with the texts that follow and writes
 * the line. No printf: anything else is copied as it stands, a "%s" directly
 * before a letter or digit too, and one whose text is null. True when a line
 * was written; a null or empty format writes none. */
bool log_message(int32_t count, const char *format, ...);

/* "system: %s" for a failed system call, "error: %s" for our own refusal. */
void log_system(int32_t error);
void log_error(int32_t error);

/* Local date MM/DD/YYYY and time HH:MM:SS in static buffers; may be empty. */
const char *log_date_text(time_t t);
const char *log_time_text(time_t t);

#endif
