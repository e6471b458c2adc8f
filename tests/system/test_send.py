"""Send mode: requests on the wire, replies, time-outs, exit statuses."""

import datetime
import os
import re
import signal
import time

import pytest

import preload
from fakeclock import FakeClock
from harness import LOG_LINE, message, skip_when_wrapped
from peers import FullBacklog, HeldAnswer, reader, replier
from ports import free_port
from processes import children
from waiting import BOUND, wait_for
from wire import EXECUTE, HEADER, REPLY_HEADER, STATUS, reply_with

HOST = "127.0.0.1"


# --- the request ---

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


# --- sizes ---


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


# --- several listeners, and those that are not there ---

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


# --- the reply ---

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


# --- time ---


def test_time_runs_out_while_connecting(home):
    with FullBacklog() as full:
        start = time.monotonic()
        result = home.run("-s", "X", "-a", full.where, "-t", "2")
        assert time.monotonic() - start >= 0.9
    assert result.messages == [message(758), message(785, HOST),
                               "error: Connection timed out", message(759)]
    assert result.status == 1


@pytest.mark.parametrize("option", ["-t", "-tr", "-T"])
def test_time_runs_out_while_waiting_for_the_reply(home, option):
    server = home.server(reader)
    start = time.monotonic()
    result = home.run("-sr", "X", "-a", server.where, option, "2")
    assert time.monotonic() - start >= 0.9
    assert result.messages == [message(758), message(785, HOST),
                               "error: Connection timed out", message(759)]
    assert result.status == 1
    assert server.only() == STATUS + b"X"


def test_time_running_out_overrides_a_good_reply(home):
    good = home.server(replier(reply_with(b"EXITSTATUS=0")))
    silent = home.server(reader)
    result = home.run("-sr", "X", "-a", good.where, "-a", silent.where,
                      "-t", "3")
    assert f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=0" in \
        result.messages
    assert result.messages[-2:] == ["error: Connection timed out",
                                    message(759)]
    assert result.status == 1


def test_time_limit_is_for_the_whole_run(home):
    # An answer every half second: a limit per step would let all through.
    def answer_after(seconds):
        def play(talk):
            talk.read_some()
            talk.pause(seconds)
            talk.send(reply_with(b"EXITSTATUS=0"))
            talk.read_to_end()
        return play

    servers = [home.server(answer_after(n * 0.5)) for n in range(1, 11)]
    result = home.run("-sr", "X", "-t", "2",
                      *(arg for s in servers for arg in ("-a", s.where)))
    answers = [m for m in result.messages if m.startswith("server[")]
    assert len(answers) < 10
    assert "error: Connection timed out" in result.messages
    assert result.status == 1


def test_default_time_limit_and_no_limit(home):
    held = HeldAnswer(reply_with(b"EXITSTATUS=0"))
    silent = home.server(reader)
    late = home.server(held)
    start = time.monotonic()
    limited = home.start("-sr", "X", "-a", silent.where)
    unlimited = [home.start("-sr", "X", "-a", late.where, "-t", value)
                 for value in ("0", "abc")]
    result = limited.wait()
    assert time.monotonic() - start >= 9.9
    assert result.messages[-2] == "error: Connection timed out"
    assert result.status == 1
    # The others began a moment later; they must outlast that moment.
    time.sleep(1.5)
    assert all(run.running() for run in unlimited)
    held.go.set()
    assert [run.wait().status for run in unlimited] == [0, 0]


# Makes it much later as soon as a file says so.
LATER = r"""
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

int clock_gettime(clockid_t id, struct timespec *now)
{
    char path[4096];
    int result = (int)syscall(SYS_clock_gettime, id, now);
    snprintf(path, sizeof path, "%s/later", getenv("TOLVAHOME"));
    if (access(path, F_OK) == 0) {
        now->tv_sec += 1000;
    }
    return result;
}
"""


