"""Send mode: requests on the wire, to one listener and to several."""

import datetime
import errno
import re

import pytest

from harness import LOG_LINE, message, reason, skip_when_wrapped
from peers import reader, replier
from ports import free_port
from wire import EXECUTE, HEADER, reply_with

HOST = "127.0.0.1"
TOO_MANY = reason(errno.EMFILE)


# --- the request ------------------------------------------------------------

REQUESTS = [
    (["-s", "SHUTDOWN"], b" MSG_EXECUTE SHUTDOWN"),
    (["-se", "SHUTDOWN"], b" MSG_EXECUTE SHUTDOWN"),
    (["-se", "LOG_TEXT UPS on battery"],
     b" MSG_EXECUTE LOG_TEXT UPS on battery"),
    (["-s"], b""),
    (["-se"], b""),
    (["-s", ""], b" MSG_EXECUTE "),
    (["-se", "  a \t b\n"], b" MSG_EXECUTE   a \t b\n"),
    (["-s", "%s%n%d %%"], b" MSG_EXECUTE %s%n%d %%"),
    (["-s", b"\xe4\xf6\xfc\xff\x80\x01"], b" MSG_EXECUTE "
                                          b"\xe4\xf6\xfc\xff\x80\x01"),
    (["-s", "nonsense"], b" MSG_EXECUTE nonsense"),
]


@pytest.mark.parametrize("args, tail", REQUESTS, ids=str)
def test_request_on_the_wire(home, args, tail):
    server = home.server(reader)
    result = home.run(*args, "-a", server.where)
    assert server.only() == HEADER + tail
    assert result.messages == [message(758), message(785, HOST),
                               message(787, HOST), message(759)]
    assert len(result.out.splitlines()) == 4
    assert result.err == ""
    assert result.status == 0


@pytest.mark.parametrize("args, tail", [
    (["-sr", "EXECUTE a b"], b" MSG_EXECSTATUS EXECUTE a b"),
    (["-sr", ""], b" MSG_EXECSTATUS "),
    (["-sr"], b""),
], ids=str)
def test_request_for_a_status_on_the_wire(home, args, tail):
    server = home.server(replier(reply_with(b"EXITSTATUS=3")))
    result = home.run(*args, "-a", server.where)
    assert server.only() == HEADER + tail
    assert result.messages == [
        message(758), message(785, HOST),
        f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=3",
        message(759)]
    assert len(result.out.splitlines()) == 4
    assert result.err == ""
    assert result.status == 130


def test_lines_on_standard_output_are_log_lines_without_a_process_id(home):
    server = home.server(reader)
    start = datetime.datetime.now(datetime.timezone.utc)
    result = home.run("-s", "X", "-a", server.where, env={"TZ": "UTC"})
    end = datetime.datetime.now(datetime.timezone.utc)
    for line in result.out.splitlines():
        date, clock, pid, _ = LOG_LINE.match(line).groups()
        assert pid == "00000"
        shown = datetime.datetime.strptime(
            f"{date} {clock}", "%m/%d/%Y %H:%M:%S").replace(
                tzinfo=datetime.timezone.utc)
        assert start.replace(microsecond=0) <= shown <= end
    assert not home.path("tolva.log").exists()


def test_lines_show_local_time(home):
    server = home.server(reader)
    start = datetime.datetime.now(datetime.timezone.utc)
    result = home.run("-s", "X", "-a", server.where, env={"TZ": "ABC-5:30"})
    date, clock, _, _ = LOG_LINE.match(
        result.out.splitlines()[0]).groups()
    shown = datetime.datetime.strptime(
        f"{date} {clock}", "%m/%d/%Y %H:%M:%S").replace(
            tzinfo=datetime.timezone(datetime.timedelta(hours=5.5)))
    assert abs((shown - start).total_seconds()) < 60


@pytest.mark.parametrize("option, kind, address", [
    ("-a", "SOCK_STREAM", "127.0.0.1"),
    ("-ab", "SOCK_DGRAM", "127.255.255.255"),
])
def test_default_port_is_6003(home, option, kind, address):
    prefix = home.behind_server(kind, "0.0.0.0", 6003)
    result = home.run("-s", "X", option, address, prefix=prefix)
    assert result.status == 0
    assert (home.dir / "request").read_bytes() == \
        EXECUTE + b"X"


# --- sizes ------------------------------------------------------------------


@pytest.mark.parametrize("option, verb", [
    ("-s", b"MSG_EXECUTE "), ("-sr", b"MSG_EXECSTATUS ")])
def test_longest_request_is_sent_whole(home, option, verb):
    head = HEADER + b" " + verb
    word = b"LOG_TEXT " + b"x" * (4095 - len(head) - 10) + b"y"

    def play(talk):
        talk.read_exactly(4095)
        if option == "-sr":
            talk.send(reply_with(b"EXITSTATUS=0"))
        talk.read_to_end()

    server = home.server(play)
    assert home.run(option, word, "-a", server.where).status == 0
    assert server.only() == head + word
    assert len(head + word) == 4095


@pytest.mark.parametrize("option, verb", [
    ("-s", b"MSG_EXECUTE "), ("-sr", b"MSG_EXECSTATUS ")])
@pytest.mark.parametrize("length", [4096, 4097, 5000, 100000])
def test_too_long_a_request_is_refused_not_cut(home, option, verb, length):
    word = b"x" * (length - len(HEADER + b" " + verb))
    server = home.server(reader)
    result = home.run(option, word, "-a", server.where)
    assert server.only() == b""
    assert result.messages == [message(758), message(785, HOST),
                               message(753, HOST), message(759)]
    assert result.status == 1


