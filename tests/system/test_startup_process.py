"""Start-up: descriptors, and detaching as a daemon."""

import os
import re
import signal
import socket

import pytest

import preload
from harness import message, skip_when_wrapped
from peers import read_to_end
from ports import free_port, tcp_listens
from processes import open_fds
from waiting import wait_for
from wire import LOG_TEXT, REPLY_HEADER, STATUS, reply_with


# --- descriptor budget ------------------------------------------------------


@pytest.mark.parametrize("limits, budget, soft", [
    ("1024:1024", 256, 1024),
    ("256:1024", 256, 256),
    ("257:257", 256, 257),
    ("255:1024", 256, 256),
    ("100:1024", 256, 256),
    ("100:200", 200, 200),
    ("100:100", 100, 100),
    ("255:255", 255, 255),
])
def test_descriptor_budget_follows_the_limits(home, limits, budget, soft):
    skip_when_wrapped("valgrind keeps descriptors for itself")
    listener = home.listener(level=1, limits=limits)
    wait_for(lambda: "DEBUG: calling select() " in listener.out)
    assert re.search(rf"^DEBUG: calling select\(\) maxfd=\d+, "
                     rf"max_fds={budget}, nfds=1\n\n", listener.out, re.M)
    with open(f"/proc/{listener.pid}/limits") as f:
        line = next(line for line in f if line.startswith("Max open files"))
    # Scripts may raise their own limit as far as we were allowed to.
    assert line.split()[3:5] == [str(soft), limits.partition(":")[2]]
    listener.stop()


# --- closed standard descriptors --------------------------------------------


def closing(*fds):
    skip_when_wrapped("valgrind takes closed descriptors for its own report")

    def close():
        for fd in fds:
            os.close(fd)
    return close


CLOSED = pytest.mark.parametrize(
    "fds", [(0,), (1,), (2,), (0, 1), (1, 2), (0, 1, 2)],
    ids=lambda fds: "closed" + "".join(map(str, fds)))


@CLOSED
def test_a_request_stays_clean_when_standard_descriptors_are_closed(
        home, fds):
    def play(talk):
        talk.read_some()
        talk.send(reply_with(b"EXITSTATUS=3"))
        talk.read_to_end()

    server = home.server(play)
    run = home.start("-sr", "EXECUTE x", "-a", server.where, "-d", "10",
                     preexec_fn=closing(*fds))
    assert run.wait().status == 130
    assert server.only() == STATUS + b"EXECUTE x"


@CLOSED
def test_a_listener_serves_when_standard_descriptors_are_closed(home, fds):
    port = free_port()
    home.configure(ListenAddress="127.0.0.1", ListenPort=port)
    home.script("tolva_execute.sh", "echo out; echo err >&2; exit 200")
    run = home.start("-l", "-d", "10", preexec_fn=closing(*fds))
    wait_for(lambda: tcp_listens(port) or not run.running())
    with socket.create_connection(("127.0.0.1", port), 20) as conn:
        conn.sendall(STATUS + b"EXECUTE")
        reply = read_to_end(conn)
    assert re.fullmatch(
        re.escape(REPLY_HEADER) + rb" COMMAND=%b PID=\d+ EXITSTATUS=200"
        % re.escape(str(home.path("tolva_execute.sh")).encode()), reply)
    os.kill(run.pid, signal.SIGTERM)
    assert run.wait().status == 0


@CLOSED
def test_help_and_usage_errors_when_standard_descriptors_are_closed(
        home, fds):
    for args, status in ((["-?"], 0), (["-v"], 0), ([], 1), (["-x"], 1)):
        run = home.start(*args, preexec_fn=closing(*fds))
        assert run.wait().status == status


# --- detaching --------------------------------------------------------------


def test_the_daemon_leaves_its_terminal_and_keeps_its_directory(home):
    home.configure(AllowedAddresses="127.0.0.1")
    work = home.dir / "work"
    work.mkdir()
    listener = home.listener(daemon=True, cwd=work)
    assert listener.run.wait().status == 0
    assert listener.out == ""
    assert listener.err == ""
    pid = listener.pid
    assert pid != listener.run.pid
    assert os.getsid(pid) not in (os.getsid(0), pid)
    assert os.getpgid(pid) == os.getsid(pid)
    assert os.readlink(f"/proc/{pid}/cwd") == str(work)
    fds = open_fds(pid)
    assert [fds[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
    listener.stop()


def test_log_lines_show_the_daemons_own_process_id(home):
    listener = home.listener(daemon=True)
    listener.stop()
    assert [(line[2], line[3]) for line in home.log_lines()] == [
        (f"{listener.pid:05d}", message(756)),
        (f"{listener.pid:05d}", message(757))]


def test_log_lines_of_a_foreground_listener_show_no_process_id(home):
    listener = home.listener()
    listener.stop()
    assert [(line[2], line[3]) for line in home.log_lines()] == [
        ("00000", message(756)), ("00000", message(757))]


# A daemon that cannot leave its session.
BOUND_TO_STAY = r"""
#include <errno.h>
#include <unistd.h>

pid_t setsid(void)
{
    errno = EPERM;
    return -1;
}
"""


def test_a_listener_that_cannot_detach_says_so_and_serves(home):
    listener = home.listener(
        daemon=True, env=preload.environment(
            home, preload.build("bound_to_stay", BOUND_TO_STAY)))
    listener.request(LOG_TEXT + b"served")
    listener.stop()
    assert [(line[2], line[3]) for line in home.log_lines()] == [
        ("00000", "system: Operation not permitted"),
        ("00000", message(756)), ("00000", message(795)),
        ("00000", "served"), ("00000", message(757))]


def test_the_daemon_keeps_the_file_creation_mask(home):
    home.script("tolva_execute.sh", 'umask > "$TOLVAHOME/mask"')
    listener = home.listener(daemon=True,
                             config={"LogfileEnabled": "false"},
                             args=[])
    home.run("-sr", "EXECUTE", "-a", listener.where)
    mask = os.umask(0)
    os.umask(mask)
    assert int(home.read("mask"), 8) == mask
    listener.stop()
