/*
 * Lives many days, each from a seed of its own, until one goes wrong. That one
 * is made smaller, for as long as it still goes wrong, and printed.
 *
 *     simulate                        1,000 days
 *     simulate --days 100000 --first 5000
 *     simulate --seed 42 --trace      one day, with all that happens
 *     simulate --seed 42 --only 3,17  the same, with two events of it
 */
#include "calls.h"
#include "day.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

using namespace simulate;

namespace {

struct options {
    int64_t days = 1000, first = 1, seed = -1;
    int sessions = 250, jobs = 2;
    bool trace = false, shrinks = true;
    std::vector<int> only{};
};

using seconds_clock = std::chrono::steady_clock;

double since(seconds_clock::time_point start) {
    return std::chrono::duration<double>(seconds_clock::now() - start).count();
}

day_plan with_only(const day_plan &plan, const std::vector<int> &numbers) {
    day_plan less = plan;
    std::erase_if(less.events, [&](const outside_event &one) {
        return std::find(numbers.begin(), numbers.end(), one.number) ==
               numbers.end();
    });
    return less;
}

/* Leaves out what can be left out: halves, quarters, and so on. */
day_plan shrink(const day_plan &plan) {
    constexpr double PATIENCE = 60;
    auto start = seconds_clock::now();
    day_plan best = plan;
    size_t part = std::max<size_t>(best.events.size() / 2, 1);
    for (;;) {
        bool smaller = false;
        for (size_t at = 0; at < best.events.size();) {
            if (since(start) > PATIENCE) {
                return best;
            }
            day_plan less = best;
            auto from = less.events.begin() + static_cast<int64_t>(at);
            size_t some = std::min(part, less.events.size() - at);
            less.events.erase(from, from + static_cast<int64_t>(some));
            if (live(less, nullptr, false).well) {
                at += part;
            } else {
                best = less;
                smaller = true;
            }
        }
        if (part == 1 && !smaller) {
            return best;
        }
        part = std::max<size_t>(part / 2, 1);
    }
}

void print_failure(const options &asked, const day_plan &plan,
                   const day_result &result) {
    printf("error: seed %lld: %s\n", static_cast<long long>(plan.seed),
           result.why.c_str());
    if (!asked.shrinks) {
        return;
    }
    day_plan small = shrink(plan);
    std::string numbers;
    for (const outside_event &one : small.events) {
        numbers += (numbers.empty() ? "" : ",") + std::to_string(one.number);
    }
    if (numbers.empty()) {
        numbers = "0";
    }
    printf("with %zu of %zu events left: %s\n", small.events.size(),
           plan.events.size(), live(small, nullptr, false).why.c_str());
    printf("replay: simulate --sessions %d --seed %lld --only %s --trace\n",
           asked.sessions, static_cast<long long>(plan.seed), numbers.c_str());
}

int one_day(const options &asked) {
    day_plan plan =
        make_plan(static_cast<uint64_t>(asked.seed), asked.sessions);
    if (!asked.only.empty()) {
        plan = with_only(plan, asked.only);
    }
    day_result result = live(plan, nullptr, asked.trace);
    if (result.well) {
        printf("seed %lld: as it must be\n",
               static_cast<long long>(asked.seed));
        return 0;
    }
    if (asked.trace || !asked.only.empty()) {
        printf("error: %s\n", result.why.c_str());
    } else {
        print_failure(asked, plan, result);
    }
    return 1;
}

/* Every one of so many seeds, until a day of any worker has gone wrong. */
void work(const options &asked, int worker, totals *sums) {
    for (int64_t i = worker; i < asked.days && sums->failed_seed < 0;
         i += asked.jobs) {
        int64_t seed = asked.first + i;
        day_plan plan = make_plan(static_cast<uint64_t>(seed), asked.sessions);
        if (!live(plan, sums, false).well) {
            sums->failed_seed = seed;
        }
    }
}

int many_days(const options &asked) {
    auto start = seconds_clock::now();
    void *shared = mmap(nullptr, sizeof(totals), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        perror("mmap");
        return 2;
    }
    auto *sums = new (shared) totals{};
    sums->failed_seed = -1;
    std::vector<pid_t> workers;
    for (int i = 0; i < asked.jobs; i++) {
        pid_t worker = __real_fork();
        if (worker == 0) {
            work(asked, i, sums);
            __real__exit(0);
        }
        workers.push_back(worker);
    }
    for (pid_t worker : workers) {
        __real_waitpid(worker, nullptr, 0);
    }
    printf("%lld days in %.1f s: %lld accepts, %lld datagrams, %lld scripts, "
           "%lld exchanges, %lld lines, %lld facts\n",
           static_cast<long long>(sums->days), since(start),
           static_cast<long long>(sums->sessions),
           static_cast<long long>(sums->datagrams),
           static_cast<long long>(sums->scripts),
           static_cast<long long>(sums->exchanges),
           static_cast<long long>(sums->lines),
           static_cast<long long>(sums->facts));
    if (sums->failed_seed < 0) {
        return sums->days == asked.days ? 0 : 1;
    }
    day_plan plan =
        make_plan(static_cast<uint64_t>(sums->failed_seed), asked.sessions);
    print_failure(asked, plan, live(plan, nullptr, false));
    return 1;
}

int usage() {
    fputs("usage: simulate [--days N] [--first N] [--seed N] [--only N,N...]\n"
          "                [--trace] [--sessions N] [--jobs N] [--no-shrink]\n",
          stderr);
    return 2;
}

bool read_options(int count, char *words[], options *asked) {
    if (const char *days = getenv("SIMULATE_DAYS")) {
        asked->days = atoll(days);
    }
    for (int i = 1; i < count; i++) {
        std::string word = words[i];
        if (word == "--trace") {
            asked->trace = true;
            continue;
        }
        if (word == "--no-shrink") {
            asked->shrinks = false;
            continue;
        }
        if (++i == count) {
            return false;
        }
        int64_t number = atoll(words[i]);
        if (word == "--days") {
            asked->days = number;
        } else if (word == "--first") {
            asked->first = number;
        } else if (word == "--seed") {
            asked->seed = number;
        } else if (word == "--sessions") {
            asked->sessions = static_cast<int>(number);
        } else if (word == "--jobs") {
            asked->jobs = static_cast<int>(std::max<int64_t>(number, 1));
        } else if (word == "--only") {
            std::istringstream numbers(words[i]);
            std::string one;
            while (std::getline(numbers, one, ',')) {
                asked->only.push_back(atoi(one.c_str()));
            }
        } else {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int count, char *words[]) {
    options asked;
    if (!read_options(count, words, &asked)) {
        return usage();
    }
    return asked.seed >= 0 ? one_day(asked) : many_days(asked);
}
