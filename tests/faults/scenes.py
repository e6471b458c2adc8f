"""The scenes: what the listener and the sender are put through in a second or
less, always the same, and what is to be seen of it whatever fails.

A scene is run by itself, without threads of its own where it can be, in a
process that adopts every orphan: so no child can be left behind unseen.
"""

import collections
import contextlib
import errno
import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

from tally import Tally

HEADER = b"CONNECT TO TOLVA (SEND)"
REPLY = re.compile(rb"CONNECT TO TOLVA \(REPLY\) COMMAND=.* PID=\d+ "
                   rb"EXITSTATUS=(-?\d+)", re.S)
# Date and time are missing where the system does not know them.
LOG_LINE = re.compile(r"(?:\d\d/\d\d/\d{4})?,(?:\d\d:\d\d:\d\d)?, "
                      r"tolva\[\d{5,}\]: (.*)")

HOST = "127.0.0.1"
STRANGER = "127.0.0.9"
SERVER = "127.0.0.3"
DEAD = "127.0.0.4"

BOUND = 5.0     # seconds until something hangs
PATIENCE = 0.08  # seconds of stillness after which nothing more will come
LISTENERS = 2   # sockets of a listener that serves nobody
SPIN = 3000     # waits in a scene, far above what any needs
OLD_LINE = "11/16/2026,02:24:18, tolva[00001]: an old line %04d\n"

# A line that tells of something that did not work.
COMPLAINT = re.compile(
    r"system: |(?<!without )error|could not|not alive|failed|refused|ignored|"
    r"nothing rec|timeout|too often|^tolva: ")


class Seen:
    """What was seen of one run of a scene."""

    def __init__(self):
        self.up = False
        self.steps = []      # (name, what came of it, had the fault begun?)
        self.tokens = collections.Counter()
        self.lines = []      # of the log, of both outputs, without numbers
        self.log_lines = []  # of the log alone, as they are
        self.status = None
        self.problems = []
        self.counts = {}
        self.hits = 0
        self.site = 0
        self.what = ""
        self.sockets = self.files = None
        self.left_open = 0
        self.received = []
        self.detached = False
        self.log_size = 0


def children():
    """The processes below this one, whose orphans come to it."""
    with open(f"/proc/self/task/{threading.get_native_id()}/children") as f:
        return [int(word) for word in f.read().split()]


