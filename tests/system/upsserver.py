"""UPS management servers for the tests of listen mode, each with a script.

    ups = UpsServer(home, "127.0.0.2", port, good, silent)

plays good() to the first client, silent() to the second and to all further
ones.  Several servers on one port have addresses of their own.
"""

from peers import HeldAnswer

LOGON = 22  # bytes, with the NUL
LOGOFF = 23


class UpsServer:
    def __init__(self, home, host, port, *plays):
        self.host = host
        self.port = port
        self.plays = list(plays) or [good]
        self.server = home.server(self._play, host=host, port=port)

    def _play(self, talk):
        number = self.server.conversations.index(talk)
        self.plays[min(number, len(self.plays) - 1)](talk)

    @property
    def where(self):
        return self.server.where

    @property
    def visits(self):
        """How many connections there were so far."""
        return len(self.server.conversations)

    def received(self, number=0):
        return self.server.conversations[number].received


def good(talk):
    """A server that is alive."""
    talk.read_exactly(LOGON)
    talk.send(b"0|0")
    talk.read_to_end()


def silent(talk):
    """Takes the logon and never answers."""
    talk.read_to_end()


def refusing(talk):
    """Answers with anything else."""
    talk.read_exactly(LOGON)
    talk.send(b"ERROR")
    talk.read_to_end()


def answers(data, last=b""):
    """A server with an answer of its own."""
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(data)
        talk.read_to_end()
        if last:
            talk.send(last)
    return play


class Held(HeldAnswer):
    """A server that answers when the test says so."""

    def __init__(self, answer=b"0|0"):
        super().__init__(answer, LOGON)
