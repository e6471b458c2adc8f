"""Sessions: who is admitted, what is read, and what it is taken for."""

import errno
import socket

import pytest

from fakeclock import settle
from harness import message, reason
from home import gate
from peers import read_to_end, reset
from processes import sockets_of
from waiting import BOUND, wait_for
from wire import EXECUTE, HEADER, LOG_TEXT, REPLY_HEADER, STATUS

HOST = "127.0.0.1"
RESET = "system: " + reason(errno.ECONNRESET)


def shutdown_lines(home):
    line = str(home.path("tolva_shutdown.sh"))
    return [message(792, line), message(794, line)]


@pytest.fixture
def scripts(home):
    """Scripts that write down what they were given."""
    for name in ("shutdown", "execute"):
        home.script(f"tolva_{name}.sh",
                    f'printf "%s|" "$#" "$@" >> "$TOLVAHOME/{name}.tmp"\n'
                    f'mv "$TOLVAHOME/{name}.tmp" "$TOLVAHOME/{name}.ran"')
    return home


# --- admission --------------------------------------------------------------


@pytest.mark.parametrize("source", ["127.0.0.1", "127.0.0.2", "127.9.9.9"])
def test_an_empty_list_admits_everybody(home, source):
    listener = home.listener()
    assert listener.request(LOG_TEXT + b"hello", source) == b""
    listener.wait_message("hello")
    listener.stop()
    assert message(835, source) not in listener.messages()


def test_a_peer_that_is_not_on_the_list_is_closed_without_a_word(scripts):
    listener = scripts.listener(config={"AllowedAddresses": "127.0.0.2"})
    with listener.connect("127.0.0.3") as conn:
        assert read_to_end(conn) == b""
    listener.wait_message(message(835, "127.0.0.3"))
    # Also when the request is there at once.
    with listener.connect("127.0.0.1") as conn:
        conn.sendall(HEADER)
        assert read_to_end(conn) == b""
    listener.wait_message(message(835, "127.0.0.1"))
    listener.wait_sessions(0, 2)
    listener.stop()
    assert listener.messages() == [
        message(756), message(821), message(835, "127.0.0.3"),
        message(835, "127.0.0.1"), message(822), message(757)]
    assert not scripts.path("shutdown.ran").exists()


@pytest.mark.parametrize("listed, source, admitted", [
    ("127.0.0.2 127.0.0.3", "127.0.0.2", True),
    ("127.0.0.2 127.0.0.3", "127.0.0.3", True),
    ("127.0.0.2 127.0.0.3", "127.0.0.1", False),
    ("127.0.0.2:9", "127.0.0.2", True),
    ("127.0.0.2\t127.0.0.4:6003  127.0.0.3", "127.0.0.3", True),
    ("127.0.0.20", "127.0.0.2", False),
    ("127.0.0.2", "127.0.0.20", False),
    ("127.0.0.2", "127.111.111.111", False),
    ("127.1", "127.0.0.1", True),
    ("localhost", "127.0.0.1", True),
])
def test_addresses_are_compared_as_a_whole_and_without_ports(
        home, listed, source, admitted):
    listener = home.listener(config={"AllowedAddresses": listed})
    assert listener.request(LOG_TEXT + b"hello", source) == b""
    listener.wait_message("hello" if admitted else message(835, source))
    listener.stop()
    assert ("hello" in listener.messages()) == admitted
    assert (message(835, source) in listener.messages()) != admitted


def test_a_datagram_from_a_stranger_is_refused(scripts):
    listener = scripts.listener(config={"AllowedAddresses": "127.0.0.2"})
    listener.datagram(HEADER, "127.0.0.3")
    listener.wait_message(message(835, "127.0.0.3"))
    listener.datagram(b"no command", "127.0.0.3")
    listener.wait_message(message(835, "127.0.0.3"), 2)
    listener.datagram(LOG_TEXT + b"mine", "127.0.0.2")
    listener.wait_message("mine")
    listener.stop()
    assert listener.messages() == [
        message(756), message(821),
        message(824, "127.0.0.3"), message(835, "127.0.0.3"),
        message(824, "127.0.0.3"), message(835, "127.0.0.3"),
        message(824, "127.0.0.2"), "mine",
        message(822), message(757)]
    assert not scripts.path("shutdown.ran").exists()


