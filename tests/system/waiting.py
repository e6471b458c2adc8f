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
