#include "day.h"
#include "calls.h"
#include "life.h"
#include "world.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

/* Only there when coverage is measured. */
extern "C" void __gcov_dump() __attribute__((weak));

namespace simulate {

namespace {

constexpr unsigned int PATIENCE = 30; /* seconds of real time for a day */

int report_to = -1;
bool tracing = false;
FILE *terminal = nullptr;

[[noreturn]] void end_process(int status) {
    if (tracing && here != nullptr) {
        for (size_t i = 0; i < here->facts.size(); i++) {
            fprintf(terminal, "%6zu %s\n", i, describe(here->facts[i]).c_str());
        }
        fflush(terminal);
    }
    if (__gcov_dump != nullptr) {
        /* Its files are real ones. */
        here = nullptr;
        __gcov_dump();
    }
    __real__exit(status);
}

void aborted(int) {
    std::string said;
    for (const fact &one : here->facts) {
        said = one.what == act::said ? one.text : said;
    }
    fail("the listener aborts: " + said);
}

void crashed(int) { fail("the listener crashes"); }

void count(totals *sums) {
    if (sums == nullptr) {
        return;
    }
    auto count_of = [](act what) {
        int64_t found = 0;
        for (const fact &one : here->facts) {
            found += one.what == what ? 1 : 0;
        }
        return found;
    };
    sums->days++;
    sums->sessions += count_of(act::accept);
    sums->datagrams += count_of(act::datagram);
    sums->scripts += count_of(act::fork);
    sums->exchanges += count_of(act::connect);
    sums->lines += count_of(act::line) + count_of(act::printed);
    sums->facts += static_cast<int64_t>(here->facts.size());
}

[[noreturn]] void live_here(const day_plan &plan, totals *sums) {
    alarm(PATIENCE);
    setenv("TZ", "UTC0", 1);
    tzset();
    terminal = stdout;
    __real_signal(SIGABRT, aborted);
    __real_signal(SIGSEGV, crashed);
    stdout = open_teller(false);
    stderr = open_teller(true);
    here = new world(plan);
    live_through(plan);
    count(sums);
    end_process(0);
}

} // namespace

void fail(const std::string &why) {
    __real_write(report_to, why.data(), why.size());
    end_process(1);
}

day_result live(const day_plan &plan, totals *sums, bool trace) {
    int ends[2];
    if (pipe(ends) != 0) {
        return {false, "pipe: " + std::string(strerror(errno))};
    }
    fflush(stdout);
    pid_t child = __real_fork();
    if (child == 0) {
        tracing = trace;
        report_to = ends[1];
        live_here(plan, sums);
    }
    __real_close(ends[1]);
    day_result result;
    char buffer[4096];
    for (;;) {
        ssize_t length = read(ends[0], buffer, sizeof buffer);
        if (length <= 0) {
            break;
        }
        result.why.append(buffer, static_cast<size_t>(length));
    }
    __real_close(ends[0]);
    int status = 0;
    __real_waitpid(child, &status, 0);
    result.well = status == 0;
    if (!result.well && result.why.empty()) {
        result.why = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM
                         ? "the listener does not come to an end"
                         : "status " + std::to_string(status);
    }
    return result;
}

} // namespace simulate
