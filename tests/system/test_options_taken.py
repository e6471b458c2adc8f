"""The command line: what accepted options do."""

import errno
import pytest

from fakeclock import FakeClock, settle
from harness import message, reason
from peers import read_to_end, reader
from ports import free_port, tcp_listeners, tcp_listens
from processes import sockets_of
from upsserver import good
from waiting import wait_for, wait_for_lines
from wire import EXECUTE, HEADER, LOG_TEXT, reply_with

HOST = "127.0.0.1"


# --- send mode --------------------------------------------------------------


def sent(home, *args, program="tolva", reply=None):
    """Runs a send against a server; returns the bytes and the result."""
    def play(talk):
        talk.read_some()
        if reply:
            talk.send(reply)
        talk.read_to_end()
    server = home.server(play)
    result = home.run(*args, "-a", server.where, program=program)
    return server.only(), result


REPLY = reply_with(b"EXITSTATUS=3")


@pytest.mark.parametrize("program", ["tolva", "sendtolva"])
@pytest.mark.parametrize("args, request_bytes", [
    (["-s", "EXECUTE x"], EXECUTE + b"EXECUTE x"),
    (["-se", "EXECUTE x"], EXECUTE + b"EXECUTE x"),
    (["-Se", "EXECUTE x"], EXECUTE + b"EXECUTE x"),
    (["-s"], HEADER),
    (["-se"], HEADER),
    (["-s", ""], EXECUTE),
], ids=str)
def test_send_request(home, program, args, request_bytes):
    received, result = sent(home, *args, program=program)
    assert received == request_bytes
    assert result.err == ""
    assert result.status == 0


def test_sendtolva_without_a_mode_option_asks_for_a_shutdown(home):
    received, result = sent(home, program="sendtolva")
    assert received == HEADER
    assert result.status == 0


@pytest.mark.parametrize("option", ["-sr", "-sc", "-sx", "-sE"])
def test_sendtolva_sends_without_waiting_whatever_follows_s(home, option):
    received, result = sent(home, option, "EXECUTE x", program="sendtolva",
                            reply=REPLY)
    assert received == EXECUTE + b"EXECUTE x"
    assert result.status == 0


def test_a_repeated_command_counts_last(home):
    received, _ = sent(home, "-s", "EXECUTE one", "-s", "EXECUTE two",
                       program="sendtolva")
    assert received == EXECUTE + b"EXECUTE two"


@pytest.mark.parametrize("option", ["-l", "-lxyz", "-d", "-d7", "-L"])
def test_options_without_a_value_leave_sendtolva_as_it_is(home, option):
    received, result = sent(home, "-s", "EXECUTE x", option,
                            program="sendtolva")
    assert received == EXECUTE + b"EXECUTE x"
    assert result.status == 0


@pytest.mark.parametrize("args", [
    ["-rc", "3"], ["-r", "0"], ["-R", "x"], ["-tc", "5"], ["-T", "5"],
    ["-pc", "1"], ["-Pc", "1"], ["-tr", "3"],
    ["-d", "0"], ["-D"]], ids=" ".join)
def test_options_of_other_modes_are_accepted(home, args):
    received, result = sent(home, "-s", "EXECUTE x", *args)
    assert received == EXECUTE + b"EXECUTE x"
    assert result.err == ""
    assert result.status == 0


@pytest.mark.parametrize("option", ["-p", "-pr", "-P", "-Pr"])
def test_port_option_in_send_mode(home, option):
    server = home.server(reader)
    for value in (str(server.port), f"ignored.host:{server.port}"):
        result = home.run("-s", "X", "-a", HOST, option, value)
        assert result.status == 0
    assert [t.received for t in server.wait_finished(2)] == \
        [EXECUTE + b"X"] * 2


@pytest.mark.parametrize("value", ["1", "65535", "065535", "+1", " 9x"])
@pytest.mark.parametrize("mode, option", [
    (["-s", "X"], "-p"), (["-sr", "X"], "-pr"), (["-sc"], "-pc")],
    ids=lambda a: str(a))
