"""The settings file: its forms, its defaults, and what comes before it."""

import errno
import re

import pytest

from fakeclock import FakeClock
from harness import message, reason
from peers import read_to_end
from waiting import wait_for
from wire import REPLY_HEADER, STATUS

HOST = "127.0.0.1"
NOWHERE = "192.0.2.1"  # an address that no machine here has
SHOWN = re.compile(r"^DEBUG: rp->(\w+) = (.*)$", re.MULTILINE)


def shown(home, content, *args, name="tolva.cfg"):
    """The three settings of the trace; the listener ends at once, since it
    cannot listen."""
    data = content if isinstance(content, bytes) else content.encode("latin-1")
    home.write(name, data + b"\nListenAddress=" + NOWHERE.encode() + b"\n")
    result = home.run("-l", "-d", "1", *args)
    assert result.status == 1
    assert result.err == "" or "messages database" in result.err
    values = dict(SHOWN.findall(result.out))
    assert set(values) == {"listenport", "kesdalport", "msgfile_name"}
    return values


# --- forms ------------------------------------------------------------------


@pytest.mark.parametrize("line, value", [
    ("ListenPort=7000", 7000), ("ListenPort = 7000", 7000),
    ("  ListenPort\t=\t7000  ", 7000), ("ListenPort=7000 # note", 7000),
    ("ListenPort=7000# note", 7000), ("ListenPort=7000\r", 7000),
    ("ListenPort=7000junk", 7000), ("ListenPort=+7000", 7000),
    ("ListenPort=00007000", 7000), ("ListenPort=7000 8000", 7000),
    ("ListenPort=abc", 0), ("ListenPort=0x10", 0), ('ListenPort="7000"', 0),
    ("ListenPort=-5", -5), ("ListenPort=70000", 70000),
    ("ListenPort=", 6003), ("ListenPort=  ", 6003),
    ("ListenPort=# 7000", 6003), ("ListenPort", 6003),
    ("# ListenPort=7000", 6003), ("  #ListenPort=7000", 6003),
    ("listenport=7000", 6003), ("ListenPort2=7000", 6003),
    ("Listen Port=7000", 6003), ("=7000", 6003), ("ListenPort#=7000", 6003),
    ("ListenPort=7000\nListenPort=7001", 7001),
    ("ListenPort=7001\nListenPort=", 6003),
    ("ListenPort==7000", 0), ("", 6003), ("\r", 6003),
    ("no setting at all\nListenPort=7000", 7000),
    ("Unknown=1\nListenPort=7000\nUnknown=2", 7000),
    ("\x00\nListenPort=7000", 7000),
    ("\xff\xfe=x\nListenPort=7000", 7000),
    ("Long=" + "x" * 9000 + "\nListenPort=7000", 7000),
    ("ListenPort=2147483647", 2147483647),
], ids=lambda v: ascii(v[:40]) if isinstance(v, str) else str(v))
def test_a_number(home, line, value):
    assert shown(home, line)["listenport"] == str(value)


@pytest.mark.parametrize("line", [
    "ListenPort=99999999999999999999", "ListenPort=-99999999999999999999",
    "ListenPort=4294967296", "AlivePort=9223372036854775808",
    "ListenTimeout=99999999999", "AliveInterval=-99999999999",
    "LogfileSize=99999999999", "RedundancyLevel=99999999999"])
def test_numbers_past_32_bits_do_no_harm(home, line):
    shown(home, line)


@pytest.mark.parametrize("line, value", [
    ("MsgDatName=other.dat", "other.dat"),
    ("MsgDatName=other.dat # note", "other.dat"),
    ("MsgDatName=a b  c  ", "a b  c"),
    ("MsgDatName=a#b", "a"), ('MsgDatName="a#b" # c', '"a#b"'),
    ('MsgDatName=""', '""'), ("MsgDatName=C:\\dir # x", "C:\\dir # x"),
    ("MsgDatName=a\\\\b # x", "a\\\\b"), ("MsgDatName=a\\#b", "a\\#b"),
    ("MsgDatName=a=b", "a=b"), ("MsgDatName=gr\xfc\xdfe", "gr\xfc\xdfe"),
    ("MsgDatName=" + "x" * 900, "x" * 900),
], ids=lambda v: ascii(v[:40]))
def test_a_text(home, line, value):
    assert shown(home, line)["msgfile_name"] == value


def test_defaults(home):
    assert shown(home, "# nothing") == {
        "listenport": "6003", "kesdalport": "5769",
        "msgfile_name": str(home.path("messages.dat"))}


def test_a_file_without_a_line_end(home):
    home.write("other.cfg", f"ListenAddress={NOWHERE}\nListenPort=7000")
    result = home.run("-l", "-d", "1", "-c", home.path("other.cfg"))
    assert ("listenport", "7000") in SHOWN.findall(result.out)


def test_a_file_with_line_ends_of_another_system(home):
    home.write("tolva.cfg", f"# settings\r\n\r\nListenAddress={NOWHERE}\r\n"
               "ListenPort=7000\r\nMsgDatName=other.dat\r\n")
    result = home.run("-l", "-d", "1")
    assert dict(SHOWN.findall(result.out)) == {
        "listenport": "7000", "kesdalport": "5769",
        "msgfile_name": "other.dat"}


def test_the_file_is_named_in_the_trace(home):
    home.write("tolva.cfg", f"ListenAddress={NOWHERE}\n")
    path = home.path("tolva.cfg")
    out = home.run("-l", "-d", "1").out
    assert f"DEBUG: init_receiver: new configfile={path}\n" in out
    out = home.run("-l", "-d", "1", "-c", "tolva.cfg").out
    assert "DEBUG: init_receiver: existing configfile=tolva.cfg\n" in out


