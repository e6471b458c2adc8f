/*
 * What has become of a host, in the few words that scripts may rely on. The
 * result lines, the summary and the reading of earlier results share them.
 */
#ifndef TOLVA2_FLEET_OUTCOME_H
#define TOLVA2_FLEET_OUTCOME_H

#include <array>
#include <cstddef>
#include <cstdint>

enum class outcome : uint8_t {
    open,        /* nothing yet: never in a result */
    done,        /* its script has ended with 0 */
    failed,      /* its script has ended with something else */
    refused,     /* the connection, by the system there or by the listener */
    closed,      /* by the listener, without an answer */
    garbage,     /* an answer that is none */
    unreachable, /* no address for its name, or no connection */
    timeout,     /* a limit was up, or the run was ended */
    invalid,     /* its line names no host */
};

constexpr std::array<const char *, 9> OUTCOME_WORDS{
    "open",    "done",        "failed",  "refused", "closed",
    "garbage", "unreachable", "timeout", "invalid"};

constexpr const char *outcome_word(outcome result) {
    return OUTCOME_WORDS[static_cast<size_t>(result)];
}

/* The longest reason that a result is given, with its terminator. */
constexpr size_t REASON_SIZE = 200;

/* A result as it is found out: open while there is none. */
struct verdict {
    outcome result = outcome::open;
    bool has_status = false; /* an answer with a status has come */
    int32_t status = 0;      /* as the answer has it */
    char reason[REASON_SIZE] = "";
};

/* A verdict with a reason; one that is too long is cut. */
[[gnu::format(printf, 2, 3)]] verdict judged(outcome result, const char *format,
                                             ...);

#endif
