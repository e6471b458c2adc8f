"""UPS servers that fail: how often, what runs, and who is dropped."""

import errno
import os
import signal

import pytest

from fakeclock import settle
from harness import message, reason
from home import gate
from namespaces import unshared
from ports import free_port
from processes import children, is_idle, sockets_of, state
from upsserver import UpsServer, good, refusing
from waiting import wait_for
from watch import A, B, Watch, noted
from wire import STATUS, reply_with

TOO_MANY = reason(errno.EMFILE)
BUDGET = 256
GATED = ('echo "$1 $$" >> "$TOLVAHOME/started"\n'
         'number=$(grep -n " $$\\$" "$TOLVAHOME/started" | cut -d: -f1)\n'
         + gate("go.$number") + "\n")


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


# --- the script -------------------------------------------------------------


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


def test_a_check_past_the_budget_counts_as_a_failure(notes):
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], limits="1024:1024",
                  config={"ListenTimeout": 0})
    conns = [watch.listener.connect() for _ in range(BUDGET - 1)]
    wait_for(lambda: len(sockets_of(watch.pid)) == BUDGET)
    watch.first_cycle(watch.has(828, A))
    watch.listener.wait_message(message(794, watch.script(A)))
    messages = watch.listener.messages()
    at = messages.index(message(828, A))
    assert messages[at - 1] == f"error: {TOO_MANY}"
    assert ups.visits == 0
    for conn in conns:
        conn.close()
    wait_for(lambda: len(sockets_of(watch.pid)) == 1)
    watch.next_cycle(watch.has(814, A))
    watch.stop()


def test_no_check_begins_while_a_client_waits_at_the_door(notes):
    """A healthy server must not count as dead because the house is full."""
    ups = UpsServer(notes, A, free_port())
    watch = Watch(notes, [ups.where], limits="1024:1024",
                  config={"ListenTimeout": 0})
    conns = [watch.listener.connect() for _ in range(BUDGET + 2)]
    wait_for(lambda: len(sockets_of(watch.pid)) == BUDGET)
    watch.clock.advance(watch.listener, 3600, lambda: True)
    assert is_idle(watch.pid, 1.5)
    assert ups.visits == 0
    assert message(828, A) not in watch.listener.messages()
    # All at once: full with nobody at the door is another matter.
    os.kill(watch.pid, signal.SIGSTOP)
    wait_for(lambda: state(watch.pid) == "T")
    for conn in conns:
        conn.close()
    os.kill(watch.pid, signal.SIGCONT)
    wait_for(watch.has(814, A))
    assert message(828, A) not in watch.listener.messages()
    watch.stop()
