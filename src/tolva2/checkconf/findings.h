/*
 * What is wrong with a configuration: one finding for each mistake, with the
 * line of the settings file that it comes from. They are collected while the
 * checks run and said once they all have, in the order of the lines.
 */
#ifndef TOLVA2_CHECKCONF_FINDINGS_H
#define TOLVA2_CHECKCONF_FINDINGS_H

#include "unixtools/ux_list.h"

#include <cstdint>
#include <cstdio>

enum class severity { warning, error };

/* The line of what no line of the file says: a default, the file itself. */
constexpr int32_t NO_LINE = 0;

class findings {
  public:
    findings();
    ~findings();
    findings(const findings &) = delete;
    findings &operator=(const findings &) = delete;

    /* Adds a finding. What has been found in that line already, in the same
     * words, is not found again. Ends the process with one line and status 1
     * when memory is exhausted: what is not said would pass for right. */
    [[gnu::format(printf, 3, 4)]] void error(int32_t line, const char *format,
                                             ...);
    [[gnu::format(printf, 3, 4)]] void warning(int32_t line, const char *format,
                                               ...);

    /* How many errors there are. */
    [[nodiscard]] int32_t errors() const { return error_count; }

    /* Writes "file:line: error: text" for each. A control character shows as
     * "?". */
    void say(const char *file, FILE *stream) const;

  private:
    ux_list list;
    int32_t error_count = 0;
};

/* Ends the process with one line and status 1: memory is exhausted. */
[[noreturn]] void no_memory_to_check();

#endif
