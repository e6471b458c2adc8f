"""A host that is monitored: a complete home, and the commands that look at it.

    site = Site(home)
    listener = site.listener()
    site.metrics()            {"tolva_up": 1.0, ...}
    site.check("-w", "60")    status and line of check_tolva
"""

import os
import re
import shutil

from harness import ROOT, TOLVA

SHARE = ROOT / "share"
SAMPLE = re.compile(r'^(tolva_\w+(?:\{server="[^"\\]+"\})?) (\S+)$')


class Site:
    def __init__(self, home):
        self.home = home
        self.bin = home.dir / "commands"
        self.bin.mkdir()
        for path in [*(SHARE / "bin").iterdir(), TOLVA,
                     TOLVA.parent / "tolva-checkconf"]:
            (self.bin / path.name).symlink_to(path)
        for path in (SHARE / "scripts").iterdir():
            shutil.copy(path, home.home)
        shutil.copy(SHARE / "messages.dat", home.home)
        self.settings = {"AllowedAddresses": "127.0.0.1",
                         "ListenUDP": "FALSE"}
        home.configure(self.settings)
        self.pidfile = home.dir / "pid"
        self.env = {"PATH": f"{self.bin}:{os.environ['PATH']}",
                    "TOLVA_PIDFILE": str(self.pidfile),
                    "TOLVA_SYSTEMD": str(home.dir / "systemd")}

    def stand_in(self, name, body):
        path = self.bin / name
        # Never through a link to what is tested.
        path.unlink(missing_ok=True)
        with open(path, "x") as file:
            file.write(f"#!/bin/sh\n{body}\n")
        path.chmod(0o755)

    def listener(self, **config):
        listener = self.home.listener(config={**self.settings, **config})
        self.pidfile.write_text(f"{listener.pid}\n")
        return listener

    def run(self, name, *args, env=None, **popen):
        return self.home.start(*args, program=str(self.bin / name),
                               env={**self.env, **(env or {})},
                               **popen).wait()

    def metrics(self, *args, **options):
        ran = self.run("tolva-metrics", *args, **options)
        assert (ran.status, ran.err) == (0, "")
        return parsed(ran.out)

    def check(self, *args, **options):
        """(status, line) of the plugin; it is always one line."""
        ran = self.run("check_tolva", *args, **options)
        assert ran.err == ""
        assert ran.out.count("\n") == 1
        return ran.status, ran.out[:-1]


def parsed(text):
    """{name with labels: value}; every gauge is told before its values."""
    told = ""
    found = {}
    for line in text.splitlines():
        if line.startswith("# "):
            told = line.split()[2]
            continue
        sample = SAMPLE.match(line)
        assert sample, line
        assert sample[1].partition("{")[0] == told
        found[sample[1]] = float(sample[2])
    return found
