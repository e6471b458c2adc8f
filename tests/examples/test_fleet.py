"""examples/fleet with hundreds of hosts, some of them dead."""

import contextlib
import os
import resource
import socket
import time

import pytest

from conftest import EXAMPLES
from harness import message
from peers import reset
from ports import free_port, tcp_listeners
from waiting import wait_for

FLEET = EXAMPLES / "fleet" / "tolva-fleet"


@contextlib.contextmanager
def silent(host, port):
    """A host that takes connections and never says a word."""
    with socket.socket() as listening:
        listening.setsockopt(socket.SOL_SOCKET,
                             socket.SO_REUSEADDR, 1)
        listening.bind((host, port))
        listening.listen(8)
        yield listening


class Fleet:
    """Listeners on many addresses and one port, with a home in common."""

    def __init__(self, site, net, count, port, body="exit 0"):
        self.site = site
        self.port = port
        self.addresses = [f"{net}.{n // 250}.{n % 250 + 1}"
                          for n in range(count)]
        home = site.home
        home.configure(LogfileEnabled="false", AllowedAddresses="127.0.0.1",
                       ListenUDP="FALSE")
        home.script("tolva_execute.sh",
                    f'echo "$FLEET_ADDRESS $*" >"{site.effects}/'
                    f'$FLEET_ADDRESS"\n{body}')
        for address in self.addresses:
            home.start("-l", "-d", "0", "-p", f"{address}:{port}",
                       env={"FLEET_ADDRESS": address,
                            "PATH": site.environment()["PATH"]})
        wait_for(lambda: len(tcp_listeners(port)) >= count, 60,
                 "all listeners listen")

    def effects(self):
        return os.listdir(self.site.effects)

    def hosts_file(self, *extra):
        path = self.site.dir / "hosts"
        names = [f"{a}  name-{a}" for a in self.addresses]
        path.write_text("# address name\n" + "\n".join(names + list(extra)))
        return path


def test_hundreds_of_hosts_and_the_dead_hold_nobody_up(site):
    port = free_port()
    fleet = Fleet(site, "127.44", 420, port,
                  body='case $FLEET_ADDRESS in *.0.7) exit 3 ;; esac')
    refusing = [f"127.45.0.{n}" for n in range(1, 21)]
    quiet = [f"127.46.0.{n}" for n in range(1, 6)]
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(silent(a, port)) for a in quiet]
        # The dead stand in front, among the others, and behind.
        hosts = fleet.hosts_file(*refusing, *quiet[2:])
        hosts.write_text(f"{quiet[0]} the-first\n{quiet[1]}\n"
                         + hosts.read_text())
        run = site.start(FLEET, "-t", "300", "-p", port, hosts,
                         "EXECUTE a b")
        wait_for(lambda: len(fleet.effects()) == 420, 120,
                 "every living host runs its script")
        assert run.running()
        # Now the silent ones hang up.
        for peer in peers:
            with contextlib.suppress(OSError):
                peer.setblocking(False)
                while True:
                    reset(peer.accept()[0])
        ended = run.wait(120)
    assert sorted(fleet.effects()) == sorted(fleet.addresses)
    assert (site.effects / "127.44.0.9").read_text() == "127.44.0.9 a b\n"
    assert ended.status == 1
    lines = ended.out.splitlines()
    assert lines[-1] == \
        "445 hosts: 419 done, 1 failed, 25 without an answer"
    assert f"NO ANSWER       {quiet[0]} the-first" in lines
    assert "FAILED          127.44.0.7  name-127.44.0.7: exit status 3" \
        in lines
    assert sorted(line.split()[2] for line in lines
                  if line.startswith("NO ANSWER")) == \
        sorted(refusing + quiet)
    assert len(lines) == 27


