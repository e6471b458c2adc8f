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

Environment:
    TOLVA          the executable (default: build/tolva of the checkout)
    TOLVA_WRAPPER  a command to run it under, e.g. "valgrind"; looking for
                   leaks is the sanitizer's work, as valgrind counts what
                   the parent of a daemon holds when it leaves
"""

import contextlib
import ctypes
import errno
import os
import pathlib
import random
import re
import selectors
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import uuid

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOLVA = pathlib.Path(os.environ.get("TOLVA", ROOT / "build" / "tolva"))
WRAPPER = shlex.split(os.environ.get("TOLVA_WRAPPER", ""))
if WRAPPER:
    # Tests change PATH.
    WRAPPER[0] = shutil.which(WRAPPER[0]) or WRAPPER[0]
PRLIMIT = shutil.which("prlimit") or "/usr/bin/prlimit"
BOUND = 20.0
POLL = 0.01

HEADER = b"CONNECT TO TOLVA (SEND)"
REPLY_HEADER = b"CONNECT TO TOLVA (REPLY)"

# How many arguments each operator message is given.
MESSAGE_ARGUMENTS = {
    753: 1, 756: 0, 757: 0, 758: 0, 759: 0, 785: 1, 787: 1, 792: 1, 793: 1,
    794: 1, 795: 0, 796: 0, 810: 0, 814: 1, 819: 0, 820: 0, 821: 0, 822: 0,
    824: 1, 825: 0, 828: 1, 829: 0, 830: 0, 832: 1, 833: 1, 835: 1,
}

LOG_LINE = re.compile(
    r"^(\d\d/\d\d/\d{4}),(\d\d:\d\d:\d\d), tolva\[(\d{5,})\]: (.*)$")

PR_SET_CHILD_SUBREAPER = 36
# Daemons become our children, so that their exit status can be seen.
ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


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


def message(number, *args):
    """The text of a message of the test database, filled."""
    return f"[{number}]" + "".join(f" {a}" for a in args)


# --- ports ------------------------------------------------------------------

_reservations = []


def _port_range():
    try:
        with open("/proc/sys/net/ipv4/ip_local_port_range") as f:
            low = int(f.read().split()[0])
    except OSError:
        low = 32768
    return (10000, low - 1) if low > 14000 else (low, 65535)


def free_port(low=None, high=None):
    """A port free for TCP and UDP that no other test will be given.

    Taken from below the system's own choice for outgoing connections, and
    reserved across processes by the name of an abstract socket.
    """
    if low is None:
        low, high = _port_range()
    for _ in range(500):
        port = random.randint(low, high)
        claim = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            claim.bind(f"\0tolva-test-port-{port}")
        except OSError:
            claim.close()
            continue
        with socket.socket() as tcp, \
                socket.socket(type=socket.SOCK_DGRAM) as udp:
            try:
                tcp.bind(("0.0.0.0", port))
                udp.bind(("0.0.0.0", port))
            except OSError:
                claim.close()
                continue
        _reservations.append(claim)
        return port
    raise AssertionError("no free port found")


def _private_network():
    """A command that runs another in a network and mounts of its own."""
    setup = ["sh", "-c", 'ip link set lo up && exec "$@"', "sh"]
    probe = ["sh", "-c", "mount -t tmpfs none /mnt && cd /etc && "
             "ls hosts resolv.conf nsswitch.conf"]
    for options in (["-n", "-m"], ["-r", "-n", "-m"]):
        command = ["unshare", *options, "--", *setup]
        with contextlib.suppress(OSError, subprocess.TimeoutExpired):
            if subprocess.run([*command, *probe], capture_output=True,
                              timeout=60).returncode == 0:
                return command
    return None


PRIVATE_NETWORK = _private_network()
needs_private_network = pytest.mark.skipif(
    PRIVATE_NETWORK is None,
    reason="this machine refuses a private network and mount namespace "
           "(root or user namespaces, iproute2)")

# Takes one request at a port of a private network, while the rest of the
# arguments run.
ONE_SERVER = """
import socket, subprocess, sys, threading
kind, host, port, record = sys.argv[1:5]
server = socket.socket(type=getattr(socket, kind))
server.bind((host, int(port)))
def take():
    conn = server
    if kind == "SOCK_STREAM":
        conn = server.accept()[0]
    data = conn.recv(65536)
    if data.startswith(b"WINCLIENT"):
        conn.sendall(b"0|0")
        data += conn.recv(65536)
    with open(record, "wb") as f:
        f.write(data)
    conn.close()
