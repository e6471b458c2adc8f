"""When UPS servers are asked, and what goes on meanwhile."""

import os
import pathlib
import re
import signal

import pytest

from fakeclock import poke, settle
from harness import message
from peers import read_to_end
from ports import free_port
from processes import sockets_of
from upsserver import Held, UpsServer, good, refusing, silent
from waiting import BOUND, wait_for
from watch import A, B, C, INTERVAL, Watch, noted
from wire import LOG_TEXT, STATUS

HOST = "127.0.0.1"


def times_of(home, text):
    return [line[1] for line in home.log_lines() if line[3] == text]


def test_the_first_cycle_comes_after_five_seconds_then_every_interval(notes):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where])
    for count, seconds in enumerate((5, INTERVAL, INTERVAL), 1):
        watch.clock.advance(watch.listener, seconds - 1)
        assert len(sockets_of(watch.pid)) == 1
        watch.clock.advance(watch.listener, 1, watch.has(814, A, count))
    watch.stop()
    # It began at 02:24:18.
    assert times_of(notes, message(814, A)) == [
        "02:24:23", "02:25:53", "02:27:23"]
    assert ups.visits == 3


@pytest.mark.parametrize("interval, seconds", [
    (0, 60), (59, 60), (60, 60), (61, 61), ("", 1800)])
def test_the_interval_is_a_minute_at_least(notes, interval, seconds):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], config={"AliveInterval": interval})
    watch.first_cycle(watch.has(814, A))
    watch.clock.advance(watch.listener, seconds - 1)
    assert ups.visits == 1
    watch.clock.advance(watch.listener, 1, watch.has(814, A, 2))
    watch.stop()


def test_the_wait_ends_by_itself_when_a_cycle_is_due(notes):
    """No client, no signal: the time-out of the wait begins the cycle."""
    ups = UpsServer(notes, A, free_port())
    listener = notes.listener(config={"AliveEnabled": "true",
                                      "AliveAddresses": ups.where})
    listener.wait_message(message(814, A))
    listener.stop()
    begin, end = (int(h) * 3600 + int(m) * 60 + int(s) for h, m, s in (
        times_of(notes, text)[0].split(":")
        for text in (message(829), message(814, A))))
    assert 5 <= (end - begin) % 86400 <= 8


def test_the_time_out_of_a_client_begins_no_cycle(notes):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], level=1, config={"ListenTimeout": 1})
    with watch.listener.connect():
        wait_for(lambda: "returned nready = 0\n" in watch.listener.out,
                 what="the wait for the client is over")
        settle(watch.listener)
        assert len(sockets_of(watch.pid)) == 2
    watch.first_cycle(watch.has(814, A))
    watch.stop()
    assert times_of(notes, message(814, A)) == ["02:24:23"]
    assert ups.visits == 1


def test_a_late_cycle_is_not_made_up_for(notes):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where])
    watch.first_cycle(watch.has(814, A))
    watch.clock.advance(watch.listener, 5 * INTERVAL, watch.has(814, A, 2))
    watch.clock.advance(watch.listener, INTERVAL - 1)
    assert ups.visits == 2
    watch.clock.advance(watch.listener, 1, watch.has(814, A, 3))
    watch.stop()


def test_a_due_cycle_comes_when_nothing_else_is_left_to_do(notes):
    watch = Watch(notes, [f"{A}:{free_port()}"],
                  config={"AllowedAddresses": HOST})
    os.kill(watch.pid, signal.SIGSTOP)
    for number in range(30):
        watch.listener.datagram(LOG_TEXT + b"%d" % number)
    watch.clock.set(5)
    os.kill(watch.pid, signal.SIGCONT)
    watch.listener.wait_message(message(828, A))
    messages = watch.listener.messages()
    assert messages.index("29") < messages.index(message(828, A))
    watch.listener.wait_message(message(794, watch.script(A)))
    watch.stop()


@pytest.mark.parametrize("value", ["TRUE", "true", "tRuE"])
def test_the_watch_is_on(notes, value):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], config={"AliveEnabled": value})
    watch.first_cycle(watch.has(814, A))
    watch.stop()


@pytest.mark.parametrize("config", [
    {"AliveEnabled": "false"}, {"AliveEnabled": ""}, {"AliveEnabled": "yes"},
    {"AliveAddresses": ""}], ids=str)
def test_the_watch_is_off(notes, config):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], config=config)
    watch.clock.advance(watch.listener, 5)
    watch.clock.advance(watch.listener, 1800)
    watch.stop()
    assert ups.visits == 0
    assert watch.listener.messages() == [message(756), message(757)]


# --- several servers --------------------------------------------------------


def test_several_servers_with_and_without_a_port(notes):
    port = free_port()
    servers = [UpsServer(notes, A, port), UpsServer(notes, B, free_port()),
               UpsServer(notes, C, port)]
    watch = Watch(notes, [A, servers[1].where, C],
                  config={"AlivePort": port})
    watch.first_cycle(lambda: all(watch.count(814, h) for h in (A, B, C)))
    watch.next_cycle(lambda: all(watch.count(814, h) == 2
                                 for h in (A, B, C)))
    watch.stop()
    assert [ups.visits for ups in servers] == [2, 2, 2]
    assert noted(notes) == []


