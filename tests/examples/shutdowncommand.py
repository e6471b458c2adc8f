"""The command tolva-shutdown in the hands of a test.  A recorder stands in the
place of /sbin/shutdown."""

import os
import signal

from conftest import SHUTDOWN
from waiting import wait_for, wait_for_lines

GONE = "The UPS asks for a shutdown"
DOG = f"{GONE}. tolva-shutdown hangs, its watchdog does it."


class Power:
    """The command, with a list of hosts and a recorder of its own."""

    def __init__(self, site):
        self.site = site
        self.local = site.effects / "local"
        self.recorder = site.stand_in(
            "shutdown", f'printf "%s\\n" "$*" >>"{self.local}"')
        self.list = site.dir / "hosts"
        self.list.write_text("")
        self.home = site.dir / "sender"
        self.home.mkdir()
        self.script = SHUTDOWN
        self.env = {"TOLVA_SHUTDOWN": self.recorder, "TOLVAHOME": self.home,
                    "TOLVA_SYSTEMD": site.dir / "no-systemd"}

    def hosts(self, *hosts):
        self.list.write_text("".join(
            f"{getattr(host, 'where', host)}\n" for host in hosts))

    def changed(self, **values):
        """A copy with other limits, or looking for commands elsewhere."""
        text = self.script.read_text()
        for name, value in values.items():
            line, = (x for x in text.splitlines()
                     if x.startswith(f"{name}="))
            text = text.replace(f"\n{line}\n", f"\n{name}={value}\n")
        self.script = self.site.dir / "tolva-shutdown"
        self.script.write_text(text)
        self.script.chmod(0o755)

    def argv(self, *options):
        return [self.script, "-i", "1", *options]

    def start(self, *options, env=None, prefix=(), **popen):
        return self.site.start(*prefix, *self.argv(*options, self.list),
                               env=self.env | (env or {}), **popen)

    def run(self, *options, **more):
        return self.start(*options, **more).wait(60)

    def went_down(self, text=GONE):
        said = wait_for_lines(self.local, 40, "this host goes down")
        return said == f"-h +0 {text}\n"

    def stayed_up(self):
        return not self.local.exists()

    def nothing_is_left(self, *but):
        kept = {x.run.pid for x in but}
        wait_for(lambda: not set(self.site.home.marked_pids()) - kept,
                 what="nothing is left running")


def goes_down(host):
    """The host's listener ends, as that of a host that goes down."""
    os.kill(host.run.pid, signal.SIGTERM)
    host.run.wait()
