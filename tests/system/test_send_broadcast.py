"""Send mode: broadcasts."""

import pytest

from harness import message
from peers import reader
from wire import EXECUTE, HEADER


@pytest.mark.parametrize("address", ["127.255.255.255", "127.0.0.1"])
@pytest.mark.parametrize("args, tail", [
    (["-s", "SHUTDOWN"], b" MSG_EXECUTE SHUTDOWN"),
    (["-se", b"LOG_TEXT \xe4 %s"], b" MSG_EXECUTE LOG_TEXT \xe4 %s"),
    (["-s"], b""),
], ids=str)
def test_broadcast_on_the_wire(home, address, args, tail):
    receiver = home.udp_receiver()
    result = home.run(*args, "-ab", address, "-p", receiver.port)
    assert receiver.receive() == HEADER + tail
    assert receiver.nothing_waits()
    assert result.messages == [message(758), message(833, address),
                               message(787, address), message(759)]
    assert result.err == ""
    assert result.status == 0


def test_broadcast_goes_to_the_common_port_whatever_the_address_says(home):
    receiver = home.udp_receiver()
    other = home.udp_receiver()
    result = home.run("-s", "X", "-ab", f"127.255.255.255:{other.port}",
                      "-p", receiver.port)
    assert result.status == 0
    assert receiver.receive() == EXECUTE + b"X"
    assert other.nothing_waits()


def test_broadcast_and_listeners_together(home):
    server = home.server(reader)
    receiver = home.udp_receiver()
    result = home.run("-s", "X", "-ab", "127.255.255.255", "-a",
                      server.where, "-p", receiver.port)
    assert receiver.receive() == EXECUTE + b"X"
    assert server.only() == EXECUTE + b"X"
    assert result.status == 0


def test_longest_broadcast_is_sent_whole(home):
    receiver = home.udp_receiver()
    head = EXECUTE
    word = b"x" * (1471 - len(head) - 1) + b"y"
    result = home.run("-s", word, "-ab", "127.255.255.255", "-p",
                      receiver.port)
    assert receiver.receive() == head + word
    assert result.status == 0


@pytest.mark.parametrize("length", [1472, 1473, 2000, 5000])
def test_too_long_a_broadcast_is_refused_not_cut(home, length):
    receiver = home.udp_receiver()
    word = "x" * (length - len(EXECUTE))
    result = home.run("-s", word, "-ab", "127.255.255.255", "-p",
                      receiver.port)
    assert result.messages == [message(758),
                               message(833, "127.255.255.255"),
                               message(810), message(759)]
    assert result.status == 1
    assert receiver.nothing_waits()


def test_too_long_for_a_broadcast_still_goes_to_a_listener(home):
    receiver = home.udp_receiver()
    server = home.server(reader)
    result = home.run("-s", "x" * 2000, "-ab", "127.255.255.255", "-a",
                      server.where, "-p", receiver.port)
    assert server.only() == EXECUTE + b"x" * 2000
    assert result.status == 1
