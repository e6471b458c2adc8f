"""Watching UPS management servers."""

import contextlib
import errno
import os
import re
import signal

import pytest

from fakeclock import poke, settle
from harness import message
from home import gate
from namespaces import unshared
from peers import FullBacklog, read_to_end
from ports import free_port
from processes import children, sockets_of
from upsserver import LOGON, Held, UpsServer, answers, good, refusing, silent
from waiting import BOUND, wait_for
from watch import A, B, C, INTERVAL, Watch, noted
from wire import LOG_TEXT, STATUS, reply_with

HOST = "127.0.0.1"
TOO_MANY = os.strerror(errno.EMFILE)


# --- one exchange -----------------------------------------------------------


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


# --- cycles -----------------------------------------------------------------


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


# --- retries ----------------------------------------------------------------


@pytest.mark.parametrize("args, retries", [([], 0), (["-rc", "0"], 1)],
                         ids=str)
def test_without_a_limit_a_failing_server_is_watched_for_ever(notes, args,
                                                              retries):
    ups = UpsServer(notes, A, free_port(), refusing)
    watch = Watch(notes, [ups.where], args=args,
                  config={"AliveRetries": retries})
    watch.first_cycle(watch.has(828, A))
    for count in range(2, 7):
        watch.next_cycle(watch.has(828, A, count))
    wait_for(lambda: len(noted(notes)) == 6)
    watch.stop()
    assert watch.count(832, A) == 0


@pytest.mark.parametrize("retries", [1, 2, 3])
def test_a_server_is_dropped_when_its_retries_are_used_up(notes, retries):
    port = free_port()
    ups = UpsServer(notes, A, port, refusing)
    other = UpsServer(notes, B, port)
    watch = Watch(notes, [A, B], config={"AliveRetries": retries,
                                         "AlivePort": port})
    watch.first_cycle(watch.has(828, A))
    for count in range(1, retries + 1):
        assert watch.count(832, A) == 0 or count == retries
        wait_for(watch.has(814, B, count))
        watch.listener.wait_message(message(794, watch.script(A)))
        if count < retries:
            watch.next_cycle(watch.has(828, A, count + 1))
    watch.listener.wait_message(message(832, A))
    watch.next_cycle(watch.has(814, B, retries + 1))
    watch.stop()
    assert ups.visits == retries
    assert other.visits == retries + 1
    assert len(noted(notes)) == retries
    assert watch.count(832, A) == 1
    assert watch.count(832, B) == 0
    # The script has run before the server is dropped.
    messages = watch.listener.messages()
    last = len(messages) - 1 - messages[::-1].index(
        message(828, A))
    dropped = messages.index(message(832, A))
    assert last < dropped
    assert [m for m in messages[last:dropped]
            if m.startswith("[794]") and f" {A} " in m]


def test_a_success_begins_the_count_of_failures_anew(notes):
    ups = UpsServer(notes, A, free_port(), refusing, good, refusing, good,
                    refusing, refusing)
    watch = Watch(notes, [ups.where], config={"AliveRetries": 2})
    watch.first_cycle(watch.has(828, A))
    watch.next_cycle(watch.has(814, A))
    watch.next_cycle(watch.has(828, A, 2))
    watch.next_cycle(watch.has(814, A, 2))
    watch.next_cycle(watch.has(828, A, 3))
    settle(watch.listener)
    assert watch.count(832, A) == 0
    watch.next_cycle(watch.has(832, A))
    watch.stop()
    assert watch.count(828, A) == 4


def test_when_nobody_is_left_the_listener_serves_on(notes):
    watch = Watch(notes, [f"{A}:{free_port()}", f"{B}:{free_port()}"],
                  config={"AliveRetries": 1})
    watch.first_cycle(lambda: watch.count(832, A) and watch.count(832, B))
    watch.next_cycle()
    assert watch.listener.request(STATUS + b"LOG_TEXT x").endswith(b"=0")
    watch.stop()
    # There is nothing left whose end could be logged.
    assert message(830) not in watch.listener.messages()


GATED = ('echo "$1 $$" >> "$TOLVAHOME/started"\n'
         'number=$(grep -n " $$\\$" "$TOLVAHOME/started" | cut -d: -f1)\n'
         + gate("go.$number") + "\n")


def started(home):
    path = home.path("started")
    return path.read_text().splitlines() if path.exists() else []