# --- what is a command ------------------------------------------------------

SHUTDOWN = "the shutdown script"

# (the bytes, what is logged behind "received")
REQUESTS = {
    "bare header": (HEADER, SHUTDOWN),
    "lower case": (HEADER.lower(), SHUTDOWN),
    "mixed case": (b"connECT tO tOLVa (sEnD)", SHUTDOWN),
    "header and NUL": (HEADER + b"\0", SHUTDOWN),
    "header, NUL and more": (
        HEADER + b"\0MSG_EXECUTE LOG_TEXT unseen", SHUTDOWN),
    "one byte short": (HEADER[:-1], [message(819)]),
    "one byte": (b"C", [message(819)]),
    "a byte in front": (b" " + HEADER, [message(819)]),
    "a NUL in front": (b"\0" + HEADER, [message(819)]),
    "a NUL inside": (HEADER[:9] + b"\0" + HEADER[10:], [message(819)]),
    "the header of a reply": (REPLY_HEADER, [message(819)]),
    "a web browser": (b"GET / HTTP/1.0\r\n\r\n", [message(819)]),
    "8-bit garbage": (bytes(range(128, 256)), [message(819)]),
    "8-bit header": (HEADER.replace(b"O", b"\xd6"), [message(819)]),
    "all byte values": (bytes(range(256)), [message(819)]),
    "header and newline": (HEADER + b"\n", [message(820)]),
    "header and blank": (HEADER + b" ", [message(820)]),
    "header and letter": (HEADER + b"X", [message(820)]),
    "header and 8-bit byte": (HEADER + b"\xe9", [message(820)]),
    "header, blank and NUL": (HEADER + b" \0MSG_EXECUTE LOG_TEXT x",
                              [message(820)]),
    "header and CRLF": (HEADER + b"\r\n", [message(819)]),
    "header and two blanks": (HEADER + b"  ", [message(819)]),
    "header and blanks and tabs": (HEADER + b" \t \t", [message(819)]),
    "the verb alone": (HEADER + b" MSG_EXECUTE", [message(819)]),
    "the verb and blanks": (HEADER + b" MSG_EXECUTE \t ", [message(819)]),
    "the status verb alone": (HEADER + b" MSG_EXECSTATUS", [message(819)]),
    "no verb": (HEADER + b" LOG_TEXT hello", [message(819)]),
    "the verb of check mode": (HEADER + b" MSG_SCAN LOG_TEXT x",
                               [message(819)]),
    "a longer verb": (HEADER + b" MSG_EXECUTEX LOG_TEXT x", [message(819)]),
    "a shorter verb": (HEADER + b" MSG_EXECUT LOG_TEXT x", [message(819)]),
    "a verb ended by a newline": (HEADER + b" MSG_EXECUTE\nLOG_TEXT x",
                                  [message(819)]),
    "an unknown word": (EXECUTE + b"REBOOT now", [message(820)]),
    "a longer word": (EXECUTE + b"LOG_TEXTS x", [message(820)]),
    "a shorter word": (EXECUTE + b"LOG x", [message(820)]),
    "a word ended by a newline": (EXECUTE + b"LOG_TEXT\nx", [message(820)]),
    "a log text": (LOG_TEXT + b"hello world", ["hello world"]),
    "verb and word in lower case": (
        HEADER + b" msg_execute log_text Hello", ["Hello"]),
    "any separator behind the header": (
        HEADER + b"XMSG_EXECUTE LOG_TEXT hello", ["hello"]),
    "an 8-bit separator": (
        HEADER + b"\xffMSG_EXECUTE LOG_TEXT hello", ["hello"]),
    "tabs": (HEADER + b"\tMSG_EXECUTE\tLOG_TEXT\thello", ["hello"]),
    "runs of blanks": (
        HEADER + b"   MSG_EXECUTE \t LOG_TEXT  \t hello  world \t ",
        ["hello  world"]),
    "a NUL behind the text": (LOG_TEXT + b"hello\0world",
                              ["hello"]),
    "8-bit text": (LOG_TEXT + b"gr\xfc\xdfe \xff\x80\xa0",
                   ["gr\xfc\xdfe \xff\x80\xa0"]),
    "a status is asked for": (STATUS + b"LOG_TEXT hello", ["hello"]),
}


