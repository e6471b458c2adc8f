"""What a listener costs: until a script runs, by the second, in memory, at its
start, and with what it has to keep in mind."""

import contextlib
import os
import socket
import statistics
import subprocess

from figures import FLOOR, CannotMeasure, Table, take_turns
from servers import (EXECUTE, LOG_TEXT, Home, Server, ask, commands, free_port,
                     pss, start_all)
from crowds import Crowd, addresses


def latency(bench):
    table = Table("latency", "From connect to the script's first instruction",
                  "µs")
    fifo = bench.work / "stamps"
    os.mkfifo(fifo)
    servers = start_all(bench, table, fifo)
    count = bench.pick(10, 50)

    def measure(server):
        found = ask(bench, server.port, 1, count, fifo=fifo)
        return statistics.median(found) / 1000

    for server in servers.values():
        with contextlib.suppress(CannotMeasure):
            measure(server)     # its pages are in memory now
    take_turns(bench, table,
               {name: lambda s=server: measure(s)
                for name, server in servers.items()},
               bench.pick(5, 30))
    return [table]


def settle(bench, servers):
    """Each has served one request."""
    for server in servers.values():
        with contextlib.suppress(CannotMeasure):
            ask(bench, server.port, 1, 1)


def rate(bench):
    tables = []
    for clients in (1, 16):
        table = Table("rate", f"Requests a second, {clients} "
                      f"client{'s' if clients > 1 else ''}", "/s",
                      also="processor time of one", also_unit="µs")
        count = bench.pick(50, 250) * (1 if clients == 1 else 2)

        def measure(name, server):
            before = processor(server.pid)
            seconds = ask(bench, server.port, clients, count)[0] / 1e9
            if name != "ncat":      # which does not count its children
                table.also_values.setdefault(name, []).append(
                    (processor(server.pid) - before) / count * 1e6)
            return count / seconds

        with bench.scope():
            servers = start_all(bench, table)
            take_turns(bench, table,
                       {name: lambda n=name, s=server: measure(n, s)
                        for name, server in servers.items()},
                       bench.pick(4, 24))
        tables.append(table)
    return tables


def processor(pid):
    """Seconds of the processor that a server and its children have had."""
    with open(f"/proc/{pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")


def memory(bench):
    idle = Table("memory", "Memory (PSS), idle", "KiB")
    servers = start_all(bench, idle)
    settle(bench, servers)
    for name, server in servers.items():
        idle.values[name] = [pss(server.pid)]
    requests = bench.requests or bench.pick(1000, 100000)
    after = Table("memory", f"Memory (PSS) after {requests:,} requests", "KiB")
    for number, name in enumerate((FLOOR, "tolva")):
        bench.progress(after, number, 2, name)
        ask(bench, servers[name].port, 16, requests)
        after.values[name] = [pss(servers[name].pid)]
    idle.notes.append("All of them run at the same time, so that each counts "
                      "the same share of the C library as its own.")
    return [idle, after]


def startup(bench):
    table = Table("startup", "From the start until it listens", "µs")

    def measure(make):
        port, argv, env = make()
        done = subprocess.run(
            [str(bench.tool("startup")), str(port), *argv], env=env, text=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL)
        if done.returncode != 0:
            raise CannotMeasure("it does not listen")
        return int(done.stdout.split()[-1]) / 1000

    take_turns(bench, table,
               {name: lambda m=make: measure(m)
                for name, make in commands(bench).items()},
               bench.pick(5, 40))
    return [table]


class Level:
    """A listener that has so many of something to bear."""

    def __init__(self, bench, **settings):
        self.bench = bench
        port = free_port()
        self.home = Home(bench, f"home-{port}", port,
                         f"{bench.tool('stamp')} -",
                         **{"LogfileSize": 0, "ListenTimeout": 0, **settings})
        self.server = Server(bench, self.home.argv, port, self.home.env)

    def cost(self):
        count = self.bench.pick(50, 200)
        return ask(self.bench, self.server.port, 1, count,
                   LOG_TEXT)[0] / 1000 / count


def idle_sessions(bench, count):
    level = Level(bench)
    for _ in range(count):
        sock = socket.create_connection(("127.0.0.1", level.server.port))
        bench.at_end(sock.close)
    return level


def running_scripts(bench, count):
    level = Level(bench)
    request = EXECUTE.replace("EXECSTATUS EXECUTE", "EXECUTE SHUTDOWN")
    for _ in range(count):
        with socket.create_connection(
                ("127.0.0.1", level.server.port)) as sock:
            sock.sendall(request.encode())
            sock.recv(1)
    return level


def allowed_addresses(bench, count):
    listed = addresses("127.9", count - 1) + ["127.0.0.1"]
    return Level(bench, AllowedAddresses=" ".join(listed))


def watched_servers(bench, count):
    if count == 0:
        return Level(bench)
    hosts = addresses("127.8", count)
    crowd = Crowd(bench, hosts)
    level = Level(bench, AliveEnabled="TRUE", AlivePort=crowd.port,
                  AliveAddresses=" ".join(hosts))
    return level


def log_size(bench, mebibytes):
    level = Level(bench)
    line = b"2026-01-01 00:00:00 " + b"x" * 43 + b"\n"
    with open(level.home.dir / "tolva.log", "ab") as log:
        for _ in range(mebibytes):
            log.write(line * 16384)
    return level


def log_limit(bench, kibibytes):
    """Grown as far as it may: lines have to go."""
    level = Level(bench, LogfileSize=kibibytes)
    with open(level.home.dir / "tolva.log", "ab") as log:
        log.write((b"2026-01-01 00:00:00 " + b"x" * 43 + b"\n") *
                  (kibibytes * 16))
    return level


# What it is, how it is made, and the numbers of a default and of a quick run.
# 256 descriptors and 4,095 bytes of a setting are the listener's own limits.
COSTS = (
    ("idle sessions", idle_sessions, (0, 50, 200), (0, 100)),
    ("running scripts", running_scripts, (0, 100, 900), (0, 50)),
    ("allowed addresses", allowed_addresses, (1, 30, 300), (1, 100)),
    ("watched servers", watched_servers, (0, 10, 100, 300), (0, 10)),
    ("MiB in a log without a limit", log_size, (0, 1, 100), (0, 1)),
    ("KiB in a log that has reached its limit", log_limit, (64, 1024, 8192),
     (64, 1024)),
)


def cost(bench):
    """Time for a request that only logs, which no script hides."""
    tables = []
    for what, make, default, quick in COSTS:
        counts = bench.pick(quick, default)
        table = Table("cost", f"A logged text with so many {what}", "µs",
                      base=f"{counts[0]:,}", also="memory (PSS)",
                      also_unit="KiB")
        with bench.scope():
            levels = {}
            for count in counts:
                bench.progress(table, len(levels), len(counts), "set up")
                levels[f"{count:,}"] = make(bench, count)
            take_turns(bench, table, {name: level.cost for name, level
                                      in levels.items()}, bench.pick(3, 15))
            for name, level in levels.items():
                table.also_values[name] = [pss(level.server.pid)]
        tables.append(table)
    return tables
