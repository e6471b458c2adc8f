"""The system tests' harness, and the software the examples speak to.

These tests run the examples as they are shipped against the real software of
Debian's packages, every part of it in a temporary directory, on loopback and
on ports of its own.  Nothing can shut this host down: where an example would
do that, it is given a stand-in that writes a line.
"""

import contextlib
import fcntl
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))

from harness import (  # noqa: E402
    ROOT, TOLVA, message, need_tolva, wrapper)
from home import Home  # noqa: E402
from ports import free_port, tcp_listens  # noqa: E402
from processes import Running  # noqa: E402
from waiting import wait_for  # noqa: E402

EXAMPLES = ROOT / "examples"
SHUTDOWN = ROOT / "share" / "bin" / "tolva-shutdown"


def pytest_sessionstart(session):
    need_tolva()


class Site:
    """One home of the harness, in which examples run."""

    def __init__(self):
        self.home = Home()
        self.dir = self.home.dir
        self.effects = self.dir / "effects"
        self.effects.mkdir()
        self.bin = self.dir / "bin"
        self.bin.mkdir()
        for name in ("tolva", "sendtolva", "listentolva"):
            link = self.bin / name
            if wrapper():
                target = " ".join([*wrapper(), str(TOLVA.parent / name)])
                link.write_text(f'#!/bin/sh\nexec {target} "$@"\n')
                link.chmod(0o755)
            else:
                link.symlink_to(TOLVA)
        (self.bin / "tolva-shutdown").symlink_to(SHUTDOWN)
        # Neither the journal nor the terminals hear of tests.
        self.stand_in("logger", "exit 0")
        self.stand_in("wall", "exit 0")

    def environment(self, env=None):
        extra = {"PATH": f"{self.bin}:{os.environ['PATH']}:/usr/sbin:/sbin"}
        extra.update(env or {})
        return extra

    def stand_in(self, name, body):
        """A command of that name, found before the real one."""
        path = self.bin / name
        path.unlink(missing_ok=True)  # it may be a link to the real one
        path.write_text(f"#!/bin/sh\n{body}\n")
        path.chmod(0o755)
        return path

    def copy(self, example, *names):
        """Copies files of an example into a directory; returns it."""
        target = self.dir / example
        target.mkdir(exist_ok=True)
        for name in names:
            shutil.copy(EXAMPLES / example / name, target)
        return target

    def start(self, *argv, env=None, **popen):
        return Running(
            self.home, [str(a) for a in argv],
            self.home.environment(self.environment(env)), self.dir, **popen)

    def run(self, *argv, env=None, timeout=60, **popen):
        result = self.start(*argv, env=env, **popen).wait(timeout)
        self.home.check_reports()
        return result

    def listener(self, host, port=None, body="exit 0", allowed="127.0.0.1",
                 scripts=("tolva_shutdown.sh", "tolva_execute.sh",
                          "tolva_message.sh")):
        """A listener on host whose scripts write a line and do body."""
        home = self.dir / f"home-{host}"
        home.mkdir()
        shutil.copy(self.home.path("messages.dat"), home)
        effect = self.effects / host
        for name in scripts:
            path = home / name
            path.write_text("#!/bin/sh\n"
                            f'echo "{name} $*" >>"{effect}"\n{body}\n')
            path.chmod(0o755)
        for _ in range(5):
            chosen = port or free_port()
            (home / "tolva.cfg").write_text(
                f"ListenAddress={host}\nListenPort={chosen}\n"
                f"AllowedAddresses={allowed}\nListenUDP=FALSE\n")
            listener = PlainListener(self.start(
                self.bin / "tolva", "-l", "-d", "0",
                env={"TOLVAHOME": str(home)}), home, host, chosen, effect)
            if listener.listens():
                return listener
            assert not port, listener.log()
        raise AssertionError("no port to listen on")

    def close(self):
        self.home.close()


class PlainListener:
    """A listener with a home of its own."""

    def __init__(self, run, home, host, port, effect_path):
        self.run = run
        self.home = home
        self.host = host
        self.port = port
        self.effect_path = effect_path

    def listens(self):
        wait_for(lambda: tcp_listens(self.port) or
                 not self.run.running(), what="the listener listens")
        wait_for(lambda: message(756) in self.log() or
                 not self.run.running(), what="the listener says so")
        return self.run.running()

    @property
    def where(self):
        return f"{self.host}:{self.port}"

    def log(self):
        try:
            return (self.home / "tolva.log").read_text("latin-1")
        except FileNotFoundError:
            return ""

    def effect(self):
        """The lines that its scripts have written."""
        try:
            return self.effect_path.read_text("latin-1").splitlines()
        except FileNotFoundError:
            return []

    def wait_effect(self, lines):
        wait_for(lambda: len(self.effect()) >= len(lines),
                 what=f"the scripts of {self.where} write {lines}")
        assert self.effect() == lines


@pytest.fixture
def site(request):
    site = Site()
    request.node.site = site
    yield site
    site.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    site = getattr(item, "site", None)
    if report.failed and call.when == "call" and site:
        report.sections.extend(site.home.describe())
        for path in sorted(site.dir.glob("home-*/tolva.log")):
            report.sections.append((str(path), path.read_text("latin-1")))


@contextlib.contextmanager
def only_one(name):
    """Only one process of this host is in here at a time."""
    path = pathlib.Path(tempfile.gettempdir()) / \
        f"tolva-test-{name}-{os.getuid()}.lock"
    with open(path, "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def unpacked(*packages):
    """The files of packages that cannot be installed beside the others.

    They are fetched once by apt-get and kept in a directory of this user.
    """
    name = f"tolva-test-{packages[0]}-{os.getuid()}"
    root = pathlib.Path(tempfile.gettempdir()) / name
    with only_one(name):
        if root.is_dir() and root.stat().st_uid == os.getuid():
            return root
        assert not root.exists(), f"{root} belongs to somebody else"
        with tempfile.TemporaryDirectory() as scratch:
            fetched = subprocess.run(
                ["apt-get", "-q", "download", *packages], cwd=scratch,
                capture_output=True, text=True)
            assert fetched.returncode == 0, \
                "cannot fetch {} (apt-get update?):\n{}".format(
                    " ".join(packages), fetched.stderr)
            target = pathlib.Path(scratch) / "root"
            for package in pathlib.Path(scratch).glob("*.deb"):
                subprocess.run(["dpkg-deb", "-x", package, target],
                               check=True)
            shutil.copytree(target, f"{root}.new", symlinks=True)
            os.rename(f"{root}.new", root)
    return root
