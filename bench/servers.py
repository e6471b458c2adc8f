"""The listeners that are compared, and what is common to all servers of a run:
a process group of their own, a port, the memory they take."""

import os
import random
import shutil
import signal
import socket
import subprocess
import time

from figures import FLOOR, CannotMeasure

EXECUTE = "CONNECT TO TOLVA (SEND) MSG_EXECSTATUS EXECUTE x"
LOG_TEXT = "CONNECT TO TOLVA (SEND) MSG_EXECSTATUS LOG_TEXT hello"


def free_port():
    """Below those that the system gives to connections by itself."""
    while True:
        port = random.randrange(20000, 32000)
        with socket.socket() as sock:
            try:
                sock.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


def pss(pid):
    """KiB of memory, that which is shared counted by its share."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        for line in file:
            if line.startswith("Pss:"):
                return int(line.split()[1])
    raise CannotMeasure("no Pss")


class Server:
    """A server that runs until the bench lets go of it."""

    def __init__(self, bench, argv, port=None, env=None):
        self.port = port
        self.process = subprocess.Popen(
            argv, env=env, stdin=subprocess.DEVNULL, start_new_session=True,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.pid = self.process.pid
        bench.at_end(self.stop)
        if port:
            self.wait_until_it_listens()

    def wait_until_it_listens(self):
        end = time.monotonic() + 30
        while time.monotonic() < end and self.process.poll() is None:
            with socket.socket() as sock:
                if sock.connect_ex(("127.0.0.1", self.port)) == 0:
                    return
            time.sleep(0.01)
        raise CannotMeasure("it does not listen")

    def stop(self):
        """It and all that it has started."""
        if self.process.poll() is None:
            os.killpg(self.pid, signal.SIGKILL)
        self.process.wait()


class Home:
    """A listener's settings, as shipped but for what "settings" says."""

    def __init__(self, bench, name, port, script, **settings):
        self.dir = bench.work / name
        self.dir.mkdir(exist_ok=True)
        shutil.copy(bench.root / "share/messages.dat", self.dir)
        chosen = {"ListenAddress": "127.0.0.1", "ListenPort": port,
                  "AllowedAddresses": "127.0.0.1", "ListenUDP": "FALSE",
                  "ExecProg": script, "ShutdownProg": "sleep 1000; :",
                  "AliveProg": "/bin/true", **settings}
        (self.dir / "tolva.cfg").write_text("".join(
            f"{key}={value}\n" for key, value in chosen.items()))
        self.env = {**os.environ, "TOLVAHOME": str(self.dir)}
        self.argv = [str(bench.tolva), "-l", "-d", "0", "-c",
                     str(self.dir / "tolva.cfg")]


XINETD = """
service bench
{{
    type = UNLISTED
    port = {port}
    bind = 127.0.0.1
    socket_type = stream
    protocol = tcp
    wait = no
    user = {user}
    server = {script}
    instances = UNLIMITED
    per_source = UNLIMITED
    cps = 1000000 1
}}
"""


def xinetd(bench, port, script):
    import pwd
    handler = bench.work / f"handler-{port}"
    handler.write_text(f"#!/bin/sh\nexec {script}\n")
    handler.chmod(0o755)
    config = bench.work / f"xinetd-{port}.conf"
    config.write_text(XINETD.format(
        port=port, script=handler, user=pwd.getpwuid(os.getuid()).pw_name))
    return ["xinetd", "-dontfork", "-f", str(config),
            "-pidfile", f"{config}.pid"]


def others(bench, port, script):
    """What a user might take instead: each runs the script for a connection,
    which reads and answers itself."""
    return {
        "tcpserver": ["tcpserver", "-HR", "-l", "0", "-c", "1000", "-b", "128",
                      "127.0.0.1", str(port), "/bin/sh", "-c", script],
        "xinetd": xinetd(bench, port, script),
        "socat": ["socat", f"TCP-LISTEN:{port},bind=127.0.0.1,reuseaddr,"
                           "backlog=128,fork", f"SYSTEM:{script}"],
        "ncat": ["ncat", "-l", "-k", "127.0.0.1", str(port), "-c", script],
    }


def commands(bench, fifo="-"):
    """Name, and a function that gives port, command line and environment of a
    new server."""
    def floor():
        port = free_port()
        return port, [str(bench.tool("listen")), str(port),
                      f"{bench.tool('stamp')} {fifo} x"], None

    def tolva():
        port = free_port()
        home = Home(bench, f"home-{port}", port,
                    f"{bench.tool('stamp')} {fifo}")
        return port, home.argv, home.env

    def other(name):
        def make():
            port = free_port()
            script = f"{bench.tool('stamp')} {fifo} reply"
            argv = others(bench, port, script)[name]
            return port, [shutil.which(argv[0]), *argv[1:]], None
        return make

    made = {FLOOR: floor, "tolva": tolva}
    for name in ("tcpserver", "xinetd", "socat", "ncat"):
        if bench.has(name):
            made[name] = other(name)
    return made


def start_all(bench, table, fifo="-"):
    servers = {}
    for name, make in commands(bench, fifo).items():
        port, argv, env = make()
        try:
            servers[name] = Server(bench, argv, port, env)
        except CannotMeasure as error:
            table.notes.append(f"{name} is left out: {error}")
    return servers


def ask(bench, port, clients, requests, request=EXECUTE, fifo=None):
    """Numbers that load/client.c prints."""
    command = [str(bench.tool("client")), str(port), str(clients),
               str(requests), request, *([str(fifo)] if fifo else [])]
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        raise CannotMeasure(done.stderr.strip() or "it does not answer")
    return [int(line) for line in done.stdout.split()]
