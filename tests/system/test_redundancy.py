"""Which shutdowns of redundant senders are held back."""

import itertools

import pytest

from harness import message
from house import A, B, C, D, E, INTERVAL, House, suppressed
from upsserver import good, refusing
from waiting import wait_for
from wire import EXECUTE, STATUS

STRANGER = "127.0.0.99"


# --- the decision -----------------------------------------------------------


def subsets(items):
    return itertools.chain.from_iterable(
        itertools.combinations(items, n) for n in range(len(items) + 1))


def decisions():
    """(level, members, who asked before, who is dead)."""
    for members in ((A, B), (A, B, C)):
        for level in range(len(members) + 1):
            for before in subsets(members[1:]):
                for dead in subsets(members[1:]):
                    yield level, members, before, dead
    five = (A, B, C, D, E)
    yield from [(4, five, (), ()), (4, five, (B, C, D), ()),
                (4, five, (B, C, D, E), ()), (4, five, (B,), (C, D)),
                (4, five, (B,), (C, D, E)), (3, five, (B,), (B, C)),
                (3, five, (B, C), (C, D)), (5, five, (B, C, D, E), (B, C))]


def name_of(decision):
    level, members, before, dead = decision
    return (f"level {level}, {len(members)} members, "
            f"{len(before)} asked, dead {len(dead)}")


DECISIONS = list(decisions())


@pytest.mark.parametrize(
    "level, members, before, dead", DECISIONS,
    ids=[f"{i} {name_of(d)}" for i, d in enumerate(DECISIONS)])
def test_decision(home, level, members, before, dead):
    house = House(home, members, level, dead)
    house.first_cycle()
    asked = set()
    expected = []
    lines = []
    for sender in (*before, members[0]):
        asked.add(sender)
        failed = asked | (set(dead) - {sender})
        carried_out = level == 0 or len(failed) > level
        if not carried_out:
            lines.append(suppressed(level, len(failed)))
        expected.append(carried_out)
        if level == 0:
            # Nobody is asked.
            assert house.ask(sender) is True
        else:
            assert house.ask_and_wait(sender) == carried_out
    wait_for(lambda: house.shutdowns() == expected.count(True))
    wait_for(lambda: house.batches() == expected.count(False))
    house.stop()
    assert [m for m in house.listener.messages()
            if m.startswith("Shutdown suppressed")] == lines


def test_the_same_member_again_counts_once(home):
    house = House(home, (A, B), 1)
    house.first_cycle()
    for _ in range(3):
        assert house.ask_and_wait(A) is False
    assert house.ask_and_wait(B) is True
    # Who has asked once keeps counting.
    assert house.ask_and_wait(A) is True
    house.stop()
    assert house.listener.messages().count(suppressed(1, 1)) == 3


def test_who_is_dead_is_found_out_at_each_request(home):
    house = House(home, (A, B, C), 2, servers={
        B: (refusing, refusing, good, good)})
    house.live, house.dead = [A, C], []
    house.first_cycle()
    house.listener.wait_message(message(828, B))
    # B has failed before, and is asked again.
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(message(828, B), 2)
    house.next_cycle()
    house.listener.wait_message(message(814, B))
    # Now B is alive again.
    assert house.ask_and_wait(A) is False
    house.stop()
    assert [m for m in house.listener.messages() if "suppressed" in m] == [
        suppressed(2, 2), suppressed(2, 1)]


def test_a_server_that_was_dropped_counts_as_dead(home):
    house = House(home, (A, B), 1, dead=(B,), config={"AliveRetries": 1})
    house.first_cycle()
    house.listener.wait_message(message(832, B))
    assert house.ask(A) is True
    wait_for(lambda: house.count(814, A) == 2)
    house.stop()


def test_members_that_are_not_watched_count_as_dead(home):
    house = House(home, (A, B, C), 2, watched=False)
    assert house.ask(A) is True
    house.stop()
    assert house.shutdowns() == 1


def test_without_a_watch_more_members_than_the_level_are_needed(home):
    house = House(home, (A, B, C), 3, watched=False)
    assert house.ask(A) is False
    house.stop()
    assert suppressed(3, 3) in house.listener.messages()
    assert house.shutdowns() == 0


def test_a_server_that_has_not_been_asked_yet_counts_as_alive(home):
    """It is being asked, and nothing speaks against it so far."""
    house = House(home, (A, B), 1, dead=(B,))
    assert house.ask(A) is False
    house.listener.wait_message(message(828, B))
    assert house.ask(A) is True
    house.stop()


