"""The command line: every refusal, and what accepted options do."""

import pytest

from fakeclock import FakeClock, settle
from harness import message
from peers import read_to_end, reader
from ports import free_port, tcp_listeners, tcp_listens
from processes import sockets_of
from upsserver import good
from waiting import wait_for
from wire import EXECUTE, HEADER, LOG_TEXT, reply_with

HELP = " (-? for help).\n"
HOST = "127.0.0.1"

DOUBLED = "doubled mode parameter: `-l' and `-s'!" + HELP
NO_MODE = "missing parameter: `-l' or `-s'!" + HELP
NO_PEER = "missing address parameter: `-a <host[:port]>'!" + HELP
NO_SERVER = "missing address parameter: `-ac <host[:port]>'!" + HELP
NO_AB = "missing parameter for -ab `<ip-address>'(-? for help).\n"
NO_AC = "missing parameter for -ac `<host[:port]>'(-? for help).\n"
NO_A = "missing parameter for -a `<host[:port]>'(-? for help).\n"
BROADCAST = ("broadcast only possible in send_mode(tolva) -s[e]" + HELP)
KESDAL = ("kesdal/kesnor address not possible in send_mode(tolva) -s[e]" +
          HELP)
NO_COMMAND = ("no \"command\" parameter possible in send-mode(kesdal): "
              "`-sc'" + HELP)

S = ["-s", "X"]
L = ["-l", "-d"]


def unknown(argument):
    return f"unknown parameter: `{argument}'{HELP}"


