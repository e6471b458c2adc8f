#!/usr/bin/python3
"""Puts the real listener under load, and sees that nothing goes wrong.

usage: soak.py [--quick]

First one listener takes thousands of requests of all kinds, well-formed and
not, while signals rain on it and the UPS servers that it watches die and come
back. Then a listener is stopped and started again, many times, in the middle
of the load.

Each command has a token, which its script writes down (plan.py). What was
acknowledged must have been carried out, nothing twice, every reply must have
reached the client whose token it belongs to (judge.py).

Environment:
    TOLVA          the executable
    SOAK_REQUESTS  how many, 20,000 by default
    SOAK_STOPS     how many stops, 300 by default
    SOAK_SEED      makes the same requests again, and the same moments as far
                   as a machine allows
"""

import contextlib
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] /
                       "system"))

# pylint: disable=wrong-import-position
import judge  # noqa: E402
from clients import Clients  # noqa: E402
from fakeclock import FakeClock, poke  # noqa: E402
from harness import message, need_tolva  # noqa: E402
from home import Home  # noqa: E402
from plan import FILLED, HOSTS, Plan  # noqa: E402
from ports import free_port  # noqa: E402
from processes import children, open_fds, signal_sets, sockets_of  # noqa: E402
from processes import zombies  # noqa: E402
from upsserver import good, refusing, silent  # noqa: E402
from waiting import wait_for  # noqa: E402

WORKERS = 48
STOP_WORKERS = 16
BOUND = 60.0
UPS = ["127.0.0.2", "127.0.0.3", "127.0.0.4"]
STORM = [signal.SIGHUP, signal.SIGPIPE, signal.SIGCHLD, signal.SIGALRM,
         signal.SIGXFSZ, signal.SIGUSR1, signal.SIGUSR2]
TORN_DOWN = [message(830), message(822), message(757)]
# What the shells of killed scripts say, and the listener on a bare request.
EXPECTED = {"", "Killed", "returning: TRUE"}

# Writes the token down, once, and ends as the request has said.
SCRIPT = """%s
echo "${1-bare} $$ $PPID" >>"$TOLVAHOME/ran"
case ${3-} in
slow) sleep 0.2 ;;
killed) kill -9 $$ ;;
esac
exit "${2-0}\""""


class Trouble(Exception):
    """Something that ends the run at once."""


class Progress:
    """Says now and then how far things are."""

    def __init__(self, what, total):
        self.what = what
        self.total = total
        self.since = time.monotonic()
        self.last = self.since

    def seconds(self):
        return time.monotonic() - self.since

    def __call__(self, done, last=False):
        if last or time.monotonic() - self.last >= 5:
            self.last = time.monotonic()
            print(f"{self.what}: {done} of {self.total}, "
                  f"{self.seconds():.0f} s", flush=True)


class Load:
    """Workers that send what the plan says, each record kept."""

    def __init__(self, clients, plan, workers):
        self.clients = clients
        self.plan = plan
        self.workers = workers
        self.requests = []
        self.left = 0
        self.lock = threading.Lock()
        self.threads = []
        self.broken = []

    def _next(self):
        with self.lock:
            if self.left <= 0 or self.broken:
                return None
            self.left -= 1
            request = self.plan.next()
            self.requests.append(request)
            return request

    def _work(self):
        try:
            while (request := self._next()) is not None:
                self.clients.run(request)
        except Exception:  # a mistake of the test's own
            self.broken.append(traceback.format_exc())

    def start(self, count):
        """Begins to send so many."""
        self.left = count
        self.threads = [threading.Thread(target=self._work, daemon=True)
                        for _ in range(self.workers)]
        for thread in self.threads:
            thread.start()

    def stop(self):
        """No more from now on."""
        with self.lock:
            self.left = 0

    def going_on(self):
        return any(thread.is_alive() for thread in self.threads)

    def finish(self, progress, bound):
        """Waits for the last client."""
        end = time.monotonic() + bound
        while self.going_on():
            if time.monotonic() > end:
                raise Trouble(f"clients are stuck after {bound:.0f} s")
            progress(len(self.requests))
            self.threads[0].join(0.2)
            self.threads = [t for t in self.threads if t.is_alive()]
        if self.broken:
            raise Trouble(self.broken[0])


