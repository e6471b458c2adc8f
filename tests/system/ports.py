"""Ports of this machine: free ones, and who listens where.

Looking is done in /proc/net, without a connection, so that a listener notices
nothing of it.
"""

import random
import socket
import typing

LISTENING = "0A"

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


class Socket(typing.NamedTuple):
    """A socket of this machine, by its own end."""

    host: str
    port: int
    state: str
    inode: int

    @property
    def where(self):
        return f"{self.host}:{self.port}"


def _sockets(table):
    with open(f"/proc/net/{table}") as f:
        next(f)
        for line in f:
            fields = line.split()
            host, port = fields[1].split(":")
            yield Socket(socket.inet_ntoa(bytes.fromhex(host)[::-1]),
                         int(port, 16), fields[3], int(fields[9]))


def tcp_listeners(port=None):
    """The sockets that listen, all or those on one port."""
    return [s for s in _sockets("tcp")
            if s.state == LISTENING and port in (None, s.port)]


def tcp_listens(port):
    return bool(tcp_listeners(port))


def udp_sockets(port):
    return [s for s in _sockets("udp") if s.port == port]


def udp_is_bound(port):
    return bool(udp_sockets(port))