def test_a_stranger_is_obeyed_at_once(home):
    house = House(home, (A, B), 2)
    assert house.ask(STRANGER) is True
    assert house.ask_and_wait(A) is False
    house.stop()
    assert house.shutdowns() == 1
    assert suppressed(2, 1) in house.listener.messages()


def test_a_stranger_has_no_server_asked(home):
    house = House(home, (A, B), 1)
    assert house.ask(STRANGER) is True
    assert house.listener.request(STATUS + b"LOG_TEXT x") != b""
    house.stop()
    assert house.count(814, A) == house.count(828, A) == 0


@pytest.mark.parametrize("level", [0, -1, "abc", ""])
def test_without_a_level_nothing_is_held_back(home, level):
    house = House(home, (A, B), level)
    assert house.ask(A) is True
    house.stop()
    assert house.shutdowns() == 1


def test_a_single_member_is_no_redundancy(home):
    house = House(home, (A,), 1)
    assert house.ask(A) is True
    house.stop()
    assert house.shutdowns() == 1


@pytest.mark.parametrize("value, held_back", [
    ("TRUE", True), ("tRuE", True), ("false", False), ("yes", False),
    ("", False)])
def test_switching_it_on(home, value, held_back):
    house = House(home, (A, B), 1, config={"RedundancyEnabled": value})
    assert house.ask(A) is not held_back
    house.stop()


def test_a_command_is_never_held_back(home):
    house = House(home, (A, B), 2)
    line = f"{home.path('tolva_shutdown.sh')} now"
    reply = house.listener.request(STATUS + b"SHUTDOWN now", A)
    assert reply.endswith(b" EXITSTATUS=0")
    house.listener.request(EXECUTE + b"SHUTDOWN now", B)
    house.listener.wait_message(message(794, line), 2)
    house.stop()
    assert house.answers() == []
    assert house.count(814, A) == 0


def test_a_datagram_is_held_back_too(home):
    house = House(home, (A, B), 1, config={
        "AllowedAddresses": f"{A} {B}"})
    house.first_cycle()
    assert house.ask(A, udp=True) is False
    house.rounds += 1
    wait_for(house.checked)
    assert house.ask(B, udp=True) is True
    wait_for(lambda: house.shutdowns() == 1 and house.batches() == 1)
    house.stop()


def test_members_are_compared_as_texts(home):
    house = House(home, ("127.0.0.02", B), 2, watched=False)
    # Another way to write the address makes it another member.
    assert house.ask(A) is True
    assert house.ask(B) is False
    house.stop()


def test_ports_of_members_do_not_matter_and_names_are_resolved(home):
    house = House(home, (A,), 2, config={
        "RedundancyAddresses": f"{A}:77 localhost:6003",
        "AliveEnabled": "false"})
    assert house.ask(A) is False
    assert house.ask("127.0.0.1") is False
    house.stop()
    assert house.listener.messages().count(suppressed(2, 2)) == 2


def test_a_request_does_not_shift_the_alive_cycles(home):
    house = House(home, (A, B), 1)
    house.first_cycle()
    house.clock.advance(house.listener, INTERVAL - 1)
    assert house.ask_and_wait(A) is False
    house.rounds += 1
    house.clock.advance(house.listener, 1, house.checked, "the next cycle")
    house.stop()
    assert house.servers[B].visits == 3


# --- the members ------------------------------------------------------------


@pytest.mark.parametrize("count", [30, 31, 64])
def test_thirty_members_at_most(home, count):
    members = [f"127.0.1.{n}" for n in range(1, count + 1)]
    house = House(home, members, 30, watched=False)
    lines = house.start_lines()
    assert len(lines) == (0 if count == 30 else 1)
    assert all("30" in line for line in lines)
    # Nobody is watched, so everybody else counts as dead.
    assert house.ask(members[0]) is False
    assert house.ask(members[29]) is False
    for member in members[30:32]:
        assert house.ask(member) is True
    house.stop()
    assert house.listener.messages().count(suppressed(30, 30)) == 2


def test_many_watched_members(home):
    members = [f"127.0.2.{n}" for n in range(1, 31)]
    house = House(home, members, 29)
    house.first_cycle()
    for asked, member in enumerate(members[:29], 1):
        assert house.ask_and_wait(member) is False
        assert suppressed(29, asked) in house.listener.messages()
    assert house.ask_and_wait(members[29]) is True
    house.stop()
    assert not [m for m in house.listener.messages()
                if m.startswith("[828]")]
