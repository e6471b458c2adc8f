"""A listener that watches UPS servers, on a clock that the test moves.

The fixture "notes" gives it a not-alive script that writes down what it is
told, noted() reads that.
"""

from fakeclock import FakeClock
from harness import message

A, B, C = "127.0.0.2", "127.0.0.3", "127.0.0.4"
INTERVAL = 90


class Watch:
    """A listener that watches servers, on a clock of its own."""

    def __init__(self, home, servers, prefix=(), **options):
        self.home = home
        self.clock = FakeClock(home)
        config = {"AliveEnabled": "true", "AliveAddresses": " ".join(servers),
                  "AliveInterval": INTERVAL}
        config.update(options.pop("config", {}))
        self.listener = home.listener(env=self.clock.env, config=config,
                                      prefix=prefix, **options)
        self.pid = self.listener.pid

    def first_cycle(self, until=None):
        self.clock.advance(self.listener, 5, until, "the first cycle")

    def next_cycle(self, until=None):
        self.clock.advance(self.listener, INTERVAL, until, "the next cycle")

    def count(self, number, host):
        return self.listener.messages().count(message(number, host))

    def has(self, number, host, count=1):
        """A condition: the message is there so often."""
        return lambda: self.count(number, host) >= count

    def script(self, host, when=None):
        """The command line of the not-alive script."""
        when = when or (self.clock.date, self.clock.time)
        return " ".join([str(self.home.path("tolva_notalive.sh")), host,
                         *when])

    def stop(self):
        self.listener.stop()


def noted(home):
    path = home.path("notalive")
    return path.read_text().splitlines() if path.exists() else []
