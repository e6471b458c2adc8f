"""Runs the real executable for the system tests.

One Home per test: a temporary home directory, the processes started in it,
the scripted peers, and their end.  Every process carries the home's mark in
its environment, so that whatever a test leaves behind is found and killed by
process id.  Nothing here sleeps to be safe: wait_for() polls a condition.

    def test_it(home):
        home.script("tolva_execute.sh", 'echo "$@" > "$TOLVAHOME/ran"')
        listener = home.listener(level=0, config={"ListenTimeout": 3})
        sent = home.run("-s", "EXECUTE x", "-a", listener.where)
        assert sent.status == 0
        wait_for(lambda: home.path("ran").exists())
        listener.stop()

This module says what is tested, and which texts it writes.  The rest is in
modules of its own, each of which explains itself:

    home, listener       what nearly every test begins with
    processes, ports     what runs, and who listens where
    peers, upsserver     whom the program speaks to
    wire                 the bytes of requests and replies
    waiting, fakeclock   waiting for a condition, and a clock that is moved
    namespaces, preload  a network, mounts and a library of the test's own
    watch, house         listeners that watch servers, and hold back shutdowns
    scripthost, manual   the shipped scripts, and the manual pages

Environment:
    TOLVA          the executable (default: build/tolva of the checkout)
    TOLVA_WRAPPER  a command to run it under, e.g. "valgrind"; looking for
                   leaks is the sanitizer's work, as valgrind counts what
                   the parent of a daemon holds when it leaves
    TOLVA_CC       the C compiler of its machine and C library, when that is
                   not "cc": for libraries that are put under it
    TOLVA_STATIC   set when it is a static executable, which none can be put
                   under
"""

import functools
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOLVA = pathlib.Path(os.environ.get("TOLVA", ROOT / "build" / "tolva"))

LOG_LINE = re.compile(
    r"^(\d\d/\d\d/\d{4}),(\d\d:\d\d:\d\d), tolva\[(\d{5,})\]: (.*)$")


# What has a higher number is told in addition, where there is a text for it.
LAST_COMMON_MESSAGE = 835


@functools.cache
def message_arguments():
    """{number: how many arguments the message is given}, from the program's
    own table of events."""
    table = (ROOT / "src" / "tolva2" / "files" / "events.h").read_text()
    rows = re.findall(r"(?:event_message|added_event)<(\d+)> \w+\{(\d+)\};", table)
    return {int(number): int(count) for count, number in rows}


def message(number, *args):
    """The text of a message of the test database, filled."""
    return f"[{number}]" + "".join(f" {a}" for a in args)


REASONS = """
#include <stdio.h>
#include <string.h>
int main(void) {
    for (int number = 0; number < 256; number++)
        puts(strerror(number));
}
"""


def has_musl():
    """True when the executable has that C library."""
    return "musl" in os.environ.get("TOLVA_CC", "")


@functools.cache
def _reasons():
    """What musl calls the errors."""
    compiler = shlex.split(os.environ["TOLVA_CC"])
    with tempfile.TemporaryDirectory(prefix="tolva-reasons-") as folder:
        told = pathlib.Path(folder) / "told"
        subprocess.run([*compiler, "-x", "c", "-static", "-o", told, "-"],
                       input=REASONS, text=True, check=True)
        return subprocess.run([told], text=True, check=True,
                              capture_output=True).stdout.splitlines()


def reason(number):
    """What the executable's C library says for an errno."""
    if has_musl():
        return _reasons()[number]
    return os.strerror(number)


def need_tolva():
    """Ends the tests when there is nothing to test."""
    if not TOLVA.exists():
        pytest.exit(f"{TOLVA} is missing: build it, or name the executable "
                    "in TOLVA", returncode=2)


@functools.cache
def wrapper():
    """The command to run the executable under, mostly empty."""
    words = shlex.split(os.environ.get("TOLVA_WRAPPER", ""))
    if words:
        # Tests change PATH.
        words[0] = shutil.which(words[0]) or words[0]
    return words


def skip_when_wrapped(reason):
    """Skips a test that needs the executable to run by itself."""
    if wrapper():
        pytest.skip(reason)
