"""Addresses on the command line and in the settings."""

import time

import pytest

from harness import has_musl, message
from namespaces import private_network
from peers import read_to_end, reader
from ports import free_port
from processes import children, open_fds
from waiting import wait_for
from wire import EXECUTE, LOG_TEXT

REQUEST = EXECUTE + b"X"
# A name that no resolver has to ask anybody about.
NO_NAME = "x" * 300


def test_port_of_the_address_comes_before_the_port_option(home):
    first = home.server(reader)
    second = home.server(reader)
    result = home.run("-s", "X", "-a", first.where, "-a", second.host,
                      "-p", second.port)
    assert result.status == 0
    assert first.only() == REQUEST
    assert second.only() == REQUEST


@pytest.mark.parametrize("text", [
    "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:abc",
    "127.0.0.1:65536", "127.0.0.1:-65536", "127.0.0.1: ", "127.1",
    "2130706433", "0x7f.0.0.1", "0177.0.0.1", "localhost", "localhost:"])
def test_without_a_port_of_its_own_an_address_takes_the_option(home, text):
    server = home.server(reader)
    result = home.run("-s", "X", "-a", text, "-p", server.port)
    assert result.err == ""
    assert result.status == 0
    assert server.only() == REQUEST


def high_port():
    for _ in range(200):
        try:
            return free_port(61000, 65535)
        except AssertionError:
            pass
    raise AssertionError("no high port")


@pytest.mark.parametrize("text", [
    "{port}", "0{port}", " {port}", "+{port}", "{port}x", "{port} 1",
    "{over}", "{twice}"])
@pytest.mark.parametrize("make_port", [free_port, high_port],
                         ids=["low", "high"])
def test_port_of_an_address_is_cut_to_16_bits(home, text, make_port):
    server = home.server(reader, port=make_port())
    port = text.format(port=server.port, over=server.port + 65536,
                       twice=server.port + 2 * 65536)
    result = home.run("-s", "X", "-a", f"127.0.0.1:{port}", "-p", "1")
    assert result.status == 0
    assert server.only() == REQUEST


@pytest.mark.parametrize("text, shown", [
    ("127.0.0.1", "127.0.0.1"),
    ("127.1", "127.1"),
    ("localhost", "127.0.0.1"),
    ("0177.0.0.00000001", "0177.0.0.000000"),
    ("127.000.000.001", "127.000.000.001"),
    ("127.000.000.0001", "127.000.000.000"),
])
def test_messages_show_the_address_as_typed_or_as_resolved(home, text,
                                                           shown):
    server = home.server(reader)
    result = home.run("-s", "X", "-a", f"{text}:{server.port}")
    assert result.messages == [message(758), message(785, shown),
                               message(787, shown), message(759)]
    assert server.only() == REQUEST


@pytest.mark.parametrize("option", ["-a", "-ar", "-ab"])
@pytest.mark.parametrize("text, host", [
    (NO_NAME, NO_NAME), (NO_NAME + ":6003", NO_NAME), (":6003", ""),
    (":", ""), (f"{NO_NAME}:1:2", f"{NO_NAME}:1"),
], ids=["name", "name and port", "port alone", "colon", "two colons"])
def test_an_unresolvable_name_ends_the_program(home, option, text, host):
    result = home.run("-s", "X", option, text)
    assert result.err == (f"tolva: could not resolve hostname `{host}'\n"
                          f"tolva: could not handle address [{host}]\n")
    assert result.out == ""
    assert result.status == 1


def test_an_unresolvable_server_ends_the_check(home):
    result = home.run("-sc", "-a", NO_NAME + ":5769")
    assert result.err == (f"tolva: could not resolve hostname `{NO_NAME}'\n"
                          f"tolva: could not handle address [{NO_NAME}]\n")
    assert result.status == 1


def log_from(listener, host):
    with listener.connect(host) as conn:
        conn.sendall(LOG_TEXT + b"by " + host.encode())
        read_to_end(conn)


def test_allowed_addresses_are_separated_by_white_space(home):
    listener = home.listener(config={
        "AllowedAddresses": "127.0.0.2 \t127.0.0.3:99\v127.0.0.4"
                            "\f\f127.0.0.5 "})
    for last in (1, 2, 3, 4, 5, 6):
        log_from(listener, f"127.0.0.{last}")
    listener.wait_message(message(835, "127.0.0.6"))
    for last in (2, 3, 4, 5):
        listener.wait_message(f"by 127.0.0.{last}")
    assert message(835, "127.0.0.1") in listener.messages()
    listener.stop()


def test_unusable_entries_of_a_list_are_left_out(home):
    commas = "127.0.0.7," + NO_NAME
    listener = home.listener(config={
        "AllowedAddresses": f"{NO_NAME}:7 127.0.0.2 {commas} 127.0.0.3"})
    for last in (2, 3, 7):
        log_from(listener, f"127.0.0.{last}")
    listener.wait_message(message(835, "127.0.0.7"))
    listener.wait_message("by 127.0.0.2")
    listener.wait_message("by 127.0.0.3")
    listener.stop()
    assert listener.err == (
        f"tolva: could not resolve hostname `{NO_NAME}'\n"
        f"tolva: could not resolve hostname `{commas}'\n")


def test_a_long_list_of_addresses(home):
    hosts = [f"127.0.{n // 200}.{n % 200 + 1}" for n in range(300)]
    listener = home.listener(config={"AllowedAddresses": " ".join(hosts)})
    log_from(listener, hosts[0])
    log_from(listener, hosts[-1])
    log_from(listener, "127.9.9.9")
    listener.wait_message(message(835, "127.9.9.9"))
    listener.wait_message("by " + hosts[0])
    listener.wait_message("by " + hosts[-1])
    listener.stop()


