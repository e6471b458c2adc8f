"""Listen mode: its start and end, its sockets and its loop."""

import errno
import os
import socket

import pytest

from harness import message, reason
from ports import free_port, tcp_listeners, udp_is_bound, udp_sockets
from processes import fd_flags, sockets_of
from waiting import BOUND, wait_for
from wire import HEADER, LOG_TEXT

HOST = "127.0.0.1"
IN_USE = "system: " + reason(errno.EADDRINUSE)
NO_ADDRESS = "system: " + reason(errno.EADDRNOTAVAIL)


def tcp_server_address(port):
    """The local address of the listening socket, dotted."""
    return next((s.host for s in tcp_listeners(port)), None)


def udp_flags(pid, port):
    """The open flags of the process's UDP socket on that port."""
    inodes = {s.inode for s in udp_sockets(port)}
    for fd, inode in sockets_of(pid).items():
        if inode in inodes:
            return fd_flags(pid, fd)
    raise AssertionError("no UDP socket")


# --- start and end ----------------------------------------------------------


def test_start_and_end_are_logged_in_order(home):
    port = free_port()
    listener = home.listener(config={
        "AllowedAddresses": HOST, "AliveEnabled": "TRUE",
        "AliveAddresses": f"{HOST}:{port}"})
    listener.wait_message(message(829))
    assert listener.messages() == [message(756), message(821), message(829)]
    listener.stop()
    assert listener.messages() == [
        message(756), message(821), message(829),
        message(830), message(822), message(757)]


def test_without_udp_and_alive_watch_only_tcp_is_logged(home):
    listener = home.listener()
    listener.stop()
    assert listener.messages() == [message(756), message(757)]
    assert listener.out == ""
    assert listener.err == ""


def test_end_is_logged_for_what_was_opened(home):
    listener = home.listener(config={"AllowedAddresses": HOST})
    listener.stop()
    assert listener.messages() == [
        message(756), message(821), message(822), message(757)]


def test_texts_come_from_the_database_of_the_moment(home):
    home.messages({756: "opened %s", 757: "closed"})
    listener = home.listener()
    listener.wait_message("opened %s")
    home.messages({757: "closed later"})
    listener.stop()
    assert listener.messages() == ["opened %s", "closed later"]


def test_messages_missing_from_the_database_are_not_logged(home):
    home.messages(without=(756, 757, 821, 822, 829, 830))
    listener = home.listener(config={
        "AllowedAddresses": HOST, "AliveEnabled": "TRUE",
        "AliveAddresses": f"{HOST}:{free_port()}"})
    listener.serves("here")
    listener.stop()
    assert listener.messages() == [message(795), "here"]


# --- sockets ----------------------------------------------------------------


def test_a_port_in_use_ends_it_with_status_1(home, make_home):
    first = home.listener()
    other = make_home()
    second = other.listener(port=first.port, wait=False)
    assert second.wait_end() == 1
    assert other.log_messages() == [IN_USE]
    first.serves("first still serves")
    first.stop()


def test_an_address_of_another_machine_ends_it_with_status_1(home):
    listener = home.listener(host="192.0.2.1", wait=False)
    assert listener.wait_end() == 1
    assert listener.messages() == [NO_ADDRESS]


def test_a_udp_port_in_use_closes_the_tcp_listener_again(home):
    receiver = home.udp_receiver(HOST)
    listener = home.listener(port=receiver.port, wait=False,
                             config={"AllowedAddresses": HOST})
    assert listener.wait_end() == 1
    assert listener.messages() == [message(756), IN_USE, message(757)]


def test_the_daemon_logs_that_its_port_is_in_use(home, make_home):
    first = home.listener()
    other = make_home()
    second = other.listener(port=first.port, daemon=True, wait=False)
    assert second.run.wait().status == 0
    wait_for(lambda: other.log_messages() == [IN_USE],
             what="the line of the daemon")
    assert int(other.log_lines()[0][2]) > 1
    wait_for(lambda: not other.marked_pids(), what="the daemon ends")
    first.stop()


def test_the_port_can_be_listened_on_again_at_once(home):
    listener = home.listener()
    # The listener closes first, which leaves its end in TIME_WAIT.
    assert listener.request(b"x") == b""
    listener.stop()
    again = home.listener(port=listener.port)
    again.serves("again")
    again.stop()


def test_it_listens_on_the_given_address_only(home):
    listener = home.listener(host="127.0.0.2")
    assert tcp_server_address(listener.port) == "127.0.0.2"
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection((HOST, listener.port), 5)
    listener.stop()


def test_an_address_that_is_none_means_all_addresses(home):
    listener = home.listener(config={"ListenAddress": "nonsense"})
    assert tcp_server_address(listener.port) == "0.0.0.0"
    listener.serves("here")
    listener.stop()


def test_sockets_do_not_reach_scripts_or_block(home):
    listener = home.listener(config={"AllowedAddresses": HOST})
    flags = [fd_flags(listener.pid, fd) for fd in sockets_of(listener.pid)]
    assert len(flags) == 2
    for value in flags:
        assert value & os.O_CLOEXEC
        assert value & os.O_NONBLOCK
    assert udp_flags(listener.pid, listener.port) & os.O_NONBLOCK
    listener.stop()