def test_ports_from_1_to_65535_are_accepted(home, mode, option, value):
    # Nobody is at that port of that address, or does not speak with us.
    result = home.run(*mode, "-a", "127.66.77.88", option, value,
                      "-t", "2")
    assert result.err == ""
    assert message(785, "127.66.77.88") in result.messages


def test_address_option_with_r(home):
    server = home.server(reader)
    assert home.run("-s", "X", "-ar", server.where).status == 0
    assert server.only() == EXECUTE + b"X"


# --- listen mode ------------------------------------------------------------


def runs_shutdown_script(home, listener, name):
    """Asks for a shutdown and waits until that script has run."""
    home.run("-s", "-a", listener.where)
    assert wait_for_lines(home.path(name + ".ran")) == "0\n"


def shutdown_script(home, name):
    home.script(name, f'echo "$#" "$@" > "$TOLVAHOME/{name}.ran"')


def test_listentolva_without_arguments_runs_as_a_daemon(home):
    port = free_port()
    home.configure(ListenAddress=HOST, ListenPort=port)
    assert home.run(program="listentolva").status == 0
    wait_for(lambda: tcp_listens(port))
    assert home.run("-s", "LOG_TEXT hello", "-a",
                    f"{HOST}:{port}").status == 0
    wait_for(lambda: "hello" in home.log_messages())


def test_listentolva_takes_the_options_of_listen_mode(home):
    shutdown_script(home, "own.sh")
    listener = home.listener(program="listentolva",
                             args=["-bs", home.path("own.sh"), "-l"])
    runs_shutdown_script(home, listener, "own.sh")
    listener.stop()


def test_words_in_listen_mode_are_joined_to_the_shutdown_script(home):
    shutdown_script(home, "a.sharg-x7")
    listener = home.listener(
        args=["x", home.path("a.sh"), "arg", "-x", "7"])
    runs_shutdown_script(home, listener, "a.sharg-x7")
    listener.stop()


def test_long_words_in_listen_mode_are_joined_whole(home):
    pad = "/." * 700
    shutdown_script(home, "a.sh")
    listener = home.listener(args=["x", f"{home.home}{pad}", pad, "/a.sh"])
    runs_shutdown_script(home, listener, "a.sh")
    listener.stop()


def test_a_lone_word_in_listen_mode_changes_nothing(home):
    shutdown_script(home, "tolva_shutdown.sh")
    listener = home.listener(args=["word"])
    runs_shutdown_script(home, listener, "tolva_shutdown.sh")
    listener.stop()


def test_shutdown_script_option_overrides_the_settings(home):
    shutdown_script(home, "set.sh")
    shutdown_script(home, "own.sh")
    listener = home.listener(
        config={"ShutdownProg": home.path("set.sh")},
        args=["-bs", home.path("set.sh"), "-bs", home.path("own.sh")])
    runs_shutdown_script(home, listener, "own.sh")
    assert not home.path("set.sh.ran").exists()
    listener.stop()


def listens_at(pid):
    """"address:port" of the process's listening sockets."""
    inodes = sockets_of(pid).values()
    return [s.where for s in tcp_listeners() if s.inode in inodes]


@pytest.mark.parametrize("value, address", [
    ("{port}", "127.0.0.3"), ("127.0.0.2:{port}", "127.0.0.2"),
    ("nonsense:{port}", "0.0.0.0")], ids=["port", "host", "no address"])
def test_port_option_overrides_the_listening_address(home, value, address):
    port = free_port()
    home.configure(ListenAddress="127.0.0.3", ListenPort=1)
    run = home.start("-l", "-d", "-p", value.format(port=port))
    wait_for(lambda: tcp_listens(port) or not run.running())
    assert listens_at(run.pid) == [f"{address}:{port}"]


