/*
 * The whole listener on the simulated system of tests/simulate: the bytes say
 * what senders and UPS servers say, and what else happens to the system. What
 * comes of it must be what the model expects, and nothing may be left.
 *
 * Records that end with 0xff and a line feed. The first one's two bytes choose
 * the settings. Each of the others begins with
 *
 *     a letter    T: over TCP, U: a datagram, A: what a server answers
 *                 (the first, the second, ...), M: how a server behaves,
 *                 F: something else happens, or fails
 *     a byte      what chance has to do with it: who says it, how fast
 *     a byte      when: how much later than the record before
 *
 * and what is said.
 */
#include "calls.h"
#include "life.h"
#include "world.h"

#include <cstdlib>
#include <iterator>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <utility>

void listener_begins_anew();

namespace {

using namespace simulate;

constexpr std::string_view RECORD_END = "\xff\n";
constexpr size_t RECORD_HEAD = 3;
constexpr size_t EVENTS = 60;
constexpr int64_t AFTERWARDS = 70 * SECOND; /* the shortest cycle, and more */

/* Cuts the first record off. */
std::string_view next_record(std::string_view *input) {
    size_t length = input->find(RECORD_END);
    std::string_view record = input->substr(0, length);
    input->remove_prefix(length == std::string_view::npos
                             ? input->size()
                             : length + RECORD_END.size());
    return record;
}

uint64_t byte_of(std::string_view record, size_t number) {
    return number < record.size() ? static_cast<unsigned char>(record[number])
                                  : 0;
}

happening what_happens(uint64_t byte) {
    const happening all[] = {
        happening::shortage,     happening::no_memory,
        happening::disk_full,    happening::clock_step,
        happening::interruption, happening::stray_child,
        happening::failing_call, happening::failing_call,
        happening::failing_call, happening::limit_change,
        happening::log_removed,  happening::texts_lost,
        happening::no_processes, happening::stray_signal,
        happening::early_stop,   happening::wait_fails,
    };
    return all[byte % std::size(all)];
}

void add_record(day_plan *plan, std::string_view record, int64_t *now) {
    const int64_t gaps[] = {0,      10,         200,         SECOND / 20,
                            SECOND, 3 * SECOND, 61 * SECOND, 400 * SECOND};
    *now += gaps[byte_of(record, 2) % std::size(gaps)];
    uint64_t seed = byte_of(record, 1) + 1;
    std::string says(record.substr(std::min(record.size(), RECORD_HEAD)));
    outside_event one{static_cast<int>(plan->events.size()) + 1,
                      *now,
                      happening::session,
                      seed,
                      {}};
    switch (byte_of(record, 0)) {
    case 'A':
        plan->answers.push_back(says);
        return;
    case 'U':
        one.what = happening::datagram;
        one.says = says;
        break;
    case 'M':
        one.what = happening::server_mood;
        break;
    case 'F':
        one.what = what_happens(byte_of(record, 3));
        break;
    default:
        one.says = says;
        break;
    }
    plan->events.push_back(one);
}

day_plan read_plan(std::string_view input) {
    std::string_view head = next_record(&input);
    day_plan plan = make_plan(byte_of(head, 0) * 256 + byte_of(head, 1), 0);
    int64_t now = 0;
    while (!input.empty() && plan.events.size() < EVENTS) {
        add_record(&plan, next_record(&input), &now);
    }
    plan.strays = 3; /* They would take most of the time. */
    plan.end = now + AFTERWARDS;
    return plan;
}

/* What has been tried so far: said at the end. */
class tally {
  public:
    ~tally() {
        fprintf(stderr,
                "listener: %lld lives, %lld texts over TCP, %lld datagrams, "
                "%lld exchanges with servers, %lld scripts, %lld facts\n",
                lives, of(act::receive), of(act::datagram), of(act::connect),
                of(act::fork), all);
    }
    void add(const std::vector<fact> &facts) {
        lives++;
        for (const fact &one : facts) {
            counts[static_cast<size_t>(one.what)]++;
            all++;
        }
    }

  private:
    long long lives = 0, all = 0;
    long long counts[static_cast<size_t>(act::said) + 1] = {};

    long long of(act what) const { return counts[static_cast<size_t>(what)]; }
};

void print_trace(const world &day) {
    size_t number = 0;
    for (const fact &one : day.facts) {
        dprintf(STDERR_FILENO, "%6zu %s\n", number++, describe(one).c_str());
    }
}

} // namespace

namespace simulate {

void fail(const std::string &why) {
    print_trace(*here);
    dprintf(STDERR_FILENO, "error: %s\n", why.c_str());
    abort();
}

} // namespace simulate

/* Most blocks are small and short-lived. */
extern "C" const char *__asan_default_options() {
    return "malloc_context_size=2:quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static tally tried;
    static FILE *const output = open_teller(false);
    static FILE *const errors = open_teller(true);
    /* Used again, since it is large. */
    static std::vector<fact> facts;
    static const bool traces = getenv("FUZZ_TRACE") != nullptr;
    std::string input(data, data + size);
    day_plan plan = read_plan(input);
    auto day = std::make_unique<world>(plan);
    facts.clear();
    day->facts.swap(facts);
    FILE *terminal = std::exchange(stdout, output);
    FILE *complaints = std::exchange(stderr, errors);
    listener_begins_anew();
    here = day.get();
    live_through(plan);
    here = nullptr;
    tried.add(day->facts);
    stdout = terminal;
    stderr = complaints;
    if (traces) {
        print_trace(*day);
    }
    day->facts.swap(facts);
    return 0;
}
