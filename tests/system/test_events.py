"""What is told in addition, where the message texts have words for it."""

import errno
import os
import signal
import socket

import pytest

from fakeclock import FakeClock, settle
from harness import TOLVA, message, reason
from peers import reader, replier
from ports import free_port
from waiting import wait_for
from wire import EXECUTE, LOG_TEXT, STATUS, reply_with

HOST = "127.0.0.1"


@pytest.fixture
def telling(home):
    """A home whose message texts have all there is."""
    home.more_texts()
    return home


def new_lines(listener, before):
    return listener.messages()[before:]


# --- who sent it, and how its script ended ----------------------------------


@pytest.mark.parametrize("source", ["127.0.0.1", "127.0.0.42"])
def test_a_message_over_tcp_is_followed_by_who_sent_it(telling, source):
    listener = telling.listener(config={"AllowedAddresses": source})
    before = len(listener.messages())
    listener.request(LOG_TEXT + b"hello", source)
    listener.wait_message("hello")
    assert new_lines(listener, before) == [
        message(795), message(838, source), "hello"]


@pytest.mark.parametrize("script, why", [
    ("exit 3;", message(839, 3)),
    ("exit 255;", message(839, 255)),
    ("kill -KILL $$;", message(840, "Killed")),
    ("kill -TERM $$;", message(840, "Terminated")),
])
def test_a_failed_script_is_followed_by_how_it_ended(telling, script, why):
    listener = telling.listener(config={"ExecProg": script})
    before = len(listener.messages())
    listener.request(EXECUTE + b"EXECUTE now")
    listener.wait_message(why)
    assert new_lines(listener, before)[-2:] == [
        message(793, f"{script} now"), why]


def test_a_script_that_ended_well_is_followed_by_nothing(telling):
    listener = telling.listener(
        config={"ExecProg": telling.script("good.sh")})
    listener.request(EXECUTE + b"EXECUTE now")
    listener.wait_message(message(794, f"{telling.path('good.sh')} now"))
    listener.serves("next")
    assert not any(text.startswith(("[839]", "[840]", "[841]"))
                   for text in listener.messages())


def test_a_stopped_script_is_followed_by_what_stopped_it(telling):
    listener = telling.listener(config={"ExecProg": "kill -STOP $$;"})
    reply = listener.request(STATUS + b"EXECUTE now")
    pid = int(reply.split(b"PID=")[1].split()[0])
    try:
        listener.wait_message(message(841, "Stopped (signal)"))
    finally:
        os.kill(pid, signal.SIGKILL)
    listener.no_zombies()


def test_without_texts_of_their_own_the_log_is_as_before(home):
    script = home.script("fails.sh", "exit 3")
    listener = home.listener(config={"ExecProg": script})
    assert listener.request(STATUS + b"EXECUTE now").endswith(b"EXITSTATUS=3")
    listener.stop()
    assert listener.messages() == [
        message(756), message(795), message(792, f"{script} now"),
        message(793, f"{script} now"), message(757)]


def test_without_texts_of_their_own_the_trace_is_as_before(home):
    listener = home.listener(level=10, config={
        "ExecProg": home.script("fails.sh", "exit 3")})
    listener.request(STATUS + b"EXECUTE now")
    listener.stop()
    assert len(listener.messages()) == 5
    for function in ("log_message", "msgdb_get"):
        assert listener.out.count(f"TRACEIN: {function}\n") == 5


# --- everybody may send -----------------------------------------------------


def test_a_start_that_admits_everybody_says_so(telling):
    listener = telling.listener()
    assert listener.messages()[0] == message(842)


@pytest.mark.parametrize("config, args", [
    ({"AllowedAddresses": HOST}, []),
    ({"AllowedAddresses": "no/host"}, []),
    ({}, ["-a", HOST]),
])
def test_a_start_with_named_senders_does_not_say_so(telling, config, args):
    listener = telling.listener(config={"ListenUDP": "FALSE", **config},
                                args=args)
    assert message(842) not in listener.messages()


# --- the clock --------------------------------------------------------------


def test_a_clock_that_is_set_back_is_told_once_in_seconds(telling):
    clock = FakeClock(telling)
    listener = telling.listener(env=clock.env)
    clock.advance(listener, -3600)
    clock.advance(listener, 30)
    settle(listener)
    assert [text for text in listener.messages()
            if text.startswith("[843]")] == [message(843, 3600)]