def children_of(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children") as f:
            return [int(word) for word in f.read().split()]
    except OSError:
        return []


class Server:
    """A peer with a thread of its own: play(connection) for each client."""

    def __init__(self, host, port, play):
        self.play = play
        self.busy = 0
        self.done = []
        self.socket = socket.socket()
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind((host, port))
        self.socket.listen(16)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                conn, _ = self.socket.accept()
            except OSError:
                return
            self.busy = 1
            conn.settimeout(BOUND)
            heard = []
            with conn, contextlib.suppress(OSError):
                self.play(conn, heard)
            self.done.append(b"".join(heard))
            self.busy = 0

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()
        self.thread.join(BOUND)


def listen_on(conn, heard, until=lambda data: False):
    while not until(b"".join(heard)):
        piece = conn.recv(65536)
        if not piece:
            return False
        heard.append(piece)
    return True


def ups_server(conn, heard):
    """One that is alive."""
    if listen_on(conn, heard, lambda data: data.endswith(b"LOGON\0")):
        conn.sendall(b"0|0")
        listen_on(conn, heard)


class Scene:
    """What all have in common: a home, the program in it, its end."""

    name = ""
    standing = ()  # faults that are there anyway, as the library takes them
    calls = ()     # the functions that are failed here; none: all
    limit = None   # of descriptors

    def __init__(self, tolva, library, port, fault=None, keep=False):
        self.tolva = tolva
        self.library = library
        self.ports = port
        self.fault = fault
        self.keep = keep
        self.seen = Seen()
        self.servers = []
        self.statuses = {}
        self.first = None

    # what a scene is made of

    def prepare(self):
        """Writes files and starts peers."""

    def command(self):
        """The arguments."""
        raise NotImplementedError

    def play(self):
        """What happens while the program runs."""
        raise NotImplementedError

    # how it is run

    def run(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="tolva-faults-"))
        self.home = self.dir / "home"
        self.home.mkdir()
        self.tally = Tally(self.dir / "tally")
        try:
            self.prepare()
            self.start()
            self.play()
            self.end_all()
            self.look()
        finally:
            self.kill_all()  # when the sweep itself is ended
            for server in self.servers:
                server.close()
            self.tally.close()
            if self.keep:
                print(f"kept: {self.dir}")
            else:
                shutil.rmtree(self.dir, ignore_errors=True)
        return self.seen

    def environment(self):
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"),
               "LC_ALL": "C", "TZ": "UTC0", "TOLVAHOME": str(self.home),
               "LD_PRELOAD": str(self.library),
               "TOLVA_FAULT_TALLY": str(self.tally.path)}
        if self.fault or self.standing:
            first = self.fault.environment if self.fault else "none 0 once 0"
            env["TOLVA_FAULT"] = ";".join([first, *self.standing])
        return env

    def start(self):
        with open(self.dir / "out", "wb") as out, \
                open(self.dir / "err", "wb") as err:
            self.process = subprocess.Popen(
                self.command(), env=self.environment(), cwd=self.home,
                stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                executable=self.tolva, preexec_fn=self.set_limit)
        self.first = self.process.pid
        self.process.returncode = 0  # collected here, see collect()

    def set_limit(self):
        if self.limit:
            hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
            resource.setrlimit(resource.RLIMIT_NOFILE, (self.limit, hard))

    def script(self, name, body):
        path = self.home / name
        path.write_text(f"#!/bin/sh\n{body}\n")
        path.chmod(0o755)

    def write_messages(self):
        share = pathlib.Path(__file__).resolve().parents[2] / "share"
        shutil.copy(share / "messages.dat", self.home / "messages.dat")

    def problem(self, text):
        self.seen.problems.append(text)

    def collect(self):
        """Collects who has ended: false once nobody is left."""
        try:
            while True:
                pid, status = os.waitpid(-1, os.WNOHANG)
                if pid == 0:
                    return True
                self.statuses[pid] = os.waitstatus_to_exitcode(status)
        except ChildProcessError:
            return False

    def wait(self, condition, bound=BOUND):
        """Polls until the condition holds: false when it does not."""
        end = time.monotonic() + bound
        pause = 0.0005
        while not condition():
            if time.monotonic() > end:
                return False
            time.sleep(pause)
            pause = min(pause * 1.5, 0.005)
        return True

    def end_all(self):
        """Nobody may be left behind."""
        if self.wait(lambda: not self.collect()):
            return
        for pid in children():
            with contextlib.suppress(OSError):
                line = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()
                what = line.replace(b"\0", b" ").decode("latin-1")
                self.problem(f"left behind: {pid} {what}")
        self.kill_all()

    def kill_all(self):
        while self.collect():
            for pid in children():
                with contextlib.suppress(OSError):
                    os.kill(pid, signal.SIGKILL)
            time.sleep(0.005)

    def read(self, path):
        try:
            return path.read_text(encoding="latin-1").splitlines()
        except OSError:
            return []

    def look(self):
        """Takes down what is left to see."""
        seen = self.seen
        tally = self.tally
        seen.counts = tally.counts()
        seen.hits = tally.hits
        seen.site = tally.site
        seen.what = tally.what.replace(str(self.dir), "")
        seen.left_open = tally.left_open
        seen.tokens.update(self.read(self.home / "tokens"))
        # Of the one that served, or else of whoever failed.
        seen.status = self.statuses.get(tally.pid)
        if seen.status is None:
            seen.status = max(self.statuses.values())
        log = self.home / "tolva.log"
        seen.log_size = log.stat().st_size if log.exists() else 0
        for line in self.read(log):
            if not line or "an old line" in line:
                continue
            match = LOG_LINE.fullmatch(line)
            seen.log_lines.append(match[1] if match else line)
        output = []
        for name in ("out", "err"):
            for line in self.read(self.dir / name):
                match = LOG_LINE.fullmatch(line)
                output.append(match[1] if match else line)
        seen.lines = [re.sub(r"\d+", "#", line.replace(str(self.dir), ""))
                      for line in seen.log_lines + output]
        for pid, status in self.statuses.items():
            if status < 0:
                self.problem(f"ended by signal {-status}")


# --- the listener ------------------------------------------------------------


