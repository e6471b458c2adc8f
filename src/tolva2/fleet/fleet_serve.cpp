/*
 * The serving. A host that does not take the connection at once gives its
 * place to one that waits for it, and has its full time later: so the dead do
 * not hold the living up where descriptors are few.
 */
#include "tolva2/fleet/fleet_serve.h"
#include "tolva2/fleet/fleet_stop.h"

#include <algorithm>

namespace {

constexpr int64_t HANG_UP_LIMIT = 1000; /* milliseconds */

/* A look-up has ended: its host waits for a connection now. */
void serve_lookup(fleet_run *run, lookup *one, int64_t now) {
    int32_t at = one->host;
    fleet_host &host = run->list[at];
    std::optional<in_addr> address = take_answer(*one);
    end_lookup(one);
    if (!address) {
        finish_host(run, at,
                    judged(outcome::unreachable, "its name has no address"));
        return;
    }
    host.address.sin_addr = *address;
    host.connect_limit =
        std::max<int64_t>(host.connect_limit - (now - host.began), FIRST_LOOK);
    enqueue(run, &run->to_connect, at);
}

/* The limit of a stage that has begun now. */
int64_t stage_limit(const fleet_run &run, talk_stage stage, int64_t now) {
    if (stage == talk_stage::hanging_up) {
        return now + HANG_UP_LIMIT;
    }
    return run.options.script > 0
               ? now + static_cast<int64_t>(run.options.script) * 1000
               : 0;
}

/* True when another host shall have the place of one that does not answer. */
bool gives_way(const fleet_run &run, const talk &one, int64_t now) {
    return one.stage == talk_stage::connecting &&
           run.to_connect.first != NO_HOST && run.active >= run.window &&
           now - one.since >= FIRST_LOOK &&
           one.deadline - one.since > FIRST_LOOK &&
           !run.list[one.host].second_try;
}

/* Looks after a talk that nothing has happened to. */
void check_time(fleet_run *run, int32_t at, int64_t now) {
    talk &one = run->talks[static_cast<size_t>(at)];
    if (gives_way(*run, one, now)) {
        run->list[one.host].second_try = true;
        enqueue(run, &run->to_connect, one.host);
        one = talk{};
    } else if (one.deadline > 0 && now >= one.deadline) {
        finish_talk(run, at, expire_talk(one));
    }
}

/* Goes on with a talk that is ready. */
void serve_talk(fleet_run *run, int32_t at, int64_t now) {
    talk &one = run->talks[static_cast<size_t>(at)];
    talk_stage before = one.stage;
    verdict found = continue_talk(&one, run->command);
    if (found.result != outcome::open) {
        finish_talk(run, at, found);
    } else if (one.stage != before) {
        one.deadline = stage_limit(*run, one.stage, now);
    }
}

/* What is said of a host that the end of the run finds under way. */
verdict cut_off(const talk &one, const char *by) {
    return judged(outcome::timeout,
                  one.stage == talk_stage::connecting
                      ? "not told: no connection before %s"
                      : "told, but no answer before %s",
                  by);
}

} // namespace

void serve_talks(fleet_run *run, const pollfd *polls, int32_t polled,
                 int64_t now) {
    for (int32_t at = 0; at < polled; at++) {
        if (polls[at].revents != 0) {
            serve_talk(run, at, now);
        } else {
            check_time(run, at, now);
        }
    }
    close_ranks(run);
}

void serve_lookups(fleet_run *run, const pollfd *polls, int64_t now) {
    for (size_t n = 0; n < run->lookups.size(); n++) {
        lookup &one = run->lookups[n];
        if (one.child <= 0) {
            continue;
        }
        if (polls[n].revents != 0) {
            serve_lookup(run, &one, now);
        } else if (now >= one.deadline) {
            int32_t at = one.host;
            end_lookup(&one);
            finish_host(run, at,
                        judged(outcome::unreachable,
                               "its name was not looked up in time"));
        }
    }
}

void finish_rest(fleet_run *run) {
    const char *by = has_stopped() ? stop_text() : "the limit of the whole";
    for (lookup &one : run->lookups) {
        end_lookup(&one);
    }
    for (int32_t at = 0; at < run->active; at++) {
        finish_talk(run, at, cut_off(run->talks[static_cast<size_t>(at)], by));
    }
    close_ranks(run);
    for (size_t at = 0; at < run->list.count; at++) {
        int32_t number = static_cast<int32_t>(at);
        const fleet_host &host = run->list[number];
        if (!host.finished && !host.skipped) {
            finish_host(run, number,
                        judged(outcome::timeout, "not told before %s", by));
        }
    }
}
