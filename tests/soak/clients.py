"""The clients of the load: how a request is brought to the listener, and what
counts as acknowledged.

A reply acknowledges. So does the end of a connection that the listener closed
after it had read the request, when no reply was wanted: a listener that closes
earlier answers the request with a reset.
"""

import contextlib
import socket
import subprocess
import threading

from peers import read_to_end, reset

BOUND = 60.0
IP_BIND_ADDRESS_NO_PORT = 24
CROWD = 300  # more than the listener may have open
FULL = 0.1   # seconds after which nobody else gets in


class Clients:
    """Sends requests; `steady` says that the listener stays."""

    def __init__(self, home, port, steady):
        self.home = home
        self.where = ("127.0.0.1", port)
        self.steady = steady
        self.waiting_room = []
        self.lock = threading.Lock()
        self.seated = 0
        self.up = threading.Event()
        self.up.set()

    def run(self, request):
        """Plays one client; what went wrong is in its record."""
        try:
            getattr(self, request.kind)(request)
        except ConnectionRefusedError:
            request.fault = "refused"
            self.up.wait(BOUND)
        except TimeoutError:
            request.fault = "nothing came"
        except OSError as error:
            request.fault = error.strerror or repr(error)

    def connect(self, host, bound=BOUND):
        conn = socket.socket()
        try:
            conn.settimeout(bound)
            conn.setsockopt(socket.IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1)
            conn.bind((host, 0))
            conn.connect(self.where)
        except OSError:
            conn.close()
            raise
        return conn

    def send(self, request):
        """A connection on which the request is on its way."""
        conn = self.connect(request.host)
        request.sent = True
        try:
            conn.sendall(request.payload)
        except OSError:
            conn.close()
            raise
        return conn

    def tcp(self, request):
        with self.send(request) as conn:
            while True:
                piece = conn.recv(65536)
                if not piece:
                    break
                request.reply += piece
            error = conn.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if request.wanted:
            request.delivered = bool(request.reply)
        else:
            request.delivered = not error
        if not request.delivered:
            request.fault = "no reply" if request.wanted else "reset"

    def bare(self, request):
        self.tcp(request)

    def datagram(self, request):
        with socket.socket(type=socket.SOCK_DGRAM) as udp:
            udp.bind((request.host, 0))
            request.sent = True
            udp.sendto(request.payload, self.where)

    def forger(self, request):
        self.datagram(request)

    def garbage(self, request):
        """Is let go without a word, or with a reset over what was unread."""
        with contextlib.suppress(ConnectionError), self.send(request) as conn:
            request.reply = read_to_end(conn)

    def stranger(self, request):
        self.garbage(request)

    def leaver(self, request):
        """Has said all and does not wait for an answer."""
        self.send(request).close()
        request.delivered = self.steady

    def reset(self, request):
        reset(self.send(request))

    def splitter(self, request):
        """What comes second is a part of the message when it is there in
        time: one receive is a message."""
        conn = self.connect(request.host)
        request.sent = True
        with contextlib.suppress(ConnectionError), conn:
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            conn.sendall(request.payload[:10])
            conn.sendall(request.payload[10:])
            request.reply = read_to_end(conn)
        request.delivered = bool(request.reply)

    def silent(self, request):
        """Never says a word, until the listener tires of it, or we do."""
        conn = self.connect(request.host)
        with self.lock:
            self.waiting_room.append(conn)
            self.seated += 1
            leaves = self.waiting_room.pop(0) \
                if len(self.waiting_room) > 40 else None
        if leaves:
            (reset if self.seated % 2 else socket.socket.close)(leaves)

    def crowd(self, request):
        """Everybody at once, more than can be let in."""
        conns = []
        with contextlib.suppress(OSError):
            for _ in range(CROWD):
                conns.append(self.connect(request.host, FULL))
        for conn in conns:
            conn.close()

    def sender(self, request):
        """The program's own sender."""
        verb, text = request.payload.partition(b") ")[2].split(b" ", 1)
        option = "-sr" if verb == b"MSG_EXECSTATUS" else "-s"
        request.wanted = option == "-sr"
        request.sent = True
        done = subprocess.run(
            self.home.command([option, text, "-a",
                               "%s:%d" % self.where, "-t", int(BOUND)]),
            env=self.home.environment(), cwd=self.home.home,
            stdin=subprocess.DEVNULL, capture_output=True, timeout=2 * BOUND)
        if request.wanted:
            request.reply = b"%d" % done.returncode
        # Without an answer it hands over, and sees no more than that.
        request.delivered = request.wanted and done.returncode != 1 or \
            self.steady and done.returncode == 0
        if not request.delivered:
            request.fault = f"sender: status {done.returncode}"
