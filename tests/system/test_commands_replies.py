"""Commands: what the sender is told of its script."""

import os
import signal

import pytest

import preload
from fakeclock import settle
from harness import message
from home import gate
from peers import read_to_end
from processes import children
from waiting import wait_for
from wire import EXECUTE, REPLY_HEADER, STATUS, reply_parts, reply_with


@pytest.mark.parametrize("status", [0, 1, 2, 63, 126, 127, 128, 200, 255])
def test_the_exit_status_is_replied(home, status):
    home.script("tolva_execute.sh",
                f'echo $$ $PPID > "$TOLVAHOME/pids"; exit {status}')
    listener = home.listener()
    reply = listener.request(STATUS + b"EXECUTE some words")
    path = home.path("tolva_execute.sh")
    # The shell may run the script in its own place.
    pids = home.read("pids").split()
    assert reply in [reply_with(b"EXITSTATUS=%d" % status,
                                str(path).encode(), int(pid))
                     for pid in pids]
    assert reply_parts(reply)[1] != listener.pid
    number = 793 if status else 794
    assert listener.messages()[-1] == message(number, f"{path} some words")
    listener.stop()


@pytest.mark.parametrize("kind, status", [
    ("missing", 127), ("not executable", 126), ("directory", 126)])
def test_what_the_shell_cannot_run(home, kind, status):
    if kind == "not executable":
        home.script("tolva_execute.sh", mode=0o644)
    elif kind == "directory":
        home.path("tolva_execute.sh").mkdir()
    listener = home.listener()
    reply = listener.request(STATUS + b"EXECUTE")
    path = str(home.path("tolva_execute.sh"))
    command, _, replied = reply_parts(reply)
    assert (command, replied) == (path, status)
    assert listener.messages()[-1] == message(793, path)
    listener.stop()


@pytest.mark.parametrize("number", [
    signal.SIGKILL, signal.SIGTERM, signal.SIGUSR1, signal.SIGINT],
    ids=lambda n: n.name)
def test_a_killed_shell_is_replied_with_its_raw_status(home, number):
    listener = home.listener(config={"ExecProg": f"kill -{int(number)} $$"})
    reply = listener.request(STATUS + b"EXECUTE")
    command, _, status = reply_parts(reply)
    assert (command, status) == ("kill", int(number))
    assert listener.messages()[-1] == message(793, f"kill -{int(number)} $$")
    listener.stop()


def test_the_handlers_of_the_listener_do_not_save_scripts(home):
    """The default of each signal is in force from the very start."""
    home.script("tolva_execute.sh", "exit 0")
    listener = home.listener(level=0, config={"ExecProg": "kill -TERM $$;"})
    for _ in range(20):
        assert reply_parts(listener.request(STATUS + b"EXECUTE"))[2] == 15
    assert listener.running()
    listener.stop()


# Lets a signal come when the child is just about to become the shell.
EARLY = r"""
#define _GNU_SOURCE
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

int execl(const char *path, const char *first, ...)
{
    const char *args[8] = {first};
    va_list more;
    va_start(more, first);
    for (int i = 1; i < 7 && args[i - 1]; i++) {
        args[i] = va_arg(more, const char *);
    }
    va_end(more);
    kill(getpid(), atoi(getenv("TOLVA_TEST_SIGNAL")));
    return execv(path, (char *const *)args);
}
"""


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT],
                         ids=lambda n: n.name)
def test_a_signal_that_comes_before_the_shell_is_not_swallowed(home, number):
    listener = home.listener(
        config={"ExecProg": "exit"},
        env=preload.environment(home, preload.build("early", EARLY),
                                TOLVA_TEST_SIGNAL=number.value))
    assert reply_parts(listener.request(STATUS + b"EXECUTE 0"))[2] == number
    listener.stop()


STOP = "kill -STOP $$; touch $TOLVAHOME/went.on; exit 0;"


def continue_script(home, pid):
    os.kill(pid, signal.SIGCONT)
    wait_for(lambda: home.path("went.on").exists(), what="the script goes on")


def test_a_stopped_script_counts_as_ended(home):
    listener = home.listener(config={"ExecProg": STOP})
    reply = listener.request(STATUS + b"EXECUTE")
    raw = signal.SIGSTOP << 8 | 0x7f
    command, pid, status = reply_parts(reply)
    assert (command, status) == ("kill", raw)
    assert listener.messages()[-1] == message(793, STOP)
    assert not home.path("went.on").exists()
    continue_script(home, pid)
    wait_for(lambda: not children(listener.pid),
             what="the script is collected in the end")
    settle(listener)
    listener.stop()
    assert listener.messages() == [
        message(756), message(795), message(792, STOP), message(793, STOP),
        message(757)]


def test_a_stopped_script_nobody_waits_for(home):
    listener = home.listener(config={"ExecProg": STOP})
    assert listener.request(EXECUTE + b"EXECUTE") == b""
    listener.wait_message(message(793, STOP))
    [pid] = children(listener.pid)
    continue_script(home, pid)
    wait_for(lambda: not children(listener.pid),
             what="the script is collected in the end")
    listener.stop()


def test_each_sender_gets_the_reply_of_its_own_script(home):
    home.script("tolva_execute.sh",
                f'touch "$TOLVAHOME/on.$1"; {gate("go.$1")}\nexit $1')
    listener = home.listener()
    conns = {n: listener.connect() for n in (11, 22, 33)}
    for number, conn in conns.items():
        conn.sendall(STATUS + b"EXECUTE %d" % number)
        wait_for(lambda: home.path(f"on.{number}").exists())
    for number in (22, 33, 11):
        home.write(f"go.{number}", "")
        reply = read_to_end(conns[number])
        assert reply_parts(reply)[2] == number
        conns[number].close()
    path = home.path("tolva_execute.sh")
    assert listener.messages()[-3:] == [
        message(793, f"{path} {n}") for n in (22, 33, 11)]
    listener.stop()


def test_a_reply_names_the_program_up_to_the_first_blank(home):
    name = "x" * 4100
    listener = home.listener(args=["-bs", f"exit 3;\t{name} y"])
    reply = listener.request(STATUS + b"SHUTDOWN")
    command, _, status = reply_parts(reply)
    assert (command, status) == ("exit", 3)
    listener.stop()


def test_a_reply_never_has_more_than_4096_bytes(home):
    name = "x" * 5000
    listener = home.listener(args=["-bs", name])
    reply = listener.request(STATUS + b"SHUTDOWN")
    whole = REPLY_HEADER + b" COMMAND=" + name.encode()
    assert len(reply) == 4096
    assert reply[:4095] == whole[:4095]
    listener.stop()
