/*
 * A row for each number says what it may be; the texts say what the listener
 * does with any other.
 */
#include "tolva2/checkconf/values.h"
#include "tolva2/net/sockets.h"
#include "unixtools/ux_number.h"
#include "unixtools/ux_portable.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <strings.h>

namespace {

constexpr int32_t LARGEST_PORT = 65535;
constexpr int32_t A_DAY = 86400;

struct number_rule {
    const char *key;
    const char *unit;
    int32_t least;
    int32_t most;
    const char *too_small; /* what a smaller one does; null: it is a port */
    const char *zero;      /* 0 is allowed, but does this; null: nothing */
};

constexpr number_rule NUMBERS[] = {
    {"ListenPort", "a port", 1, LARGEST_PORT, nullptr, nullptr},
    {"ListenTimeout", "seconds", 0, A_DAY, "drops every sender at once",
     "never drops a sender who says nothing, and enough of them keep all others out"},
    {"AlivePort", "a port", 1, LARGEST_PORT, nullptr, nullptr},
    {"AliveInterval", "seconds", ALIVE_INTERVAL_MINIMUM, A_DAY,
     "is taken as 60", nullptr},
    {"AliveRetries", "a count", 0, 1000000, "is taken as 0, which is for ever",
     nullptr},
    {"LogfileSize", "KiB", 16, 1000000,
     "forgets what has just happened, or below 0 is no limit",
     "lets the log grow until the disk is full"},
    {"RedundancyLevel", "a count", 0, 1000000, "holds nothing back", nullptr},
};

constexpr const char *TRUTH_VALUES[] = {"ListenUDP", "AliveEnabled",
                                        "LogfileEnabled", "RedundancyEnabled",
                                        "RedundancyBatchSuppress"};

/* Which port a number outside the range gives. */
void say_port(const checkup &all, int32_t line, const number_rule &rule,
              const char *value, int32_t number) {
    int32_t taken = static_cast<uint16_t>(number);
    if (taken == 0) {
        all.found->error(
            line,
            "%s=%s is any port that the system chooses: write a port from 1 to 65535",
            rule.key, value);
    } else {
        all.found->error(
            line, "%s=%s is taken as port %d: write a port from 1 to 65535",
            rule.key, value, taken);
    }
}

void check_number(const checkup &all, const number_rule &rule) {
    const written_setting &setting = written(all, rule.key);
    const char *value = setting.value.get();
    if (!value) {
        return;
    }
    int32_t number = ux_atoi(value);
    bool zero = number == 0 && rule.zero;
    if (!is_number(value)) {
        all.found->error(
            setting.line,
            "%s=%s is no number and is taken as %d: write %s, in digits alone",
            rule.key, value, number, rule.unit);
    } else if (zero) {
        all.found->warning(setting.line, "%s=0 %s: write %s", rule.key,
                           rule.zero, rule.unit);
    } else if (number >= rule.least && number <= rule.most) {
        return;
    } else if (!rule.too_small) {
        say_port(all, setting.line, rule, value, number);
    } else {
        all.found->error(
            setting.line, "%s=%s %s: write %s, from %d to %d", rule.key, value,
            number < rule.least ? rule.too_small : "is more than makes sense",
            rule.unit, rule.least, rule.most);
    }
}

void check_truth_value(const checkup &all, const char *key) {
    const written_setting &setting = written(all, key);
    const char *value = setting.value.get();
    if (value && !setting_is_on(value) && strcasecmp(value, "FALSE") != 0) {
        all.found->error(setting.line,
                         "%s=%s is taken as FALSE: write TRUE or FALSE", key,
                         value);
    }
}

void check_listen_address(const checkup &all) {
    const written_setting &setting = written(all, "ListenAddress");
    const char *value = setting.value.get();
    if (!value) {
        return;
    }
    dotted_text dotted = as_understood(value);
    if (!*dotted.text) {
        all.found->error(
            setting.line,
            "ListenAddress=%s is no IPv4 address and is taken as every address of this host: write one of its IPv4 addresses, or 0.0.0.0 for all of them",
            value);
        return;
    }
    if (strcmp(dotted.text, value) != 0) {
        all.found->error(
            setting.line,
            "ListenAddress=%s is taken as %s: write an address of four decimal numbers",
            value, dotted.text);
        return;
    }
    /* Bound to no port of anybody's: only the address is tried. */
    ux_fd fd = tcp_socket();
    if (!fd) {
        all.found->error(setting.line, "ListenAddress=%s cannot be tried: %s",
                         value, strerror(errno));
    } else if (!sock_bind_to(fd.get(), 0, value)) {
        all.found->error(
            setting.line,
            "ListenAddress=%s cannot be listened at (%s): write an IPv4 address of this host",
            value, strerror(errno));
    }
}

/* Whoever leaves a value out may mean "none". */
void check_missing_values(const checkup &all) {
    for (const setting_view &one : settings_by_default()) {
        const written_setting &setting = written(all, one.key);
        if (setting.line == NO_LINE || setting.value) {
            continue;
        }
        if (one.number) {
            all.found->warning(setting.line,
                               "%s has no value, and so its default, %d",
                               one.key, *one.number);
        } else if (*one.text) {
            all.found->warning(setting.line,
                               "%s has no value, and so its default, %s",
                               one.key, one.text->get());
        }
    }
}

} // namespace

dotted_text as_understood(const char *text) {
    dotted_text dotted;
    in_addr address;
    if (ux_dotted(text, &address)) {
        inet_ntop(AF_INET, &address, dotted.text, sizeof dotted.text);
    }
    return dotted;
}

bool is_number(std::string_view text) {
    if (text.starts_with('-') || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

void check_values(const checkup &all) {
    for (const number_rule &rule : NUMBERS) {
        check_number(all, rule);
    }
    for (const char *key : TRUTH_VALUES) {
        check_truth_value(all, key);
    }
    check_listen_address(all);
    check_missing_values(all);
}
