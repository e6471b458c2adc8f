"""Processes: the ones that a test starts, and what /proc says of any.

Daemons leave the process that started them; they become children of the tests
then, so that their exit status can be seen.
"""

import contextlib
import ctypes
import functools
import os
import subprocess
import time

from harness import LOG_LINE
from waiting import BOUND

PR_SET_CHILD_SUBREAPER = 36


@functools.cache
def adopt_orphans():
    """Makes this process the parent of daemons below it."""
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0,
                                            0)


# --- what /proc says --------------------------------------------------------


def pids():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def _stat(pid):
    """The fields behind the name, from the state on; None without it."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as f:
            return f.read().rpartition(b")")[2].split() or None
    except OSError:
        return None


def state(pid):
    """One letter, "S" for one that sleeps; None when there is none."""
    stat = _stat(pid)
    return stat[0].decode() if stat else None


def alive(pid):
    """Whether the process exists and is no zombie."""
    return state(pid) not in (None, "Z", "X")


def children(pid, wanted=None):
    """Process ids of the children, all or those in one state ("Z")."""
    found = []
    for candidate in pids():
        stat = _stat(candidate)
        if stat and int(stat[1]) == pid and \
                wanted in (None, stat[0].decode()):
            found.append(candidate)
    return found


def zombies(pid):
    return children(pid, "Z")


def open_fds(pid):
    """{descriptor: target} of a process."""
    found = {}
    for fd in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(OSError):
            found[int(fd)] = os.readlink(f"/proc/{pid}/fd/{fd}")
    return found


def sockets_of(pid):
    """{descriptor: inode} of the sockets of a process."""
    return {fd: int(target[len("socket:["):-1])
            for fd, target in open_fds(pid).items()
            if target.startswith("socket:[")}


def owners(sockets):
    """Process ids of those that have one of the sockets."""
    wanted = {s.inode for s in sockets}
    found = []
    for pid in pids():
        with contextlib.suppress(OSError):
            if wanted & set(sockets_of(pid).values()):
                found.append(pid)
    return found


def fd_flags(pid, fd):
    """The flags with which a descriptor is open."""
    with open(f"/proc/{pid}/fdinfo/{fd}") as f:
        return int(f.read().split("flags:")[1].split()[0], 8)


def signal_set(text):
    """The numbers of the signals in a mask as /proc writes it."""
    mask = int(text, 16)
    return {n for n in range(1, 65) if mask >> (n - 1) & 1}


def signal_sets(pid):
    """{"SigIgn": set of numbers, ...} of a process."""
    with open(f"/proc/{pid}/status") as f:
        fields = dict(line.split(":", 1) for line in f)
    return {key: signal_set(fields[key])
            for key in ("SigIgn", "SigCgt", "SigBlk")}


def cpu_seconds(pid):
    """Processor time used so far."""
    stat = _stat(pid)
    return (int(stat[11]) + int(stat[12])) / os.sysconf("SC_CLK_TCK")


def is_idle(pid, seconds=1.0):
    """Hardly any processor time is used for a while."""
    before = cpu_seconds(pid)
    time.sleep(seconds)
    return cpu_seconds(pid) - before < seconds / 10


# --- the ones that are started ----------------------------------------------


class Result:
    """What a finished run left: status and outputs (texts are latin-1)."""

    def __init__(self, argv, status, out, err):
        self.argv = argv
        self.status = status
        self.out_bytes = out
        self.err_bytes = err
        self.out = out.decode("latin-1")
        self.err = err.decode("latin-1")

    @property
    def messages(self):
        """The message texts of the log lines on standard output."""
        return [m.group(4) for m in map(LOG_LINE.match, self.out.splitlines())
                if m]

    def __repr__(self):
        return (f"{self.argv}: status {self.status}\n--- stdout\n{self.out}"
                f"\n--- stderr\n{self.err}")


class Running:
    """A started process with its outputs in files."""

    def __init__(self, home, argv, env, cwd, **popen):
        self.home = home
        self.argv = argv
        number = len(home.runs)
        self.out_path = home.outputs / f"{number}.out"
        self.err_path = home.outputs / f"{number}.err"
        with open(self.out_path, "wb") as out, \
                open(self.err_path, "wb") as err:
            self.process = subprocess.Popen(
                argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL, stdout=out,
                stderr=err, **popen)
        self.pid = self.process.pid
        home.runs.append(self)

    @property
    def out(self):
        return self.out_path.read_bytes().decode("latin-1")

    @property
    def err(self):
        return self.err_path.read_bytes().decode("latin-1")

    def running(self):
        return self.process.poll() is None

    def wait(self, timeout=3 * BOUND):
        """Waits for the end and returns the Result."""
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"still running after {timeout} s: "
                                 f"{self.argv}") from None
        return Result(self.argv, status, self.out_path.read_bytes(),
                      self.err_path.read_bytes())

    def describe(self):
        return (f"{self.argv}: status {self.process.poll()}\n"
                f"--- stdout\n{self.out}\n--- stderr\n{self.err}")
