"""What must hold under load, shortage and bad luck."""

import contextlib
import errno
import os
import random
import resource
import signal
import socket
import threading
import time

import pytest

import preload
from fakeclock import FakeClock, settle
from harness import message, skip_when_wrapped
from home import gate
from namespaces import unshared
from peers import read_to_end, reset
from ports import free_port
from processes import children, is_idle, open_fds, sockets_of
from waiting import BOUND, wait_for
from wire import (
    EXECUTE, HEADER, LOGGED, LOG_TEXT, NOT_LOGGED, REPLY_HEADER, STATUS)

HOST = "127.0.0.1"
TIMED_OUT = "error: " + os.strerror(errno.ETIMEDOUT)
TOO_MANY = "system: " + os.strerror(errno.EMFILE)
BUDGET = 256


def all_served(conns):
    for conn in conns:
        conn.sendall(STATUS + b"LOG_TEXT x")
        assert read_to_end(conn) == LOGGED
        conn.close()


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


def all_closed(conns):
    for conn in conns:
        conn.close()


# --- no signal is lost ------------------------------------------------------


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


def test_a_wait_that_fails_ends_the_listener_and_is_told(home):
    listener = listener_at_the_last_moment(home)
    at_the_next_wait(home, -errno.ENOMEM)
    with listener.connect():
        assert listener.wait_end() == 1
    assert listener.messages() == [
        message(756), "system: " + os.strerror(errno.ENOMEM), message(757)]


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


# --- nothing is left behind -------------------------------------------------


def test_hundreds_of_sessions_leave_nothing_behind(home):
    home.script("tolva_shutdown.sh")
    home.script("tolva_execute.sh", "exit 3")
    listener = home.listener(config={"AllowedAddresses": HOST,
                                     "LogfileSize": 16})
    before = open_fds(listener.pid)
    for number in range(60):
        listener.request(HEADER)
        listener.request(b"garbage")
        listener.request(STATUS + b"LOG_TEXT %d" % number)
        listener.request(EXECUTE + b"EXECUTE")
        assert listener.request(STATUS + b"EXECUTE").endswith(b"=3")
        listener.connect().close()
        listener.connect("127.0.0.2").close()
        conn = listener.connect()
        conn.sendall(STATUS + b"EXECUTE")
        reset(conn)
        listener.datagram(EXECUTE + b"EXECUTE")
        listener.datagram(b"")
    wait_for(lambda: not children(listener.pid))
    wait_for(lambda: open_fds(listener.pid) == before)
    assert listener.request(STATUS + b"LOG_TEXT x") == LOGGED
    listener.stop()


GATED = f'touch "$TOLVAHOME/on"\n{gate()}; exit 5'


@pytest.mark.parametrize("ending", ["close", "reset"])
def test_a_sender_that_does_not_wait_for_its_reply(home, ending):
    home.script("tolva_execute.sh", GATED)
    listener = home.listener()
    conn = listener.connect()
    conn.sendall(STATUS + b"EXECUTE")
    wait_for(lambda: home.path("on").exists())
    if ending == "reset":
        reset(conn)
    else:
        conn.close()
    # The end of the connection is of no interest while the script runs.
    settle(listener)
    assert is_idle(listener.pid, 0.3)
    home.write("go", "")
    listener.wait_message(message(793, home.path("tolva_execute.sh")))
    wait_for(lambda: len(sockets_of(listener.pid)) == 1)
    assert listener.request(STATUS + b"LOG_TEXT x") == LOGGED
    listener.stop()
    assert not [m for m in listener.messages() if m.startswith("system:")]


def test_a_sender_that_has_finished_sending_gets_its_reply(home):
    home.script("tolva_execute.sh", GATED)
    listener = home.listener()
    with listener.connect() as conn:
        conn.sendall(STATUS + b"EXECUTE")
        conn.shutdown(socket.SHUT_WR)
        wait_for(lambda: home.path("on").exists())
        home.write("go", "")
        assert read_to_end(conn).endswith(b" EXITSTATUS=5")
    listener.stop()


