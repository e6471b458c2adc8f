"""A host for the actions that are ready: it has the commands that a test gives
it and no others, and each writes down how it was called.

    host.tool("zpool", 'echo tank')       a command, and what it does
    host.group("virsh", "list", ...)      one that keeps a set of things
    host.run("export-zfs", "--dry-run")   as the listener runs an action
    host.calls()                          ["zpool list -H -o name", ...]
"""

import os
import shutil
import signal
import subprocess

from harness import ROOT

ACTIONS = ROOT / "share" / "actions"
LIBRARY = ROOT / "share" / "lib"
USUAL = ["sh", "awk", "cat", "date", "id", "ls", "readlink", "rm", "sed",
         "sleep", "timeout", "tr"]


class Ran:
    def __init__(self, done):
        self.status = done.returncode
        self.out = done.stdout
        self.err = done.stderr


class ActionHost:
    def __init__(self, tmp):
        self.dir = tmp
        self.home = tmp / "home"
        self.bin = tmp / "bin"
        self.record = tmp / "calls"
        for directory in (self.home, self.bin, tmp / "lib"):
            directory.mkdir()
        for name in USUAL:
            (self.bin / name).symlink_to(shutil.which(name))
        # Without the usual directories, where the real commands are.
        lines = (LIBRARY / "action.sh").read_text().splitlines(keepends=True)
        kept = [line for line in lines if not line.startswith("PATH=")]
        assert len(kept) == len(lines) - 1
        (tmp / "lib" / "action.sh").write_text("".join(kept))
        self.env = {"PATH": str(self.bin), "TOLVAHOME": str(self.home),
                    "TOLVA_LIB": str(tmp / "lib"),
                    "TOLVA_OUTSIDE": "1",
                    "TOLVA_SYSTEMD": str(tmp / "systemd"),
                    "TOLVA_MOUNTS": str(tmp / "mounts"),
                    "TOLVA_POWER_STATE": str(tmp / "power")}
        self.tool("logger", "exit 0")

    def tool(self, name, body=""):
        path = self.bin / name
        # It may be a link to the system's own command, which stays as it is:
        # a new file is made, and nothing is ever written through the link.
        path.unlink(missing_ok=True)
        with open(path, "x") as file:
            file.write(f'#!/bin/sh\nprintf "%s\\n" "${{0##*/}} $*" '
                       f'>>"{self.record}"\n{body}\n')
        path.chmod(0o755)

    def group(self, name, listing, stopping, things, stubborn=(), forced=""):
        """A command that keeps things: it shows them, and takes the one
        away, or those, that it is told to stop by a case pattern."""
        kept = self.dir / f"{name}.things"
        kept.mkdir()
        for thing in things:
            (kept / thing).touch()
        spared = "|".join(stubborn) or "-"
        self.tool(name, f'''
            forced=
            case "$*" in {forced or "-"}) forced=yes ;; esac
            case "$*" in
            {listing}) ls "{kept}" | while read -r x; do {self.row(name)}; done ;;
            {stopping})
                for x in "$@"; do
                    case $x in {spared}) [ -n "$forced" ] || continue ;; esac
                    rm -f "{kept}/$x"
                done ;;
            esac''')

    @staticmethod
    def row(name):
        """How a command shows the thing $x; of the Proxmox tools with
        another one that does not run."""
        return {
            "qm": 'echo "$x name running 2048 32.00 77"; '
                  'echo "9$x other stopped 2048 32.00 0"',
            "pct": 'echo "$x running  ct"; echo "9$x stopped  other"',
        }.get(name, 'echo "$x"')

    def things(self, name):
        return sorted(os.listdir(self.dir / f"{name}.things"))

    def has_systemd(self):
        (self.dir / "systemd").mkdir()

    def rehearses(self):
        (self.home / "rehearsal").touch()

    def mounts(self, text):
        (self.dir / "mounts").write_text(text)

    def run(self, action, params="", closed=()):
        """Runs the action with params as the shell splits them."""
        def like_the_listener():
            signal.signal(signal.SIGHUP, signal.SIG_IGN)
            signal.signal(signal.SIGPIPE, signal.SIG_IGN)
            for descriptor in closed:
                os.close(descriptor)

        done = subprocess.run(
            ["/bin/sh", "-c", f"{ACTIONS / action} {params}"], env=self.env,
            stdin=subprocess.DEVNULL, capture_output=True, text=True,
            cwd=self.home, timeout=60, preexec_fn=like_the_listener)
        return Ran(done)

    def calls(self, *names):
        """What was called, without the system log."""
        if not self.record.exists():
            return []
        lines = self.record.read_text().splitlines()
        return [x for x in lines if x.split()[0] != "logger" and
                (not names or x.split()[0] in names)]

    def logged(self):
        return [x for x in self.record.read_text().splitlines()
                if x.startswith("logger ")]
