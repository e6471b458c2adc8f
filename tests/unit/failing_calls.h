/*
 * Calls of the C library that fail on demand, the same way for every test: the
 * linker leads the program's calls here first (see failing_calls.cpp for the
 * list), and each goes on to the C library unless a test has said otherwise.
 *
 *     failing_call no_child("fork", EAGAIN);
 *     failing_heap one_left(1);
 */
#ifndef TESTS_UNIT_FAILING_CALLS_H
#define TESTS_UNIT_FAILING_CALLS_H

#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <poll.h>
#include <signal.h>
#include <string_view>

/*
 * For as long as it lives, calls of that name fail with that error, after the
 * first few have gone through: all of them, or so many. "heap" is any
 * allocation.
 */
class failing_call {
  public:
    failing_call(std::string_view called, int with, int first = 0,
                 int times = INT_MAX);
    ~failing_call();
    failing_call(const failing_call &) = delete;
    failing_call &operator=(const failing_call &) = delete;

    /* True, with errno set, when the call of that name is to fail. */
    bool claims(std::string_view called);

  private:
    std::string_view name;
    int error;
    int after;
    int times;
};

/* The heap has this many allocations left for as long as it lives. */
class failing_heap : public failing_call {
  public:
    explicit failing_heap(int left = 0) : failing_call("heap", ENOMEM, left) {}
};

/* How many more blocks malloc and calloc have given out than were freed: the
 * same before and after means that nothing was left behind. */
int64_t heap_blocks();

/* When set, what a wait in ppoll, or in pselect where that stands in for it,
 * comes to: it is given the limit, and the wait itself. */
using wait_call =
    std::function<int(const timespec *, const std::function<int()> &)>;
extern wait_call wait_instead;

#endif
