"""The home of a test: its directory, and everything that is started for it.

All of it carries the mark of the home in its environment, and ends with it.
"""

import contextlib
import functools
import os
import pathlib
import shutil
import signal
import tempfile
import uuid

import namespaces
from harness import (LAST_COMMON_MESSAGE, LOG_LINE, TOLVA, message_arguments,
                     wrapper)
from listener import Listener
from peers import ScriptedServer, UdpReceiver
from processes import Running, adopt_orphans, pids
from waiting import BOUND, wait_for


@functools.cache
def _prlimit():
    # Tests change PATH.
    return shutil.which("prlimit") or "/usr/bin/prlimit"


def gate(name="go"):
    """Shell text that waits until the test makes the file."""
    return f'while [ ! -e "$TOLVAHOME/{name}" ]; do sleep 0.01; done'


class Home:
    """A temporary home directory and everything started for it."""

    def __init__(self):
        adopt_orphans()
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="tolva-test-"))
        self.home = self.dir / "home"
        self.outputs = self.dir / "outputs"
        self.home.mkdir()
        self.outputs.mkdir()
        self.mark = f"TOLVA_TEST_MARK={uuid.uuid4().hex}"
        self.runs = []
        self.settings = {}
        self.cleanups = contextlib.ExitStack()
        self.messages()

    # files

    def path(self, name):
        return self.home / name

    def write(self, name, content):
        data = content if isinstance(content, bytes) else \
            content.encode("latin-1")
        path = self.path(name)
        path.write_bytes(data)
        return path

    def read(self, name):
        return self.path(name).read_bytes()

    def script(self, name, body="exit 0", mode=0o755):
        """A shell script in the home directory."""
        path = self.write(name, f"#!/bin/sh\n{body}\n")
        path.chmod(mode)
        return path

    def configure(self, settings=None, **more):
        """Adds settings and writes tolva.cfg."""
        self.settings.update(settings or {})
        self.settings.update(more)
        self.write("tolva.cfg", "".join(
            f"{key}={value}\n" for key, value in self.settings.items()))

    def messages(self, extra=None, without=()):
        """Writes messages.dat: "[number] %s..." for what every database has,
        and the extra texts; see also more_texts()."""
        texts = {n: f"[{n}]" + " %s" * count
                 for n, count in message_arguments().items()
                 if n <= LAST_COMMON_MESSAGE}
        texts.update(extra or {})
        self.write("messages.dat", "".join(
            f"m{n}={text}\n" for n, text in texts.items()
            if n not in without))

    def more_texts(self):
        """Writes messages.dat with a text for each event there is."""
        self.messages({n: f"[{n}]" + " %s" * count
                       for n, count in message_arguments().items()})

    # the log

    def log_text(self, name="tolva.log"):
        try:
            return self.read(name).decode("latin-1")
        except FileNotFoundError:
            return ""

    def log_lines(self, name="tolva.log"):
        """Parsed lines: (date, time, pid text, message)."""
        return [m.groups() for m in
                map(LOG_LINE.match, self.log_text(name).splitlines()) if m]

    def log_messages(self, name="tolva.log"):
        return [line[3] for line in self.log_lines(name)]

    # processes

    def environment(self, env=None, tolvahome=True):
        """The environment for a run; a value of None removes a variable."""
        base = {k: v for k, v in os.environ.items()
                if not k.startswith("TOLVA") and k != "LD_PRELOAD"}
        base["LC_ALL"] = "C"
        if tolvahome:
            base["TOLVAHOME"] = str(self.home)
        name, _, value = self.mark.partition("=")
        base[name] = value
        report = self.dir / "report"
        for key, options in (
                ("ASAN_OPTIONS", f"log_path={report}-asan:exitcode=99:"
                                 "detect_leaks=1"),
                ("UBSAN_OPTIONS", f"log_path={report}-ubsan:"
                                  "print_stacktrace=1:halt_on_error=1:"
                                  "exitcode=99"),
                ("LSAN_OPTIONS", f"log_path={report}-lsan:exitcode=99")):
            old = os.environ.get(key)
            base[key] = f"{old}:{options}" if old else options
        base["VALGRIND_OPTS"] = " ".join(filter(None, [
            os.environ.get("VALGRIND_OPTS"), "-q", "--error-exitcode=99",
            f"--log-file={report}-valgrind.%p"]))
        for key, value in (env or {}).items():
            if value is None:
                base.pop(key, None)
            else:
                base[key] = str(value)
        return base

    def command(self, args, program="tolva", limits=None, prefix=()):
        """The command line of a run, see start()."""
        path = program
        if program == "tolva":
            path = str(TOLVA)
        elif program in ("sendtolva", "listentolva"):
            path = str(TOLVA.parent / program)
        argv = list(prefix) + wrapper() + [path] + [
            a if isinstance(a, bytes) else str(a) for a in args]
        if limits:
            argv = [_prlimit(), f"--nofile={limits}", "--"] + argv
        return argv

    def start(self, *args, program="tolva", env=None, cwd=None,
              tolvahome=True, limits=None, prefix=(), **popen):
        """Starts the executable, one of its links, a path, or any other
        name that the search path of env leads to.  limits is prlimit's
        "soft:hard" for descriptors, prefix a command to run it by."""
        return Running(self, self.command(args, program, limits, prefix),
                       self.environment(env, tolvahome), cwd or self.home,
                       **popen)

    def run(self, *args, timeout=3 * BOUND, **options):
        """Runs the executable to its end; returns the Result."""
        result = self.start(*args, **options).wait(timeout)
        self.check_reports()
        return result

    def behind_server(self, kind, host, port):
        """A prefix for start() and run(): a network where one server, of
        kind SOCK_STREAM or SOCK_DGRAM, records its one request in
        home.dir / "request"."""
        return namespaces.behind_server(self.dir, kind, host, port)

    def listener(self, **options):
        return Listener(self, **options)

    def server(self, play, **options):
        """A scripted TCP peer, closed at the end of the test."""
        server = ScriptedServer(play, **options)
        self.cleanups.callback(server.close)
        return server

    def udp_receiver(self, host="0.0.0.0", port=None):
        receiver = UdpReceiver(host, port)
        self.cleanups.callback(receiver.close)
        return receiver

    # the end

    def marked_pids(self):
        """Living processes that were started for this home."""
        wanted = self.mark.encode()
        found = []
        for pid in pids():
            if pid == os.getpid():
                continue
            with contextlib.suppress(OSError):
                with open(f"/proc/{pid}/environ", "rb") as f:
                    if wanted in f.read().split(b"\0"):
                        found.append(pid)
        return found

    def check_reports(self):
        """Fails when a sanitizer or valgrind has complained."""
        for path in sorted(self.dir.glob("report*")):
            text = path.read_text(errors="replace")
            assert not text.strip(), f"{path.name}:\n{text}"

    def kill_all(self):
        def none_left():
            for pid in self.marked_pids():
                with contextlib.suppress(OSError):
                    os.kill(pid, signal.SIGKILL)
            for run in self.runs:
                run.process.poll()
            with contextlib.suppress(ChildProcessError):
                while os.waitpid(-1, os.WNOHANG)[0]:
                    pass
            return not self.marked_pids()
        wait_for(none_left, what="all processes of the test are gone")

    def close(self):
        try:
            self.kill_all()
            self.cleanups.close()
            self.check_reports()
        finally:
            shutil.rmtree(self.dir, ignore_errors=True)

    def describe(self):
        """Everything worth seeing after a failure: (title, text) pairs."""
        shown = [("tolva.cfg", self.path("tolva.cfg")),
                 ("tolva.log", self.path("tolva.log"))]
        shown += [(p.name, p) for p in sorted(self.dir.glob("report*"))]
        sections = [(title, path.read_text(errors="replace")[-20000:])
                    for title, path in shown if path.exists()]
        for run in self.runs:
            sections.append(("process", run.describe()[-20000:]))
        return sections
