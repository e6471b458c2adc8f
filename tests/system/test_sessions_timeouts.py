"""Sessions: when their time is up."""

import errno
import os
import signal

import pytest

from fakeclock import FakeClock, settle
from harness import message, reason
from home import gate
from peers import read_to_end
from processes import sockets_of
from waiting import wait_for
from wire import LOG_TEXT, STATUS

TIMED_OUT = "error: " + reason(errno.ETIMEDOUT)


def test_a_silent_client_is_closed_when_its_time_is_up(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, config={"ListenTimeout": 7})
    with listener.connect() as conn:
        listener.wait_sessions(1)
        clock.advance(listener, 6)
        assert len(sockets_of(listener.pid)) == 2
        clock.advance(listener, 1)
        assert read_to_end(conn) == b""
    listener.wait_sessions(0)
    listener.stop()
    assert listener.messages() == [message(756), TIMED_OUT, message(757)]


def test_the_time_out_is_ten_seconds_by_default(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env)
    with listener.connect() as conn:
        listener.wait_sessions(1)
        clock.advance(listener, 9)
        assert len(sockets_of(listener.pid)) == 2
        clock.advance(listener, 1)
        assert read_to_end(conn) == b""
    listener.stop()


def test_the_time_out_comes_by_itself(home):
    listener = home.listener(config={"ListenTimeout": 1})
    with listener.connect() as conn:
        assert read_to_end(conn) == b""
    listener.wait_message(TIMED_OUT)
    listener.stop()


@pytest.mark.parametrize("count", [2, 3, 20])
def test_clients_that_time_out_together_do_not_end_the_listener(home, count):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env)
    conns = [listener.connect() for _ in range(count)]
    listener.wait_sessions(count)
    clock.advance(listener, 10)
    for conn in conns:
        assert read_to_end(conn) == b""
        conn.close()
    listener.request(LOG_TEXT + b"still here")
    listener.wait_message("still here")
    listener.wait_sessions(0)
    listener.stop()
    assert listener.messages().count(TIMED_OUT) == count
    assert not [m for m in listener.messages() if m.startswith("system:")]


def test_each_client_has_its_own_time(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, level=1)

    def last_timeout():
        lines = [line for line in listener.out.splitlines()
                 if line.startswith("DEBUG: timeout 1 = ")]
        return int(lines[-1].split()[-1])

    with listener.connect() as first:
        listener.wait_sessions(1)
        wait_for(lambda: last_timeout() == 10)
        clock.advance(listener, 4, lambda: last_timeout() == 6)
        with listener.connect() as second:
            listener.wait_sessions(2)
            settle(listener)
            # The first one decides.
            assert last_timeout() == 6
            clock.advance(listener, 6, lambda: last_timeout() == 4)
            assert read_to_end(first) == b""
            assert len(sockets_of(listener.pid)) == 2
            clock.advance(listener, 4, lambda: last_timeout() == -1)
            assert read_to_end(second) == b""
    listener.stop()
    assert listener.messages().count(TIMED_OUT) == 2


def test_nobody_waits_longer_because_the_clock_was_set_back(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env)
    with listener.connect() as conn:
        listener.wait_sessions(1)
        clock.advance(listener, -3600)
        clock.advance(listener, 9)
        assert len(sockets_of(listener.pid)) == 2
        clock.advance(listener, 1)
        assert read_to_end(conn) == b""
    listener.stop()
    assert listener.messages().count(TIMED_OUT) == 1


def test_time_out_zero_is_none(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, level=1,
                             config={"ListenTimeout": 0})
    with listener.connect() as conn:
        listener.wait_sessions(1)
        clock.advance(listener, 1000000)
        assert len(sockets_of(listener.pid)) == 2
        conn.sendall(LOG_TEXT + b"at last")
        assert read_to_end(conn) == b""
    listener.wait_message("at last")
    listener.stop()
    timeouts = {line for line in listener.out.splitlines()
                if line.startswith("DEBUG: timeout 1")}
    assert timeouts == {"DEBUG: timeout 1 = -1"}
    assert TIMED_OUT not in listener.messages()


def test_a_client_whose_script_runs_never_times_out(home):
    home.script("tolva_execute.sh",
                f'touch "$TOLVAHOME/started"\n{gate()}; exit 5')
    clock = FakeClock(home)
    listener = home.listener(env=clock.env)
    with listener.connect() as conn:
        conn.sendall(STATUS + b"EXECUTE")
        wait_for(lambda: home.path("started").exists())
        clock.advance(listener, 100000)
        home.write("go", "")
        assert read_to_end(conn).endswith(b" EXITSTATUS=5")
    listener.stop()
    assert TIMED_OUT not in listener.messages()


def test_a_time_out_next_to_work_that_is_ready(home):
    """A descriptor closed by its time-out and one that is ready, at once."""
    clock = FakeClock(home)
    listener = home.listener(env=clock.env)
    with listener.connect() as silent:
        listener.wait_sessions(1)
        os.kill(listener.pid, signal.SIGSTOP)
        clock.set(10)
        with listener.connect() as second:
            second.sendall(LOG_TEXT + b"served")
            os.kill(listener.pid, signal.SIGCONT)
            listener.wait_message("served")
            assert read_to_end(second) == b""
        assert read_to_end(silent) == b""
    listener.wait_sessions(0)
    listener.stop()
    assert listener.messages().count(TIMED_OUT) == 1