def test_named_settings_file_replaces_the_usual_one(home):
    other = home.dir / "other.cfg"
    port = free_port()
    other.write_text(f"ListenAddress=127.0.0.4\nListenPort={port}\n"
                     f"LogfileName={home.path('other.log')}\n")
    home.configure(ListenPort=1)
    run = home.start("-l", "-d", "-C", "other.cfg", cwd=home.dir)
    wait_for(lambda: tcp_listens(port) or not run.running())
    assert listens_at(run.pid) == [f"127.0.0.4:{port}"]
    wait_for(lambda: home.log_messages("other.log") == [message(756)])
    assert not home.path("tolva.log").exists()


def test_address_option_replaces_the_allowed_addresses(home):
    listener = home.listener(
        config={"AllowedAddresses": "127.0.0.1 127.0.0.3",
                "AliveEnabled": "true", "AliveAddresses": "127.0.0.9"},
        args=["-a", "127.0.0.2", "-ar", "127.0.0.4:77"])
    for host in ("127.0.0.1", "127.0.0.2", "127.0.0.3", "127.0.0.4"):
        listener_says = listener.connect(host)
        listener_says.sendall(LOG_TEXT + b"by " +
                              host.encode())
        read_to_end(listener_says)
        listener_says.close()
    listener.wait_message(message(835, "127.0.0.3"))
    listener.wait_message("by 127.0.0.4")
    assert message(835, "127.0.0.1") in listener.messages()
    assert "by 127.0.0.2" in listener.messages()
    # and with it the watch on the servers is off
    assert message(829) not in listener.messages()
    listener.stop()


def test_time_out_option_overrides_the_settings(home):
    listener = home.listener(config={"ListenTimeout": 600},
                             args=["-t", "1"])
    with listener.connect() as conn:
        assert read_to_end(conn) == b""
    listener.wait_message("error: " + reason(errno.ETIMEDOUT))
    listener.stop()


@pytest.mark.parametrize("args, config, interval", [
    (["-tc", "120"], {}, 120),
    (["-tc", "61"], {"AliveInterval": "600"}, 61),
    (["-tc", "5"], {}, 60),
    (["-tc", "0"], {"AliveInterval": "240"}, 60),
    (["-tc", "abc"], {}, 60),
    ([], {"AliveInterval": "59"}, 60),
    ([], {"AliveInterval": "61"}, 61),
    ([], {}, 1800),
], ids=str)
def test_alive_interval_is_taken_in_seconds_and_at_least_a_minute(
        home, args, config, interval):
    server = home.server(good)
    clock = FakeClock(home)
    listener = home.listener(args=args, env=clock.env, config={
        "AliveEnabled": "true", "AliveAddresses": server.where, **config})
    settle(listener)
    clock.advance(listener, 5, lambda: alive_checks(home) == 1)
    clock.advance(listener, interval - 1)
    assert alive_checks(home) == 1
    clock.advance(listener, 1, lambda: alive_checks(home) == 2)
    listener.stop()


def alive_checks(home):
    return home.log_messages().count(message(814, HOST))


def test_check_port_option_sets_the_watched_port(home):
    server = home.server(good)
    clock = FakeClock(home)
    listener = home.listener(
        args=["-pc", server.port], env=clock.env,
        config={"AliveEnabled": "true", "AliveAddresses": "127.0.0.1",
                "AlivePort": 1})
    clock.advance(listener, 5, lambda: alive_checks(home) == 1)
    listener.stop()


def test_not_alive_script_and_retries_override_the_settings(home):
    home.script("own.sh", 'echo "$1" > "$TOLVAHOME/own.ran"')
    clock = FakeClock(home)
    listener = home.listener(
        args=["-ba", home.path("own.sh"), "-rc", "1"], env=clock.env,
        config={"AliveEnabled": "true", "AliveRetries": 99,
                "AliveProg": "/bin/false",
                "AliveAddresses": f"127.0.0.1:{free_port()}"})
    clock.advance(listener, 5, lambda: message(832, HOST) in
                  home.log_messages())
    assert wait_for_lines(home.path("own.ran")) == "127.0.0.1\n"
    listener.stop()
