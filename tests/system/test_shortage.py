"""What goes on when descriptors run out, or the disk is full."""

import errno
import os
import resource

import pytest

import preload
from fakeclock import FakeClock, settle
from harness import message, reason, skip_when_wrapped
from namespaces import unshared
from peers import read_to_end
from processes import is_idle, open_fds, sockets_of
from waiting import wait_for
from wire import LOGGED, LOG_TEXT, NOT_LOGGED, STATUS

HOST = "127.0.0.1"
TIMED_OUT = "error: " + reason(errno.ETIMEDOUT)
TOO_MANY = "system: " + reason(errno.EMFILE)
BUDGET = 256


def all_served(conns):
    for conn in conns:
        conn.sendall(STATUS + b"LOG_TEXT x")
        assert read_to_end(conn) == LOGGED
        conn.close()


def all_closed(conns):
    for conn in conns:
        conn.close()


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


# Refuses clients and datagrams with the error whose number a file has.
REFUSE = r"""
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static int refused(void)
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
    errno = error;
    return error != 0;
}

int accept(int fd, struct sockaddr *restrict address,
           socklen_t *restrict length)
{
    return refused() ? -1
                     : (int)syscall(SYS_accept4, fd, address, length, 0);
}

ssize_t recvfrom(int fd, void *restrict buffer, size_t size, int flags,
                 struct sockaddr *restrict address,
                 socklen_t *restrict length)
{
    return refused() ? -1
                     : syscall(SYS_recvfrom, fd, buffer, size, flags, address,
                               length);
}
"""


@pytest.mark.parametrize("error", [
    errno.EMFILE, errno.ENFILE, errno.ENOBUFS, errno.ENOMEM],
    ids=errno.errorcode.get)
def test_any_shortage_of_the_system_is_told_once_and_outlasted(home, error):
    told = "system: " + reason(error)
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


@pytest.mark.parametrize("error", [errno.ENOBUFS, errno.EIO],
                         ids=errno.errorcode.get)
def test_datagrams_that_cannot_be_received_are_waited_for(home, error):
    listener = home.listener(
        config={"ListenUDP": "TRUE", "AllowedAddresses": HOST},
        env=preload.environment(home, preload.build("refuse", REFUSE)))
    home.write("error", f"{error}")
    listener.datagram(LOG_TEXT + b"in the end", source=HOST)
    listener.wait_message(message(825))
    assert is_idle(listener.pid, 1.5)
    home.path("error").unlink()
    listener.wait_message("in the end")
    listener.stop()
    # Once a second, while it lasts.
    assert 2 <= listener.messages().count(message(825)) < 20


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
    # Beside the two sockets: what is kept back for files.
    fds = open_fds(listener.pid)
    assert sorted(fds)[:5] == [0, 1, 2, 3, 4]
    assert [fds[fd] for fd in sorted(fds)[5:]] == ["/", "/"]
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
    text = b"y" * 190
    replies = [listener.request(STATUS + b"LOG_TEXT " + text)
               for _ in range(120)]
    written = replies.index(NOT_LOGGED)
    assert 40 < written < 80
    assert replies == [LOGGED] * written + [NOT_LOGGED] * (120 - written)
    log = f"/proc/{listener.pid}/root{disk}/tolva.log"
    assert os.path.getsize(log) <= 16384
    with open(log, "rb") as f:
        lines = f.read().split(b"\n")
    assert lines.pop() == b"", "a line is only half there"
    assert sum(line.endswith(b": " + text) for line in lines) == written
    os.truncate(log, 0)
    assert listener.request(STATUS + b"LOG_TEXT again") == LOGGED
    with open(log) as f:
        assert f.read().rstrip().endswith(": again")
    listener.stop()