class Listener(Scene):
    """Listen mode: what is common to its scenes."""

    arguments = ("-l", "-d", "0", "-c", "tolva.cfg")
    settings = {}
    old_log = 0
    log_limit = 0
    more_senders = ""
    requests = {}  # how often a script is asked for, when that is not once

    def prepare(self):
        self.port = next(self.ports)
        self.server_port = next(self.ports)
        self.write_messages()
        self.script("tolva_execute.sh", 'echo "$1" >>"$TOLVAHOME/tokens"')
        for name, token in (("tolva_shutdown.sh", "shutdown"),
                            ("tolva_notalive.sh", "notalive $1"),
                            ("ShutdownSuppressed.sh", "suppressed")):
            self.script(name, f'echo "{token}" >>"$TOLVAHOME/tokens"')
        settings = {"LogfileName": self.home / "tolva.log",
                    "ListenTimeout": 10, "ListenUDP": "true",
                    **self.settings,
                    "ListenAddress": HOST, "ListenPort": self.port,
                    # last, so that it goes first when reading breaks off
                    "AllowedAddresses": f"{HOST} {SERVER} known.invalid" +
                    self.more_senders}
        (self.home / "tolva.cfg").write_text("".join(
            f"{key}={value}\n".replace("@", str(self.server_port))
            for key, value in settings.items()))
        (self.home / "tolva.log").write_text("".join(
            OLD_LINE % number for number in range(self.old_log)))

    def command(self):
        return ["tolva", *self.arguments]

    # its state

    def running(self):
        return self.collect() and (
            self.tally.pid == 0 or self.tally.pid not in self.statuses)

    def still(self):
        """It waits, and nobody works for it or speaks to it."""
        waits = self.tally.waits
        return (self.tally.waiting and
                not children_of(self.tally.pid) and
                self.tally.waiting and self.tally.waits == waits)

    def settle(self, since=None):
        """Waits until it is still, when it has waited anew since then; lets
        its time pass while it does not."""
        def settled():
            return not self.running() or (
                self.still() and (since is None or self.tally.waits > since)
                and not any(server.busy for server in self.servers))

        if self.tally.waits > SPIN:
            self.problem("spins")
        for _ in range(4):
            if self.wait(settled, PATIENCE * 3):
                return True
            if self.still() and self.tally.waiting == 2:
                self.pass_time()
        # What it was sent never got to it; or it hangs.
        return self.wait(lambda: not self.running() or self.still())

    def pass_time(self):
        """Ends the wait under way as if its time were up."""
        if self.tally.waiting != 2:
            return
        granted = self.tally.granted
        self.tally.pass_time()
        self.wait(lambda: self.tally.granted > granted or not self.running(),
                  1.0)

    # what is done to it

    def step(self, name, action):
        """One step; what comes of it is kept, with the tokens it made."""
        began = self.tally.hits > 0
        if not self.running():
            self.seen.steps.append((name, "gone", began))
            return
        before = collections.Counter(self.read(self.home / "tokens"))
        result = action()
        if not self.settle():
            self.problem(f"hangs after {name}")
        after = collections.Counter(self.read(self.home / "tokens"))
        made = sorted(token for token in (after - before).elements()
                      if not token.startswith("notalive"))
        self.seen.steps.append((name, (result, *made), began))

    def talk(self, data, source=HOST):
        """Sends a request; the status of the reply, or what else came."""
        with socket.socket() as conn:
            conn.settimeout(0.02)
            answer = b""
            try:
                conn.bind((source, 0))
                conn.connect((HOST, self.port))
                conn.sendall(data)
            except OSError as error:
                return f"cannot: {error.strerror}"
            end = time.monotonic() + BOUND
            calm = None
            passed = 0
            # A listener that pauses gets better only when the fault passes.
            lasting = self.fault and self.fault.extent == "on"
            tries = 1 if lasting else 4
            while time.monotonic() < end:
                try:
                    piece = conn.recv(65536)
                except TimeoutError:
                    piece = None
                except OSError:
                    piece = b""
                if piece == b"":
                    match = REPLY.fullmatch(answer)
                    return (f"status {int(match[1])}" if match
                            else f"closed {answer!r}" if answer else "closed")
                answer += piece or b""
                if not self.running():
                    return "gone"
                # Nothing moves: it has time to pass, or forgot us.
                if piece is None and self.still():
                    calm = calm or (time.monotonic(), self.tally.waits)
                    if calm[1] != self.tally.waits:
                        calm = None
                    elif time.monotonic() - calm[0] > PATIENCE:
                        if passed == tries or self.tally.waiting != 2:
                            return "no answer"
                        passed += 1
                        self.pass_time()
                        calm = None
                else:
                    calm = None
            self.problem("no answer, and no rest")
            return "no answer"

    def execute(self, token, source=HOST, verb=b"MSG_EXECSTATUS"):
        return self.talk(HEADER + b" " + verb + b" EXECUTE " +
                         token.encode(), source)

    def datagram(self, token, source=HOST):
        since = self.tally.waits
        with socket.socket(type=socket.SOCK_DGRAM) as udp:
            udp.bind((source, 0))
            udp.connect((HOST, self.port))
            try:
                udp.send(HEADER + b" MSG_EXECUTE EXECUTE " + token.encode())
                self.settle(since)
                udp.settimeout(0.001)
                udp.recv(10)
            except TimeoutError:
                return "sent"
            except OSError as error:
                return f"cannot: {error.strerror}"

    def silence(self):
        """Connects and says nothing until it is thrown out."""
        return self.talk(b"")

    def cycle(self):
        """Lets the time pass until the watch has gone round."""
        server = self.servers[0]
        before = len(server.done)
        since = self.tally.waits
        self.pass_time()
        # The server needs a moment to see that somebody is there.
        self.wait(lambda: server.busy or len(server.done) > before or
                  not self.running(), PATIENCE)
        self.settle(since)
        return [data.count(b"LOGO") for data in server.done[before:]]

    def before_commands(self):
        """The steps of this scene."""

    def play(self):
        began = self.tally
        self.wait(lambda: began.waits > 0 or not self.running())
        self.seen.up = began.waits > 0
        if not self.seen.up and self.running():
            self.problem("does not start, and does not end")
            for pid in children():
                os.kill(pid, signal.SIGKILL)
            return
        if not self.seen.up:
            return
        self.settle()
        self.step("stranger", lambda: self.execute("stranger", STRANGER))
        self.act()
        self.step("probe", lambda: self.execute("probe"))
        self.step("again", lambda: self.execute("again"))
        if self.running():
            self.inspect()
            self.step("stop", self.stop)

    def stop(self):
        os.kill(self.tally.pid, signal.SIGTERM)
        self.wait(lambda: not self.running())
        if self.running():
            self.problem("does not stop")
            os.kill(self.tally.pid, signal.SIGKILL)
        return "stopped"

    def descriptors(self):
        """What its descriptors lead to: sockets, and anything else."""
        folder = f"/proc/{self.tally.pid}/fd"
        targets = []
        for fd in os.listdir(folder):
            with contextlib.suppress(OSError):
                targets.append(os.readlink(f"{folder}/{fd}"))
        sockets = [t for t in targets if t.startswith("socket:")]
        return sockets, [t for t in targets if t not in sockets]

    def inspect(self):
        """Its descriptors and children, while it is still."""
        # A session that has just ended may still be about to be closed.
        self.wait(lambda: len(self.descriptors()[0]) <= LISTENERS, 0.5)
        sockets, files = self.descriptors()
        self.seen.detached = (
            self.tally.pid != self.first and
            os.getsid(self.tally.pid) not in (self.tally.pid, os.getsid(0)))
        self.seen.sockets = len(sockets)
        self.seen.files = len(files)
        left = children_of(self.tally.pid)
        if left:
            self.problem(f"children left: {left}")