class Watched:
    """The UPS servers that the listener watches."""

    def __init__(self, home, draw):
        self.home = home
        self.draw = draw
        self.port = free_port()
        self.servers = {}
        for host in UPS:
            self.come_back(host)

    def come_back(self, host, play=good):
        self.servers[host] = self.home.server(play, host=host,
                                              port=self.port)

    def die(self, host):
        server = self.servers.pop(host)
        # A listener that gives a check up resets it.
        with contextlib.suppress(OSError):
            server.close()

    def change(self):
        """One of them dies, or comes back in some temper."""
        host = self.draw.choice(UPS)
        if host in self.servers:
            self.die(host)
        else:
            self.come_back(host, self.draw.choice([good, good, silent,
                                                   refusing]))

    def all_good(self):
        for host in UPS:
            if host in self.servers:
                self.die(host)
            self.come_back(host)


class Storm:
    """Signals for the listener, a clock that runs, servers that change."""

    def __init__(self, listener, clock, watched, draw):
        self.listener = listener
        self.clock = clock
        self.watched = watched
        self.draw = draw
        sets = signal_sets(listener.pid)
        self.signals = [s for s in STORM
                        if s in sets["SigIgn"] | sets["SigCgt"]]
        self.over = threading.Event()
        self.sent = 0
        self.fault = None
        self.thread = threading.Thread(target=self._blow, daemon=True)

    def _blow(self):
        try:
            while not self.over.wait(0.005):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(self.listener.pid, self.draw.choice(self.signals))
                self.sent += 1
                if self.sent % 100 == 0:
                    self.clock.set(61)
                    self.watched.change()
        except Exception:
            self.fault = traceback.format_exc()

    def end(self):
        self.over.set()
        self.thread.join(BOUND)
        if self.fault:
            raise Trouble(self.fault)


def make_home():
    """A home whose scripts write tokens down."""
    home = Home()
    for name in ("shutdown", "execute", "message"):
        home.script(f"tolva_{name}.sh", SCRIPT % "")
    home.script("tolva_mail.sh", SCRIPT % "set -- $2")
    home.script("tolva_notalive.sh", SCRIPT % "set -- dead")
    home.messages({FILLED: "%s %s %s"})
    home.write("ran", "")
    return home


def killed_status(home):
    """What a listener is told of a script that was killed: the number of the
    signal, unless its shell has stayed in between."""
    home.script("killed.sh", "kill -9 $$")
    status = subprocess.run(["sh", "-c", str(home.path("killed.sh"))],
                            check=False, stderr=subprocess.DEVNULL).returncode
    return 9 if status == -9 else status


def settings(watched_port):
    return {"AllowedAddresses": " ".join(HOSTS), "ListenUDP": "true",
            "ListenTimeout": 36000, "LogfileSize": 0, "AliveEnabled": "true",
            "AliveAddresses": " ".join(UPS), "AlivePort": watched_port,
            "AliveInterval": 60, "AliveRetries": 0}


def evidence_of(home, prefix):
    ran = home.read("ran").decode("latin-1").splitlines()
    return judge.Evidence(ran, home.log_messages(), prefix)


def measure(pid):
    """What a process holds."""
    with open(f"/proc/{pid}/smaps_rollup") as f:
        sizes = dict(line.split(":", 1) for line in f if ":" in line)
    # The shared part of a page depends on who else has it.
    pss = sizes.get("Pss_Anon", sizes["Pss"])
    return {"kilobytes": int(pss.split()[0]), "zombies": len(zombies(pid)),
            "descriptors": len(open_fds(pid))}


def dropped_datagrams(port):
    """Datagrams that did not fit into the listener's queue."""
    with open("/proc/net/udp") as f:
        return sum(int(line.split()[-1]) for line in list(f)[1:]
                   if int(line.split()[1].split(":")[1], 16) == port)


# --- one listener, for long -------------------------------------------------


