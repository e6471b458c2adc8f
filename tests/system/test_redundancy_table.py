"""What is shown of a decision on a redundant shutdown."""

import pytest

from harness import message
from house import A, B, C, House
from wire import HEADER

STRANGER = "127.0.0.99"


def test_the_decision_is_shown_on_standard_error_in_any_case(home):
    home.script("tolva_shutdown.sh")
    listener = home.listener()
    for _ in range(2):
        listener.request(HEADER)
    listener.wait_message(
        message(794, home.path("tolva_shutdown.sh")), 2)
    listener.stop()
    assert listener.err == "returning: TRUE\n" * 2


def table(*rows):
    """The table as it is traced; a row is (address, asked, dead)."""
    text = "DEBUG: IP-Address\tShutdown\tNotAlive\n"
    for address, asked, dead in rows:
        text += (f"DEBUG: {address}\t{'x' if asked else '':8}\t"
                 f"{'x' if dead else '':8}\n")
    return text


def tables(out):
    """All tables of a trace."""
    found = []
    for line in out.splitlines(keepends=True):
        if line.startswith("DEBUG: IP-Address"):
            found.append(line)
        elif line.count("\t") == 2 and found:
            found[-1] += line
    return found


def test_the_table(home):
    house = House(home, (A, B, C), 2, dead=(C,), args=["-d", "1"])
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    assert house.ask_and_wait(B) is True
    assert house.ask(STRANGER) is True
    house.stop()
    assert tables(house.listener.out) == [
        table((A, 0, 0), (B, 0, 0), (C, 0, 0)),
        table((A, 1, 0), (B, 0, 0), (C, 0, 1)),
        table((A, 1, 0), (B, 1, 0), (C, 0, 1)),
        table((A, 1, 0), (B, 1, 0), (C, 0, 1)),
    ]


def test_the_senders_own_mark_of_death_is_left_as_it_was(home):
    house = House(home, (A, B), 2, dead=(B,), args=["-d", "1"])
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    assert house.ask_and_wait(B) is False
    house.stop()
    assert tables(house.listener.out)[1:] == [
        table((A, 1, 0), (B, 0, 1)), table((A, 1, 0), (B, 1, 1))]


def test_the_sender_itself_is_not_looked_at(home):
    house = House(home, (A, B), 2, dead=(A,), args=["-d", "1"])
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    assert house.ask_and_wait(B) is False
    house.stop()
    assert tables(house.listener.out)[1:] == [
        table((A, 1, 0), (B, 0, 0)), table((A, 1, 1), (B, 1, 0))]


@pytest.mark.parametrize("config", [
    {}, {"RedundancyEnabled": "false", "RedundancyLevel": 1,
         "RedundancyAddresses": "127.0.0.1 nosuchhost.invalid."}],
    ids=["unset", "switched off"])
def test_the_table_is_empty_without_redundancy(home, config):
    home.script("tolva_shutdown.sh")
    listener = home.listener(level=1, config=config)
    listener.request(HEADER)
    listener.stop()
    assert tables(listener.out) == [table()] * 2
    # Nobody's name was looked up.
    assert listener.err == "returning: TRUE\n"


def test_the_table_is_not_shown_without_a_trace(home):
    house = House(home, (A, B), 1)
    house.ask(A)
    house.stop()
    assert house.listener.out == ""