# --- a full house -----------------------------------------------------------


def test_with_the_budget_used_up_others_wait_and_nothing_spins(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, limits="1024:1024",
                             config={"ExecProg": "exit"})
    inside = [listener.connect() for _ in range(BUDGET - 1)]
    wait_for(lambda: len(sockets_of(listener.pid)) == BUDGET,
             what="the house is full")
    waiting = [listener.connect() for _ in range(8)]
    waiting[0].sendall(STATUS + b"LOG_TEXT waited")
    settle(listener)
    assert is_idle(listener.pid)
    assert len(sockets_of(listener.pid)) == BUDGET
    # Those inside are served, and one that leaves makes room for one.
    inside[0].sendall(STATUS + b"EXECUTE 7")
    assert read_to_end(inside[0]).endswith(b" EXITSTATUS=7")
    assert read_to_end(waiting[0]) == LOGGED
    # Its descriptor is free again, too, and again one comes in.
    wait_for(lambda: len(sockets_of(listener.pid)) == BUDGET)
    settle(listener)
    assert is_idle(listener.pid, 0.5)
    clock.advance(listener, 10)
    for conn in inside[1:] + waiting[1:2]:
        assert read_to_end(conn) == b""
    for conn in waiting[2:]:
        conn.sendall(STATUS + b"LOG_TEXT now")
        assert read_to_end(conn) == LOGGED
    all_closed(inside + waiting)
    wait_for(lambda: len(sockets_of(listener.pid)) == 1)
    listener.stop()
    assert listener.messages().count("waited") == 1
    assert listener.messages().count("now") == 6
    assert listener.messages().count(TIMED_OUT) == BUDGET - 1
    assert not [m for m in listener.messages() if m.startswith("system:")]


def test_a_full_house_is_left_on_a_stop_signal(home):
    listener = home.listener(limits="1024:1024", config={"ListenTimeout": 0})
    conns = [listener.connect() for _ in range(BUDGET + 4)]
    wait_for(lambda: len(sockets_of(listener.pid)) == BUDGET)
    listener.stop()
    all_closed(conns)


def test_a_refused_descriptor_is_logged_once_and_service_goes_on(home):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, limits="16:16",
                             config={"ExecProg": "exit"})
    conns = [listener.connect() for _ in range(24)]
    listener.wait_message(TOO_MANY)
    served = len(sockets_of(listener.pid)) - 1
    assert 4 <= served <= 12
    assert is_idle(listener.pid)
    for _ in range(5):
        settle(listener)
    assert listener.messages().count(TOO_MANY) == 1
    # Those inside are served, and those waiting follow one by one.
    for number, conn in enumerate(conns):
        conn.sendall(STATUS + b"EXECUTE %d" % number)
        assert read_to_end(conn).endswith(
            b" EXITSTATUS=%d" % number)
        conn.close()
    wait_for(lambda: len(sockets_of(listener.pid)) == 1)
    assert listener.messages().count(TOO_MANY) == 1
    # The next shortage is another one.
    conns = [listener.connect() for _ in range(24)]
    listener.wait_message(TOO_MANY, 2)
    clock.advance(listener, 10)
    for conn in conns[:served]:
        assert read_to_end(conn) == b""
    clock.advance(listener, 10, lambda: len(
        [m for m in listener.messages() if m == TIMED_OUT]) >= served + 1)
    all_closed(conns)
    listener.stop()
    assert listener.messages().count(TOO_MANY) == 2


