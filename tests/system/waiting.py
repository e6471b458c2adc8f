"""Waiting for a condition, within a bound.

Nothing in the tests sleeps to be safe: what has to become true is polled, and
is an error when it does not.
"""

import time

BOUND = 20.0
POLL = 0.01


def wait_for(condition, timeout=BOUND, what="condition"):
    """Polls until condition() is true and returns its value."""
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what}")
        time.sleep(POLL)


def wait_for_lines(path, timeout=BOUND, what=None):
    """Waits until a script has written a line, and returns what is there: a
    file exists before anything stands in it."""
    def text():
        return path.read_text() if path.exists() else ""
    wait_for(lambda: text().endswith("\n"), timeout,
             what or f"a line in {path}")
    return text()
