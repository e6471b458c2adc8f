/*
 * The operator's log, the one way to report an event: a line with date, time
 * and process id in a file that is kept below a limit, or on standard output
 * as long as the process has one. No handle is kept between lines.
 */
#ifndef TOLVA2_FILES_LOGFILE_H
#define TOLVA2_FILES_LOGFILE_H

#include <cstdint>
#include <ctime>

/* The id that log lines show: 0 until the process has detached. */
extern int32_t logged_pid;

/* Non-zero: lines go to the log file. Set by mode initialisation. */
extern int32_t log_to_file;

/*
 * Names the log file and its limit in KiB (0 or less: unlimited). Returns 1,
 * or 0 when name is null or empty, a log is open, or memory is exhausted.
 */
int32_t logfile_open(const char *name, int32_t size_kib);
void logfile_close();

/*
 * Cuts the log file now if it has reached its limit. Returns 0 when no log is
 * open or the cut failed, else 1 or the bytes of the last block kept.
 */
int32_t logfile_trim();

/*
 * Writes one line. Leading white space and "TOLVA " go, a leading "ERROR: "
 * becomes "error: ". Returns 0 when nothing was written, else non-zero. A
 * process without file log and without terminal drops the line and says 1.
 */
int32_t log_write_line(const char *text);

/*
 * Fills at most count "%s" of format with the texts that follow and writes
 * the line. No printf: anything else is copied as it stands, a "%s" directly
 * before a letter or digit too. Returns 1 when a line was written, else 0; a
 * null or empty format writes none.
 */
int32_t log_message(int32_t count, const char *format, ...);

/* "system: %s" for a failed system call, "error: %s" for our own refusal. */
void log_system(int32_t error);
void log_error(int32_t error);

/* Local date MM/DD/YYYY and time HH:MM:SS in static buffers; may be empty. */
const char *log_date_text(time_t t);
const char *log_time_text(time_t t);

#endif
