/*
 * The making of a verdict.
 */
#include "tolva2/fleet/outcome.h"

#include <cstdarg>
#include <cstdio>

verdict judged(outcome result, const char *format, ...) {
    verdict found;
    found.result = result;
    va_list args;
    va_start(args, format);
    vsnprintf(found.reason, sizeof found.reason, format, args);
    va_end(args);
    return found;
}