if kind == "SOCK_STREAM":
    server.listen(5)
thread = threading.Thread(target=take, daemon=True)
thread.start()
status = subprocess.run(sys.argv[5:]).returncode
thread.join(20)
sys.exit(status)
"""


# --- processes --------------------------------------------------------------


def _stat(pid):
    """(state, parent) of a process, or None."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as f:
            fields = f.read().rpartition(b")")[2].split()
        return fields[0].decode(), int(fields[1])
    except (OSError, IndexError):
        return None


def _pids():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def alive(pid):
    """Whether the process exists and is no zombie."""
    stat = _stat(pid)
    return stat is not None and stat[0] not in "ZX"


def children(pid, state=None):
    """Process ids of the children, all or those in one state ("Z")."""
    found = []
    for candidate in _pids():
        stat = _stat(candidate)
        if stat and stat[1] == pid and state in (None, stat[0]):
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


def cpu_seconds(pid):
    """Processor time used so far."""
    with open(f"/proc/{pid}/stat", "rb") as f:
        fields = f.read().rpartition(b")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def _socket_inodes(table, port, state=None):
    inodes = set()
    with open(f"/proc/net/{table}") as f:
        next(f)
        for line in f:
            fields = line.split()
            if int(fields[1].split(":")[1], 16) == port and \
                    state in (None, fields[3]):
                inodes.add(fields[9])
    return inodes


def tcp_listens(port):
    return bool(_socket_inodes("tcp", port, "0A"))


def udp_is_bound(port):
    return bool(_socket_inodes("udp", port))


def _owners(inodes):
    wanted = {f"socket:[{inode}]" for inode in inodes}
    found = []
    for pid in _pids():
        with contextlib.suppress(OSError):
            if wanted & set(open_fds(pid).values()):
                found.append(pid)
    return found


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


class Listener:
    """Listen mode in the foreground, or as a daemon.

    Starting waits until it listens (TCP, and UDP where the settings ask for
    it) without connecting, so that its log shows nothing but the test's own
    doings.  `pid` is the process that serves.
    """

    def __init__(self, home, level=0, daemon=False, args=(), config=None,
                 port=None, host="127.0.0.1", env=None, program="tolva",
                 cwd=None, wait=True, limits=None, prefix=()):
        self.home = home
        self.daemon = daemon
        self.host = host
        self.status = None
        for attempt in range(5):
            self.port = port or free_port()
            settings = {"ListenAddress": host, "ListenPort": self.port}
            settings.update(config or {})
            home.configure(settings)
            argv = [] if program == "listentolva" else ["-l"]
            if not daemon:
                argv += ["-d", str(level)]
            argv += [str(a) for a in args]
            self.run = home.start(*argv, env=env, program=program, cwd=cwd,
                                  limits=limits, prefix=prefix)
            self.pid = None if daemon else self.run.pid
            if not wait:
                return
            if self._started(home.settings, argv):
                return
            in_use = os.strerror(errno.EADDRINUSE)
            if port or in_use not in self.run.out + home.log_text():
                raise AssertionError("the listener ended at once")
        raise AssertionError("no port to listen on")

    def _started(self, settings, argv):
        def gone():
            if self.daemon:
                return self.run.process.poll() not in (None, 0)
            return not self.run.running()

        wants_udp = bool(settings.get("AllowedAddresses") or "-a" in argv) \
            and str(settings.get("ListenUDP", "true")).lower() == "true"

        def ready():
            if gone():
                return True
            if not tcp_listens(self.port):
                return False
            return not wants_udp or udp_is_bound(self.port)

        wait_for(ready, 3 * BOUND, "the listener listens")
        if gone():
            return False
        if self.daemon:
            wait_for(lambda: not self.run.running(), what="the parent ends")
            self.pid = wait_for(lambda: self._owner(), what="daemon's pid")
        return True

    def _owner(self):
        owners = _owners(_socket_inodes("tcp", self.port, "0A"))
        return owners[0] if len(owners) == 1 else None

    @property
    def where(self):
        """The address as "host:port" for the command line."""
        return f"{self.host}:{self.port}"

    @property
    def out(self):
        return self.run.out

    @property
    def err(self):
        return self.run.err

    def running(self):
        return alive(self.pid)

    def messages(self):
        return self.home.log_messages()

    def wait_message(self, text, count=1, timeout=BOUND):
        """Waits until the log holds the message text count times."""
        wait_for(lambda: self.messages().count(text) >= count, timeout,
                 f"log message {text!r}")

    def no_zombies(self):
        wait_for(lambda: not zombies(self.pid), what="no zombie is left")

    def request(self, payload, host=None):
        """Sends the bytes on a new connection; returns what came back."""
        with self.connect(host) as conn:
            conn.sendall(payload)
            return read_to_end(conn)

    def connect(self, source=None):
        """A connected TCP socket, optionally from another loopback host."""
        conn = socket.socket()
        conn.settimeout(BOUND)
        try:
            if source:
                conn.bind((source, 0))
            conn.connect((self.host, self.port))
        except OSError:
            conn.close()
            raise
        return conn

    def datagram(self, payload, source="127.0.0.1"):
        with socket.socket(type=socket.SOCK_DGRAM) as udp:
            udp.bind((source, 0))
            udp.sendto(payload, (self.host, self.port))

    def wait_end(self, timeout=2 * BOUND):
        """Waits until the process has ended; returns its exit status."""
        if self.status is None:
            if self.daemon:
                self.status = wait_for(self._reap, timeout,
                                       "the daemon ends")[0]
            else:
                self.status = self.run.wait(timeout).status
        return self.status

    def _reap(self):
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        return (os.waitstatus_to_exitcode(status),) if pid else None

    def stop(self, number=signal.SIGTERM, status=0):
        """Ends it with a signal and checks that it left cleanly."""
        if self.status is not None:
            return
        self.no_zombies()
        os.kill(self.pid, number)
        assert self.wait_end() == status
        self.home.check_reports()


# --- the home ---------------------------------------------------------------


class Home:
    """A temporary home directory and everything started for it."""

    def __init__(self):
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
        """Writes messages.dat: "[number] %s..." and the extra texts."""
        texts = {n: f"[{n}]" + " %s" * count
                 for n, count in MESSAGE_ARGUMENTS.items()}
        texts.update(extra or {})
        self.write("messages.dat", "".join(
            f"m{n}={text}\n" for n, text in texts.items()
            if n not in without))

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

    def _command(self, args, program, limits, prefix):
        path = program
        if program == "tolva":
            path = str(TOLVA)
        elif program in ("sendtolva", "listentolva"):
            path = str(TOLVA.parent / program)
        argv = list(prefix) + WRAPPER + [path] + [
            a if isinstance(a, bytes) else str(a) for a in args]
        if limits:
            argv = [PRLIMIT, f"--nofile={limits}", "--"] + argv
        return argv

    def start(self, *args, program="tolva", env=None, cwd=None,
              tolvahome=True, limits=None, prefix=(), **popen):
        """Starts the executable, one of its links, a path, or any other
        name that the search path of env leads to.  limits is prlimit's
        "soft:hard" for descriptors, prefix a command to run it by."""
        return Running(self, self._command(args, program, limits, prefix),
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
        script = self.dir / "server.py"
        script.write_text(ONE_SERVER)
        return [*PRIVATE_NETWORK, sys.executable, str(script), kind, host,
                str(port), str(self.dir / "request")]

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
        for pid in _pids():
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


# --- peers ------------------------------------------------------------------


def read_to_end(conn):
    """Everything until the peer closes (a reset ends it too)."""
    data = b""
    with contextlib.suppress(ConnectionResetError):
        while True:
            piece = conn.recv(65536)
            if not piece:
                break
            data += piece
    return data


def reset(conn):
    """Closes with a reset instead of an orderly end."""
    conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                    struct.pack("ii", 1, 0))
    conn.close()


class Conversation:
    """One accepted connection, with all the bytes that came in."""

    def __init__(self, conn, peer, server):
        self.conn = conn
        self.peer = peer
        self.server = server
        self.received = b""
        self.at_end = False
        conn.settimeout(2 * BOUND)
        conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def read_some(self):
        """One receive; b"" once the peer has closed or reset."""
        try:
            piece = self.conn.recv(65536)
        except ConnectionResetError:
            piece = b""
        self.received += piece
        self.at_end = not piece
        return piece

    def read_exactly(self, size):
        """Bytes until size of them came in this call."""
        data = b""
        while len(data) < size:
            piece = self.conn.recv(size - len(data))
            if not piece:
                self.at_end = True
                break
            data += piece
            self.received += piece
        return data

    def read_to_end(self):
        """Stays silent until the peer closes."""
        while self.read_some():
            pass
        return self.received

    def send(self, data):
        self.conn.sendall(data)

    def send_split(self, *parts, pause=0.05):
        """Each part in a segment of its own."""
        for number, part in enumerate(parts):
            if number:
                time.sleep(pause)
            self.conn.sendall(part)

    def pause(self, seconds):
        """Lets time pass, unless the test ends meanwhile."""
        self.server.closing.wait(seconds)

    def stop_sending(self):
        with contextlib.suppress(OSError):  # the peer may be gone
            self.conn.shutdown(socket.SHUT_WR)

    def reset(self):
        reset(self.conn)

    def close(self):
        self.conn.close()


class ScriptedServer:
    """A TCP server in threads; play(conversation) speaks to each client.

    Exceptions of play are raised again by close().
    """

    def __init__(self, play, host="127.0.0.1", port=None, backlog=16):
        self.host = host
        self.port = port or free_port()
        self.conversations = []
        self.finished = []
        self.errors = []
        self._play = play
        self._threads = []
        self.closing = threading.Event()
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind((host, self.port))
        self._socket.listen(backlog)
        self._wake, self._woken = socket.socketpair()
        self._acceptor = threading.Thread(target=self._accept, daemon=True)
        self._acceptor.start()

    @property
    def where(self):
        return f"{self.host}:{self.port}"

    def _accept(self):
        with selectors.DefaultSelector() as selector:
            selector.register(self._socket, selectors.EVENT_READ)
            selector.register(self._woken, selectors.EVENT_READ)
            while True:
                ready = {key.fileobj for key, _ in selector.select()}
                if self.closing.is_set():
                    return
                if self._socket in ready:
                    conn, peer = self._socket.accept()
                    talk = Conversation(conn, peer, self)
                    self.conversations.append(talk)
                    thread = threading.Thread(target=self._serve,
                                              args=(talk,), daemon=True)
                    self._threads.append(thread)
                    thread.start()

    def _serve(self, talk):
        try:
            self._play(talk)
        except Exception as error:  # reported by close()
            if not self.closing.is_set():
                self.errors.append(error)
        finally:
            with contextlib.suppress(OSError):
                talk.conn.close()
            self.finished.append(talk)

    def wait_finished(self, count=1, timeout=BOUND):
        """Waits for finished conversations; returns the first count."""
        wait_for(lambda: len(self.finished) >= count, timeout,
                 f"{count} finished conversations")
        assert not self.errors, self.errors
        return self.finished[:count]

    def only(self):
        """The bytes of the one and only conversation, when finished."""
        self.wait_finished()
        assert len(self.conversations) == 1
        return self.conversations[0].received

    def close(self):
        if self.closing.is_set():
            return
        self.closing.set()
        self._wake.send(b"x")
        self._acceptor.join(BOUND)
        self._socket.close()
        self._wake.close()
        self._woken.close()
        for talk in self.conversations:
            with contextlib.suppress(OSError):
                talk.conn.shutdown(socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(BOUND)
        if self.errors:
            raise self.errors[0]


class FullBacklog:
    """A listening port that completes no further connection."""

    def __init__(self, host="127.0.0.1"):
        self.host = host
        self.port = free_port()
        self._socket = socket.socket()
        self._socket.bind((host, self.port))
        self._socket.listen(0)
        self._fill = []
        for _ in range(64):
            conn = socket.socket()
            conn.settimeout(0.3)
            self._fill.append(conn)
            try:
                conn.connect((host, self.port))
            except (TimeoutError, BlockingIOError):
                return
        raise AssertionError("the backlog does not fill up")

    @property
    def where(self):
        return f"{self.host}:{self.port}"

    def close(self):
        for conn in self._fill + [self._socket]:
            conn.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class UdpReceiver:
    """A bound UDP socket; also takes broadcasts when bound to 0.0.0.0."""

    def __init__(self, host="0.0.0.0", port=None):
        self.host = host
        self.port = port or free_port()
        self.socket = socket.socket(type=socket.SOCK_DGRAM)
        self.socket.settimeout(BOUND)
        self.socket.bind((host, self.port))

    def receive(self):
        return self.socket.recvfrom(65536)[0]

    def nothing_waits(self):
        """True when no datagram is there."""
        self.socket.setblocking(False)
        try:
            self.socket.recvfrom(65536)
            return False
        except BlockingIOError:
            return True
        finally:
            self.socket.settimeout(BOUND)

    def close(self):
        self.socket.close()