def expected_lines(home, expected):
    return shutdown_lines(home) if expected is SHUTDOWN else expected


@pytest.mark.parametrize("name", REQUESTS)
def test_what_a_request_is_taken_for(scripts, name):
    data, expected = REQUESTS[name]
    expected = expected_lines(scripts, expected)
    listener = scripts.listener()
    reply = listener.request(data)
    assert bool(reply) == data.startswith(STATUS + b"LOG_TEXT")
    listener.wait_message(expected[-1])
    listener.stop()
    assert listener.messages() == [
        message(756), message(795), *expected, message(757)]
    if REQUESTS[name][1] is SHUTDOWN:
        assert scripts.read("shutdown.ran") == b"0|"


@pytest.mark.parametrize("name", REQUESTS)
def test_what_a_datagram_is_taken_for(scripts, name):
    data, expected = REQUESTS[name]
    expected = expected_lines(scripts, expected)
    listener = scripts.listener(config={"AllowedAddresses": HOST})
    listener.datagram(data)
    listener.wait_message(expected[-1])
    listener.stop()
    assert listener.messages() == [
        message(756), message(821), message(824, HOST), *expected,
        message(822), message(757)]


def test_the_whole_text_is_logged_with_its_line_end(home):
    listener = home.listener()
    listener.request(LOG_TEXT + b"hello\n")
    listener.wait_message("hello")
    assert home.log_text().endswith("]: hello\n\n")
    listener.stop()


# --- how much is read -------------------------------------------------------


@pytest.mark.parametrize("size, kept", [
    (4094, 4094), (4095, 4095), (4096, 4095), (6000, 4095)])
@pytest.mark.parametrize("udp", [False, True], ids=["tcp", "udp"])
def test_a_request_is_cut_at_4095_bytes(scripts, size, kept, udp):
    data = EXECUTE + b"EXECUTE begin"
    data += b"x" * (size - len(data))
    listener = scripts.listener(config={"AllowedAddresses": HOST})
    if udp:
        listener.datagram(data)
    else:
        listener.request(data)
    wait_for(lambda: scripts.path("execute.ran").exists())
    expected = data[len(EXECUTE + b"EXECUTE "):kept]
    assert scripts.read("execute.ran") == b"1|" + expected + b"|"
    listener.stop()


@pytest.mark.parametrize("size", [4095, 4096, 4097, 60000])
@pytest.mark.parametrize("udp", [False, True], ids=["tcp", "udp"])
def test_a_lot_of_anything_does_no_harm(home, size, udp):
    listener = home.listener(config={"AllowedAddresses": HOST})
    data = b"\xff" * size
    if udp:
        listener.datagram(data)
    else:
        listener.request(data)
    listener.wait_message(message(819))
    listener.request(LOG_TEXT + b"afterwards")
    listener.wait_message("afterwards")
    assert listener.messages().count(message(819)) == 1
    listener.stop()


def test_what_comes_in_a_later_segment_is_not_read(scripts):
    listener = scripts.listener()
    with listener.connect() as conn:
        conn.sendall(HEADER[:10])
        assert read_to_end(conn) == b""
        conn.close()
    with listener.connect() as conn:
        conn.sendall(LOG_TEXT + b"first")
        listener.wait_message("first")
        # The listener has closed: this is answered by a reset at most.
        try:
            conn.sendall(LOG_TEXT + b"second")
        except (BrokenPipeError, ConnectionResetError):
            pass
        assert read_to_end(conn) == b""
    with listener.connect() as conn:
        conn.sendall(HEADER)
        listener.wait_message(message(795), 3)
        try:
            conn.sendall(b" MSG_EXECUTE LOG_TEXT second")
        except (BrokenPipeError, ConnectionResetError):
            pass
    listener.wait_message(shutdown_lines(scripts)[-1])
    listener.stop()
    assert listener.messages() == [
        message(756), message(795), message(819), message(795), "first",
        message(795), *shutdown_lines(scripts), message(757)]


