"""No signal is lost: neither the end of a script nor a request to stop."""

import contextlib
import errno
import os
import random
import signal
import socket
import threading
import time

import pytest

import preload
from fakeclock import FakeClock
from harness import message, reason
from home import gate
from peers import read_to_end
from ports import free_port
from processes import sockets_of
from waiting import BOUND, wait_for
from wire import REPLY_HEADER, STATUS

HOST = "127.0.0.1"


def in_threads(count, work):
    """Runs work(number) in so many threads; its exceptions count."""
    errors = []

    def run(number):
        try:
            work(number)
        except Exception as error:
            errors.append(error)

    threads = [threading.Thread(target=run, args=(n,)) for n in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not errors, errors


@contextlib.contextmanager
def in_background(work):
    """Calls work(go_on) in a thread while the block runs."""
    go_on = threading.Event()
    go_on.set()
    thread = threading.Thread(target=work, args=(go_on,), daemon=True)
    thread.start()
    try:
        yield
    finally:
        go_on.clear()
        thread.join(BOUND)
        assert not thread.is_alive()


# --- many of them -----------------------------------------------------------


@pytest.mark.parametrize("clients, commands", [(1, 1000), (5, 300)])
def test_every_command_gets_its_reply(home, clients, commands):
    # A time-out must not come to the rescue of a lost signal.
    listener = home.listener(config={
        "ExecProg": "exit", "ListenTimeout": 0, "LogfileSize": 16})

    def work(number):
        for i in range(commands):
            status = (number * commands + i) % 256
            reply = listener.request(STATUS + b"EXECUTE %d" % status)
            assert reply.startswith(
                REPLY_HEADER + b" COMMAND=exit PID="), reply
            assert reply.endswith(b" EXITSTATUS=%d" % status), reply

    in_threads(clients, work)
    wait_for(lambda: len(sockets_of(listener.pid)) == 1)
    listener.stop()


def test_many_scripts_that_end_together(home):
    home.script("tolva_execute.sh",
                f"{gate()}\nexit $1")
    listener = home.listener(config={"ListenTimeout": 0})
    conns = [listener.connect() for _ in range(40)]
    for number, conn in enumerate(conns):
        conn.sendall(STATUS + b"EXECUTE %d" % number)
    wait_for(lambda: len([m for m in listener.messages()
                          if m.startswith("[792]")]) == len(conns))
    home.write("go", "")
    for number, conn in enumerate(conns):
        assert read_to_end(conn).endswith(
            b" EXITSTATUS=%d" % number)
        conn.close()
    listener.stop()


def datagram_flood(listener):
    """Keeps the UDP socket readable in every pass."""
    def flood(go_on):
        with socket.socket(type=socket.SOCK_DGRAM) as udp:
            udp.bind((HOST, 0))
            while go_on.is_set():
                # The listener is slower than this: its queue stays full.
                for _ in range(50):
                    with contextlib.suppress(OSError):
                        udp.sendto(b"x", (HOST, listener.port))
                time.sleep(0.0001)
    return flood


def test_scripts_end_while_a_descriptor_is_ready_all_the_time(home):
    listener = home.listener(config={
        "AllowedAddresses": HOST, "ExecProg": "exit", "LogfileSize": 16})
    with in_background(datagram_flood(listener)):
        wait_for(lambda: message(819) in listener.messages())
        for status in range(1, 41):
            reply = listener.request(STATUS + b"EXECUTE %d" % status)
            assert reply.endswith(b" EXITSTATUS=%d" % status), reply
    listener.stop()


@pytest.mark.parametrize("number", [
    signal.SIGTERM, signal.SIGQUIT, signal.SIGINT], ids=lambda n: n.name)
def test_a_stop_signal_while_a_descriptor_is_ready_all_the_time(
        home, number):
    listener = home.listener(config={"AllowedAddresses": HOST,
                                     "LogfileSize": 16})
    with in_background(datagram_flood(listener)):
        wait_for(lambda: message(819) in listener.messages())
        os.kill(listener.pid, number)
        assert listener.wait_end() == 0


def test_a_stop_signal_at_any_moment(make_home):
    """While clients come and scripts end, and at rest."""
    for attempt in range(30):
        home = make_home()
        listener = home.listener(config={"ExecProg": "exit",
                                         "ListenTimeout": 0})

        def work(go_on):
            while go_on.is_set():
                with contextlib.suppress(OSError):
                    listener.request(STATUS + b"EXECUTE 1")

        with contextlib.ExitStack() as stack:
            if attempt % 3:
                stack.enter_context(in_background(work))
            time.sleep(random.uniform(0, 0.02))
            os.kill(listener.pid, signal.SIGTERM)
            assert listener.wait_end() == 0
        assert listener.messages()[-1] == message(757)


def test_signals_are_seen_that_the_starter_blocks(home):
    old = signal.pthread_sigmask(signal.SIG_BLOCK, {
        signal.SIGCHLD, signal.SIGTERM})
    try:
        listener = home.listener(config={"ExecProg": "exit",
                                         "ListenTimeout": 0})
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, old)
    assert listener.request(STATUS + b"EXECUTE 7").endswith(b" EXITSTATUS=7")
    listener.stop()


