"""A clock for the listener that stands still until a test moves it.

    clock = FakeClock(home)
    listener = home.listener(env=clock.env, ...)
    clock.advance(listener, 60)

A library under the listener takes the time of day from a page of memory that
the test shares with it; real waiting stays real.  (libfaketime does as much,
but keeps its own state under names made of process ids, which collide when
many tests run at once or process ids come again.)  A listener looks at the
clock after each wait, and a stray SIGCHLD ends the wait without meaning
anything, so advance() pokes it until it has seen the new time.
"""

import contextlib
import datetime
import os
import signal

import preload
from waiting import wait_for

START = datetime.datetime(2026, 11, 16, 2, 24, 18)
EPOCH = datetime.datetime(1970, 1, 1)

CLOCK = r"""
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static volatile int64_t *page;

__attribute__((constructor)) static void open_page(void)
{
    const char *path = getenv("TOLVA_TEST_CLOCK");
    int fd = path ? open(path, O_RDONLY) : -1;
    if (fd >= 0) {
        void *found = mmap(0, sizeof *page, PROT_READ, MAP_SHARED, fd, 0);
        page = found == MAP_FAILED ? 0 : found;
        close(fd);
    }
}

int clock_gettime(clockid_t id, struct timespec *now)
{
    if (page && id == CLOCK_REALTIME) {
        int64_t little_endian = *page;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        now->tv_sec = (int64_t)__builtin_bswap64((uint64_t)little_endian);
#else
        now->tv_sec = little_endian;
#endif
        now->tv_nsec = 0;
        return 0;
    }
#ifdef SYS_clock_gettime64
    return (int)syscall(SYS_clock_gettime64, id, now);
#else
    return (int)syscall(SYS_clock_gettime, id, now);
#endif
}

time_t time(time_t *now)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    if (now) {
        *now = ts.tv_sec;
    }
    return ts.tv_sec;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    struct timespec ts;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &ts);
    now->tv_sec = ts.tv_sec;
    now->tv_usec = ts.tv_nsec / 1000;
    return 0;
}
"""


class FakeClock:
    def __init__(self, home):
        self.path = home.dir / "clock"
        self.now = START
        self._write()
        self.env = preload.environment(
            home, preload.build("clock", CLOCK),
            TOLVA_TEST_CLOCK=str(self.path), TZ="UTC")

    def _write(self):
        seconds = (self.now - EPOCH) // datetime.timedelta(seconds=1)
        fd = os.open(self.path, os.O_WRONLY | os.O_CREAT, 0o644)
        os.pwrite(fd, seconds.to_bytes(8, "little", signed=True), 0)
        os.close(fd)

    @property
    def date(self):
        return self.now.strftime("%m/%d/%Y")

    @property
    def time(self):
        return self.now.strftime("%H:%M:%S")

    def set(self, seconds):
        """Moves the clock; the listener sees it when it next looks."""
        self.now += datetime.timedelta(seconds=seconds)
        self._write()

    def advance(self, listener, seconds, until=None, what="time has moved"):
        """Moves the clock and pokes the listener.

        Without a condition to wait for, the listener has been through at
        least one whole pass with the new time when this returns.
        """
        self.set(seconds)
        if until:
            wait_for(lambda: poke(listener) and until(), what=what)
        else:
            settle(listener)


def poke(listener):
    """Ends the wait of the listener, which then looks at the clock."""
    with contextlib.suppress(ProcessLookupError):
        os.kill(listener.pid, signal.SIGCHLD)
    return True


def switches(listener):
    """How often the process has gone to sleep of its own accord."""
    with open(f"/proc/{listener.pid}/status") as f:
        for line in f:
            if line.startswith("voluntary_ctxt_switches:"):
                return int(line.split()[1])
    raise AssertionError("no count of context switches")


def settle(listener):
    """Returns when the listener has been through three passes."""
    for _ in range(3):
        before = switches(listener)
        wait_for(lambda: poke(listener) and switches(listener) > before,
                 what="the listener waits again")