# --- several listeners, and those that are not there ------------------------

REFUSED = [message(785, HOST), "system: Connection refused",
           message(753, HOST)]


def test_every_listener_gets_the_request(home):
    servers = [home.server(reader) for _ in range(5)]
    args = [arg for s in servers for arg in ("-a", s.where)]
    result = home.run("-s", "EXECUTE x", *args)
    assert [s.only() for s in servers] == \
        [EXECUTE + b"EXECUTE x"] * 5
    assert result.messages == [message(758)] + \
        [message(785, HOST)] * 5 + [message(787, HOST)] * 5 + [message(759)]
    assert result.status == 0


@pytest.mark.parametrize("option", ["-s", "-sr"])
def test_nobody_listens(home, option):
    result = home.run(option, "X", "-a", f"{HOST}:{free_port()}")
    assert result.messages == [message(758), *REFUSED, message(759)]
    assert result.err == ""
    assert result.status == 1


@pytest.mark.parametrize("position", [0, 1, 2])
def test_one_unreachable_listener_makes_the_run_fail(home, position):
    servers = [home.server(reader) for _ in range(2)]
    where = [s.where for s in servers]
    where.insert(position, f"{HOST}:{free_port()}")
    result = home.run("-s", "EXECUTE x",
                      *(arg for w in where for arg in ("-a", w)))
    assert [s.only() for s in servers] == \
        [EXECUTE + b"EXECUTE x"] * 2
    assert result.messages.count(message(753, HOST)) == 1
    assert result.messages.count(message(787, HOST)) == 2
    assert result.status == 1


# --- descriptors ------------------------------------------------------------


def test_more_listeners_than_the_descriptor_budget(home):
    server = home.server(reader, backlog=300)
    result = home.run("-s", "X", *(["-a", server.where] * 260),
                      limits="512:512")
    assert result.messages.count("error: " + TOO_MANY) == 4
    assert result.messages.count(message(787, HOST)) == 256
    assert message(753, HOST) not in result.messages
    assert [t.received for t in server.wait_finished(256)] == \
        [EXECUTE + b"X"] * 256
    assert len(server.conversations) == 256
    assert result.status == 1


def test_more_listeners_than_the_system_allows_descriptors(home):
    skip_when_wrapped("valgrind keeps descriptors for itself")
    server = home.server(reader, backlog=64)
    result = home.run("-s", "X", *(["-a", server.where] * 30),
                      limits="16:16")
    served = result.messages.count(message(787, HOST))
    assert 8 <= served <= 13
    assert result.messages.count("system: " + TOO_MANY) == 30 - served
    assert [t.received for t in server.wait_finished(served)] == \
        [EXECUTE + b"X"] * served
    assert result.status == 1


@pytest.mark.parametrize("option", ["-a", "-ab"])
def test_a_single_descriptor_left(home, option):
    skip_when_wrapped("valgrind keeps descriptors for itself")
    # One is what the loader needs, so none at all cannot be had.
    server = home.server(reader)
    receiver = home.udp_receiver(HOST)
    port = server.port if option == "-a" else receiver.port
    result = home.run("-s", "X", option, HOST, option, HOST, option, HOST,
                      "-p", port, limits="4:4")
    assert result.messages.count("system: " + TOO_MANY) == 2
    assert result.messages.count(message(787, HOST)) == 1
    assert result.status == 1
    request = server.only() if option == "-a" else receiver.receive()
    assert request == EXECUTE + b"X"
    assert receiver.nothing_waits()


# --- the message database ---------------------------------------------------


@pytest.mark.parametrize("option, status", [("-s", 0), ("-sr", 130)])
def test_without_a_message_database_it_says_so_and_goes_on(
        home, option, status):
    server = home.server(replier(reply_with(b"EXITSTATUS=3")))
    result = home.run(option, "X", "-a", server.where, cwd=home.dir)
    assert result.err == \
        "tolva: error initializing messages database messages.dat\n"
    assert result.messages == (
        [] if option == "-s" else
        [f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=3"])
    assert result.status == status


def test_a_directory_is_no_message_database(home):
    (home.dir / "messages.dat").mkdir()
    server = home.server(reader)
    result = home.run("-s", "X", "-a", server.where, cwd=home.dir)
    assert result.err == \
        "tolva: error initializing messages database messages.dat\n"
    assert result.status == 0


def test_message_database_is_taken_from_the_working_directory(home):
    server = home.server(reader)
    (home.dir / "messages.dat").write_bytes(
        b"m787=TOLVA   ERROR: sent to %s and %s, %sx %d\r\n"
        b"m758=  \t ERROR: start\n"
        b"m785=\nm759=\n")
    result = home.run("-s", "X", "-a", server.where, cwd=home.dir)
    assert result.messages == [
        "error: start",
        f"error: sent to {HOST} and %s, %sx %d"]
    assert result.err == ""


def test_missing_messages_are_not_logged(home):
    home.messages(without=(758, 785, 753))
    result = home.run("-s", "X", "-a", f"{HOST}:{free_port()}")
    assert result.messages == ["system: Connection refused", message(759)]
    assert result.status == 1


def test_long_message_lines_are_cut(home):
    home.messages(extra={787: "y" * 2000})
    server = home.server(reader)
    result = home.run("-s", "X", "-a", server.where)
    cut = [piece for piece in re.split(r"(?=\d\d/\d\d/\d{4},)", result.out)
           if "yyy" in piece]
    assert len(cut) == 1
    assert cut[0].endswith("y" * 900)
    assert len(cut[0]) == 1023
    assert result.status == 0