# (arguments, the message behind the program name)
REFUSED = [
    # the mode
    ([], "missing parameter!" + HELP),
    (["-d"], NO_MODE),
    (["x"], NO_MODE),
    (["-"], NO_MODE),
    (["--"], NO_MODE),
    (["-x"], NO_MODE),
    (["word", "-a", HOST], NO_MODE),
    (["-l", "-s"], DOUBLED),
    (["-s", "-l"], DOUBLED),
    (["-l", "-l"], DOUBLED),
    (["-s", "X", "-s", "Y"], DOUBLED),
    (["-S", "X", "-Lx"], DOUBLED),
    (["-sr", "X", "-sc"], DOUBLED),
    (["-l", "-s", "-v"], DOUBLED),
    (["-l", "-s", "-?"], DOUBLED),
    (["-l", "-sx"], DOUBLED),
    (["-sx"], unknown("-sx")),
    (["-sE", "X"], unknown("-sE")),
    (["-sR"], unknown("-sR")),
    (["-sC"], unknown("-sC")),
    (["-sx", "-v"], unknown("-sx")),
    (["-s\xe4"], unknown("-s\xe4")),
    # no address
    (["-s"], NO_PEER),
    (S, NO_PEER),
    (["-se", "X"], NO_PEER),
    (["-sr", "X"], NO_PEER),
    (["-sr"], NO_PEER),
    (["-sc"], NO_SERVER),
    (["-sc", "-ac", HOST], NO_SERVER),
    (["-sc", "-ac", HOST + ":6000"], NO_SERVER),
    # -ab
    (S + ["-ab"], NO_AB),
    (S + ["-ab", "-a"], NO_AB),
    (["-l", "-ab"], NO_AB),
    (["-l", "-ab", HOST], BROADCAST),
    (["-sr", "X", "-ab", HOST], BROADCAST),
    (["-sc", "-ab", HOST], BROADCAST),
    # -ac
    (S + ["-ac"], NO_AC),
    (["-l", "-ac"], NO_AC),
    (S + ["-ac", HOST], KESDAL),
    (["-sr", "X", "-ac", HOST], KESDAL),
    (["-l", "-ac", HOST], KESDAL),
    # -a
    (S + ["-a"], NO_A),
    (S + ["-ar"], NO_A),
    (["-l", "-a", "-d"], NO_A),
    (["-sc", "-A"], NO_A),
    (S + ["-ax", HOST], unknown("-ax")),
    (S + ["-ax"], unknown("-ax")),
    (S + ["-aB", HOST], unknown("-aB")),
    (["-l", "-aR", HOST], unknown("-aR")),
    (S + ["-a", ""], "could not handle address []\n"),
    (S + ["-ab", ""], "could not handle address []\n"),
    (["-sc", "-ac", ""], "could not handle address []\n"),
    (["-sc", "-a", ""], "could not handle address []\n"),
    (["-l", "-a", ""], "could not handle address []\n"),
    # -b
    (S + ["-bs", "f"],
     "no execute parameter possible in send-mode: `-bs'" + HELP),
    (S + ["-b"],
     "no execute parameter possible in send-mode: `-b\0'" + HELP),
    (["-sc", "-bX", "f"],
     "no execute parameter possible in send-mode: `-bX'" + HELP),
    (["-l", "-bs"], "missing parameter: -bs `<file>'" + HELP),
    (["-l", "-ba", "-d"], "missing parameter: -ba `<file>'" + HELP),
    (["-l", "-b"], "missing parameter: -b\0 `<file>'" + HELP),
    (["-l", "-bx"], "missing parameter: -bx `<file>'" + HELP),
    (["-l", "-bx", "f"], unknown("-bx")),
    (["-l", "-bS", "f"], unknown("-bS")),
    (["-l", "-b", "f"], unknown("-b\0")),
    # -c
    (S + ["-c", "f"], "configfile not used in send-mode: `-c'.\n"),
    (["-sc", "-cx"], "configfile not used in send-mode: `-c'.\n"),
    (["-l", "-c"], "missing parameter: -c `<file>'" + HELP),
    (["-l", "-cz", "-d"], "missing parameter: -c `<file>'" + HELP),
    # -p
    (S + ["-p"], "missing parameter for -p\0 `<port>'" + HELP),
    (S + ["-pr", "-a"], "missing parameter for -pr `<port>'" + HELP),
    (["-l", "-pc"], "missing parameter for -pc `<port>'" + HELP),
    (["-l", "-px"], "missing parameter for -px `<port>'" + HELP),
    (S + ["-p", "-1"], "missing parameter for -p\0 `<port>'" + HELP),
    (S + ["-p", "0"], "invalid parameter: -p\0 `0'" + HELP),
    (S + ["-p", ""], "invalid parameter: -p\0 `'" + HELP),
    (S + ["-p", "abc"], "invalid parameter: -p\0 `abc'" + HELP),
    (S + ["-p", "65536"], "invalid parameter: -p\0 `65536'" + HELP),
    (S + ["-p", "70000"], "invalid parameter: -p\0 `70000'" + HELP),
    (S + ["-p", " -6003"], "invalid parameter: -p\0 ` -6003'" + HELP),
    (S + ["-p", "4294973299"],
     "invalid parameter: -p\0 `4294973299'" + HELP),
    (S + ["-p", "18446744073709557619"],
     "invalid parameter: -p\0 `18446744073709557619'" + HELP),
    (S + ["-pr", "0"], "invalid parameter: -pr `0'" + HELP),
    # the message shows what splitting left of the text
    (["-l", "-p", "10.0.0.1:0"], "invalid parameter: -p\0 `10.0.0.1'" + HELP),
    (["-l", "-pr", "h:65536"], "invalid parameter: -pr `h'" + HELP),
    (["-l", "-p", ":x"], "invalid parameter: -p\0 `'" + HELP),
    (["-l", "-pc", "0"], "invalid parameter: -pc `0'" + HELP),
    (["-l", "-pc", "65536"], "invalid parameter: -pc `65536'" + HELP),
    (["-sc", "-pc", "x:6000"], "invalid parameter: -pc `x:6000'" + HELP),
    (["-sc", "-pc", "4294973299"],
     "invalid parameter: -pc `4294973299'" + HELP),
    (S + ["-px", "1"], unknown("-px")),
    (S + ["-pR", "1"], unknown("-pR")),
    # -r
    (["-l", "-r"], "missing parameter: -r\0 `<num>'" + HELP),
    (["-l", "-rc", "-1"], "missing parameter: -rc `<num>'" + HELP),
    (S + ["-rx"], "missing parameter: -rx `<num>'" + HELP),
    (["-l", "-r", " -1"], "invalid parameter: -r\0 ` -1'" + HELP),
    (["-l", "-rc", "\t-5"], "invalid parameter: -rc `\t-5'" + HELP),
    (["-l", "-rx", "1"], unknown("-rx")),
    (["-l", "-rC", "1"], unknown("-rC")),
    # -s
    (["-sc", "X", "-a", HOST], NO_COMMAND),
    (["-sc", "", "-a", HOST], NO_COMMAND),
    # -t
    (S + ["-t"], "missing parameter: -t\0 `<time>'" + HELP),
    (S + ["-t", "-5"], "missing parameter: -t\0 `<time>'" + HELP),
    (S + ["-tr", "-a"], "missing parameter: -tr `<time>'" + HELP),
    (["-l", "-tc"], "missing parameter: -tc `<time>'" + HELP),
    (["-l", "-tx"], "missing parameter: -tx `<time>'" + HELP),
    (S + ["-t", " -1"], "invalid parameter: -t\0 ` -1'" + HELP),
    (S + ["-tr", " -1"], "invalid parameter: -tr ` -1'" + HELP),
    (["-l", "-tc", " -1"], "invalid parameter: -tc ` -1'" + HELP),
    (S + ["-tx", "1"], unknown("-tx")),
    (S + ["-tC", "1"], unknown("-tC")),
    # other letters
    *((S + ["-" + c, "x"], unknown("-" + c))
      for c in "efgijkmnoquwxyzEJQZ1@[`{"),
    (S + ["-"], unknown("-")),
    (S + ["--"], unknown("--")),
    (S + ["--help"], unknown("--help")),
    (S + ["-foo", "bar"], unknown("-foo")),
    (S + ["-\xfc"], unknown("-\xfc")),
    # words
    (S + ["word"], unknown("word")),
    (S + [""], unknown("")),
    (["-sc", "-a", HOST, "word"], unknown("word")),
    (["word", "-s"], unknown("word")),
    (S + ["-a", HOST, "b"], unknown("b")),
    (L + ["-bs", "s.sh", "extra"],
     "superfluous parameter: `extra'" + HELP),
    (L + ["-bs", "s.sh", "-ba", "a.sh", "extra", "more"],
     "superfluous parameter: `extra'" + HELP),
    # the first mistake counts
    (S + ["-t", " -1", "-p", "0"], "invalid parameter: -t\0 ` -1'" + HELP),
    (["-s", "X", "-p", "0", "-t"], "invalid parameter: -p\0 `0'" + HELP),
]


