"""A listener with redundant senders, whose shutdowns it may hold back.

The servers of some of the senders are alive, those of others are dead, and the
test moves the clock from one round of checks to the next.
"""

from fakeclock import FakeClock
from harness import message
from ports import free_port
from upsserver import UpsServer, good
from waiting import wait_for
from wire import HEADER

A, B, C, D, E = (f"127.0.0.{n}" for n in (2, 3, 4, 5, 6))
INTERVAL = 60


def suppressed(level, count):
    return (f"Shutdown suppressed, redundancy-level = {level}, "
            f"failure count = {count}.")


class House:
    """A listener with redundant senders, some with a server that is alive.

    Every member is watched; those in dead have no server.
    """

    def __init__(self, home, members, level, dead=(), watched=True,
                 servers=None, **options):
        self.home = home
        self.clock = FakeClock(home)
        self.port = free_port()
        for name in ("tolva_shutdown.sh", "ShutdownSuppressed.sh",
                     "tolva_notalive.sh"):
            home.script(name)
        self.live = [m for m in members if m not in dead]
        self.dead = [m for m in members if m in dead]
        self.servers = {}
        if watched:
            for host in self.live:
                plays = (servers or {}).get(host, (good,))
                self.servers[host] = UpsServer(home, host, self.port, *plays)
        self.watched = watched
        config = {"RedundancyEnabled": "true", "RedundancyLevel": level,
                  "RedundancyAddresses": " ".join(members),
                  "AliveEnabled": "true" if watched else "false",
                  "AliveAddresses": " ".join(members),
                  "AlivePort": self.port, "AliveInterval": INTERVAL}
        config.update(options.pop("config", {}))
        self.listener = home.listener(env=self.clock.env, config=config,
                                      **options)
        self.rounds = 0
        self.requests = 0

    def count(self, number, host):
        return self.listener.messages().count(message(number, host))

    def checked(self):
        """Every check of this round has ended."""
        return all(self.count(814, h) >= self.rounds for h in self.live) \
            and all(self.count(828, h) >= self.rounds for h in self.dead)

    def first_cycle(self):
        """The listener learns who is alive."""
        self.rounds += 1
        self.clock.advance(self.listener, 5, self.checked, "the first cycle")

    def next_cycle(self):
        self.rounds += 1
        self.clock.advance(self.listener, INTERVAL, self.checked,
                           "the next cycle")

    def answers(self):
        """What was decided so far; scripts write there, too."""
        return [line for line in self.listener.err.splitlines()
                if line.startswith("returning: ")]

    def ask(self, host, udp=False):
        """A bare request; True when the shutdown is carried out."""
        self.requests += 1
        if udp:
            self.listener.datagram(HEADER, host)
        else:
            assert self.listener.request(HEADER, host) == b""
        wait_for(lambda: len(self.answers()) == self.requests,
                 what="the decision")
        answer = self.answers()[-1]
        assert answer in ("returning: TRUE", "returning: FALSE")
        return answer == "returning: TRUE"

    def ask_and_wait(self, host):
        """As ask(), and the checks that it began have ended."""
        self.rounds += 1
        result = self.ask(host)
        wait_for(self.checked, what="the checks end")
        return result

    def ran(self, name):
        """How often a script was started."""
        line = message(792, self.home.path(name))
        return self.listener.messages().count(line)

    def shutdowns(self):
        return self.ran("tolva_shutdown.sh")

    def batches(self):
        return self.ran("ShutdownSuppressed.sh")

    def start_lines(self):
        """What is logged before the listener listens."""
        self.listener.wait_message(message(756))
        messages = self.listener.messages()
        return messages[:messages.index(message(756))]

    def stop(self):
        self.listener.stop()
