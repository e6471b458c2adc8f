"""Listen mode as a process: its signals, its output, and the daemon."""

import contextlib
import errno
import os
import signal
import socket
import subprocess
import time

import pytest

from harness import message, reason
from peers import read_to_end
from ports import free_port, tcp_listens
from processes import alive, signal_sets, state
from waiting import BOUND, wait_for
from wire import LOG_TEXT, STATUS

HOST = "127.0.0.1"


# --- signals ----------------------------------------------------------------


@pytest.mark.parametrize("number", [
    signal.SIGTERM, signal.SIGQUIT, signal.SIGINT], ids=lambda n: n.name)
@pytest.mark.parametrize("level", [0, 1, 10])
def test_stop_signals_end_the_foreground_listener(home, number, level):
    listener = home.listener(level=level)
    listener.stop(number)
    assert listener.messages() == [message(756), message(757)]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGQUIT],
                         ids=lambda n: n.name)
def test_stop_signals_end_the_daemon(home, number):
    listener = home.listener(daemon=True)
    listener.stop(number)
    assert listener.messages() == [message(756), message(757)]


def test_the_daemon_ignores_an_interrupt(home):
    listener = home.listener(daemon=True)
    assert signal.SIGINT in signal_sets(listener.pid)["SigIgn"]
    os.kill(listener.pid, signal.SIGINT)
    listener.serves("still here")
    listener.stop()


@pytest.mark.parametrize("daemon", [False, True],
                         ids=["foreground", "daemon"])
def test_hangup_and_broken_pipe_are_ignored(home, daemon):
    listener = home.listener(daemon=daemon)
    assert {signal.SIGHUP, signal.SIGPIPE} <= \
        signal_sets(listener.pid)["SigIgn"]
    os.kill(listener.pid, signal.SIGHUP)
    os.kill(listener.pid, signal.SIGPIPE)
    listener.serves("still here")
    listener.stop()


def test_handled_signals_have_a_handler(home):
    listener = home.listener(level=0)
    assert {signal.SIGINT, signal.SIGQUIT, signal.SIGTERM,
            signal.SIGCHLD} <= signal_sets(listener.pid)["SigCgt"]
    listener.stop()


def test_signals_are_let_in_while_the_listener_waits(home):
    listener = home.listener()
    handled = {signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGCHLD}

    def waits():
        asleep = state(listener.pid) == "S"
        return asleep and not handled & signal_sets(listener.pid)["SigBlk"]

    # Inside the wait its own mask is in force, and it lets all of them in.
    wait_for(waits, what="an open mask while waiting")
    listener.stop()


def test_a_child_signal_out_of_nowhere_changes_nothing(home):
    listener = home.listener(level=0)
    for _ in range(20):
        os.kill(listener.pid, signal.SIGCHLD)
    listener.serves("still here")
    listener.stop()
    assert listener.messages() == [message(756), message(795), "still here",
                                   message(757)]


def test_a_stop_signal_with_clients_and_scripts_under_way(home):
    home.script("tolva_execute.sh",
                'echo $$ > "$TOLVAHOME/pid"; exec sleep 600')
    listener = home.listener(config={"AllowedAddresses": HOST})
    with listener.connect() as silent, listener.connect() as asking:
        asking.sendall(STATUS + b"EXECUTE")
        pid = int(wait_for(
            lambda: home.path("pid").exists() and home.read("pid")))
        os.kill(listener.pid, signal.SIGTERM)
        assert listener.wait_end() == 0
        # Neither client is answered, and the script is left alone.
        assert read_to_end(silent) == b""
        assert read_to_end(asking) == b""
        assert alive(pid)
    assert listener.messages()[-2:] == [message(822), message(757)]


def test_a_stop_signal_ends_a_wait_that_has_no_limit(home):
    listener = home.listener(config={"ListenTimeout": 0})
    with listener.connect():
        listener.wait_sessions(1)
        listener.stop()


# --- standard output --------------------------------------------------------


@contextlib.contextmanager
def piped_listener(home, *args):
    """A foreground listener whose standard output is a pipe."""
    port = free_port()
    home.configure({"ListenAddress": HOST, "ListenPort": port,
                    "LogfileEnabled": "false"})
    argv = home.command(["-l", *args])
    process = subprocess.Popen(argv, env=home.environment(), cwd=home.home,
                               stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE)
    try:
        yield process, port
    finally:
        process.kill()
        process.wait()
        process.stdout.close()


def read_line(process):
    """The next line of the pipe as soon as it is there."""
    os.set_blocking(process.stdout.fileno(), False)
    line = b""

    def complete():
        nonlocal line
        while not line.endswith(b"\n"):
            with contextlib.suppress(BlockingIOError):
                piece = os.read(process.stdout.fileno(), 1)
                if piece:
                    line += piece
                    continue
            return False
        return True

    wait_for(complete, what="a line through the pipe")
    return line.decode()


def test_log_lines_come_through_a_pipe_at_once(home):
    with piped_listener(home, "-d", "0") as (process, port):
        assert read_line(process).endswith(f"tolva[00000]: {message(756)}\n")
        with socket.create_connection((HOST, port)) as conn:
            conn.sendall(LOG_TEXT + b"now")
        assert read_line(process).endswith(f": {message(795)}\n")
        assert read_line(process).endswith(": now\n")
        process.send_signal(signal.SIGTERM)
        assert read_line(process).endswith(f": {message(757)}\n")
        assert process.wait(BOUND) == 0


def test_a_reader_of_the_output_that_goes_away_ends_nothing(home):
    with piped_listener(home, "-d", "1") as (process, port):
        wait_for(lambda: tcp_listens(port))
        process.stdout.close()
        home.script("tolva_execute.sh", "exit 3")
        for _ in range(5):
            with socket.create_connection((HOST, port)) as conn:
                conn.settimeout(BOUND)
                conn.sendall(STATUS + b"EXECUTE")
                assert read_to_end(conn).endswith(b"EXITSTATUS=3")
        process.send_signal(signal.SIGTERM)
        assert process.wait(BOUND) == 0


# --- the daemon -------------------------------------------------------------


def test_the_daemon_writes_nothing_to_standard_output(home):
    listener = home.listener(daemon=True,
                             config={"LogfileEnabled": "false"})
    assert listener.request(LOG_TEXT + b"lost") == b""
    listener.stop()
    assert listener.out == ""
    assert listener.err == ""
    assert not home.path("tolva.log").exists()


@pytest.mark.parametrize("config, error", [
    ({"RedundancyEnabled": "true"},
     "tolva: invalid redundancy configuration (-? for help).\n"),
    ({"LogfileName": "  ", "MsgDatName": "/nonexistent/m.dat"},
     "tolva: error initializing messages database [/nonexistent/m.dat]\n"),
], ids=["fatal", "not fatal"])
def test_errors_of_the_daemon_are_seen_on_the_terminal(home, config, error):
    fatal = "RedundancyEnabled" in config
    listener = home.listener(daemon=True, config=config, wait=not fatal)
    result = listener.run.wait()
    assert result.err == error
    assert result.status == (1 if fatal else 0)
    if not fatal:
        listener.stop()


def test_the_time_out_of_clients_goes_on_in_the_daemon(home):
    listener = home.listener(daemon=True, config={"ListenTimeout": 1})
    started = time.monotonic()
    with listener.connect() as conn:
        assert read_to_end(conn) == b""
    assert time.monotonic() - started < 10
    listener.wait_message("error: " + reason(errno.ETIMEDOUT))
    listener.stop()
