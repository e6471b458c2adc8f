"""Send mode: its time limit, and signals."""

import errno
import os
import signal
import time

import pytest

import preload
from fakeclock import FakeClock
from harness import message, reason
from peers import FullBacklog, HeldAnswer, reader, replier
from processes import children
from waiting import BOUND, wait_for
from wire import STATUS, reply_with

HOST = "127.0.0.1"
TIMED_OUT = "error: " + reason(errno.ETIMEDOUT)


# --- time -------------------------------------------------------------------


def test_time_runs_out_while_connecting(home):
    with FullBacklog() as full:
        start = time.monotonic()
        result = home.run("-s", "X", "-a", full.where, "-t", "2")
        assert time.monotonic() - start >= 2
    assert result.messages == [message(758), message(785, HOST),
                               TIMED_OUT, message(759)]
    assert result.status == 1


@pytest.mark.parametrize("option", ["-t", "-tr", "-T"])
def test_time_runs_out_while_waiting_for_the_reply(home, option):
    server = home.server(reader)
    start = time.monotonic()
    result = home.run("-sr", "X", "-a", server.where, option, "2")
    assert time.monotonic() - start >= 2
    assert result.messages == [message(758), message(785, HOST),
                               TIMED_OUT, message(759)]
    assert result.status == 1
    assert server.only() == STATUS + b"X"


def test_time_running_out_overrides_a_good_reply(home):
    good = home.server(replier(reply_with(b"EXITSTATUS=0")))
    silent = home.server(reader)
    result = home.run("-sr", "X", "-a", good.where, "-a", silent.where,
                      "-t", "3")
    assert f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=0" in \
        result.messages
    assert result.messages[-2:] == [TIMED_OUT,
                                    message(759)]
    assert result.status == 1


def test_time_limit_is_for_the_whole_run(home):
    # An answer every half second: a limit per step would let all through.
    def answer_after(seconds):
        def play(talk):
            talk.read_some()
            talk.pause(seconds)
            talk.send(reply_with(b"EXITSTATUS=0"))
            talk.read_to_end()
        return play

    servers = [home.server(answer_after(n * 0.5)) for n in range(1, 11)]
    result = home.run("-sr", "X", "-t", "2",
                      *(arg for s in servers for arg in ("-a", s.where)))
    answers = [m for m in result.messages if m.startswith("server[")]
    assert len(answers) < 10
    assert TIMED_OUT in result.messages
    assert result.status == 1


def test_default_time_limit_and_no_limit(home):
    held = HeldAnswer(reply_with(b"EXITSTATUS=0"))
    silent = home.server(reader)
    late = home.server(held)
    start = time.monotonic()
    limited = home.start("-sr", "X", "-a", silent.where)
    unlimited = [home.start("-sr", "X", "-a", late.where, "-t", value)
                 for value in ("0", "abc")]
    result = limited.wait()
    assert time.monotonic() - start >= 9.9
    assert result.messages[-2] == TIMED_OUT
    assert result.status == 1
    # The others began a moment later; they must outlast that moment.
    time.sleep(1.5)
    assert all(run.running() for run in unlimited)
    held.go.set()
    assert [run.wait().status for run in unlimited] == [0, 0]


# Makes it much later as soon as a file says so.
LATER = r"""
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

int clock_gettime(clockid_t id, struct timespec *now)
{
    char path[4096];
#ifdef SYS_clock_gettime64
    int result = (int)syscall(SYS_clock_gettime64, id, now);
#else
    int result = (int)syscall(SYS_clock_gettime, id, now);
#endif
    snprintf(path, sizeof path, "%s/later", getenv("TOLVAHOME"));
    if (access(path, F_OK) == 0) {
        now->tv_sec += 1000;
    }
    return result;
}
"""


def test_an_event_after_the_time_limit_is_the_last(home):
    def play(talk):
        talk.read_some()
        asked.append(True)
        wait_for(home.path("later").exists)
        talk.send(reply_with(b"EXITSTATUS=0"))
        talk.read_to_end()

    asked = []
    late, silent = home.server(play), home.server(reader)
    run = home.start("-sr", "X", "-a", late.where, "-a", silent.where,
                     "-t", "60", env=preload.environment(
                         home, preload.build("later", LATER)))
    wait_for(lambda: asked and silent.conversations and
             silent.conversations[0].received)
    home.write("later", "")
    result = run.wait()
    assert result.messages[-3:] == [
        f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=0",
        TIMED_OUT, message(759)]
    assert result.status == 1


def test_setting_the_clock_does_not_shorten_the_time(home):
    def play(talk):
        talk.read_some()
        asked.append(talk)
        wait_for(lambda: len(asked) > 2)
        if talk is asked[1]:
            wait_for(lambda: answered)
        talk.send(reply_with(b"EXITSTATUS=0"))
        talk.read_to_end()
        answered.append(True)

    asked, answered = [], []
    clock = FakeClock(home)
    servers = [home.server(play), home.server(play)]
    run = home.start("-sr", "X", "-t", "60",
                     *(arg for s in servers for arg in ("-a", s.where)),
                     env=clock.env)
    wait_for(lambda: len(asked) == 2)
    clock.set(1000)
    asked.append(None)
    assert run.wait().status == 0


# --- signals ----------------------------------------------------------------


@pytest.mark.parametrize("number", [
    signal.SIGHUP, signal.SIGPIPE, signal.SIGCHLD, signal.SIGWINCH])
def test_signals_that_do_not_disturb(home, number):
    held = HeldAnswer(reply_with(b"EXITSTATUS=0"))
    server = home.server(held)
    run = home.start("-sr", "X", "-a", server.where)
    wait_for(held.asked.is_set)
    for _ in range(5):
        os.kill(run.pid, number)
    os.kill(run.pid, signal.SIGSTOP)
    os.kill(run.pid, signal.SIGCONT)
    held.go.set()
    assert run.wait().status == 0


# Nothing is handled in send mode, so this is put under it.
HANDLER = r"""
#include <signal.h>
#include <string.h>

static void take(int number)
{
    (void)number;
}

__attribute__((constructor)) static void handle(void)
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = take;
    sigaction(SIGUSR1, &action, NULL);
}
"""


def test_a_wait_that_a_signal_interrupts_goes_on(home):
    held = HeldAnswer(reply_with(b"EXITSTATUS=0"))
    server = home.server(held)
    handler = preload.build("handler", HANDLER)
    run = home.start("-sr", "X", "-a", server.where, "-t", "0",
                     env=preload.environment(home, handler))
    wait_for(held.asked.is_set)
    for _ in range(5):
        wait_for(lambda: run.pid in children(os.getpid(), "S"))
        os.kill(run.pid, signal.SIGUSR1)
    held.go.set()
    result = run.wait()
    assert result.status == 0
    assert not [m for m in result.messages if m.startswith("system: ")]


def test_interrupted_waits_do_not_put_the_time_limit_off(home):
    server = home.server(reader)
    handler = preload.build("handler", HANDLER)
    run = home.start("-sr", "X", "-a", server.where, "-t", "2",
                     env=preload.environment(home, handler))
    wait_for(lambda: server.conversations)
    end = time.monotonic() + BOUND
    while run.running() and time.monotonic() < end:
        os.kill(run.pid, signal.SIGUSR1)
        time.sleep(0.1)
    result = run.wait()
    assert result.messages[-2] == TIMED_OUT
    assert result.status == 1