def test_an_event_after_the_time_limit_is_the_last(home):
    def play(talk):
        talk.read_some()
        asked.append(True)
        wait_for(home.path("later").exists)
        talk.send(reply_with(b"EXITSTATUS=0"))
        talk.read_to_end()

    asked = []
    late, silent = home.server(play), home.server(reader)
    run = home.start("-sr", "X", "-a", late.where, "-a", silent.where,
                     "-t", "60", env=preload.environment(
                         home, preload.build("later", LATER)))
    wait_for(lambda: asked and silent.conversations and
             silent.conversations[0].received)
    home.write("later", "")
    result = run.wait()
    assert result.messages[-3:] == [
        f"server[{HOST}]: COMMAND=/x.sh PID=4711 EXITSTATUS=0",
        "error: Connection timed out", message(759)]
    assert result.status == 1


def test_setting_the_clock_does_not_shorten_the_time(home):
    def play(talk):
        talk.read_some()
        asked.append(talk)
        wait_for(lambda: len(asked) > 2)
        if talk is asked[1]:
            wait_for(lambda: answered)
        talk.send(reply_with(b"EXITSTATUS=0"))
        talk.read_to_end()
        answered.append(True)

    asked, answered = [], []
    clock = FakeClock(home)
    servers = [home.server(play), home.server(play)]
    run = home.start("-sr", "X", "-t", "60",
                     *(arg for s in servers for arg in ("-a", s.where)),
                     env=clock.env)
    wait_for(lambda: len(asked) == 2)
    clock.set(1000)
    asked.append(None)
    assert run.wait().status == 0


# --- signals ---


@pytest.mark.parametrize("number", [
    signal.SIGHUP, signal.SIGPIPE, signal.SIGCHLD, signal.SIGWINCH])
def test_signals_that_do_not_disturb(home, number):
    held = HeldAnswer(reply_with(b"EXITSTATUS=0"))
    server = home.server(held)
    run = home.start("-sr", "X", "-a", server.where)
    wait_for(held.asked.is_set)
    for _ in range(5):
        os.kill(run.pid, number)
    os.kill(run.pid, signal.SIGSTOP)
    os.kill(run.pid, signal.SIGCONT)
    held.go.set()
    assert run.wait().status == 0


# Nothing is handled in send mode, so this is put under it.
HANDLER = r"""
#include <signal.h>
#include <string.h>

static void take(int number)
{
    (void)number;
}

__attribute__((constructor)) static void handle(void)
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = take;
    sigaction(SIGUSR1, &action, NULL);
}
"""


def test_a_wait_that_a_signal_interrupts_goes_on(home):
    held = HeldAnswer(reply_with(b"EXITSTATUS=0"))
    server = home.server(held)
    handler = preload.build("handler", HANDLER)
    run = home.start("-sr", "X", "-a", server.where, "-t", "0",
                     env=preload.environment(home, handler))
    wait_for(held.asked.is_set)
    for _ in range(5):
        wait_for(lambda: run.pid in children(os.getpid(), "S"))
        os.kill(run.pid, signal.SIGUSR1)
    held.go.set()
    result = run.wait()
    assert result.status == 0
    assert not [m for m in result.messages if m.startswith("system: ")]


def test_interrupted_waits_do_not_put_the_time_limit_off(home):
    server = home.server(reader)
    handler = preload.build("handler", HANDLER)
    run = home.start("-sr", "X", "-a", server.where, "-t", "2",
                     env=preload.environment(home, handler))
    wait_for(lambda: server.conversations)
    end = time.monotonic() + BOUND
    while run.running() and time.monotonic() < end:
        os.kill(run.pid, signal.SIGUSR1)
        time.sleep(0.1)
    result = run.wait()
    assert result.messages[-2] == "error: Connection timed out"
    assert result.status == 1


# --- broadcast ---


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


# --- the message database ---


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


# --- descriptors ---


def test_more_listeners_than_the_descriptor_budget(home):
    server = home.server(reader, backlog=300)
    result = home.run("-s", "X", *(["-a", server.where] * 260),
                      limits="512:512")
    assert result.messages.count("error: Too many open files") == 4
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
    assert result.messages.count("system: Too many open files") == 30 - served
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
    assert result.messages.count("system: Too many open files") == 2
    assert result.messages.count(message(787, HOST)) == 1
    assert result.status == 1
    request = server.only() if option == "-a" else receiver.receive()
    assert request == EXECUTE + b"X"
    assert receiver.nothing_waits()


# --- trace ---


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
