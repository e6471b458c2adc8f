"""What is said to a UPS server, and which of them are alive."""

import contextlib

import pytest

from fakeclock import settle
from harness import message
from peers import FullBacklog
from ports import free_port
from processes import sockets_of
from upsserver import LOGON, Held, UpsServer, answers, good, silent
from waiting import wait_for
from watch import A, INTERVAL, Watch, noted


# --- the words --------------------------------------------------------------


def test_the_exchange_byte_for_byte(notes):
    held = Held(b"7|3 and whatever else")
    ups = UpsServer(notes, A, free_port(), held)
    watch = Watch(notes, [ups.where])
    before = set(sockets_of(watch.pid))
    watch.first_cycle(held.asked.is_set)
    [fd] = set(sockets_of(watch.pid)) - before
    held.go.set()
    wait_for(watch.has(814, A))
    watch.stop()
    # The number in the lines is that of the listener's descriptor.
    assert ups.received() == (b"WINCLIENT %05d LOGON\0" % fd +
                              b"WINCLIENT %05d LOGOFF\0" % fd)
    assert ups.server.conversations[0].at_end
    assert ups.visits == 1
    assert watch.listener.messages() == [
        message(756), message(829), message(814, A), message(830),
        message(757)]
    assert noted(notes) == []


def test_the_logoff_waits_for_the_servers_end(notes):
    seen = []

    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|0")
        talk.read_to_end()
        # The listener has stopped sending, and still waits for an answer.
        settle(watch.listener)
        seen.append((watch.count(814, A), len(sockets_of(watch.pid))))
        talk.send(b"anything at all")

    ups = UpsServer(notes, A, free_port(), play)
    watch = Watch(notes, [ups.where])
    watch.first_cycle(watch.has(814, A))
    assert seen == [(0, 2)]
    wait_for(lambda: len(sockets_of(watch.pid)) == 1)
    watch.stop()


def test_a_server_that_sends_in_bits(notes):
    """The first segment decides; the rest disturbs nobody."""
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|0")
        with contextlib.suppress(ConnectionError):
            for _ in range(5):
                talk.send(b"more and more")
        talk.read_to_end()

    ups = UpsServer(notes, A, free_port(), play)
    watch = Watch(notes, [ups.where])
    watch.first_cycle(watch.has(814, A))
    watch.next_cycle(watch.has(814, A, 2))
    watch.stop()
    assert watch.count(828, A) == 0


def test_trace_of_a_check(notes):
    held = Held()
    ups = UpsServer(notes, A, free_port(), held)
    watch = Watch(notes, [ups.where], level=6)
    watch.first_cycle(held.asked.is_set)
    [fd] = [fd for fd in sockets_of(watch.pid)
            if f"created tcp socket [{fd}]" not in watch.listener.out]
    held.go.set()
    wait_for(watch.has(814, A))
    watch.stop()
    out = watch.listener.out
    assert f"DEBUG: check >{A}< (>{fd}<)\n" in out
    assert "nclients = 0, nconnections = 1\n" in out
    entries = [line.split()[1] for line in out.splitlines()
               if line.startswith("TRACEIN: ")]
    wanted = ["cancel_connections", "start_connections", "start_connect",
              "open_connect_socket", "do_kesdal_send_logon",
              "send_kesdal_logon", "do_kesdal_recv_logon", "recv_kesdal",
              "do_kesdal_send_logoff", "send_kesdal_logoff",
              "do_kesdal_recv_logoff", "recv_kesdal", "end_connect"]
    at = [name for name in entries if name in wanted]
    assert at == wanted


# --- who is alive -----------------------------------------------------------


def close_at_once(talk):
    pass


def close_after_logon(talk):
    talk.read_exactly(LOGON)


def reset_after_logon(talk):
    talk.read_exactly(LOGON)
    talk.reset()


def split_answer(talk):
    talk.read_exactly(LOGON)
    talk.send(b"0|")
    talk.read_to_end()


def answer_first(talk):
    """Does not wait for the logon."""
    talk.send(b"0|0")
    talk.read_to_end()


def reset_after_logoff(talk):
    talk.read_exactly(LOGON)
    talk.send(b"0|0")
    talk.read_to_end()
    talk.reset()


