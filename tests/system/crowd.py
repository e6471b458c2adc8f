"""Many peers on loopback addresses, each with a way of its own to behave.

    with Crowd(home, {"127.1.0.1": "answer 0", "127.1.0.2": "silent"}) as crowd:
        ... crowd.port ...
    crowd.requests()     # [(address, request)], in the order they came in

They are served by a process of their own, this file, which may have many more
descriptors than a test.  Ways to behave:

    answer N     reads the request, answers with that status
    slow S N     the same, S seconds later
    split S N    the same, in two pieces that are S seconds apart
    say TEXT     answers with that text (Python's escapes) and closes
    half         sends the half of an answer, then nothing
    silent       reads, and says nothing
    close        reads, and closes
    reset        reads, and resets the connection
    refuse       closes at once, unread, as a listener does with strangers
    dead         takes no connection: its backlog is full
"""

import codecs
import heapq
import pathlib
import resource
import selectors
import socket
import struct
import subprocess
import sys
import time

HEAD = b"CONNECT TO TOLVA (REPLY)"


def reply(status):
    return HEAD + b" COMMAND=/x PID=7 EXITSTATUS=" + str(status).encode()


def addresses(net, count):
    """So many addresses: "127.44" gives 127.44.0.1 and so on."""
    return [f"{net}.{n // 250}.{n % 250 + 1}" for n in range(count)]


class Crowd:
    """The peers, in the hands of a test."""

    def __init__(self, home, peers, port=None):
        from ports import free_port
        self.port = port or free_port()
        self.record = home.dir / f"requests-{self.port}"
        self.record.touch()
        self.process = subprocess.Popen(
            [sys.executable, __file__, str(self.port), str(self.record)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.process.stdin.write("".join(
            f"{address} {way}\n" for address, way in peers.items()).encode())
        self.process.stdin.close()
        assert self.process.stdout.readline() == b"ready\n"

    def requests(self):
        return [tuple(line.split(" ", 1)) for line in
                self.record.read_text("latin-1").splitlines()]

    def told(self):
        """The addresses that have had a request, sorted."""
        return sorted(address for address, _ in self.requests())

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Peers:
    """The same, in the process that plays them."""

    def __init__(self, port, record):
        self.port = port
        self.record = open(record, "wb", buffering=0)
        self.selector = selectors.DefaultSelector()
        self.later = []  # (when, number, function)
        self.kept = []

    def listen(self, address, way):
        sock = socket.socket()
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((address, self.port))
        sock.listen(0 if way == "dead" else 8)
        sock.setblocking(False)
        self.kept.append(sock)
        if way == "dead":
            filling = socket.socket()
            filling.setblocking(False)
            filling.connect_ex((address, self.port))
            self.kept.append(filling)
        else:
            self.selector.register(sock, selectors.EVENT_READ,
                                   (self.accept, address, way))

    def accept(self, sock, address, way):
        conn = sock.accept()[0]
        if way == "refuse":
            conn.close()
            return
        conn.setblocking(False)
        self.selector.register(conn, selectors.EVENT_READ,
                               (self.read, address, way))

    def read(self, conn, address, way):
        try:
            data = conn.recv(65536)
        except OSError:
            data = b""
        self.selector.unregister(conn)
        if data:
            self.record.write(f"{address} ".encode() + data + b"\n")
            self.act(conn, way.split(" ", 1))
        else:
            conn.close()

    def act(self, conn, way):
        kind, rest = way[0], (way[1:] or [""])[0]
        if kind == "answer":
            self.send(conn, reply(rest))
        elif kind == "slow":
            seconds, status = rest.split()
            self.after(float(seconds), lambda: self.send(conn, reply(status)))
        elif kind == "split":
            seconds, status = rest.split()
            whole = reply(status)
            conn.send(whole[:30])
            self.after(float(seconds), lambda: self.send(conn, whole[30:]))
        elif kind == "say":
            self.send(conn, codecs.escape_decode(rest.encode())[0])
        elif kind == "half":
            conn.send(HEAD[:10])
            self.kept.append(conn)
        elif kind == "silent":
            self.kept.append(conn)
        elif kind == "reset":
            conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                            struct.pack("ii", 1, 0))
            conn.close()
        elif kind == "close":
            conn.close()
        else:
            raise ValueError(kind)

    def after(self, seconds, function):
        heapq.heappush(self.later, (time.monotonic() + seconds,
                                    len(self.later), function))

    @staticmethod
    def send(conn, data):
        try:
            conn.send(data)
        except OSError:
            pass  # the peer may be gone
        conn.close()

    def serve(self):
        while True:
            wait = None
            if self.later:
                wait = max(0, self.later[0][0] - time.monotonic())
            for key, _ in self.selector.select(wait):
                function, address, way = key.data
                function(key.fileobj, address, way)
            while self.later and self.later[0][0] <= time.monotonic():
                heapq.heappop(self.later)[2]()


def main():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    peers = Peers(int(sys.argv[1]), pathlib.Path(sys.argv[2]))
    for line in sys.stdin:
        address, _, way = line.rstrip("\n").partition(" ")
        peers.listen(address, way)
    print("ready", flush=True)
    peers.serve()


if __name__ == "__main__":
    main()
