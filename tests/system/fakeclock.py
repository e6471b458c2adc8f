"""A clock for the listener that stands still until a test moves it.

    clock = FakeClock(home)
    listener = home.listener(env=clock.env, ...)
    clock.advance(listener, 60)

The time of day comes from a file through libfaketime; real waiting stays
real.  A listener looks at the clock after each wait, and a stray SIGCHLD ends
the wait without meaning anything, so advance() pokes it until it has seen the
new time.
"""

import contextlib
import datetime
import glob
import os
import signal

import harness

START = datetime.datetime(2026, 11, 16, 2, 24, 18)


class FakeClock:
    def __init__(self, home):
        found = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
        assert found, "libfaketime is missing (apt-get install faketime)"
        self.path = home.dir / "clock"
        self.now = START
        self._write()
        sanitizer = home.environment()["ASAN_OPTIONS"]
        self.env = {
            "LD_PRELOAD": found[0],
            "FAKETIME_TIMESTAMP_FILE": str(self.path),
            "FAKETIME_NO_CACHE": "1",
            "FAKETIME_DONT_FAKE_MONOTONIC": "1",
            "NO_FAKE_STAT": "1",
            "TZ": "UTC",
            # The preloaded library comes before the sanitizer's.
            "ASAN_OPTIONS": sanitizer + ":verify_asan_link_order=0",
        }

    def _write(self):
        new = self.path.with_suffix(".new")
        new.write_text(self.now.strftime("%Y-%m-%d %H:%M:%S"))
        new.rename(self.path)

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
            harness.wait_for(lambda: poke(listener) and until(), what=what)
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
        harness.wait_for(lambda: poke(listener) and
                         switches(listener) > before,
                         what="the listener waits again")
