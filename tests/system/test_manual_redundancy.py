"""When a redundant shutdown is carried out: every row of the table in the
manual page is tried."""

import pytest

import manual
from fakeclock import FakeClock
from harness import message
from peers import reader
from ports import free_port
from upsserver import good
from waiting import wait_for
from wire import EXECUTE, HEADER

ROWS = manual.Page("tolva.8").table("redundancy")
ADDRESS = {"A": "127.0.0.11", "B": "127.0.0.12", "C": "127.0.0.13",
           "D": "127.0.0.14"}
MEMBERS = "ABC"


def names(cell):
    """The members that a cell of the table names."""
    return [] if cell == "none" else cell.split(", ")


class Redundancy:
    """A listener with its members, some of them alive."""

    def __init__(self, home, enabled, level, members, dead, **config):
        self.home = home
        self.members = MEMBERS[:members]
        self.dead = dead
        self.checks = 0
        port = free_port()
        for name in self.members:
            if name not in dead:
                home.server(good, host=ADDRESS[name], port=port)
        addresses = " ".join(ADDRESS[name] for name in self.members)
        self.shutdown = home.script("tolva_shutdown.sh")
        home.script("tolva_notalive.sh")
        self.batch = home.script("ShutdownSuppressed.sh")
        clock = FakeClock(home)
        self.listener = home.listener(env=clock.env, config={
            "AliveEnabled": "TRUE", "AliveAddresses": addresses,
            "AlivePort": port, "RedundancyAddresses": addresses,
            "RedundancyEnabled": enabled, "RedundancyLevel": level, **config})
        clock.advance(self.listener, 5, lambda: self.checked(1),
                      "the first checks are over")

    def checked(self, count):
        """Whether each member has been checked so often."""
        said = self.home.log_messages()
        return all(
            said.count(message(828 if name in self.dead else 814,
                               ADDRESS[name])) >= count
            for name in self.members)

    def ask(self, name):
        """A bare request; tells whether it was carried out."""
        before = self.listener.messages()
        answers = self.listener.err.count("returning: ")
        assert self.listener.request(HEADER, ADDRESS[name]) == b""
        after = self.listener.messages()[len(before):]
        carried_out = message(792, self.shutdown) in after
        held_back = any(text.startswith("Shutdown suppressed, ")
                        for text in after)
        assert carried_out != held_back
        assert held_back == (message(792, self.batch) in after)
        told = self.listener.err.splitlines()
        assert len(told) == answers + 1
        assert told[-1] == f"returning: {'TRUE' if carried_out else 'FALSE'}"
        return carried_out


def test_the_table_has_rows_of_both_kinds():
    results = [row[-1] for row in ROWS]
    assert set(results) == {"carried out", "held back"}
    assert len(ROWS) == len({tuple(row) for row in ROWS})


@pytest.mark.parametrize("row", ROWS, ids=" ".join)
def test_a_row_of_the_table(home, row):
    switch, level, members, asked, asks, dead, result = row
    redundancy = Redundancy(home, "TRUE" if switch == "on" else "FALSE",
                            level, int(members), names(dead))
    for number, name in enumerate(names(asked)):
        redundancy.ask(name)
        wait_for(lambda number=number: redundancy.checked(number + 2),
                 what="the checks of an earlier request are over")
    carried_out = redundancy.ask(asks)
    assert result == ("carried out" if carried_out else "held back")
    redundancy.listener.stop()


def test_a_second_request_finds_the_checks_under_way(home):
    """The servers do not answer before the second request comes."""
    redundancy = Redundancy(home, "TRUE", 1, 2, [])
    silent = free_port()
    redundancy.listener.stop()
    redundancy.home.settings["AlivePort"] = silent
    for name in "AB":
        home.server(reader, host=ADDRESS[name], port=silent)
    redundancy.listener = home.listener()
    assert not redundancy.ask("A")
    assert redundancy.ask("A")
    redundancy.listener.stop()


@pytest.mark.parametrize("config", [{"AliveEnabled": "FALSE"},
                                    {"AliveAddresses": "127.0.0.11"}])
def test_who_is_not_watched_is_not_alive(home, config):
    redundancy = Redundancy(home, "TRUE", 1, 2, [])
    redundancy.listener.stop()
    redundancy.listener = home.listener(config=config)
    assert redundancy.ask("A")
    redundancy.listener.stop()


def test_a_command_is_never_held_back(home):
    redundancy = Redundancy(home, "TRUE", 1, 2, [])
    redundancy.listener.request(EXECUTE + b"SHUTDOWN", ADDRESS["A"])
    redundancy.listener.wait_message(message(792, redundancy.shutdown))
    redundancy.listener.stop()


def test_the_batch_file_can_be_switched_off(home):
    redundancy = Redundancy(home, "TRUE", 1, 2, [],
                            RedundancyBatchSuppress="TRUE")
    assert redundancy.listener.request(HEADER, ADDRESS["A"]) == b""
    redundancy.listener.wait_message(
        "Shutdown suppressed, redundancy-level = 1, failure count = 1.")
    assert message(792, redundancy.batch) not in redundancy.listener.messages()
    redundancy.listener.stop()
