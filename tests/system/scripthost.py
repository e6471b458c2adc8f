"""A host for the shipped scripts, with stand-ins for what they call.

They are started as the listener starts them: through "sh -c", with the
parameters unquoted, SIGCHLD blocked, and SIGHUP and SIGPIPE ignored.
"""

import os
import shutil
import signal
import subprocess
import time

from harness import ROOT

SCRIPTS = ROOT / "share" / "scripts"
RECORDER = ROOT / "tests" / "system" / "standins" / "recorder"
ALL = ["tolva_shutdown.sh", "tolva_notalive.sh", "tolva_execute.sh",
       "tolva_message.sh", "tolva_mail.sh", "ShutdownSuppressed.sh"]
REPLACED = ["wall", "logger", "sendmail", "shutdown"]
HOST = os.uname().nodename


class Call:
    """One recorded call of a stand-in."""

    def __init__(self, directory):
        self.name = (directory / "name").read_text()
        args = directory / "args"
        self.args = args.read_text().split("\0")[:-1] if args.exists() else []
        self.input = (directory / "input").read_text()


class Ran:
    def __init__(self, process):
        self.status = process.returncode
        self.out = process.stdout
        self.err = process.stderr


class Host:
    """A host of its own: a home, and stand-ins that come first in PATH."""

    def __init__(self, tmp):
        self.home = tmp / "home"
        self.bin = tmp / "bin"
        self.state = tmp / "state"
        self.scheduled = tmp / "scheduled"
        self.record = tmp / "record"
        for directory in (self.home, self.bin, self.record):
            directory.mkdir()
        for name in REPLACED:
            (self.bin / name).symlink_to(RECORDER)
        self.scripts = SCRIPTS
        self.env = {
            "PATH": f"{self.home}:{self.bin}:/usr/bin:/bin",
            "TOLVAHOME": str(self.home),
            "TOLVA_SHUTDOWN": str(self.bin / "shutdown"),
            "TOLVA_SCHEDULED": str(self.scheduled),
            "TOLVA_SHUTDOWN_PID": str(tmp / "shutdown.pid"),
            "TOLVA_STATE": str(self.state),
            "STANDIN": str(self.record),
        }

    def without(self, *missing):
        """Makes this a host that does not have these commands at all."""
        for name in missing:
            (self.bin / name).unlink()
        for name in ("sh", "cat", "date", "mkdir", "rm", "sleep", "timeout",
                     "tr", "uname"):
            if name not in missing:
                (self.bin / name).symlink_to(shutil.which(name))
        self.env["PATH"] = f"{self.home}:{self.bin}"
        copies = self.home / "copies"
        copies.mkdir()
        for name in ALL:
            lines = (SCRIPTS / name).read_text().splitlines(keepends=True)
            kept = [x for x in lines if not x.startswith("PATH=")]
            assert len(kept) == len(lines) - 1
            (copies / name).write_text("".join(kept))
            (copies / name).chmod(0o755)
        self.scripts = copies

    def run(self, script, params="", **env):
        """Runs the script with params as the shell splits them."""

        def like_the_listener():
            signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGCHLD})
            signal.signal(signal.SIGHUP, signal.SIG_IGN)
            signal.signal(signal.SIGPIPE, signal.SIG_IGN)

        return Ran(subprocess.run(
            ["/bin/sh", "-c", f"{self.scripts / script} {params}"],
            env=self.env | env, stdin=subprocess.DEVNULL,
            capture_output=True, text=True, cwd=self.home, timeout=60,
            preexec_fn=like_the_listener))

    def run_in_journal(self, script, params=""):
        """Runs it with outputs that say they are the journal; returns what
        it has written there."""
        journal = self.home / "journal"
        with open(journal, "w+") as stream:
            there = os.fstat(stream.fileno())
            subprocess.run(
                ["/bin/sh", "-c", f"{self.scripts / script} {params}"],
                env=self.env | {
                    "JOURNAL_STREAM": f"{there.st_dev}:{there.st_ino}"},
                stdin=subprocess.DEVNULL, stdout=stream, stderr=stream,
                cwd=self.home, timeout=60)
        return journal.read_text()

    def fails(self, command, status):
        (self.record / f"{command}.status").write_text(str(status))

    def calls(self, name=None):
        found = sorted(x for x in self.record.iterdir() if x.is_dir())
        calls = [Call(x) for x in found]
        return [x for x in calls if name in (None, x.name)]

    def names(self):
        return [x.name for x in self.calls()]

    def action(self, name, text, mode=0o755):
        directory = self.home / "actions.d"
        directory.mkdir(exist_ok=True)
        file = directory / name
        file.write_text("#!/bin/sh\n" + text)
        file.chmod(mode)
        return file

    def schedule(self, in_seconds, mode):
        usec = int((time.time() + in_seconds) * 1000000)
        self.scheduled.write_text(f"USEC={usec}\nWARN_WALL=1\nMODE={mode}\n")
