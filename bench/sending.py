"""What it costs to tell many hosts: the time until all is known, the moment at
which the last host that lives is told, and the processor."""

import os
import shutil
import time

from crowds import Crowd, addresses
from figures import FLOOR, CannotMeasure, Table, take_turns

COMMAND = "EXECUTE x"
REQUEST = f"CONNECT TO TOLVA (SEND) MSG_EXECSTATUS {COMMAND}"
LIMIT = 5           # seconds for a connection
SENDER_MOST = 250   # hosts that "tolva -sr" has descriptors for
AT_ONCE = "64"      # processes, for those that start one for each host


def senders(bench, hosts_file, hosts, port):
    """Name, and command line with its standard input."""
    shell = (f"printf '{REQUEST}' | socat -t{LIMIT} - "
             f"TCP:{{}}:{port},connect-timeout={LIMIT}")
    found = {
        FLOOR: [bench.tool("send"), port, LIMIT, REQUEST],
        "tolva-fleet": [bench.fleet, "-q", "-c", LIMIT, "-p", port, hosts_file,
                        *COMMAND.split()],
    }
    if len(hosts) <= SENDER_MOST:
        named = [word for host in hosts for word in ("-a", host)]
        found["tolva -sr"] = [bench.tolva, "-sr", COMMAND, "-p", port, "-t",
                              LIMIT, *named]
    if bench.has("socat"):
        found["xargs, socat"] = ["xargs", "-P", AT_ONCE, "-I", "{}", "sh",
                                 "-c", shell]
        if bench.has("parallel"):
            found["parallel, socat"] = ["parallel", "--will-cite", "-j",
                                        AT_ONCE, shell]
        if bench.has("clush"):
            found["clush, socat"] = ["clush", "-R", "exec", "-f", AT_ONCE,
                                     "--hostfile", hosts_file,
                                     shell.replace("{}", "%h")]
    return found


class Run:
    """One sender: milliseconds of the whole, until the last host that lives
    was told, and of the processor."""

    def __init__(self, bench, argv, stdin, crowd, live):
        crowd.told()
        argv = [str(word) for word in argv]
        program = argv[0] if "/" in argv[0] else shutil.which(argv[0])
        out = str(bench.work / "output")
        create = os.O_WRONLY | os.O_CREAT | os.O_TRUNC
        begun = time.monotonic_ns()
        try:
            pid = os.posix_spawn(program, argv, {
                **os.environ, "TOLVAHOME": str(bench.work)}, file_actions=[
                (os.POSIX_SPAWN_OPEN, 0, stdin, os.O_RDONLY, 0),
                (os.POSIX_SPAWN_OPEN, 1, out, create, 0o600),
                (os.POSIX_SPAWN_OPEN, 2, "/dev/null", os.O_WRONLY, 0)])
        except OSError as error:
            raise CannotMeasure(error.strerror) from error
        _, _, usage = os.wait4(pid, 0)
        self.whole = (time.monotonic_ns() - begun) / 1e6
        self.processor = (usage.ru_utime + usage.ru_stime) * 1e3
        count, last = crowd.told()
        if count != live:
            raise CannotMeasure(f"it told {count:,} of {live:,} hosts")
        self.last_told = (last - begun) / 1e6


def scene(bench, title, hosts, dead=(), refused=(), rounds=1, slow=False):
    """Times of the senders with these hosts, of which some take no connection
    and some refuse it; with or without those that are slow."""
    whole = Table("fleet", f"{title}: until all is known", "ms",
                  also="processor time", also_unit="ms")
    told = Table("fleet", f"{title}: until the last live host is told", "ms")
    away = set(dead) | set(refused)
    live = [host for host in hosts if host not in away]
    with bench.scope():
        crowd = Crowd(bench, live, dead)
        hosts_file = str(bench.work / "hosts")
        with open(hosts_file, "w") as file:
            file.write("".join(f"{host}\n" for host in hosts))
        rivals = senders(bench, hosts_file, hosts, crowd.port)
        if not slow:
            rivals = {name: argv for name, argv in rivals.items()
                      if "socat" not in name}

        def measure(name):
            run = Run(bench, rivals[name], hosts_file, crowd, len(live))
            told.values.setdefault(name, []).append(run.last_told)
            whole.also_values.setdefault(name, []).append(run.processor)
            return run.whole

        take_turns(bench, whole,
                   {name: lambda n=name: measure(n) for name in rivals},
                   rounds)
    told.values = {name: told.values[name] for name in whole.values}
    return [whole, told] if away else [whole]


def fleet(bench):
    net = "127.44"
    tables = []
    for count, rounds, slow in bench.pick(
            ((200, 5, True), (2000, 3, False)),
            ((200, 40, True), (2000, 15, True), (10000, 9, False))):
        tables += scene(bench, f"{count:,} hosts", addresses(net, count),
                        rounds=rounds, slow=slow)
    if bench.full:
        for count, slow in ((10000, True), (40000, False)):
            tables += scene(bench, f"{count:,} hosts, in full",
                            addresses(net, count), rounds=5, slow=slow)
    count = bench.pick(2000, 10000)
    hosts = addresses(net, count)
    tables += scene(bench, f"{count:,} hosts, half of them refuse", hosts,
                    refused=hosts[::2], rounds=bench.pick(3, 9))
    hosts = addresses(net, 200)
    tables += scene(bench, "200 hosts, one is dead", hosts, dead=hosts[100:101],
                    rounds=bench.pick(1, 5))
    if not bench.quick:
        hosts = addresses(net, 2000)
        tables += scene(bench, "2,000 hosts, half of them dead", hosts,
                        dead=hosts[::2], rounds=3)
    return tables