@pytest.mark.parametrize("content", [None, ""], ids=["directory", "empty"])
def test_a_named_file_must_be_a_usable_one(home, content):
    path = home.path("other.cfg")
    if content is None:
        path.mkdir()
    else:
        path.write_text(content)
    result = home.run("-l", "-d", "-c", path)
    assert result.err == f"tolva: error reading configfile {path}\n"
    assert result.status == 1


@pytest.mark.parametrize("content", [None, ""], ids=["directory", "empty"])
def test_the_usual_file_need_not_be_usable(home, content):
    path = home.path("tolva.cfg")
    if content is None:
        path.mkdir()
    else:
        path.write_text(content)
    result = home.run("-l", "-d", "1", "-p", f"{NOWHERE}:7000")
    assert dict(SHOWN.findall(result.out)) == {
        "listenport": "7000", "kesdalport": "5769",
        "msgfile_name": str(home.path("messages.dat"))}


# --- what comes before the file ---------------------------------------------


@pytest.mark.parametrize("args, listenport, kesdalport", [
    ([], 7000, 7001), (["-p", "7002"], 7002, 7001),
    (["-pr", "7002"], 7002, 7001), (["-pc", "7002"], 7000, 7002),
    (["-pc", "7002", "-p", "7003"], 7003, 7002)], ids=str)
def test_ports_of_the_command_line_come_first(home, args, listenport,
                                              kesdalport):
    values = shown(home, "ListenPort=7000\nAlivePort=7001", *args)
    assert (values["listenport"], values["kesdalport"]) == (
        str(listenport), str(kesdalport))


def test_an_address_of_the_command_line_replaces_the_allowed_ones(home):
    listener = home.listener(config={"AllowedAddresses": "127.0.0.2"},
                             args=["-a", "127.0.0.3"])
    assert listener.request(STATUS + b"LOG_TEXT two", "127.0.0.2") == b""
    listener.wait_message(message(835, "127.0.0.2"))
    assert listener.request(STATUS + b"LOG_TEXT three",
                            "127.0.0.3").endswith(b"=0")
    listener.stop()
    assert "two" not in listener.messages()


def test_an_address_of_the_command_line_ends_the_alive_watch(home):
    listener = home.listener(
        config={"AliveEnabled": "true", "AliveAddresses": "127.0.0.2"},
        args=["-a", HOST])
    listener.request(STATUS + b"LOG_TEXT x")
    listener.stop()
    assert message(829) not in listener.messages()
    assert message(821) in listener.messages()


@pytest.mark.parametrize("args, seconds", [
    ([], 7), (["-t", "20"], 20), (["-tr", "30"], 30), (["-t", "1"], 1)],
    ids=str)
def test_the_time_out_of_the_command_line_comes_first(home, args, seconds):
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, args=args,
                             config={"ListenTimeout": 7})
    with listener.connect() as conn:
        listener.wait_sessions(1)
        clock.advance(listener, seconds - 1)
        timed_out = "error: " + reason(errno.ETIMEDOUT)
        assert timed_out not in listener.messages()
        clock.advance(listener, 1)
        assert read_to_end(conn) == b""
    listener.wait_message(timed_out)
    listener.stop()


@pytest.mark.parametrize("args", [["-t", "0"], ["-t", "abc"]], ids=str)
def test_no_time_out_of_the_command_line_comes_first_too(home, args):
    listener = home.listener(level=1, args=args,
                             config={"ListenTimeout": 7})
    with listener.connect():
        wait_for(lambda: "DEBUG: nclients = 1" in listener.out)
    listener.stop()
    assert set(re.findall("DEBUG: timeout 1 = (.*)", listener.out)) == {"-1"}


# --- truth values -----------------------------------------------------------


@pytest.mark.parametrize("value, to_file", [
    ("TRUE", True), ("true", True), ("tRuE", True), ("true # yes", True),
    ("  true  ", True), ("", True), ("yes", False), ("1", False),
    ("on", False), ("false", False), ('"true"', False), ("true x", False)])
def test_the_log_file_is_on_for_true_only(home, value, to_file):
    listener = home.listener(config={"LogfileEnabled": value})
    listener.stop()
    text = f"{message(756)}\n"
    assert (text in home.log_text()) == to_file
    assert (text in listener.out) == (not to_file)


# --- names of files ---------------------------------------------------------


def test_names_of_files_are_relative_to_the_working_directory(home):
    work = home.dir / "work"
    work.mkdir()
    (work / "my.dat").write_text("m756=mine\n")
    listener = home.listener(cwd=work, config={
        "LogfileName": "my.log", "MsgDatName": "my.dat",
        "ExecProg": "./my.sh"})
    script = work / "my.sh"
    script.write_text("#!/bin/sh\nexit 4\n")
    script.chmod(0o755)
    assert listener.request(STATUS + b"EXECUTE").endswith(b"=4")
    listener.stop()
    assert (work / "my.log").read_text().endswith(" mine\n")
    assert not home.path("tolva.log").exists()


def test_quotes_are_part_of_a_name(home):
    home.script("a b", "exit 6")
    listener = home.listener(
        config={"ExecProg": f'"{home.path("a b")}"'})
    # The shell takes them away.
    reply = listener.request(STATUS + b"EXECUTE")
    assert reply.startswith(REPLY_HEADER + b' COMMAND="')
    assert reply.endswith(b"=6")
    listener.stop()


def test_a_message_database_that_is_none(home):
    home.path("folder").mkdir()
    listener = home.listener(config={"MsgDatName": home.path("folder")})
    assert listener.err == ("tolva: error initializing messages database "
                            f"[{home.path('folder')}]\n")
    assert listener.request(STATUS + b"LOG_TEXT x").endswith(b"=0")
    listener.stop()
    assert listener.messages() == ["x"]
