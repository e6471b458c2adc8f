"""Redundant shutdowns when descriptors are closed and opened again within one
pass of the listener."""

import os
import signal

from harness import message
from house import A, B, C, INTERVAL, House, suppressed
from peers import read_to_end
from processes import sockets_of, state
from upsserver import Held, good
from waiting import BOUND, wait_for
from wire import HEADER, LOG_TEXT


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