# --- UDP --------------------------------------------------------------------


@pytest.mark.parametrize("value", ["TRUE", "true", "True", "tRuE"])
def test_udp_is_on_for_true_in_any_case(home, value):
    listener = home.listener(config={"AllowedAddresses": HOST,
                                     "ListenUDP": value})
    listener.datagram(LOG_TEXT + b"by udp")
    listener.wait_message("by udp")
    assert message(821) in listener.messages()
    listener.stop()
    assert message(822) in listener.messages()


def test_udp_is_on_without_a_setting(home):
    listener = home.listener(config={"AllowedAddresses": HOST,
                                     "ListenUDP": ""})
    wait_for(lambda: udp_is_bound(listener.port))
    listener.datagram(LOG_TEXT + b"by udp")
    listener.wait_message("by udp")
    listener.stop()


@pytest.mark.parametrize("value", ["false", "yes", "1", "TRUE1", '"true"'])
def test_udp_is_off_for_anything_else(home, value):
    listener = home.listener(config={"AllowedAddresses": HOST,
                                     "ListenUDP": value})
    listener.serves("by tcp")
    assert not udp_is_bound(listener.port)
    listener.stop()
    assert message(821) not in listener.messages()
    assert message(822) not in listener.messages()


@pytest.mark.parametrize("value", ["TRUE", "true"])
def test_udp_is_never_served_to_just_anybody(home, value):
    listener = home.listener(config={"ListenUDP": value})
    listener.serves("by tcp")
    assert not udp_is_bound(listener.port)
    listener.stop()
    assert message(821) not in listener.messages()


def test_udp_listens_on_the_same_address(home):
    listener = home.listener(host="127.0.0.2",
                             config={"AllowedAddresses": HOST})
    with socket.socket(type=socket.SOCK_DGRAM) as udp:
        udp.bind((HOST, 0))
        udp.connect((HOST, listener.port))
        udp.send(LOG_TEXT + b"wrong address")
        with pytest.raises(ConnectionRefusedError):
            udp.settimeout(BOUND)
            udp.recv(10)
    listener.datagram(LOG_TEXT + b"right address")
    listener.wait_message("right address")
    assert "wrong address" not in listener.messages()
    listener.stop()


# --- the trace --------------------------------------------------------------


def test_trace_of_an_idle_pass(home):
    listener = home.listener(level=1)
    wait_for(lambda: "calling select()" in listener.out)
    tcp = list(sockets_of(listener.pid))[0]
    assert listener.out.endswith(
        f"DEBUG: created tcp socket [{tcp}]\n"
        f"DEBUG: arg= [{message(756)}]\n"
        "DEBUG: timeout 1 = -1\n"
        "DEBUG: nclients = 0, nconnections = 0\n"
        f"DEBUG: calling select() maxfd={tcp}, max_fds=256, nfds=1\n\n")
    listener.stop()
    assert "DEBUG: select() returned nready = -1\n" in listener.out


def test_trace_of_a_client(home):
    listener = home.listener(level=1, config={"ListenTimeout": 77})
    with listener.connect() as conn:
        wait_for(lambda: "nclients = 1" in listener.out)
        conn.sendall(HEADER + b"")
        wait_for(lambda: listener.out.rstrip().endswith("nfds=1"))
    out = listener.out
    assert "DEBUG: timeout 1 = 77\n" in out or "DEBUG: timeout 1 = 76\n" in out
    assert "DEBUG: nclients = 1, nconnections = 0\n" in out
    assert "DEBUG: select() returned nready = 1\n" in out
    assert f"DEBUG: received = [{HEADER.decode()}]\n" in out
    listener.stop()


def test_trace_of_the_udp_socket(home):
    listener = home.listener(level=1, config={"AllowedAddresses": HOST})
    wait_for(lambda: "calling select()" in listener.out)
    fds = [int(line.split("[")[1].split("]")[0])
           for line in listener.out.splitlines() if "DEBUG: created" in line]
    names = [line.split()[2] for line in listener.out.splitlines()
             if "DEBUG: created" in line]
    assert names == ["tcp", "udp"]
    assert set(fds) == set(sockets_of(listener.pid))
    assert "nfds=2" in listener.out
    listener.stop()


def test_level_zero_traces_nothing(home):
    listener = home.listener(level=0)
    listener.serves("x")
    listener.stop()
    assert listener.out == ""


@pytest.mark.parametrize("level, entries, exits", [
    (1, False, False), (6, True, False), (10, True, True)])
def test_function_entries_and_exits(home, level, entries, exits):
    listener = home.listener(level=level,
                             config={"AllowedAddresses": HOST})
    listener.serves("x")
    listener.datagram(LOG_TEXT + b"y")
    listener.wait_message("y")
    listener.stop()
    for name in ("init_receiver", "recv_mode",
                 "init_redundant_shutdowns", "handle_tcp_connect",
                 "client_is_allowed", "handle_tcp_client", "exec_V2command",
                 "handle_udp_connect", "log_message"):
        assert (f"TRACEIN: {name}\n" in listener.out) == entries, name
    assert ("TRACEOUT: " in listener.out) == exits
    assert "DEBUG: " in listener.out
