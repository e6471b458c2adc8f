"""Send mode: replies, and the exit statuses that come of them."""

import pytest

from harness import message
from peers import replier
from ports import free_port
from wire import HEADER, REPLY_HEADER, reply_with

HOST = "127.0.0.1"


# --- one reply --------------------------------------------------------------

STATUSES = [
    (b"EXITSTATUS=0", 0),
    (b"EXITSTATUS=1", 128),
    (b"EXITSTATUS=2", 129),
    (b"EXITSTATUS=3", 130),
    (b"EXITSTATUS=127", 254),
    (b"EXITSTATUS=128", 128),
    (b"EXITSTATUS=129", 129),
    (b"EXITSTATUS=200", 200),
    (b"EXITSTATUS=254", 254),
    (b"EXITSTATUS=255", 255),
    (b"EXITSTATUS=256", 255),
    (b"EXITSTATUS=300", 255),
    (b"EXITSTATUS=65536", 255),
    (b"EXITSTATUS=-1", 128),
    (b"EXITSTATUS=-300", 128),
    (b"EXITSTATUS=99999999999", 255),
    (b"EXITSTATUS=4294967296", 255),
    (b"EXITSTATUS=-99999999999", 128),
    (b"EXITSTATUS=-4294967296", 128),
    (b"EXITSTATUS=+3", 130),
    (b"EXITSTATUS=003", 130),
    (b"EXITSTATUS=abc", 0),
    (b"EXITSTATUS=3abc", 130),
    (b"EXITSTATUS=0x10", 0),
    (b"EXITSTATUS==3", 0),
    (b"EXITSTATUSX=5", 132),
    (b"EXITSTATUS=3 EXITSTATUS=0", 130),
    (b"EXITSTATUS=3 more", 130),
    (b"EXITSTATUS=3\t4", 130),
    (b"\t \tEXITSTATUS=3\t", 130),
    (b"EXITSTATUS=000000000000003", 130),      # 15 characters
    (b"EXITSTATUS=0000000000000003", 0),       # 16, the last one is cut
    (b"EXITSTATUS=3\r\n", 130),
    (b"\xe4\xf6 EXITSTATUS=3 \xff", 130),
    (b"EXITSTATUS=3\0EXITSTATUS=0", 130),
    # no status in it
    (b"", 128),
    (b"EXITSTATUS=", 128),
    (b"EXITSTATUS= 3", 128),
    (b"EXITSTATUS", 128),
    (b"EXITSTATUS 3", 128),
    (b"exitstatus=3", 128),
    (b"XEXITSTATUS=3", 128),
    (b"\nEXITSTATUS=3", 128),
    (b"EXITSTATU=3", 128),
    (b"\0EXITSTATUS=3", 128),
]


@pytest.mark.parametrize("tail, status", STATUSES,
                         ids=[repr(t)[2:-1] for t, _ in STATUSES])
def test_status_of_the_reply_becomes_the_exit_status(home, tail, status):
    server = home.server(replier(reply_with(tail)))
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    shown = reply_with(tail)[25:].split(b"\0")[0].split(b"\n")[0].decode(
        "latin-1")
    assert result.messages[2].startswith(
        f"server[{HOST}]: {shown.split(chr(13))[0]}")
    assert result.status == status


@pytest.mark.parametrize("whole, shown, status", [
    (REPLY_HEADER + b" COMMAND= PID=0 EXITSTATUS=0",
     "COMMAND= PID=0 EXITSTATUS=0", 0),
    (b"connect to tolva (reply) EXITSTATUS=3", "EXITSTATUS=3", 130),
    (REPLY_HEADER + b"XPID=1 EXITSTATUS=3", "PID=1 EXITSTATUS=3", 130),
    (REPLY_HEADER + b" EXITSTATUS=3", "EXITSTATUS=3", 130),
    (REPLY_HEADER + b"EXITSTATUS=3", "XITSTATUS=3", 128),
    (REPLY_HEADER, "", 128),
    (REPLY_HEADER + b" ", "", 128),
    (REPLY_HEADER + b" %s %n%d EXITSTATUS=3", "%s %n%d EXITSTATUS=3", 130),
], ids=str)
def test_what_counts_as_a_reply(home, whole, shown, status):
    server = home.server(replier(whole))
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    assert result.messages == [message(758), message(785, HOST),
                               f"server[{HOST}]: {shown}", message(759)]
    assert result.status == status


def test_only_the_first_segment_of_a_reply_is_read(home):
    def play(talk):
        talk.read_some()
        talk.send(REPLY_HEADER + b" COMMAND=x PID=1 ")
        talk.read_to_end()
        # only now that the sender has gone
        assert talk.at_end

    server = home.server(play)
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    assert result.status == 128