class Plain(Listener):
    """In the foreground, and everything that a sender can want."""

    name = "listener"

    def act(self):
        self.step("refused datagram",
                  lambda: self.datagram("stranger", STRANGER))
        self.step("status", lambda: self.execute("one"))
        self.step("command", lambda: self.execute("two", verb=b"MSG_EXECUTE"))
        self.step("datagram", lambda: self.datagram("three"))
        self.step("log", lambda: self.talk(
            HEADER + b" MSG_EXECSTATUS LOG_TEXT noted"))
        self.step("shutdown", lambda: self.talk(HEADER))
        self.step("silence", self.silence)


class Detached(Listener):
    """A daemon with the settings of its home, and a log that is full."""

    name = "detached"
    arguments = ("-l",)
    settings = {"LogfileSize": 8}
    old_log = 149
    log_limit = 8192

    def act(self):
        self.step("status", lambda: self.execute("one"))
        self.step("shutdown", lambda: self.talk(HEADER))


class NoTmpfile(Detached):
    """A file system that has no files without a name."""

    name = "olddisk"
    standing = (f"open_tmpfile 1 on {errno.EOPNOTSUPP}",)
    calls = ("mkostemp", "unlink", "fdopen", "realpath")


class NowhereBeside(Detached):
    """There is no room beside the log, and once none in it."""

    name = "fulldisk"
    standing = (f"open_tmpfile 1 on {errno.ENOSPC}",
                f"mkostemp 1 on {errno.ENOSPC}",
                f"fwrite 3 once {errno.ENOSPC}")
    calls = ("mkostemp", "tmpfile", "truncate", "fread", "fwrite", "fseeko",
             "stat")


class Crowded(Plain):
    """There was no memory for one of the senders at first."""

    name = "crowded"
    standing = (f"accept 3 once {errno.ENOMEM}",)
    calls = ("accept", "poll", "open", "getrlimit")


