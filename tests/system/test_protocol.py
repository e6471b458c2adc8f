"""The dumps in docs/protocol.md are what goes over the wire."""

import re
import shutil
import subprocess

import pytest

from harness import ROOT
from peers import reader
from waiting import wait_for
from wire import HEADER, REPLY_HEADER

TEXT = (ROOT / "docs" / "protocol.md").read_text()


def parse(lines):
    """The bytes of a dump, whose three columns must agree."""
    data = b""
    for line in lines:
        match = re.fullmatch(r"([0-9a-f]{8})  ((?:[0-9a-f]{2} )+) *(.*)",
                             line)
        assert match, line
        assert int(match[1], 16) == len(data), line
        piece = bytes.fromhex(match[2])
        shown = "".join(chr(b) if 32 <= b < 127 else "." for b in piece)
        assert match[3].rstrip() == shown.strip(), line
        data += piece
    return data


DUMPS = {name: parse(dump.splitlines()) for name, dump in re.findall(
    r"<!-- dump: ([\w-]+) -->\n```\n(.*?)\n```\n", TEXT, re.DOTALL)}


def test_every_message_is_shown():
    assert sorted(DUMPS) == ["answer", "bare", "execute", "log-reply",
                             "logoff", "logon", "reply", "status"]


@pytest.mark.parametrize("name, args", [
    ("bare", ["-s"]),
    ("execute", ["-se", "EXECUTE backup now"]),
    ("status", ["-sr", "LOG_TEXT UPS on battery"]),
])
def test_a_request(home, name, args):
    def play(talk):
        talk.read_some()
        talk.send(DUMPS["log-reply"])

    server = home.server(play)
    assert home.run(*args, "-a", server.where).status == 0
    assert server.only() == DUMPS[name]


def test_a_datagram_has_the_same_bytes(home):
    receiver = home.udp_receiver()
    sent = home.run("-se", "EXECUTE backup now", "-ab", "127.255.255.255",
                    "-p", receiver.port)
    assert sent.status == 0
    assert receiver.receive() == DUMPS["execute"]


def test_the_answers(home):
    home.script("tolva_execute.sh", "exit 3")
    listener = home.listener()
    request = DUMPS["execute"].replace(b"EXECUTE", b"EXECSTATUS", 1)
    answer = listener.request(request)
    ours = str(home.path("tolva_execute.sh")).encode()
    shown = DUMPS["reply"].replace(b"/etc/tolva/tolva_execute.sh", ours)
    assert re.sub(rb"PID=[1-9]\d*", b"PID=4711", answer) == shown
    assert listener.request(DUMPS["status"]) == DUMPS["log-reply"]
    listener.stop()


def test_the_bare_request_runs_the_shutdown_and_is_not_answered(home):
    home.script("tolva_shutdown.sh", 'echo "$#" >"$TOLVAHOME/ran"')
    listener = home.listener()
    assert listener.request(DUMPS["bare"].lower()) == b""
    wait_for(lambda: home.path("ran").exists() and home.read("ran"),
             what="the shutdown script ran")
    assert home.read("ran") == b"0\n"
    listener.stop()


def test_the_byte_behind_the_header_is_skipped(home):
    listener = home.listener()
    request = bytearray(DUMPS["status"])
    request[len(HEADER)] = ord("X")
    assert listener.request(bytes(request)) == DUMPS["log-reply"]
    listener.stop()


def test_logon_and_logoff(home):
    def play(talk):
        for name in ("logon", "logoff"):
            talk.read_exactly(len(DUMPS[name]))
            if name == "logon":
                talk.send(DUMPS["answer"])
        talk.read_to_end()

    server = home.server(play)
    assert home.run("-sc", "-a", server.where).status == 0
    said = re.sub(rb" \d{5,} ", b" 00003 ", server.only())
    assert said == DUMPS["logon"] + DUMPS["logoff"]


def test_the_sizes(home):
    """The longest message over TCP, and one that is a byte too long."""
    server = home.server(reader)
    text = "EXECUTE ".ljust(4095 - len(HEADER) - len(" MSG_EXECUTE "), "x")
    assert home.run("-s", text, "-a", server.where).status == 0
    assert len(server.only()) == 4095
    assert home.run("-s", text + "x", "-a", server.where).status == 1


def test_the_sender_in_four_lines(home):
    bash = shutil.which("bash")
    assert bash
    listener = home.listener()
    script = re.search(r"<!-- run: sender -->\n```sh\n(.*?)```\n", TEXT,
                       re.DOTALL)[1]
    assert script.count("6003") == 1
    script = script.replace("6003", str(listener.port))
    done = subprocess.run([bash, "-c", script], stdout=subprocess.PIPE,
                          text=True, check=True)
    assert done.stdout == "0\n"
    listener.wait_message("hello")
    listener.stop()


def test_what_counts_as_an_answer(home):
    answers = {REPLY_HEADER.lower() + b" EXITSTATUS=0": 0,
               b" " + REPLY_HEADER + b" EXITSTATUS=0": 1}
    for answer, status in answers.items():
        def play(talk, answer=answer):
            talk.read_some()
            talk.send(answer)

        server = home.server(play)
        assert home.run("-sr", "X", "-a", server.where).status == status