def test_a_server_is_dropped_when_its_last_script_has_ended(home):
    home.script("tolva_notalive.sh", GATED)
    ups = UpsServer(home, A, free_port(), refusing)
    watch = Watch(home, [ups.where], config={"AliveRetries": 1})
    watch.first_cycle(watch.has(828, A))
    wait_for(lambda: len(started(home)) == 1)
    settle(watch.listener)
    assert watch.count(832, A) == 0
    home.write("go.1", "")
    watch.listener.wait_message(message(832, A))
    watch.next_cycle()
    assert ups.visits == 1
    watch.stop()


def test_a_stopped_script_counts_as_ended_and_is_collected_later(home):
    script = "kill -STOP $$; exit 3;"
    watch = Watch(home, [f"{A}:{free_port()}"], config={"AliveProg": script})
    watch.first_cycle(watch.has(828, A))
    line = f"{script} {A} {watch.clock.date} {watch.clock.time}"
    watch.listener.wait_message(message(793, line))
    [pid] = children(watch.pid)
    os.kill(pid, signal.SIGCONT)
    # Its end is told too, of a line that is no longer known.
    watch.listener.wait_message(message(793, ""))
    assert not children(watch.pid)
    watch.stop()
    assert watch.listener.messages() == [
        message(756), message(829), message(828, A), message(792, line),
        message(793, line), message(793, ""), message(830), message(757)]


def test_a_script_that_outlasts_the_interval_is_superseded(home):
    home.script("tolva_notalive.sh", GATED)
    ups = UpsServer(home, A, free_port(), refusing)
    watch = Watch(home, [ups.where], config={"AliveRetries": 2})
    watch.first_cycle(watch.has(828, A))
    first = watch.script(A)
    wait_for(lambda: len(started(home)) == 1)
    watch.next_cycle(watch.has(828, A, 2))
    second = watch.script(A)
    wait_for(lambda: len(started(home)) == 2)
    assert len(children(watch.pid)) == 2
    # The older one ends: it is collected, and nothing follows from it.
    home.write("go.1", "")
    wait_for(lambda: len(children(watch.pid)) == 1,
             what="the older script is collected")
    settle(watch.listener)
    assert watch.count(832, A) == 0
    assert message(794, first) not in watch.listener.messages()
    # The newer one ends the watch.
    home.write("go.2", "")
    watch.listener.wait_message(message(832, A))
    assert message(794, second) in watch.listener.messages()
    wait_for(lambda: not children(watch.pid))
    watch.stop()


def test_an_older_script_that_ends_after_the_newer_one(home):
    home.script("tolva_notalive.sh", GATED)
    ups = UpsServer(home, A, free_port(), refusing)
    watch = Watch(home, [ups.where], config={"AliveRetries": 2})
    watch.first_cycle(watch.has(828, A))
    wait_for(lambda: len(started(home)) == 1)
    watch.next_cycle(watch.has(828, A, 2))
    wait_for(lambda: len(started(home)) == 2)
    home.write("go.2", "")
    watch.listener.wait_message(message(832, A))
    # Its record is gone, yet it does not stay behind.
    home.write("go.1", "")
    wait_for(lambda: not children(watch.pid),
             what="the older script is collected")
    assert watch.listener.request(STATUS + b"LOG_TEXT x").endswith(b"=0")
    watch.stop()


def test_a_server_that_is_down_for_long_leaves_no_processes(home):
    home.script("tolva_notalive.sh", GATED)
    watch = Watch(home, [f"{A}:{free_port()}", f"{B}:{free_port()}"])
    watch.first_cycle(lambda: len(started(home)) == 2)
    for count in range(2, 16):
        watch.next_cycle(lambda: len(started(home)) == 2 * count)
        # All but the newest of each server end.
        for number in range(1, 2 * count - 1):
            home.write(f"go.{number}", "")
        wait_for(lambda: len(children(watch.pid)) == 2,
                 what="the older scripts are collected")
    home.write("go.29", "")
    home.write("go.30", "")
    wait_for(lambda: not children(watch.pid))
    watch.stop()


# --- a process id that comes again ------------------------------------------


class Namespace(Watch):
    """A watching listener that is process 1 of its own namespace, where the
    next process id can be chosen."""

    def __init__(self, home, servers, **options):
        prefix = unshared(
            "pf", ["/bin/sh", "-c", "echo 99 > /proc/sys/kernel/ns_last_pid"],
            "process ids cannot be chosen here")
        super().__init__(home, servers, prefix=prefix, **options)
        [self.pid] = children(self.listener.pid)
        self.outer = self.listener.pid
        self.listener.pid = self.pid

    def next_pid(self, number):
        """The next process that the listener starts has this id."""
        join = ["nsenter", "-t", str(self.pid), "-p"]
        if os.getuid() != 0:
            join += ["-U", "--preserve-credentials"]
        process = self.home.start(
            "-c", f"echo {number - 1} > /proc/sys/kernel/ns_last_pid",
            program="/bin/sh", prefix=[*join, "--"])
        result = process.wait()
        assert result.status == 0, result