class Watching(Listener):
    """One server is alive, another is not; few descriptors at first."""

    name = "alive"
    limit = 100
    settings = {"AliveEnabled": "TRUE", "AliveRetries": 2,
                "AliveAddresses": f"{SERVER}:@ {DEAD}:@"}

    def prepare(self):
        super().prepare()
        self.servers.append(Server(SERVER, self.server_port, ups_server))

    def act(self):
        self.step("cycle", self.cycle)
        self.step("next cycle", self.cycle)


class Redundant(Watching):
    """The first request is held back, the second is enough; one name of the
    allowed senders is not known."""

    name = "redundant"
    more_senders = " unknown.invalid"
    settings = {**Watching.settings, "AliveAddresses": f"{SERVER}:@",
                "RedundancyEnabled": "TRUE", "RedundancyLevel": 1,
                "RedundancyAddresses": f"{HOST} {SERVER}"}
    requests = {"shutdown": 2}

    def act(self):
        self.step("held back", lambda: self.talk(HEADER))
        self.step("carried out", lambda: self.talk(HEADER, SERVER))


# --- the sender --------------------------------------------------------------


class Sender(Scene):
    """A sender runs to its end."""

    good = 0
    request = HEADER + b" MSG_EXECUTE EXECUTE one"

    def prepare(self):
        self.port = next(self.ports)
        self.write_messages()
        self.open_peer()

    def play(self):
        if not self.wait(lambda: not self.collect()):
            self.problem("does not end")
        if max(self.statuses.values(), default=1) == self.good:
            # The peer may not have looked yet.
            self.wait(lambda: all(server.done for server in self.servers), 1.0)
        self.wait(lambda: not any(server.busy for server in self.servers))
        self.seen.received = self.heard()

    def heard(self):
        return [data for server in self.servers for data in server.done]


class Send(Sender):
    """With the name that is given relative to the working directory."""

    name = "send"

    def open_peer(self):
        self.servers.append(Server(HOST, self.port, listen_on))

    def environment(self):
        env = super().environment()
        del env["TOLVAHOME"]
        return env

    def command(self):
        return ["./tolva", "-s", "EXECUTE one", "-a", f"{HOST}:{self.port}",
                "-t", "2"]


class SendStatus(Sender):
    """To a name that has to be looked up, by a name from the search path."""

    name = "status"
    good = 130
    request = HEADER + b" MSG_EXECSTATUS EXECUTE one"

    def open_peer(self):
        def play(conn, heard):
            wanted = len(self.request)
            if listen_on(conn, heard,
                         lambda data: len(data) >= wanted):
                conn.sendall(b"CONNECT TO TOLVA (REPLY) COMMAND=/x.sh PID=17 "
                             b"EXITSTATUS=3")
        self.servers.append(Server(HOST, self.port, play))

    def environment(self):
        env = super().environment()
        del env["TOLVAHOME"]
        (self.home / "bin").mkdir()
        os.symlink(self.tolva, self.home / "bin" / "tolva")
        env["PATH"] = f"/nowhere:{self.home}/bin:{env['PATH']}"
        return env

    def command(self):
        return ["tolva", "-sr", "EXECUTE one", "-a",
                f"known.invalid:{self.port}", "-t", "2"]


class Broadcast(Sender):
    """A datagram to everybody on loopback."""

    name = "broadcast"

    def open_peer(self):
        self.udp = socket.socket(type=socket.SOCK_DGRAM)
        self.udp.bind(("127.255.255.255", self.port))
        self.udp.settimeout(0.05)

    def heard(self):
        found = []
        with self.udp, contextlib.suppress(TimeoutError):
            while True:
                found.append(self.udp.recv(65536))
                self.udp.settimeout(0.001)
        return found

    def command(self):
        return ["tolva", "-s", "EXECUTE one", "-ab", "127.255.255.255", "-p",
                str(self.port), "-t", "2"]


class Check(Sender):
    """Is a UPS server alive?"""

    name = "check"

    def open_peer(self):
        self.servers.append(Server(SERVER, self.port, ups_server))

    def heard(self):
        return [bytes(data.count(b"LOGO") for _ in (0,))
                for data in super().heard()]

    request = b"\x02"

    def command(self):
        return ["tolva", "-sc", "-a", f"{SERVER}:{self.port}", "-t", "2"]


class Help(Sender):
    """Nothing but a text."""

    name = "help"

    def open_peer(self):
        pass

    def heard(self):
        return [self.request]

    def command(self):
        return ["tolva", "-?"]


SCENES = {scene.name: scene for scene in (
    Plain, Crowded, Detached, NoTmpfile, NowhereBeside, Watching, Redundant,
    Send, SendStatus, Broadcast, Check, Help)}