@pytest.mark.parametrize("timeout", [0, 3600])
def test_service_goes_on_when_the_system_has_descriptors_again(home,
                                                               timeout):
    """Nothing of our own ends, so nothing but trying again can tell."""
    listener = home.listener(config={"ListenTimeout": timeout})
    limits = resource.prlimit(listener.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(listener.pid, resource.RLIMIT_NOFILE, (10, limits[1]))
    conns = [listener.connect() for _ in range(12)]
    listener.wait_message(TOO_MANY)
    # It goes on trying, and does not say so again.
    assert is_idle(listener.pid, 2.5)
    assert listener.messages().count(TOO_MANY) == 1
    resource.prlimit(listener.pid, resource.RLIMIT_NOFILE, limits)
    wait_for(lambda: len(sockets_of(listener.pid)) == len(conns) + 1,
             what="everybody has come in")
    all_served(conns)
    listener.stop()
    assert listener.messages().count(TOO_MANY) == 1


# Refuses new clients with the error whose number a file has.
REFUSE = r"""
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

int accept(int fd, struct sockaddr *restrict address,
           socklen_t *restrict length)
{
    char path[4096];
    int error = 0;
    snprintf(path, sizeof path, "%s/error", getenv("TOLVAHOME"));
    FILE *in = fopen(path, "r");
    if (in) {
        if (fscanf(in, "%d", &error) != 1) {
            error = 0;
        }
        fclose(in);
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    return (int)syscall(SYS_accept4, fd, address, length, 0);
}
"""


@pytest.mark.parametrize("error", [
    errno.EMFILE, errno.ENFILE, errno.ENOBUFS, errno.ENOMEM],
    ids=errno.errorcode.get)
def test_any_shortage_of_the_system_is_told_once_and_outlasted(home, error):
    told = "system: " + os.strerror(error)
    home.write("error", f"{error}")
    listener = home.listener(
        config={"ListenTimeout": 0},
        env=preload.environment(home, preload.build("refuse", REFUSE)))
    conns = [listener.connect() for _ in range(3)]
    listener.wait_message(told)
    assert is_idle(listener.pid, 1.5)
    home.path("error").unlink()
    all_served(conns)
    listener.stop()
    assert listener.messages().count(told) == 1


@pytest.mark.parametrize("limit", [6, 8])
def test_a_very_small_budget_still_serves(home, limit):
    skip_when_wrapped("valgrind keeps descriptors for itself")
    listener = home.listener(limits=f"{limit}:{limit}",
                             config={"ExecProg": "exit"})
    for status in range(20):
        reply = listener.request(STATUS + b"EXECUTE %d" % status)
        assert reply.endswith(b" EXITSTATUS=%d" % status)
    listener.stop()
    assert TOO_MANY not in listener.messages()


# --- a full disk ------------------------------------------------------------


def test_a_full_disk_loses_log_lines_and_nothing_else(home):
    listener = home.listener(config={"LogfileName": "/dev/full",
                                     "ExecProg": "exit",
                                     "AllowedAddresses": HOST})
    for status in range(10):
        reply = listener.request(STATUS + b"EXECUTE %d" % status)
        assert reply.endswith(b" EXITSTATUS=%d" % status)
        assert listener.request(STATUS + b"LOG_TEXT x") == NOT_LOGGED
        listener.datagram(LOG_TEXT + b"x")
    assert sorted(open_fds(listener.pid)) == [0, 1, 2, 3, 4]
    listener.stop()
    assert listener.out == ""
    assert listener.err == ""


def test_a_disk_that_fills_up_and_is_cleaned(home):
    """On a small file system of its own, that only the listener sees."""
    disk = home.path("disk")
    disk.mkdir()
    apart = unshared("m", ["mount", "-t", "tmpfs", "none", disk],
                     "no file system can be mounted here")
    listener = home.listener(
        prefix=[*apart, "/bin/sh", "-c",
                f'mount -t tmpfs -o size=16k none "{disk}" && exec "$@"',
                "sh"],
        config={"LogfileName": disk / "tolva.log"})
    text = b"y" * 200
    replies = [listener.request(STATUS + b"LOG_TEXT " + text)
               for _ in range(120)]
    written = replies.index(NOT_LOGGED)
    assert 40 < written < 80
    assert replies == [LOGGED] * written + [NOT_LOGGED] * (120 - written)
    log = f"/proc/{listener.pid}/root{disk}/tolva.log"
    assert os.path.getsize(log) <= 16384
    os.truncate(log, 0)
    assert listener.request(STATUS + b"LOG_TEXT again") == LOGGED
    with open(log) as f:
        assert f.read().rstrip().endswith(": again")
    listener.stop()