def test_servers_have_numbers_of_their_own_at_one_moment(notes):
    port = free_port()
    helds = [Held(), Held(), Held()]
    servers = [UpsServer(notes, host, port, held)
               for host, held in zip((A, B, C), helds)]
    watch = Watch(notes, [A, B, C], config={"AlivePort": port})
    watch.first_cycle(lambda: all(h.asked.is_set() for h in helds))
    for held in reversed(helds):
        held.go.set()
    for host in (A, B, C):
        watch.listener.wait_message(message(814, host))
    numbers = {re.match(rb"WINCLIENT (\d+) ", ups.received())[1]
               for ups in servers}
    assert len(numbers) == 3
    watch.stop()


def test_some_fail_and_some_do_not(notes):
    port = free_port()
    UpsServer(notes, A, port, refusing)
    UpsServer(notes, C, port)
    watch = Watch(notes, [A, B, C], config={"AlivePort": port})
    watch.first_cycle(lambda: watch.count(828, A) and watch.count(828, B) and
                      watch.count(814, C))
    wait_for(lambda: len(noted(notes)) == 2)
    watch.stop()
    when = f"{watch.clock.date} {watch.clock.time}"
    assert sorted(noted(notes)) == [f"3:{A} {when}", f"3:{B} {when}"]


def test_clients_and_servers_that_share_descriptor_numbers(notes):
    """Sessions end and checks begin on the numbers that become free."""
    port = free_port()
    hosts = [f"127.0.0.{n}" for n in range(2, 12)]
    for host in hosts:
        UpsServer(notes, host, port)
    watch = Watch(notes, hosts, config={"AlivePort": port,
                                        "ListenTimeout": 0})
    for cycle in range(1, 6):
        conns = [watch.listener.connect() for _ in range(10)]
        wait_for(lambda: len(sockets_of(watch.pid)) == 11)
        os.kill(watch.pid, signal.SIGSTOP)
        watch.clock.set(5 if cycle == 1 else INTERVAL)
        for conn in conns[::2]:
            conn.sendall(LOG_TEXT + b"x")
        for conn in conns[1::2]:
            conn.close()
        os.kill(watch.pid, signal.SIGCONT)
        wait_for(lambda: poke(watch.listener) and all(
            watch.count(814, host) == cycle for host in hosts),
            what="every server is alive")
        for conn in conns[::2]:
            assert read_to_end(conn) == b""
            conn.close()
    watch.stop()
    assert not [m for m in watch.listener.messages()
                if m.startswith("[828]")]
    assert watch.listener.messages().count("x") == 25


# --- beside everything else -------------------------------------------------


def test_what_is_ready_at_once_is_served_in_order(notes):
    """Who connects, datagrams, clients, servers."""
    held = Held(b"ERROR")
    ups = UpsServer(notes, A, free_port(), held)
    watch = Watch(notes, [ups.where], config={"AllowedAddresses": HOST})
    client = watch.listener.connect()
    wait_for(lambda: len(sockets_of(watch.pid)) == 3)
    watch.first_cycle(held.asked.is_set)
    settle(watch.listener)
    os.kill(watch.pid, signal.SIGSTOP)
    # It may be on its way for a moment yet.
    wait_for(lambda: pathlib.Path(f"/proc/{watch.pid}/stat").read_text()
             .rpartition(")")[2].split()[0] == "T", what="it stands still")
    held.go.set()
    assert held.answered.wait(BOUND)
    client.sendall(LOG_TEXT + b"client")
    watch.listener.datagram(LOG_TEXT + b"datagram")
    stranger = watch.listener.connect("127.0.0.9")
    os.kill(watch.pid, signal.SIGCONT)
    watch.listener.wait_message(message(828, A))
    told = [m for m in watch.listener.messages() if m in (
        message(835, "127.0.0.9"), "datagram", "client", message(828, A))]
    assert told == [message(835, "127.0.0.9"), "datagram", "client",
                    message(828, A)]
    for conn in (client, stranger):
        conn.close()
    watch.listener.wait_message(message(794, watch.script(A)))
    watch.stop()


def test_commands_are_served_while_servers_are_asked(notes):
    held = Held()
    ups = UpsServer(notes, A, free_port(), held)
    watch = Watch(notes, [ups.where], config={"ExecProg": "exit"})
    watch.first_cycle(held.asked.is_set)
    for status in range(5):
        assert watch.listener.request(
            STATUS + b"EXECUTE %d" % status).endswith(b"=%d" % status)
    held.go.set()
    wait_for(watch.has(814, A))
    watch.stop()


def test_the_listener_can_be_stopped_while_servers_are_asked(notes):
    ups = UpsServer(notes, A, free_port(), silent)
    watch = Watch(notes, [ups.where])
    watch.first_cycle(lambda: ups.visits == 1)
    watch.stop()
    assert watch.listener.messages() == [
        message(756), message(829), message(830), message(757)]
    ups.server.wait_finished()
    assert noted(notes) == []


def test_the_daemon_watches_too(notes):
    ups = UpsServer(notes, A, free_port(), good, refusing)
    watch = Watch(notes, [ups.where], daemon=True)
    watch.first_cycle(watch.has(814, A))
    watch.next_cycle(watch.has(828, A))
    watch.listener.wait_message(message(794, watch.script(A)))
    watch.stop()
