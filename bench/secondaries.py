"""What Network UPS Tools have in the place of this program: on each host an
upsmon that asks the upsd of the host with the UPS every few seconds.

Measured as Debian ships it but for the final delay, which is none: how long
after the order to shut down (FSD) a host's SHUTDOWNCMD begins, and the memory
of both daemons. They run in mounts of their own, where the one place for the
process id of an upsmon is theirs.
"""

import os
import pathlib
import random
import shutil
import socket
import struct
import subprocess
import time

from figures import CannotMeasure, Table, take_turns
from servers import Server, free_port, pss

NUT = pathlib.Path("/lib/nut")
POLL = 5        # seconds, as shipped

FILES = {
    "ups.conf": "[ups]\n\tdriver = dummy-ups\n\tport = {dir}/ups.dev\n",
    "ups.dev": "ups.status: OL\n",
    "upsd.conf": "LISTEN 127.0.0.1 {port}\n",
    "upsd.users": "[bench]\n\tpassword = bench\n\tupsmon primary\n"
                  "\tactions = FSD SET\n",
    "upsmon.conf": "MONITOR ups@127.0.0.1:{port} 1 bench bench secondary\n"
                   "MINSUPPLIES 1\nRUN_AS_USER {user}\n"
                   f"POLLFREQ {POLL}\nPOLLFREQALERT {POLL}\nFINALDELAY 0\n"
                   'SHUTDOWNCMD "{stamp} {fifo} x"\n',
}


class Ups:
    """A dummy UPS with its driver, upsd, and one upsmon that is a secondary."""

    def __init__(self, bench, number):
        self.dir = bench.work / f"nut-{number}"
        self.dir.mkdir()
        self.port = free_port()
        self.fifo = self.dir / "stamps"
        os.mkfifo(self.fifo)
        user = "root"
        for name, text in FILES.items():
            path = self.dir / name
            path.write_text(text.format(
                dir=self.dir, port=self.port, user=user, fifo=self.fifo,
                stamp=bench.tool("stamp")))
            path.chmod(0o600)
        env = {**os.environ, "NUT_CONFPATH": str(self.dir),
               "NUT_STATEPATH": str(self.dir), "NUT_ALTPIDPATH": str(self.dir)}
        Server(bench, [NUT / "dummy-ups", "-a", "ups", "-D", "-u", user],
               env=env)
        self.wait(lambda: (self.dir / "dummy-ups-ups").exists())
        self.upsd = Server(bench, [NUT / "upsd", "-D", "-u", user],
                           port=self.port, env=env)
        self.wait(lambda: "OL" in self.say("GET VAR ups ups.status"))
        own = ["unshare", "-m"] if os.getuid() == 0 else ["unshare", "-rm"]
        self.upsmon = Server(bench, [
            *own, "sh", "-c", 'mount -t tmpfs none /run && mkdir /run/nut && '
            f'exec "{NUT}/upsmon" -D -p'], env=env)
        self.wait(lambda: "127.0.0.1" in self.say("LIST CLIENT ups"))

    @staticmethod
    def wait(condition):
        end = time.monotonic() + 30
        while not condition():
            if time.monotonic() > end:
                raise CannotMeasure("it does not start")
            time.sleep(0.05)

    def say(self, *lines):
        """What upsd answers to these lines."""
        with socket.create_connection(("127.0.0.1", self.port), 10) as sock:
            file = sock.makefile("rw")
            for line in (*lines, "LOGOUT"):
                file.write(f"{line}\n")
            file.flush()
            return file.read()

    def order(self):
        """Seconds from the order to shut down to the secondary's command."""
        with open(os.open(self.fifo, os.O_RDWR), "rb+", buffering=0) as pipe:
            begun = time.monotonic_ns()
            said = self.say("USERNAME bench", "PASSWORD bench", "PRIMARY ups",
                            "FSD ups")
            if "OK FSD-SET" not in said:
                raise CannotMeasure(f"upsd says {said!r}")
            os.set_blocking(pipe.fileno(), False)
            stamp = []

            def come():
                stamp.append(pipe.read(16))
                return stamp[-1] is not None

            self.wait(come)
            seconds, rest = struct.unpack("qq", stamp[-1])
            return (seconds * 10**9 + rest - begun) / 1e9


def secondaries(bench):
    told = Table("nut", "NUT: from the order to the secondary's command", "s",
                 base="")
    size = Table("nut", "NUT: memory (PSS), idle", "KiB", base="")
    if not (NUT / "upsmon").exists() or shutil.which("unshare") is None:
        told.notes.append("nut-server and nut-client are not installed")
        return [told]
    number = iter(range(1000))

    def measure():
        with bench.scope():
            ups = Ups(bench, next(number))
            if not size.values:
                size.values["upsd"] = [pss(ups.upsd.pid)]
                size.values["upsmon, both processes"] = [sum(
                    pss(pid) for pid in family(ups.upsmon.pid))]
            # A secondary may just have asked, or be about to.
            time.sleep(random.uniform(0, POLL))
            return ups.order()

    take_turns(bench, told, {"upsmon, secondary": measure}, bench.pick(2, 9))
    return [told, size]


def family(pid):
    """A process and its children."""
    found = subprocess.run(["ps", "-o", "pid=", "--ppid", str(pid)],
                           capture_output=True, text=True).stdout.split()
    return [pid, *map(int, found)]
