"""Nothing is left behind, however a session ends."""

import socket

import pytest

import preload
from fakeclock import settle
from harness import message
from home import gate
from peers import read_to_end, reset
from processes import children, is_idle, open_fds, sockets_of
from waiting import wait_for
from wire import EXECUTE, HEADER, LOGGED, STATUS

HOST = "127.0.0.1"
GATED = f'touch "$TOLVAHOME/on"\n{gate()}; exit 5'


def test_hundreds_of_sessions_leave_nothing_behind(home):
    home.script("tolva_shutdown.sh")
    home.script("tolva_execute.sh", "exit 3")
    # A rest of 8 KiB comes back in one block, so that no cut costs a line.
    listener = home.listener(config={"AllowedAddresses": HOST,
                                     "LogfileSize": 8})
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


# A script takes a moment to become a shell.
SLOW_EXEC = r"""
#include <unistd.h>

int execl(const char *path, const char *arg, ...)
{
    char *const command[] = {"sh", "-c", "exit 0", NULL};
    (void)path;
    (void)arg;
    sleep(5);
    return execv("/bin/sh", command);
}
"""


@pytest.mark.parametrize("udp", ["FALSE", "TRUE"])
def test_the_port_is_free_although_a_script_has_not_begun_yet(home, udp):
    config = {"ListenUDP": udp, "AllowedAddresses": HOST}
    listener = home.listener(
        config=config,
        env=preload.environment(home, preload.build("slow_exec", SLOW_EXEC)))
    home.script("tolva_shutdown.sh")
    with listener.connect() as conn:
        conn.sendall(HEADER)
        wait_for(lambda: children(listener.pid))
        listener.stop()
    again = home.listener(port=listener.port, config=config)
    assert again.request(STATUS + b"LOG_TEXT x") == LOGGED
    if udp == "TRUE":
        again.datagram(EXECUTE + b"LOG_TEXT y", source=HOST)
        again.wait_message("y")
    again.stop()


def test_nobody_else_can_have_the_port_of_datagrams(home):
    listener = home.listener(config={"ListenUDP": "TRUE",
                                     "AllowedAddresses": HOST})
    with socket.socket(type=socket.SOCK_DGRAM) as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with pytest.raises(OSError):
            other.bind((HOST, listener.port))
    listener.stop()