ALIVE = {
    "0|0": answers(b"0|0"), "9|9": answers(b"9|9"),
    "1|2 and more": answers(b"1|2 and more"),
    "4,095 bytes": answers(b"0|0" + b"x" * 4092),
    "NUL behind": answers(b"0|0\0\xff"),
    "another answer to the logoff": answers(b"0|0", b"ERROR"),
    "answered before it is asked": answer_first,
    "reset after the logoff": reset_after_logoff,
}
NOT_ALIVE = {
    "0:0": answers(b"0:0"), "7|": answers(b"7|"), "|00": answers(b"|00"),
    "x|0": answers(b"x|0"), "0|x": answers(b"0|x"), " 0|0": answers(b" 0|0"),
    "NUL": answers(b"0\0|0"), "8-bit": answers(b"\xb0|\xb0"),
    "split answer": split_answer, "one byte": answers(b"0"),
    "closed at once": close_at_once,
    "closed after the logon": close_after_logon,
    "reset after the logon": reset_after_logon,
}


@pytest.mark.parametrize("kind", ALIVE)
def test_a_server_that_is_alive(notes, kind):
    ups = UpsServer(notes, A, free_port(), ALIVE[kind])
    watch = Watch(notes, [ups.where])
    watch.first_cycle(watch.has(814, A))
    watch.next_cycle(watch.has(814, A, 2))
    watch.stop()
    assert noted(notes) == []
    assert watch.count(828, A) == 0
    assert ups.visits == 2


@pytest.mark.parametrize("kind", NOT_ALIVE)
def test_a_server_that_is_not_alive(notes, kind):
    ups = UpsServer(notes, A, free_port(), NOT_ALIVE[kind])
    watch = Watch(notes, [ups.where])
    watch.first_cycle(watch.has(828, A))
    script = watch.script(A)
    watch.listener.wait_message(message(794, script))
    assert noted(notes) == [f"3:{A} {watch.clock.date} {watch.clock.time}"]
    assert len(sockets_of(watch.pid)) == 1
    watch.stop()
    assert watch.listener.messages() == [
        message(756), message(829), message(828, A), message(792, script),
        message(794, script), message(830), message(757)]


@pytest.mark.parametrize("host", [A, "127.111.111.111"])
def test_nobody_listens(notes, host):
    watch = Watch(notes, [f"{host}:{free_port()}"])
    watch.first_cycle(watch.has(828, host))
    watch.listener.wait_message(message(794, watch.script(host)))
    assert noted(notes) == [f"3:{host} {watch.clock.date} {watch.clock.time}"]
    watch.stop()


def test_a_silent_server_fails_when_the_next_cycle_begins(notes):
    ups = UpsServer(notes, A, free_port(), silent, good)
    watch = Watch(notes, [ups.where])
    watch.first_cycle(lambda: ups.visits == 1)
    watch.clock.advance(watch.listener, INTERVAL - 1)
    assert watch.count(828, A) == 0
    watch.clock.advance(watch.listener, 1, watch.has(828, A))
    # It is asked again at once, and the script runs for the failure.
    wait_for(watch.has(814, A))
    watch.listener.wait_message(message(794, watch.script(A)))
    watch.stop()
    assert ups.visits == 2
    assert watch.count(828, A) == 1
    assert noted(notes) == [f"3:{A} {watch.clock.date} {watch.clock.time}"]


def test_a_full_backlog_fails_when_the_next_cycle_begins(notes):
    with FullBacklog(A) as full:
        watch = Watch(notes, [full.where])
        watch.first_cycle(lambda: len(sockets_of(watch.pid)) == 2)
        assert watch.count(828, A) == 0
        watch.next_cycle(watch.has(828, A))
        assert len(sockets_of(watch.pid)) == 2
        watch.stop()


def test_a_listener_is_no_ups_server(home, make_home):
    other = make_home()
    peer = other.listener()
    home.script("tolva_notalive.sh")
    watch = Watch(home, [peer.where])
    watch.first_cycle(watch.has(828, "127.0.0.1"))
    peer.wait_message(message(819))
    watch.stop()
    peer.stop()