class Long:
    """The first part."""

    def __init__(self, count, draw):
        self.count = count
        self.draw = draw
        self.home = make_home()
        self.clock = FakeClock(self.home)
        self.watched = Watched(self.home, draw)
        self.listener = self.home.listener(
            env=self.clock.env, config=settings(self.watched.port))
        self.pid = self.listener.pid
        self.clients = Clients(self.home, self.listener.port, steady=True)
        self.load = Load(self.clients, Plan(draw, "t"), WORKERS)
        self.faults = []

    def quiet(self):
        """Nobody is served, no script runs: only what is always open."""
        def settled():
            return not children(self.pid) and \
                len(sockets_of(self.pid)) == 2 and poke(self.listener)
        with self.clients.lock:
            for conn in self.clients.waiting_room:
                conn.close()
            self.clients.waiting_room.clear()
        # The checks of the servers that are under way end with a cycle.
        self.watched.all_good()
        wait_for(self._passed, BOUND, "the servers are alive again")
        wait_for(settled, BOUND, "the listener is at rest")

    def alive_count(self):
        messages = self.listener.messages()
        return [messages.count(message(814, host)) for host in UPS]

    def _passed(self):
        """Lets cycles begin until each server was seen alive once more."""
        if not hasattr(self, "seen"):
            self.seen = self.alive_count()
        self.clock.set(61)
        poke(self.listener)
        time.sleep(0.05)
        done = all(now > then for now, then in
                   zip(self.alive_count(), self.seen))
        if done:
            del self.seen
        return done

    def send(self, count, progress):
        storm = Storm(self.listener, self.clock, self.watched, self.draw)
        storm.thread.start()
        self.load.start(count)
        self.load.finish(progress, 120 + 0.06 * count)
        storm.end()
        self.quiet()
        return storm

    def tired(self):
        """Those who say nothing are dropped when their time is up."""
        before = self.listener.messages().count("error: Connection timed out")
        conns = [self.clients.connect(HOSTS[0]) for _ in range(5)]
        self.listener.wait_sessions(5, listeners=2)
        self.clock.set(36001)
        wait_for(lambda: poke(self.listener) and
                 len(sockets_of(self.pid)) <= 2 + len(UPS), BOUND,
                 "the silent are dropped")
        for conn in conns:
            assert conn.recv(1) == b""
            conn.close()
        after = self.listener.messages().count("error: Connection timed out")
        if after - before != 5:
            self.faults.append(f"5 silent clients, {after - before} dropped")

    def run(self):
        progress = Progress("load", self.count)
        warm = max(300, self.count // 10)
        self.send(warm, progress)
        before = measure(self.pid)
        storm = self.send(self.count - warm, progress)
        after = measure(self.pid)
        self.tired()
        self.quiet()
        dropped = dropped_datagrams(self.listener.port)
        self.listener.stop()
        self.verdict(before, after, dropped)
        progress(len(self.load.requests), last=True)
        print(f"load: {storm.sent} signals of {len(storm.signals)} kinds; "
              f"before and after: {before}, {after}; datagrams dropped by "
              f"the system: {dropped}")

    def verdict(self, before, after, dropped):
        evidence = evidence_of(self.home, "t")
        messages = self.home.log_messages()
        self.faults += judge.judge_requests(
            self.load.requests, evidence, self.home,
            killed_status(self.home), steady=True)
        self.faults += judge.judge_log(evidence, messages)
        self.faults += judge.judge_datagrams(self.load.requests, evidence,
                                             dropped)
        self.faults += judge.judge_growth(before, after)
        dead = sum(text.startswith(message(828)) for text in messages)
        if dead != len(evidence.pids["dead"]):
            self.faults.append(f"{dead} servers not alive, told "
                               f"{len(evidence.pids['dead'])} times")
        if messages[-3:] != TORN_DOWN:
            self.faults.append(f"torn down: {messages[-3:]}")
        said = set((self.listener.out + self.listener.err).splitlines())
        if said - EXPECTED:
            self.faults.append(f"it said: {sorted(said - EXPECTED)[:5]}")
        print("load: " + ", ".join(
            f"{sum(r.kind == kind for r in self.load.requests)} {kind}"
            for kind in sorted({r.kind for r in self.load.requests})))


# --- stops ------------------------------------------------------------------


class Stops:
    """The second part."""

    def __init__(self, count, draw):
        self.count = count
        self.draw = draw
        self.home = make_home()
        self.port = free_port()
        self.settings = settings(free_port())
        self.clients = Clients(self.home, self.port, steady=False)
        self.plan = Plan(draw, "s")
        self.load = Load(self.clients, Plan(random.Random(draw.random()),
                                            "l"), STOP_WORKERS)
        self.probes = []
        self.faults = []
        self.log_at = 0
        self.slowest = 0.0
        self.listener = None

    def start(self):
        """A listener that takes a request at once."""
        since = time.monotonic()
        self.listener = self.home.listener(port=self.port, wait=False,
                                           config=self.settings)
        probe = self.plan.make("tcp", "EXECUTE", wanted=True)
        probe.way = "quick"
        probe.payload = probe.payload.replace(b"slow", b"quick").replace(
            b"killed", b"quick")
        self.probes.append(probe)
        wait_for(lambda: self._serves(probe), BOUND, "it serves")
        self.clients.up.set()
        self.slowest = max(self.slowest, time.monotonic() - since)

    def _serves(self, probe):
        if not self.listener.running():
            raise Trouble("the listener did not start: "
                          f"{self.home.log_messages()[-3:]}")
        try:
            self.clients.tcp(probe)
        except ConnectionRefusedError:
            return False
        return True

    def new_lines(self):
        """What was logged since it was asked the last time."""
        with open(self.home.path("tolva.log"), "rb") as log:
            log.seek(self.log_at)
            data = log.read()
        self.log_at += len(data)
        return [line.split(": ", 1)[-1]
                for line in data.decode("latin-1").splitlines()]

    def stop(self, number):
        """Ends it in the middle of whatever it does."""
        self.clients.up.clear()
        os.kill(self.listener.pid, signal.SIGTERM)
        status = self.listener.wait_end(BOUND)
        lines = self.new_lines()
        if status != 0:
            self.faults.append(f"stop {number}: status {status}")
        if lines[-3:] != TORN_DOWN or \
                sum(line in TORN_DOWN for line in lines) != 3:
            self.faults.append(f"stop {number}: torn down: {lines[-5:]}")

    def run(self):
        progress = Progress("stops", self.count)
        bound = 60 + 3 * self.count
        self.start()
        self.load.start(sys.maxsize)
        for number in range(1, self.count + 1):
            # Not to be safe: this is the moment at which it is hit.
            time.sleep(self.draw.uniform(0, 0.12))
            self.stop(number)
            self.start()
            progress(number)
            if progress.seconds() > bound or self.load.broken:
                raise Trouble(f"stop {number} after {bound} s; "
                              f"{self.load.broken[:1]}")
        self.load.stop()
        self.load.finish(lambda done: None, 2 * BOUND)
        self.stop(self.count + 1)
        wait_for(lambda: not self.home.marked_pids(), BOUND,
                 "the last script has ended")
        self.verdict()
        progress(self.count, last=True)

    def verdict(self):
        killed = killed_status(self.home)
        evidence = evidence_of(self.home, "[ls]")
        everything = self.load.requests + self.probes
        self.faults += judge.judge_requests(everything, evidence, self.home,
                                            killed, steady=False)
        self.faults += [f"{probe.token}: not served at once: {probe.fault}"
                        for probe in self.probes if not probe.delivered]
        sent = sum(request.sent for request in self.load.requests)
        sure = sum(request.delivered for request in self.load.requests)
        print(f"stops: {sent} requests sent, {sure} acknowledged; served at "
              f"most {self.slowest:.2f} s after a start")


# --- both -------------------------------------------------------------------


def play(part):
    """Runs a part to its end; what was wrong, as a list."""
    try:
        part.run()
    except Exception as trouble:
        part.faults.append(f"{type(trouble).__name__}: {trouble}")
        for title, text in part.home.describe()[:2]:
            print(f"--- {title}\n{text[-1500:]}")
    with contextlib.suppress(AssertionError):
        part.home.check_reports()
    try:
        part.home.close()
    except AssertionError as trouble:
        part.faults.append(str(trouble))
    return part.faults


def main():
    need_tolva()
    quick = "--quick" in sys.argv[1:]
    count = int(os.environ.get("SOAK_REQUESTS", 1500 if quick else 20000))
    stops = int(os.environ.get("SOAK_STOPS", 20 if quick else 300))
    seed = int(os.environ.get("SOAK_SEED", time.time_ns() % 1000000))
    print(f"SOAK_SEED={seed} SOAK_REQUESTS={count} SOAK_STOPS={stops}",
          flush=True)
    faults = play(Long(count, random.Random(seed)))
    faults += play(Stops(stops, random.Random(seed + 1)))
    for fault in faults[:30]:
        print(f"error: {fault}")
    if faults:
        print(f"FAILED soak: {len(faults)} faults, SOAK_SEED={seed}")
    sys.stdout.flush()
    # A client that is stuck does not keep the others from going home.
    os._exit(1 if faults else 0)


if __name__ == "__main__":
    main()