def test_the_time_limit_is_one_for_all(site):
    port = free_port()
    fleet = Fleet(site, "127.47", 12, port)
    quiet = [f"127.48.0.{n}" for n in range(1, 31)]
    with contextlib.ExitStack() as stack:
        for address in quiet:
            stack.enter_context(silent(address, port))
        began = time.monotonic()
        # Six blocks, which would take six times as long one by one.
        ran = site.run(FLEET, "-t", "4", "-b", "7", "-p", port,
                       fleet.hosts_file(*quiet), "EXECUTE x")
        took = time.monotonic() - began
    assert ran.status == 1
    assert ran.out.endswith(
        "42 hosts: 12 done, 0 failed, 30 without an answer\n")
    assert took < 20


def test_all_well(site):
    port = free_port()
    fleet = Fleet(site, "127.49", 5, port)
    ran = site.run(FLEET, "-p", port, fleet.hosts_file(fleet.addresses[0]),
                   "EXECUTE x")
    assert (ran.status, ran.out) == \
        (0, "5 hosts: 5 done, 0 failed, 0 without an answer\n")


def test_few_descriptors_make_smaller_blocks(site):
    port = free_port()
    fleet = Fleet(site, "127.50", 40, port)
    soft = 30

    def limit():
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))

    ran = site.run(FLEET, "-p", port, fleet.hosts_file(), "EXECUTE x",
                   preexec_fn=limit)
    assert (ran.status, ran.out) == \
        (0, "40 hosts: 40 done, 0 failed, 0 without an answer\n")


def test_a_refused_sender_is_without_an_answer(site):
    host = site.listener("127.51.0.1", allowed="127.51.0.99")
    hosts = site.dir / "hosts"
    hosts.write_text("127.51.0.1")
    ran = site.run(FLEET, "-p", host.port, hosts, "EXECUTE x")
    assert ran.status == 1
    assert ran.out == ("NO ANSWER       127.51.0.1\n"
                       "1 hosts: 0 done, 0 failed, 1 without an answer\n")
    assert not host.effect()


def test_names_and_wrong_addresses_are_left_out_and_named(site):
    port = free_port()
    fleet = Fleet(site, "127.52", 2, port)
    ran = site.run(FLEET, "-p", port, fleet.hosts_file(
        "nowhere.invalid", "127.52.0.256 too-high", "-ab",
        "127.52.0  # short"), "EXECUTE x")
    assert ran.status == 1
    assert ran.out.splitlines() == [
        "NOT AN ADDRESS  nowhere.invalid",
        "NOT AN ADDRESS  127.52.0.256 too-high",
        "NOT AN ADDRESS  -ab",
        "NOT AN ADDRESS  127.52.0",
        "6 hosts: 2 done, 0 failed, 0 without an answer, 4 not sent to"]


@pytest.mark.parametrize("args", [
    [], ["HOSTS"], ["HOSTS", ""], ["HOSTS", "-x"], ["HOSTS", "a", "b"],
    ["-t", "0", "HOSTS", "EXECUTE x"], ["-t", "soon", "HOSTS", "EXECUTE x"],
    ["-x", "HOSTS", "EXECUTE x"], ["no-such-file", "EXECUTE x"],
    ["EMPTY", "EXECUTE x"],
])
def test_nothing_is_sent_by_a_wrong_call(site, args):
    host = site.listener("127.53.0.1")
    for name, text in (("HOSTS", "127.53.0.1\n"), ("EMPTY", "# nobody\n")):
        (site.dir / name).write_text(text)
    ran = site.run(FLEET, "-p", host.port, *args)
    assert ran.status == 2
    assert ran.err and not ran.out
    assert message(795) not in host.log()


def test_the_shipped_list_is_usable(site):
    """Every line of it is an address; nothing is sent to them here."""
    site.stand_in("tolva", 'echo "$*" >>"%s"' % (site.dir / "sent"))
    ran = site.run(FLEET, EXAMPLES / "fleet" / "hosts", "SHUTDOWN")
    assert ran.out.endswith("3 hosts: 0 done, 0 failed, 3 without an answer\n")
    assert (site.dir / "sent").read_text() == (
        "-sr SHUTDOWN -t 10 -p 6003 -a 192.0.2.21 -a 192.0.2.22 "
        "-a 192.0.2.31\n")
