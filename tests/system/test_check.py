"""Check mode: the logon and logoff exchange with a UPS manager server."""

import errno
import re
import time

import pytest

from harness import message, reason
from peers import FullBacklog, reader
from ports import free_port
from processes import sockets_of
from upsserver import LOGOFF, LOGON, answers
from waiting import wait_for
from wire import HEADER

HOST = "127.0.0.1"
GOOD = answers(b"0|0", b"0|0")
LINE = re.compile(rb"WINCLIENT (\d{5}) (LOGON|LOGOFF)\0")


def alive_messages(host=HOST):
    return [message(758), message(785, host), message(814, host),
            message(759)]


def dead_messages(*reason):
    return [message(758), message(785, HOST), *reason, message(828, HOST),
            message(759)]


def check(home, server, *args):
    return home.run("-sc", "-a", server.where, *args)


def test_exchange_byte_for_byte(home):
    fds = []

    def play(talk):
        logon = talk.read_exactly(LOGON)
        fds.extend(sockets_of(run.pid))
        started.append(logon)
        talk.send(b"0|1 welcome")
        talk.read_exactly(LOGOFF)
        assert talk.read_to_end() == talk.received  # half-closed
        talk.send(b"0|0 bye")

    started = []
    server = home.server(play)
    run = home.start("-sc", "-a", server.where)
    result = run.wait()
    number = b"%05d" % fds[0]
    assert len(fds) == 1
    assert started == [b"WINCLIENT " + number + b" LOGON\0"]
    assert server.only() == (b"WINCLIENT " + number + b" LOGON\0"
                             b"WINCLIENT " + number + b" LOGOFF\0")
    assert result.messages == alive_messages()
    assert len(result.out.splitlines()) == 4
    assert result.err == ""
    assert result.status == 0