@pytest.mark.parametrize("filler, status", [(4095, 128), (4000, 130)])
def test_at_most_4095_bytes_of_a_reply_are_read(home, filler, status):
    tail = b" EXITSTATUS=3"
    whole = REPLY_HEADER + b" " + b"x" * (filler - 25) + tail

    def play(talk):
        talk.read_some()
        talk.send(whole)
        talk.read_to_end()

    server = home.server(play)
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    # log lines are cut, with their line feed
    assert f"server[{HOST}]: " + "x" * 900 in result.out
    assert result.status == status


@pytest.mark.parametrize("whole", [
    b"HELLO", b"\0", b"\n", REPLY_HEADER[:-1], b" " + REPLY_HEADER,
    REPLY_HEADER[:-1] + b"] EXITSTATUS=0", HEADER + b" EXITSTATUS=0",
    REPLY_HEADER[:10] + b"\0" + REPLY_HEADER[10:], b"x" * 5000,
    b"EXITSTATUS=0", b"",
], ids=lambda w: repr(w[:40]))
def test_what_is_no_reply_makes_the_run_fail(home, whole):
    def play(talk):
        talk.read_some()
        if whole:
            talk.send(whole)
        talk.stop_sending()
        talk.read_to_end()

    server = home.server(play)
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    assert result.messages == [message(758), message(785, HOST),
                               message(819), message(759)]
    assert result.err == ""
    assert result.status == 1


def test_a_header_split_over_segments_is_no_reply(home):
    def play(talk):
        talk.read_some()
        talk.send(REPLY_HEADER[:12])
        talk.read_to_end()

    server = home.server(play)
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    assert message(819) in result.messages
    assert result.status == 1


def test_a_reset_instead_of_a_reply_makes_the_run_fail(home):
    def play(talk):
        talk.read_some()
        talk.reset()

    server = home.server(play)
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    assert result.messages == [message(758), message(785, HOST),
                               "system: Connection reset by peer",
                               message(759)]
    assert result.status == 1


# --- several of them --------------------------------------------------------


def test_one_unreachable_listener_hides_the_status_of_another(home):
    server = home.server(replier(reply_with(b"EXITSTATUS=0")))
    result = home.run("-sr", "EXECUTE x", "-a", f"{HOST}:{free_port()}",
                      "-a", server.where)
    assert f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=0" in \
        result.messages
    assert result.status == 1


@pytest.mark.parametrize("statuses", [(3, 0), (0, 3), (200, 7)], ids=str)
def test_of_several_replies_the_last_one_counts(home, statuses):
    first = home.server(replier(reply_with(b"EXITSTATUS=%d" % statuses[0])))

    def after_first(talk):
        talk.read_some()
        first.wait_finished()
        talk.send(reply_with(b"EXITSTATUS=%d" % statuses[1]))
        talk.read_to_end()

    last = home.server(after_first)
    result = home.run("-sr", "EXECUTE x", "-a", last.where,
                      "-a", first.where)
    assert result.status == {0: 0, 3: 130, 7: 134}[statuses[1]]


def test_one_bad_reply_among_good_ones_makes_the_run_fail(home):
    good = home.server(replier(reply_with(b"EXITSTATUS=0")))
    bad = home.server(replier(b"HELLO"))
    result = home.run("-sr", "EXECUTE x", "-a", good.where, "-a", bad.where)
    assert result.messages.count(message(819)) == 1
    assert result.status == 1


# --- trace ------------------------------------------------------------------


def test_trace_of_a_request_for_a_status(home):
    server = home.server(replier(reply_with(b"EXITSTATUS=200")))
    result = home.run("-sr", "X", "-a", server.where, "-d", "1")
    assert result.status == 200
    lines = result.out.splitlines()
    wanted = ["DEBUG: event = 2 ", "DEBUG: cn->mode = 3 ",
              "DEBUG: cn->type = 1 ", "DEBUG: err = 0 ",
              "DEBUG: value = [200]", "DEBUG: remote_status = [200]",
              "DEBUG: nconnections = 0 "]
    assert [line for line in lines if line in wanted] == wanted
    assert "DEBUG: arg= [[785] %s]" in lines
    assert "DEBUG: arg= [server[%s]: %s]" in lines
    assert not [line for line in lines if line.startswith("TRACE")]


def test_trace_of_function_entries_in_send_mode(home):
    server = home.server(replier(reply_with(b"EXITSTATUS=200")))
    result = home.run("-sr", "X", "-a", server.where, "-d", "6")
    entries = [line for line in result.out.splitlines()
               if line.startswith("TRACEIN: ")]
    for name in ("init_sender", "send_mode", "set_connections",
                 "start_connections", "start_connect",
                 "open_connect_socket", "do_send_tolva", "send_ok",
                 "do_rcv_tolva", "is_reply_header", "get_key_value",
                 "unregister_connection", "destroy_connection"):
        assert f"TRACEIN: {name}" in entries