# --- a watch whose script does not end --------------------------------------


def test_a_script_that_is_followed_no_longer_is_told(telling):
    clock = FakeClock(telling)
    gate = telling.path("go")
    script = telling.script("notalive.sh",
                            f"while [ ! -e {gate} ]; do sleep 0.05; done")
    server = f"{HOST}:{free_port()}"
    listener = telling.listener(env=clock.env, config={
        "AliveEnabled": "TRUE", "AliveAddresses": server,
        "AliveInterval": 60, "AliveProg": script})
    clock.advance(listener, 61, until=lambda: any(
        text.startswith("[792]") for text in listener.messages()))
    assert message(836, HOST) not in listener.messages()
    clock.advance(listener, 61,
                  until=lambda: message(836, HOST) in listener.messages())
    gate.touch()


# --- the sender -------------------------------------------------------------


def test_a_connection_that_is_refused_is_followed_by_its_address(telling):
    port = free_port()
    result = telling.run("-sr", "EXECUTE x", "-a", f"127.0.0.7:{port}")
    assert result.status == 1
    assert result.messages[-3:] == [
        "system: Connection refused", message(753, "127.0.0.7"),
        message(759)]


@pytest.mark.parametrize("answer", [b"no answer at all", b"", b"HTTP/1.0 400"])
def test_an_answer_that_is_none_is_followed_by_its_address(telling, answer):
    def play(talk):
        talk.read_some()
        talk.send(answer)
        talk.close()
    server = telling.server(play, host="127.0.0.9")
    result = telling.run("-sr", "EXECUTE x", "-a", server.where)
    assert result.status == 1
    assert message(844, "127.0.0.9") in result.messages


def test_those_who_did_not_answer_in_time_are_named_one_by_one(telling):
    silent = [telling.server(reader, host=f"127.0.0.{n}") for n in (5, 6)]
    good = telling.server(replier(reply_with(b"EXITSTATUS=0")))
    result = telling.run("-sr", "EXECUTE x", "-t", "1", *(
        word for one in [*silent, good] for word in ("-a", one.where)))
    assert result.status == 1
    assert [text for text in result.messages if text.startswith("[845]")] == [
        message(845, "127.0.0.5"), message(845, "127.0.0.6")]


def test_an_answer_cannot_write_lines_of_its_own(home):
    forged = (b"COMMAND= PID=0 EXITSTATUS=3\n"
              b"11/16/2026,02:24:18, tolva[00001]: server[10.0.0.1]: "
              b"EXITSTATUS=0\x1b[2J\x7f\r\n")
    server = home.server(replier(reply_with(forged)))
    result = home.run("-sr", "EXECUTE x", "-a", server.where)
    assert result.status == 130
    shown = [line for line in result.out.splitlines() if "server[" in line]
    assert len(shown) == 1
    assert shown[0].endswith(
        "COMMAND= PID=0 EXITSTATUS=3?11/16/2026,02:24:18, tolva[00001]: "
        "server[10.0.0.1]: EXITSTATUS=0?[2J?")


# --- what stops a start -----------------------------------------------------


def test_a_port_that_is_taken_is_named_on_standard_error(telling):
    with socket.create_server((HOST, 0)) as taken:
        port = taken.getsockname()[1]
        run = telling.listener(port=port, wait=False, config={
            "ListenAddress": HOST, "ListenPort": port}).run
        assert run.wait().err == (
            f"tolva: cannot listen on ListenAddress={HOST} ListenPort={port} "
            f"(tcp): {reason(errno.EADDRINUSE)}\n")
        assert telling.log_messages()[-2:] == [
            f"system: {reason(errno.EADDRINUSE)}",
            message(846, HOST, port, reason(errno.EADDRINUSE))]


def test_an_address_of_another_host_is_named_on_standard_error(telling):
    run = telling.listener(wait=False, config={
        "ListenAddress": "192.0.2.1"}).run
    result = run.wait()
    assert "ListenAddress=192.0.2.1 " in result.err
    assert result.err.endswith(f"(tcp): {reason(errno.EADDRNOTAVAIL)}\n")


# --- a service manager ------------------------------------------------------