def test_resolving_leaves_no_child_and_no_descriptor(home):
    def play(talk):
        talk.read_some()
        seen.append(children(run.pid))
        seen.append([t.split(":")[0] for fd, t in
                     open_fds(run.pid).items() if 2 < fd < 256])
        talk.read_to_end()

    seen = []
    server = home.server(play)
    run = home.start("-sr", "X", "-a", f"localhost:{server.port}",
                     "-t", "60")
    wait_for(lambda: len(seen) == 2)
    assert seen == [[], ["socket"]]


def test_a_listener_keeps_no_child_and_no_descriptor(home):
    listener = home.listener(config={
        "AllowedAddresses": f"localhost {NO_NAME} localhost:1"})
    wait_for(lambda: children(listener.pid) == [])
    fds = open_fds(listener.pid)
    assert sorted(t.split(":")[0] for fd, t in fds.items()
                  if 2 < fd < 256) == ["socket", "socket"]
    listener.stop()


# --- names, in a network of the test's own ---


SETUP = """
set -e
for name in hosts resolv.conf nsswitch.conf; do
    mount --bind "$1/$name" /etc/$name
done
shift
exec "$@"
"""

# A name server that hears everything and says nothing; tells each query by
# a line in a file, and runs the command given.
SILENT_SERVER = """
import socket, subprocess, sys, threading
udp = socket.socket(type=socket.SOCK_DGRAM)
udp.bind(("127.0.0.53", 53))
tcp = socket.socket()
tcp.bind(("127.0.0.53", 53))
tcp.listen(5)
def hear():
    while True:
        udp.recv(4096)
        with open(sys.argv[1], "a") as f:
            f.write("query\\n")
threading.Thread(target=hear, daemon=True).start()
sys.exit(subprocess.run(sys.argv[2:]).returncode)
"""


def in_namespace(home, hosts="", nsswitch="hosts: files dns\n",
                 resolv="nameserver 127.0.0.53\n", server=False):
    """The command to put in front of the program."""
    directory = home.dir / "etc-files"
    directory.mkdir()
    (directory / "hosts").write_text(hosts)
    (directory / "nsswitch.conf").write_text(nsswitch)
    (directory / "resolv.conf").write_text(resolv)
    setup = home.dir / "namespace.sh"
    setup.write_text(SETUP)
    command = [*private_network(), "sh", str(setup), str(directory)]
    if server:
        script = home.dir / "server.py"
        script.write_text(SILENT_SERVER)
        command += ["/usr/bin/python3", str(script),
                    str(home.dir / "queries")]
    return command


@pytest.mark.parametrize("host", [
    "nohost.invalid", "[::1]", "::1", "fe80:", "127.0.0.1.5", "256.1.1.1",
    "127.0.0.1,127.0.0.2", "six.example"])
def test_what_has_no_ipv4_address_is_refused(home, host):
    prefix = in_namespace(home, hosts="2001:db8::6 six.example\n",
                          nsswitch="hosts: files\n")
    result = home.run("-s", "X", "-a", host + ":80", prefix=prefix)
    assert result.err == (f"tolva: could not resolve hostname `{host}'\n"
                          f"tolva: could not handle address [{host}]\n")
    assert result.status == 1


def test_a_name_is_resolved_to_its_first_address(home):
    prefix = in_namespace(
        home, nsswitch="hosts: files\n",
        hosts="127.1.2.3 myhost alias\n127.1.2.4 other\n")
    result = home.run("-s", "X", "-a", "myhost:1", "-a", "alias:1",
                      prefix=prefix)
    assert sorted(result.messages) == sorted([
        message(758), message(759),
        *2 * [message(785, "127.1.2.3"), "system: Connection refused",
              message(753, "127.1.2.3")]])
    assert result.status == 1


LONG_WAITS = "nameserver 127.0.0.53\noptions timeout:30 attempts:5\n"


@pytest.mark.parametrize("resolv", [
    "nameserver 127.0.0.53\n",
    LONG_WAITS,
    "nameserver 127.0.0.53\n" * 3 + "options timeout:2 attempts:5\n",
], ids=["usual", "long waits", "many waits"])
def test_a_silent_name_server_is_given_up_after_ten_seconds(home, resolv):
    if has_musl() and resolv != LONG_WAITS:
        pytest.skip("musl itself gives a silent name server up before")
    prefix = in_namespace(home, resolv=resolv, server=True)
    before = time.monotonic()
    run = home.start("-s", "X", "-a", "slow.example:6003", prefix=prefix)
    # The bound, and what a loaded machine needs to start and end it all.
    result = run.wait(19)
    taken = time.monotonic() - before
    assert result.err == (
        "tolva: timeout resolving hostname...\n"
        "tolva: could not resolve hostname `slow.example'\n"
        "tolva: could not handle address [slow.example]\n")
    assert result.out == ""
    assert result.status == 1
    assert taken >= 9.9
    assert (home.dir / "queries").exists()


def test_each_name_of_a_list_has_its_own_ten_seconds(home):
    prefix = in_namespace(home, resolv=LONG_WAITS, server=True)
    home.configure(AllowedAddresses="one.example 127.0.0.2 two.example",
                   ListenAddress="127.0.0.1", ListenPort=6003)
    before = time.monotonic()
    run = home.start("-l", "-d", prefix=prefix)
    wait_for(lambda: message(756) in home.log_messages(), 35)
    assert time.monotonic() - before >= 19.9
    assert run.err == (
        "tolva: timeout resolving hostname...\n"
        "tolva: could not resolve hostname `one.example'\n"
        "tolva: timeout resolving hostname...\n"
        "tolva: could not resolve hostname `two.example'\n")
