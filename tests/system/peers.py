"""Scripted peers of the program: servers, datagrams, a backlog that is full.

A server plays a function for each client; what went wrong in it is raised
when the test ends.
"""

import contextlib
import selectors
import socket
import struct
import threading
import time

from ports import free_port
from waiting import BOUND, wait_for


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


def reader(talk):
    """Plays one that never says a word."""
    talk.read_to_end()


def replier(*parts, **options):
    """Plays a listener that answers with the parts."""
    def play(talk):
        talk.read_some()
        talk.send_split(*parts, **options)
        talk.stop_sending()
        talk.read_to_end()
    return play


class HeldAnswer:
    """Plays one that answers when the test says so, then tells that it has.

    It reads what comes first, or so many bytes.
    """

    def __init__(self, answer, size=None):
        self.answer = answer
        self.size = size
        self.asked = threading.Event()
        self.go = threading.Event()
        self.answered = threading.Event()

    def __call__(self, talk):
        if self.size:
            talk.read_exactly(self.size)
        else:
            talk.read_some()
        self.asked.set()
        assert self.go.wait(3 * BOUND)
        talk.send(self.answer)
        self.answered.set()
        talk.read_to_end()


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