class Manager:
    """The socket of a service manager, with what it is told."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.settimeout(30)
        self.socket.bind(address)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.socket.close()

    def told(self):
        return self.socket.recv(1000)


@pytest.mark.parametrize("abstract", [False, True])
def test_a_service_manager_is_told_that_it_listens_and_that_it_ends(
        home, abstract):
    name = str(home.dir / "manager")
    with Manager("\0" + name if abstract else name) as manager:
        listener = home.listener(
            env={"NOTIFY_SOCKET": "@" + name if abstract else name})
        assert manager.told() == b"READY=1"
        listener.stop()
        assert manager.told() == b"STOPPING=1"


def test_scripts_do_not_speak_for_the_listener(home):
    script = home.script("tell.sh", 'echo "${NOTIFY_SOCKET-none}"')
    with Manager(str(home.dir / "manager")):
        listener = home.listener(
            config={"ExecProg": script},
            env={"NOTIFY_SOCKET": str(home.dir / "manager")})
        listener.request(STATUS + b"EXECUTE x")
        listener.stop()
    assert listener.out.splitlines() == ["none"]


def test_nothing_is_said_before_the_port_is_open(home):
    with socket.create_server((HOST, 0)) as taken, \
            Manager(str(home.dir / "manager")) as manager:
        run = home.listener(
            port=taken.getsockname()[1], wait=False,
            env={"NOTIFY_SOCKET": str(home.dir / "manager")}).run
        run.wait()
        manager.socket.setblocking(False)
        with pytest.raises(BlockingIOError):
            manager.told()


@pytest.mark.parametrize("name, trouble", [
    ("/nowhere/at/all", "system: No such file or directory"),
    ("/" + "x" * 200, "system: " + reason(errno.ENAMETOOLONG)),
])
def test_a_service_manager_that_cannot_be_told_costs_one_line(
        home, name, trouble):
    listener = home.listener(env={"NOTIFY_SOCKET": name})
    listener.wait_message(trouble)
    assert listener.messages() == [message(756), trouble]
    listener.serves("still here")


# --- a home that was built in -----------------------------------------------


@pytest.fixture(scope="module")
def built_in():
    """The program as it is built with a home, and that home."""
    program = TOLVA.parent / "tests" / "tolva_with_home"
    home = (TOLVA.parent / "tests" / "built-in-home").resolve()
    home.mkdir(exist_ok=True)
    yield program, home
    for path in home.iterdir():
        path.unlink()


def test_a_built_in_home_is_taken_where_none_is_named(home, built_in):
    program, there = built_in
    port = free_port()
    (there / "tolva.cfg").write_text(
        f"ListenAddress={HOST}\nListenPort={port}\n"
        f"AllowedAddresses=127.0.0.77\nListenUDP=FALSE\n")
    (there / "messages.dat").write_text("m756=listening\n")
    run = home.start("-l", "-d", "1", program=str(program), tolvahome=False,
                     env={"TOLVADEBUG": "1"})
    wait_for(lambda: f"DEBUG: workdir = >{there}<" in run.out)
    wait_for(lambda: "created tcp socket" in run.out)
    run.process.terminate()
    assert run.wait().status == 0
    assert (there / "tolva.log").exists()


def test_a_home_that_is_named_goes_before_the_one_built_in(home, built_in):
    program, _ = built_in
    run = home.start("-l", "-d", "1", "-p", f"{HOST}:{free_port()}",
                     program=str(program), env={"TOLVADEBUG": "1"})
    wait_for(lambda: f"DEBUG: workdir = >{home.home}<" in run.out)
    run.process.terminate()
    run.wait()


def test_a_sender_finds_the_texts_of_the_built_in_home(home, built_in):
    program, there = built_in
    (there / "messages.dat").write_text("m758=begin\nm753=nobody at %s\n")
    elsewhere = home.dir / "elsewhere"
    elsewhere.mkdir()
    words = ["-s", "SHUTDOWN", "-a", f"{HOST}:{free_port()}"]
    sent = home.run(*words, program=str(program), tolvahome=False,
                    cwd=elsewhere)
    assert sent.err == ""
    assert sent.messages == [
        "begin", "system: Connection refused", f"nobody at {HOST}"]
    # Those of the working directory go first.
    (elsewhere / "messages.dat").write_text("m758=here\n")
    sent = home.run(*words, program=str(program), tolvahome=False,
                    cwd=elsewhere)
    assert sent.messages == ["here", "system: Connection refused"]
