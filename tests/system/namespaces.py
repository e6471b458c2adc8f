"""Networks, mounts and process ids of a test's own.

Each function gives a command to put in front of another one.  Not every
machine allows it: then the test is skipped, and says why.
"""

import contextlib
import functools
import os
import subprocess
import sys

import pytest


@functools.cache
def _private_network():
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


def private_network():
    """Runs a command in a network and mounts of its own."""
    command = _private_network()
    if command is None:
        pytest.skip("this machine refuses a private network and mount "
                    "namespace (root or user namespaces, iproute2)")
    return command


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


def behind_server(directory, kind, host, port):
    """Runs a command in a network where one server, of kind SOCK_STREAM or
    SOCK_DGRAM, records its one request in the file "request"."""
    script = directory / "server.py"
    script.write_text(ONE_SERVER)
    return [*private_network(), sys.executable, str(script), kind, host,
            str(port), str(directory / "request")]


def unshared(options, probe, refused):
    """Runs a command in other namespaces of its own, by the letters of
    unshare's options, where the probe succeeds."""
    if os.getuid() != 0:
        options = f"r{options}"
    command = ["unshare", f"-{options}", "--"]
    tried = subprocess.run([*command, *probe], stdin=subprocess.DEVNULL,
                           capture_output=True, text=True)
    if tried.returncode != 0:
        pytest.skip(f"{refused}: {tried.stderr.strip()}")
    return command