def test_an_old_process_id_takes_no_other_scripts_status(home):
    port = free_port()
    UpsServer(home, A, port, refusing, good, good)
    UpsServer(home, B, port, good, refusing, good)
    watch = Namespace(home, [A, B], config={
        "AlivePort": port, "AliveProg": ":", "ExecProg": "exit"})
    pid = 4000
    watch.next_pid(pid)
    watch.first_cycle(watch.has(828, A))

    def line(host):
        return f": {host} {watch.clock.date} {watch.clock.time}"

    watch.listener.wait_message(message(794, line(A)))
    wait_for(watch.has(814, B))
    # The same id for the script of the other server ...
    watch.next_pid(pid)
    watch.next_cycle(watch.has(828, B))
    watch.listener.wait_message(message(794, line(B)))
    wait_for(watch.has(814, A))
    # ... and for the script of a client.
    watch.next_pid(pid)
    reply = watch.listener.request(STATUS + b"EXECUTE 9")
    assert reply == reply_with(b"EXITSTATUS=9", b"exit", pid)
    watch.next_pid(pid)
    reply = watch.listener.request(STATUS + b"EXECUTE 8")
    assert reply.endswith(b" PID=4000 EXITSTATUS=8")
    numbers = [m[:5] for m in watch.listener.messages() if
               m[:5] in ("[793]", "[794]")]
    assert numbers == ["[794]", "[794]", "[793]", "[793]"]
    os.kill(watch.pid, signal.SIGTERM)
    assert watch.listener.wait_end() == 0


def test_a_server_whose_script_had_anothers_id_is_dropped_in_time(home):
    port = free_port()
    UpsServer(home, A, port, refusing, good)
    UpsServer(home, B, port, good, refusing)
    watch = Namespace(home, [A, B], config={
        "AlivePort": port, "AliveProg": ":", "AliveRetries": 2})
    watch.next_pid(5000)
    watch.first_cycle(watch.has(828, A))
    wait_for(lambda: [m for m in watch.listener.messages()
                      if m.startswith("[794]")])
    wait_for(watch.has(814, B))
    for count in (1, 2):
        watch.next_pid(5000)
        watch.next_cycle(watch.has(828, B, count))
        wait_for(watch.has(814, A, count))
    watch.listener.wait_message(message(832, B))
    assert watch.count(832, A) == 0
    os.kill(watch.pid, signal.SIGTERM)
    assert watch.listener.wait_end() == 0


# --- shortage ---------------------------------------------------------------


def test_a_full_house_counts_as_a_failure(notes):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], limits="1024:1024",
                  config={"ListenTimeout": 0})
    conns = [watch.listener.connect() for _ in range(255)]
    wait_for(lambda: len(sockets_of(watch.pid)) == 256)
    watch.first_cycle(watch.has(828, A))
    watch.listener.wait_message(message(794, watch.script(A)))
    assert ups.visits == 0
    messages = watch.listener.messages()
    at = messages.index(message(828, A))
    assert messages[at - 1] == f"error: {TOO_MANY}"
    for conn in conns:
        conn.close()
    wait_for(lambda: len(sockets_of(watch.pid)) == 1)
    watch.next_cycle(watch.has(814, A))
    watch.stop()
    assert ups.visits == 1


def test_a_refused_descriptor_counts_as_a_failure(notes):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], limits="16:16",
                  config={"ListenTimeout": 0})
    conns = [watch.listener.connect() for _ in range(20)]
    watch.listener.wait_message(f"system: {TOO_MANY}")
    watch.first_cycle(watch.has(828, A))
    watch.listener.wait_message(message(794, watch.script(A)))
    messages = watch.listener.messages()
    at = messages.index(message(828, A))
    assert messages[at - 1] == f"system: {TOO_MANY}"
    assert ups.visits == 0
    for conn in conns:
        conn.close()
    wait_for(lambda: len(sockets_of(watch.pid)) == 1)
    watch.next_cycle(watch.has(814, A))
    watch.stop()


# --- descriptors that come again --------------------------------------------


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


def test_a_listener_is_no_ups_server(home, make_home):
    other = make_home()
    peer = other.listener()
    home.script("tolva_notalive.sh")
    watch = Watch(home, [peer.where])
    watch.first_cycle(watch.has(828, "127.0.0.1"))
    peer.wait_message(message(819))
    watch.stop()
    peer.stop()