def test_further_commands_while_the_script_runs_are_not_read(scripts):
    scripts.script("tolva_message.sh",
                   gate())
    listener = scripts.listener()
    with listener.connect() as conn:
        conn.sendall(STATUS + b"MSG_TEXT first")
        listener.wait_message(message(
            792, f"{scripts.path('tolva_message.sh')} first"))
        conn.sendall(LOG_TEXT + b"second")
        settle(listener)
        scripts.write("go", "")
        # The unread bytes may turn the end into a reset.
        read_to_end(conn)
    listener.wait_message(message(
        794, f"{scripts.path('tolva_message.sh')} first"))
    listener.stop()
    assert "second" not in listener.messages()
    assert listener.messages().count(message(795)) == 1


def test_two_requests_in_one_segment_are_one(home):
    listener = home.listener()
    listener.request(LOG_TEXT + b"one" + LOG_TEXT + b"two")
    text = "one" + (LOG_TEXT + b"two").decode()
    listener.wait_message(text)
    listener.stop()


# --- peers that say nothing -------------------------------------------------


def test_a_peer_that_closes_without_a_word(home):
    listener = home.listener()
    listener.connect().close()
    listener.wait_message(message(796))
    with listener.connect() as conn:
        conn.shutdown(socket.SHUT_WR)
        assert read_to_end(conn) == b""
    listener.wait_message(message(796), 2)
    listener.wait_sessions(0)
    listener.stop()
    assert listener.messages() == [
        message(756), message(796), message(796), message(757)]


def test_a_peer_that_resets(home):
    listener = home.listener()
    conn = listener.connect()
    listener.wait_sessions(1)
    reset(conn)
    listener.wait_message(message(796))
    listener.wait_sessions(0)
    listener.stop()
    assert listener.messages() == [
        message(756), RESET, message(796), message(757)]


def test_an_empty_datagram(home):
    listener = home.listener(config={"AllowedAddresses": HOST})
    listener.datagram(b"")
    listener.wait_message(message(825))
    listener.datagram(b"", "127.0.0.9")
    listener.wait_message(message(825), 2)
    listener.stop()
    assert message(824, HOST) not in listener.messages()
    assert listener.messages().count(message(825)) == 2


# --- when a session ends ----------------------------------------------------


@pytest.mark.parametrize("data", [
    HEADER, EXECUTE + b"SHUTDOWN now", EXECUTE + b"MSG_TEXT x"])
def test_without_a_wanted_reply_the_session_ends_at_once(home, data):
    for name in ("shutdown", "message"):
        home.script(f"tolva_{name}.sh",
                    f'touch "$TOLVAHOME/started"\n{gate()}')
    listener = home.listener()
    # The end is seen although the script is still running.
    assert listener.request(data) == b""
    wait_for(lambda: home.path("started").exists())
    assert len(sockets_of(listener.pid)) == 1
    assert not [m for m in listener.messages() if m.startswith("[794]")]
    home.write("go", "")
    wait_for(lambda: [m for m in listener.messages()
                      if m.startswith("[794]")])
    listener.stop()


def test_with_a_wanted_reply_the_session_waits_for_the_script(home):
    home.script("tolva_execute.sh", f'touch "$TOLVAHOME/started"\n{gate()}')
    listener = home.listener()
    with listener.connect() as conn:
        conn.sendall(STATUS + b"EXECUTE")
        wait_for(lambda: home.path("started").exists())
        conn.setblocking(False)
        with pytest.raises(BlockingIOError):
            conn.recv(1)
        conn.settimeout(BOUND)
        home.write("go", "")
        assert read_to_end(conn).startswith(REPLY_HEADER)
    listener.wait_sessions(0)
    listener.stop()


def test_a_datagram_is_never_answered(scripts):
    listener = scripts.listener(config={"AllowedAddresses": HOST})
    with socket.socket(type=socket.SOCK_DGRAM) as udp:
        udp.bind((HOST, 0))
        for command in (b"EXECUTE a", b"LOG_TEXT logged"):
            udp.sendto(STATUS + command, (HOST, listener.port))
        path = scripts.path("tolva_execute.sh")
        listener.wait_message("logged")
        listener.wait_message(message(794, f"{path} a"))
        settle(listener)
        udp.setblocking(False)
        with pytest.raises(BlockingIOError):
            udp.recv(1)
    assert scripts.read("execute.ran") == b"1|a|"
    listener.stop()
