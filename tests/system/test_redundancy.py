"""Holding back shutdowns that redundant senders ask for."""

import itertools
import os
import signal

import pytest

from harness import message
from house import A, B, C, D, E, INTERVAL, House, suppressed
from peers import read_to_end
from processes import sockets_of, state
from upsserver import Held, good, refusing
from waiting import BOUND, wait_for
from wire import EXECUTE, HEADER, LOG_TEXT, STATUS

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


# --- the batch file ---------------------------------------------------------


def test_the_batch_file_runs_without_parameters(home):
    house = House(home, (A, B), 1)
    home.script("ShutdownSuppressed.sh",
                'echo "$#" > "$TOLVAHOME/batch"; exit 3')
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    path = home.path("ShutdownSuppressed.sh")
    house.listener.wait_message(message(793, path))
    assert home.read("batch") == b"0\n"
    house.stop()
    messages = house.listener.messages()
    at = messages.index(suppressed(1, 1))
    assert messages[at + 1] == message(792, path)
    assert house.shutdowns() == 0


def test_a_batch_file_that_is_missing(home):
    name = home.path("missing.sh")
    house = House(home, (A, B), 1, config={"RedundancyBatchFile": name})
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(message(793, name))
    house.stop()


@pytest.mark.parametrize("value, runs", [
    ("TRUE", False), ("true", False), ("false", True), ("1", True)])
def test_suppressing_the_batch_file(home, value, runs):
    house = House(home, (A, B), 1, config={"RedundancyBatchSuppress": value})
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(suppressed(1, 1))
    house.stop()
    assert house.batches() == (1 if runs else 0)
    assert house.shutdowns() == 0


@pytest.mark.parametrize("size", [510, 511])
def test_the_longest_name_of_a_batch_file(home, size):
    name = ": " + "x" * (size - 2)
    house = House(home, (A, B), 1, config={"RedundancyBatchFile": name})
    assert house.start_lines() == []
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(message(794, name))
    house.stop()


@pytest.mark.parametrize("size", [512, 513, 1024, 4000])
def test_too_long_a_name_of_a_batch_file(home, size):
    name = ": " + "x" * (size - 2)
    house = House(home, (A, B), 1, config={"RedundancyBatchFile": name})
    # The operator is told once, when it starts.
    [line] = house.start_lines()
    assert line.startswith("error: RedundancyBatchFile ")
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    assert house.ask_and_wait(B) is True
    house.stop()
    messages = house.listener.messages()
    assert messages.count(line) == 1
    assert suppressed(1, 1) in messages
    # Whatever is made of it, never more than its bound is used.
    assert all(len(m) <= len(message(792, "")) + 511 for m in messages
               if m.startswith("[792]"))


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


# --- what is shown ----------------------------------------------------------


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


# --- descriptors that are closed and opened again within one pass -----------


def test_an_old_answer_is_not_taken_for_another_servers(home):
    """A has been checked, the answer of B and a request come together: the
    new check of A gets the number that B's old one had."""
    step = Held()
    house = House(home, (A, B, C), 3, servers={B: (step, good)},
                  config={"AliveAddresses": f"{A} {B}"})
    listener = house.listener
    house.live = [A]
    house.rounds = 1
    house.clock.advance(listener, 5, house.checked)
    assert step.asked.wait(BOUND)
    with listener.connect(C) as conn:
        wait_for(lambda: len(sockets_of(listener.pid)) == 3)
        os.kill(listener.pid, signal.SIGSTOP)
        wait_for(lambda: state(listener.pid) == "T")
        conn.sendall(HEADER)
        step.go.set()
        assert step.answered.wait(BOUND)
        os.kill(listener.pid, signal.SIGCONT)
        assert read_to_end(conn) == b""
    listener.wait_message(message(814, A), 2)
    # B's check was broken off, once; it was asked again and has answered.
    listener.wait_message(message(814, B))
    house.stop()
    assert house.count(828, A) == 0
    assert house.count(828, B) == 1
    assert house.servers[A].visits == 2
    assert house.servers[B].visits == 2
    assert house.answers() == ["returning: FALSE"]
    # C asked, B counts as failed; A is alive.
    assert suppressed(3, 2) in listener.messages()


def test_ended_sessions_do_not_disturb_the_new_checks(home):
    """Sessions end in the same pass in which a request begins new checks on
    the numbers that have become free."""
    members = [f"127.0.3.{n}" for n in range(1, 9)]
    sender = members[-1]
    house = House(home, members, 8)
    listener = house.listener
    house.first_cycle()
    for _ in range(10):
        conns = [listener.connect(f"127.0.4.{n}") for n in range(1, 13)]
        wait_for(lambda: len(sockets_of(listener.pid)) == len(conns) + 1)
        conns.append(listener.connect(sender))
        wait_for(lambda: len(sockets_of(listener.pid)) == len(conns) + 1)
        os.kill(listener.pid, signal.SIGSTOP)
        wait_for(lambda: state(listener.pid) == "T")
        for number, conn in enumerate(conns[:-1]):
            if number % 3 == 0:
                conn.sendall(b"no command")
            elif number % 3 == 1:
                conn.sendall(LOG_TEXT + b"x")
            else:
                conn.close()
        conns[-1].sendall(HEADER)
        house.rounds += 1
        os.kill(listener.pid, signal.SIGCONT)
        assert read_to_end(conns[-1]) == b""
        wait_for(house.checked, what="every server has been checked")
        for conn in conns:
            conn.close()
    house.stop()
    assert not [m for m in listener.messages() if m.startswith("[828]")]
    assert listener.messages().count(suppressed(8, 1)) == 10
    assert all(ups.visits == 11 for ups in house.servers.values())


def test_several_requests_in_one_pass(home):
    """The second one breaks off the checks of the first: nobody is asked
    twice at a time, and no descriptor is lost."""
    members = [f"127.0.5.{n}" for n in range(1, 6)]
    house = House(home, members, 5)
    listener = house.listener
    house.first_cycle()
    for _ in range(5):
        conns = [listener.connect(member) for member in members]
        wait_for(lambda: len(sockets_of(listener.pid)) == len(conns) + 1)
        os.kill(listener.pid, signal.SIGSTOP)
        wait_for(lambda: state(listener.pid) == "T")
        for conn in conns:
            conn.sendall(HEADER)
        os.kill(listener.pid, signal.SIGCONT)
        for conn in conns:
            assert read_to_end(conn) == b""
            conn.close()
        wait_for(lambda: len(sockets_of(listener.pid)) == 1,
                 what="all checks have ended")
    # The next cycle finds everybody alive.
    before = {m: house.count(814, m) for m in members}
    house.clock.advance(
        listener, INTERVAL,
        lambda: all(house.count(814, m) > before[m] for m in members))
    house.stop()
    assert len(house.answers()) == 25
    assert house.shutdowns() == 0