def test_logoff_waits_for_the_answer(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.conn.settimeout(0.3)
        with pytest.raises(TimeoutError):
            talk.read_some()
        talk.conn.settimeout(20)
        talk.send(b"0|0")
        talk.read_to_end()

    server = home.server(play)
    assert check(home, server).status == 0
    assert [m[1] for m in LINE.findall(server.only())] == \
        [b"LOGON", b"LOGOFF"]


@pytest.mark.parametrize("answer", [
    b"0|0", b"1|0", b"9|9", b"0|1...", b"7|3\r\n", b"0|0\0", b"5|50",
    b"0|0|0", b"0|0\xff\xfe", b"3|4" + b"x" * 5000])
@pytest.mark.parametrize("last", [b"0|0", b"nonsense", b""],
                         ids=["answer", "nonsense", "nothing"])
def test_alive(home, answer, last):
    server = home.server(answers(answer, last))
    result = check(home, server)
    assert result.messages == alive_messages()
    assert result.status == 0


@pytest.mark.parametrize("answer", [
    b"0:0", b"0|", b"0", b"7|", b"|0", b"|00", b"00|0", b" 0|0", b"a|0",
    b"0|a", b"0||", b"0|-", b"0|\0", b"\x000|0", b"0\0|0", b"0|:", b"0|/",
    b":|0", b"/|0", b"\xb2|0", b"0|\xb2", b"\n", b"OK", b"WINCLIENT"])
def test_not_alive_after_a_wrong_answer(home, answer):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(answer)
        talk.read_to_end()

    server = home.server(play)
    result = check(home, server)
    assert result.messages == dead_messages()
    assert result.err == ""
    assert result.status == 1
    # no logoff then
    assert re.fullmatch(rb"WINCLIENT \d{5} LOGON\0", server.only())


def test_not_alive_when_the_answer_is_split(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|")
        talk.read_to_end()

    assert check(home, home.server(play)).status == 1


def test_not_alive_when_nobody_listens(home):
    result = home.run("-sc", "-a", f"{HOST}:{free_port()}")
    # The refusal may come at once or as an event.
    assert result.messages in (
        dead_messages("system: Connection refused"), dead_messages())
    assert result.status == 1


def test_not_alive_when_the_server_closes_before_it_answers(home):
    server = home.server(lambda talk: talk.read_exactly(LOGON))
    result = check(home, server)
    assert result.messages == dead_messages()
    assert result.status == 1


def test_not_alive_when_the_server_resets_before_it_answers(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.reset()

    result = check(home, home.server(play))
    assert result.messages[:2] == dead_messages()[:2]
    assert result.messages[-2:] == dead_messages()[-2:]
    assert result.status == 1


def test_alive_when_the_server_closes_after_its_answer(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|0")
        talk.stop_sending()
        talk.read_to_end()

    server = home.server(play)
    assert check(home, server).messages == alive_messages()
    assert len(LINE.findall(server.only())) == 2


def test_alive_when_the_server_closes_right_after_the_logoff(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|0")
        talk.read_exactly(LOGOFF)

    result = check(home, home.server(play))
    assert result.messages == alive_messages()
    assert result.status == 0


def test_alive_when_the_server_resets_after_the_logoff(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|0")
        talk.read_exactly(LOGOFF)
        talk.reset()

    result = check(home, home.server(play))
    assert result.messages == alive_messages()
    assert result.status == 0


TIMED_OUT = [message(758), message(785, HOST),
             "error: " + reason(errno.ETIMEDOUT), message(759)]


def test_time_runs_out_on_a_silent_server(home):
    server = home.server(reader)
    start = time.monotonic()
    result = check(home, server, "-t", "2")
    assert time.monotonic() - start >= 0.9
    assert result.messages == TIMED_OUT
    assert result.status == 1
    assert re.fullmatch(rb"WINCLIENT \d{5} LOGON\0", server.only())


def test_time_runs_out_on_a_server_that_never_ends(home):
    def play(talk):
        talk.read_exactly(LOGON)
        talk.send(b"0|0")
        talk.read_to_end()
        wait_for(lambda: finished, 60)

    finished = []
    result = check(home, home.server(play), "-t", "2")
    finished.append(True)
    assert result.messages == TIMED_OUT
    assert result.status == 1


def test_time_runs_out_on_a_full_backlog(home):
    with FullBacklog() as full:
        result = check(home, full, "-t", "2")
    assert result.messages == TIMED_OUT
    assert result.status == 1


def test_several_servers(home):
    servers = [home.server(GOOD) for _ in range(4)]
    result = home.run("-sc", *(a for s in servers for a in ("-a", s.where)))
    assert result.messages.count(message(814, HOST)) == 4
    assert result.status == 0
    numbers = set()
    for server in servers:
        lines = LINE.findall(server.only())
        assert [line[1] for line in lines] == [b"LOGON", b"LOGOFF"]
        assert lines[0][0] == lines[1][0]
        numbers.add(lines[0][0])
    assert len(numbers) == 4


def test_one_dead_server_among_several(home):
    servers = [home.server(GOOD) for _ in range(2)]
    result = home.run("-sc", "-a", servers[0].where,
                      "-a", f"{HOST}:{free_port()}", "-a", servers[1].where)
    assert result.messages.count(message(814, HOST)) == 2
    assert result.messages.count(message(828, HOST)) == 1
    assert result.status == 1


def test_check_port_option(home):
    server = home.server(GOOD)
    assert home.run("-sc", "-a", HOST, "-pc", server.port).status == 0
    assert len(LINE.findall(server.only())) == 2


@pytest.mark.parametrize("more", [[], ["-p", "6000"]], ids=["alone", "-p"])
def test_default_port_is_5769_whatever_the_port_option_says(home, more):
    prefix = home.behind_server("SOCK_STREAM", HOST, 5769)
    result = home.run("-sc", "-a", HOST, *more, prefix=prefix)
    assert result.messages == alive_messages()
    assert result.status == 0
    assert [m[1] for m in LINE.findall(
        (home.dir / "request").read_bytes())] == [b"LOGON", b"LOGOFF"]


def test_servers_given_otherwise_are_not_checked(home):
    server = home.server(GOOD)
    other = home.server(GOOD)
    result = home.run("-sc", "-ac", other.where, "-a", server.where)
    assert result.status == 0
    assert server.only()
    assert not other.conversations


def test_check_option_under_the_senders_name_is_a_request(home):
    # Under the sender's name "-sc" is a request, not a check.
    server = home.server(reader)
    assert home.run("-sc", "-a", server.where,
                    program="sendtolva").status == 0
    assert server.only() == HEADER


def test_without_a_message_database(home):
    server = home.server(GOOD)
    result = home.run("-sc", "-a", server.where, cwd=home.dir)
    assert result.out == ""
    assert result.err == \
        "tolva: error initializing messages database messages.dat\n"
    assert result.status == 0


def test_trace_of_function_entries(home):
    result = check(home, home.server(GOOD), "-d", "6")
    entries = [line[9:] for line in result.out.splitlines()
               if line.startswith("TRACEIN: ")]
    names = ["do_kesdal_send_logon", "do_kesdal_recv_logon",
             "do_kesdal_send_logoff", "do_kesdal_recv_logoff",
             "end_connect"]
    assert [name for name in entries if name in names] == names