def raw(args):
    return [a.encode("latin-1") for a in args]


@pytest.mark.parametrize("args, text", REFUSED,
                         ids=[ascii(" ".join(a)) for a, _ in REFUSED])
def test_is_refused(home, args, text):
    home.configure(ListenAddress=HOST, ListenPort=free_port())
    result = home.run(*raw(args))
    assert result.err == "tolva: " + text
    assert result.out == ""
    assert result.status == 1


# --- the names of the links ---

LINKED = [
    # "-?", "-h" and "-v" are options like any other here
    ("sendtolva", ["-?"], unknown("-?")),
    ("sendtolva", ["-h"], unknown("-h")),
    ("sendtolva", ["-v"], unknown("-v")),
    ("sendtolva", [], NO_PEER),
    ("sendtolva", ["-l"], NO_PEER),
    ("sendtolva", ["-c", "f"], "configfile not used in send-mode: `-c'.\n"),
    ("sendtolva", ["word"], unknown("word")),
    ("sendtolva", ["-ac", HOST], KESDAL),
    ("listentolva", ["-?"], unknown("-?")),
    ("listentolva", ["-h"], unknown("-h")),
    ("listentolva", ["-v"], unknown("-v")),
    ("listentolva", ["-s", "X"], NO_COMMAND),
    ("listentolva", ["-sr", "X"], NO_COMMAND),
    ("listentolva", ["-ab", HOST], BROADCAST),
    ("listentolva", ["-bs", "f", "x"], "superfluous parameter: `x'" + HELP),
]


@pytest.mark.parametrize("program, args, text", LINKED,
                         ids=[f"{p} {' '.join(a)}" for p, a, _ in LINKED])
def test_link_refuses(home, program, args, text):
    home.configure(ListenAddress=HOST, ListenPort=free_port())
    result = home.run(*args, program=program)
    assert result.err == f"{program}: {text}"
    assert result.out == ""
    assert result.status == 1


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


# --- listen mode ---


def runs_shutdown_script(home, listener, name):
    """Asks for a shutdown and waits until that script has run."""
    home.run("-s", "-a", listener.where)
    wait_for(lambda: home.path(name + ".ran").exists(), what=name)


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
    listener.wait_message("error: Connection timed out")
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
    assert home.read("own.ran") == b"127.0.0.1\n"
    listener.stop()
