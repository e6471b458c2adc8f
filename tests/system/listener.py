"""Listen mode in the hands of a test: started, spoken to, and stopped.

A listener counts as started when it listens, which is looked up and not
tried, and has ended well only with the status that is expected.
"""

import errno
import os
import signal
import socket

from harness import reason
from peers import read_to_end
from ports import free_port, tcp_listeners, tcp_listens, udp_is_bound
from processes import alive, owners, sockets_of, zombies
from waiting import BOUND, wait_for
from wire import LOG_TEXT


class Listener:
    """Listen mode in the foreground, or as a daemon.

    Starting waits until it listens (TCP, and UDP where the settings ask for
    it) without connecting, so that its log shows nothing but the test's own
    doings.  `pid` is the process that serves.
    """

    def __init__(self, home, level=0, daemon=False, args=(), config=None,
                 port=None, host="127.0.0.1", env=None, program="tolva",
                 cwd=None, wait=True, limits=None, prefix=()):
        self.home = home
        self.daemon = daemon
        self.host = host
        self.status = None
        for attempt in range(5):
            self.port = port or free_port()
            settings = {"ListenAddress": host, "ListenPort": self.port}
            settings.update(config or {})
            home.configure(settings)
            argv = [] if program == "listentolva" else ["-l"]
            if not daemon:
                argv += ["-d", str(level)]
            argv += [str(a) for a in args]
            self.run = home.start(*argv, env=env, program=program, cwd=cwd,
                                  limits=limits, prefix=prefix)
            self.pid = None if daemon else self.run.pid
            if not wait:
                return
            if self._started(home.settings, argv):
                return
            in_use = reason(errno.EADDRINUSE)
            if port or in_use not in self.run.out + home.log_text():
                raise AssertionError("the listener ended at once")
        raise AssertionError("no port to listen on")

    def _started(self, settings, argv):
        def gone():
            if self.daemon:
                return self.run.process.poll() not in (None, 0)
            return not self.run.running()

        wants_udp = bool(settings.get("AllowedAddresses") or "-a" in argv) \
            and str(settings.get("ListenUDP", "true")).lower() == "true"

        def ready():
            if gone():
                return True
            if not tcp_listens(self.port):
                return False
            return not wants_udp or udp_is_bound(self.port)

        wait_for(ready, 3 * BOUND, "the listener listens")
        if gone():
            return False
        if self.daemon:
            wait_for(lambda: not self.run.running(), what="the parent ends")
            self.pid = wait_for(lambda: self._owner(), what="daemon's pid")
        return True

    def _owner(self):
        found = owners(tcp_listeners(self.port))
        return found[0] if len(found) == 1 else None

    @property
    def where(self):
        """The address as "host:port" for the command line."""
        return f"{self.host}:{self.port}"

    @property
    def out(self):
        return self.run.out

    @property
    def err(self):
        return self.run.err

    def running(self):
        return alive(self.pid)

    def messages(self):
        return self.home.log_messages()

    def wait_message(self, text, count=1, timeout=BOUND):
        """Waits until the log holds the message text count times."""
        wait_for(lambda: self.messages().count(text) >= count, timeout,
                 f"log message {text!r}")

    def no_zombies(self):
        wait_for(lambda: not zombies(self.pid), what="no zombie is left")

    def wait_sessions(self, count, listeners=1):
        """Waits until so many sessions are open."""
        wait_for(lambda: len(sockets_of(self.pid)) == count + listeners,
                 what=f"{count} open sessions")

    def serves(self, text):
        """Has the text logged, as a sign that commands are carried out."""
        assert self.request(LOG_TEXT + text.encode()) == b""
        self.wait_message(text)

    def request(self, payload, host=None):
        """Sends the bytes on a new connection; returns what came back."""
        with self.connect(host) as conn:
            conn.sendall(payload)
            return read_to_end(conn)

    def connect(self, source=None):
        """A connected TCP socket, optionally from another loopback host."""
        conn = socket.socket()
        conn.settimeout(BOUND)
        try:
            if source:
                conn.bind((source, 0))
            conn.connect((self.host, self.port))
        except OSError:
            conn.close()
            raise
        return conn

    def datagram(self, payload, source="127.0.0.1"):
        with socket.socket(type=socket.SOCK_DGRAM) as udp:
            udp.bind((source, 0))
            udp.sendto(payload, (self.host, self.port))

    def wait_end(self, timeout=2 * BOUND):
        """Waits until the process has ended; returns its exit status."""
        if self.status is None:
            if self.daemon:
                self.status = wait_for(self._reap, timeout,
                                       "the daemon ends")[0]
            else:
                self.status = self.run.wait(timeout).status
        return self.status

    def _reap(self):
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        return (os.waitstatus_to_exitcode(status),) if pid else None

    def stop(self, number=signal.SIGTERM, status=0):
        """Ends it with a signal and checks that it left cleanly."""
        if self.status is not None:
            return
        self.no_zombies()
        os.kill(self.pid, number)
        assert self.wait_end() == status
        self.home.check_reports()