# --- at the last moment -----------------------------------------------------

# Lets a signal come right before a wait, when nothing else is looked at any
# more: the number is read from a file, which is removed. For SIGCHLD it is
# the end of a child that is waited for; a number below 0 is an error that
# the wait fails with.
LAST_MOMENT = r"""
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static int take_number(void)
{
    char path[4096];
    int number = 0;
    snprintf(path, sizeof path, "%s/signal", getenv("TOLVAHOME"));
    FILE *in = fopen(path, "r");
    if (in) {
        if (fscanf(in, "%d", &number) != 1) {
            number = 0;
        }
        fclose(in);
        unlink(path);
    }
    return number;
}

int pselect(int count, fd_set *restrict readable, fd_set *restrict writable,
            fd_set *restrict special, const struct timespec *restrict limit,
            const sigset_t *restrict mask)
{
    struct timespec left;
    struct {
        const sigset_t *mask;
        size_t size;
    } signals = {mask, 8};
    int number = take_number();
    if (number < 0) {
        errno = -number;
        return -1;
    }
    if (number == SIGCHLD) {
        siginfo_t info;
        waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
    } else if (number != 0) {
        kill(getpid(), number);
    }
    if (limit) {
        left = *limit;
    }
    return (int)syscall(SYS_pselect6, count, readable, writable, special,
                        limit ? &left : NULL, &signals);
}
"""


def listener_at_the_last_moment(home):
    # Nothing but the signal ends a wait.
    return home.listener(
        config={"ExecProg": "exit", "ListenTimeout": 0},
        env=preload.environment(
            home, preload.build("last_moment", LAST_MOMENT)))


def at_the_next_wait(home, number):
    home.write("new", f"{number}")
    home.path("new").rename(home.path("signal"))


@pytest.mark.parametrize("number", [
    signal.SIGTERM, signal.SIGQUIT, signal.SIGINT], ids=lambda n: n.name)
def test_a_stop_signal_right_before_the_wait(home, number):
    listener = listener_at_the_last_moment(home)
    at_the_next_wait(home, number.value)
    with listener.connect():  # nothing more comes after the next wait
        assert listener.wait_end() == 0


def test_a_script_that_ends_right_before_the_wait(home):
    listener = listener_at_the_last_moment(home)
    with listener.connect() as conn:
        # The next wait is for the request, the one after it for its script.
        listener.request(STATUS + b"LOG_TEXT")
        at_the_next_wait(home, signal.SIGCHLD.value)
        conn.sendall(STATUS + b"EXECUTE 7")
        assert read_to_end(conn).endswith(b" EXITSTATUS=7")
    listener.stop()


def test_a_wait_that_fails_ends_the_listener_and_is_told(home):
    listener = listener_at_the_last_moment(home)
    at_the_next_wait(home, -errno.ENOMEM)
    with listener.connect():
        assert listener.wait_end() == 1
    assert listener.messages() == [
        message(756), "system: " + reason(errno.ENOMEM), message(757)]


# Where a file says so, the last look for children of nobody comes when one
# has ended that was still running when those of somebody were looked at.
LATE_LOOK = r"""
#define _GNU_SOURCE
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t waitpid(pid_t pid, int *status, int options)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/late", getenv("TOLVAHOME"));
    if (pid == -1 && unlink(path) == 0) {
        siginfo_t info;
        waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
    }
    return (pid_t)syscall(SYS_wait4, pid, status, options, NULL);
}
"""

UNTIL_TOLD = f'touch "$TOLVAHOME/started"\n{gate()}\nexit 7'


def end_during_the_last_look(home, listener):
    wait_for(lambda: home.path("started").exists())
    home.write("late", "")
    os.kill(listener.pid, signal.SIGCHLD)
    wait_for(lambda: not home.path("late").exists())
    home.write("go", "")


def test_the_script_of_a_client_that_ends_during_the_last_look(home):
    home.script("tolva_execute.sh", UNTIL_TOLD)
    listener = home.listener(
        config={"ListenTimeout": 0},
        env=preload.environment(
            home, preload.build("late_look", LATE_LOOK)))
    with listener.connect() as conn:
        conn.sendall(STATUS + b"EXECUTE")
        end_during_the_last_look(home, listener)
        assert read_to_end(conn).endswith(b" EXITSTATUS=7")
    listener.stop()


def test_the_script_of_a_server_that_ends_during_the_last_look(home):
    home.script("tolva_notalive.sh", UNTIL_TOLD)
    clock = FakeClock(home)
    libraries = f"{clock.env['LD_PRELOAD']}:" + str(
        preload.build("late_look", LATE_LOOK))
    listener = home.listener(
        config={"AliveEnabled": "true",
                "AliveAddresses": f"{HOST}:{free_port()}",
                "AliveRetries": 1},
        env={**clock.env, "LD_PRELOAD": libraries})
    clock.advance(listener, 5, home.path("started").exists)
    end_during_the_last_look(home, listener)
    listener.wait_message(message(832, HOST))
    listener.stop()
