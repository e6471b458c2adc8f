"""examples/apcupsd with Debian's apcupsd and its apccontrol.

apcupsd and nut-client exclude each other as packages, so apcupsd is unpacked
into a directory.  The daemon's UPS is another apcupsd's, seen over the
network, which is played here.
"""

import os
import pathlib
import socketserver
import struct
import threading

import pytest

from conftest import unpacked
from harness import message
from ports import free_port
from waiting import wait_for, wait_for_lines


@pytest.fixture(scope="module")
def debian():
    """Where apcupsd stands, and the environment it needs."""
    if pathlib.Path("/sbin/apcupsd").exists():
        return pathlib.Path("/"), {}
    root = unpacked("apcupsd", "libusb-0.1-4")
    libraries = next(root.glob("lib/*/libusb-0.1.so.4")).parent
    return root, {"LD_LIBRARY_PATH": str(libraries)}


class PlayedUps(socketserver.ThreadingTCPServer):
    """The network service of an apcupsd, whose UPS the test controls."""

    STATES = {
        "mains": ("ONLINE", 0x08, "100.0", "60.0"),
        "battery": ("ONBATT", 0x10, "90.0", "50.0"),
        "low": ("ONBATT LOWBATT", 0x50, "3.0", "2.0"),
    }
    allow_reuse_address = True
    daemon_threads = True

    def __init__(self, port):
        self.state = "mains"
        self.asked = []
        super().__init__(("127.0.0.1", port), PlayedUps.Handler)
        self.thread = threading.Thread(target=self.serve_forever,
                                       kwargs={"poll_interval": 0.05})
        self.thread.start()

    def close(self):
        self.shutdown()
        self.thread.join()
        self.server_close()

    class Handler(socketserver.StreamRequestHandler):
        def handle(self):
            try:
                while True:
                    size = self.rfile.read(2)
                    if len(size) < 2:
                        return
                    self.rfile.read(struct.unpack(">H", size)[0])
                    self.answer(self.server.state)
            except OSError:
                pass

        def answer(self, state):
            status, flags, charge, minutes = PlayedUps.STATES[state]
            for line in ("APC      : 001,013,0300", "HOSTNAME : played",
                         "UPSNAME  : probe", "MODEL    : Played UPS",
                         f"STATUS   : {status}", "LOADPCT  : 10.0 Percent",
                         f"BCHARGE  : {charge} Percent",
                         f"TIMELEFT : {minutes} Minutes",
                         "MBATTCHG : 5 Percent", "MINTIMEL : 3 Minutes",
                         f"STATFLAG : 0x{0x05000000 | flags:08X}",
                         "SERIALNO : 1", "END APC  : now"):
                data = f"{line}\n".encode()
                self.wfile.write(struct.pack(">H", len(data)) + data)
            self.wfile.write(b"\0\0")
            self.server.asked.append(state)


class Apcupsd:
    """The example's scripts beside the real apccontrol."""

    def __init__(self, site, debian, hosts):
        self.site = site
        self.root, self.libraries = debian
        self.scripts = site.copy("apcupsd", "tolva-tell", "onbattery",
                                 "offbattery", "doshutdown")
        self.scripts.chmod(0o755)
        (self.scripts / "tolva-hosts").write_text(hosts)
        self.local = site.effects / "local"
        stand_in = site.stand_in("shutdown", f'echo "$*" >>"{self.local}"')
        text = (self.root / "etc/apcupsd/apccontrol").read_text()
        for old, new in (("SHUTDOWN=/sbin/shutdown", f"SHUTDOWN={stand_in}"),
                         ("SCRIPTDIR=/etc/apcupsd",
                          f"SCRIPTDIR={self.scripts}"),
                         ("APCUPSD=/sbin/apcupsd", "APCUPSD=/bin/false"),
                         ("WALL=wall", f"WALL={site.bin}/wall")):
            assert text.count(f"\n{old}\n") == 1, old
            text = text.replace(f"\n{old}\n", f"\n{new}\n")
        self.control = self.scripts / "apccontrol"
        self.control.write_text(text)
        self.control.chmod(0o755)
        # What tolva-shutdown runs, and what apccontrol would.
        self.ours = site.effects / "ours"
        self.home = site.dir / "sender"
        self.home.mkdir()
        self.env = {
            "TOLVA_HOSTS": self.scripts / "tolva-hosts",
            "TOLVAHOME": self.home, "TOLVA_SYSTEMD": site.dir / "none",
            "TOLVA_SHUTDOWN": site.stand_in(
                "own-shutdown", f'echo "$*" >>"{self.ours}"')}
        # A host that stays up is not waited for here for three minutes.
        doshutdown = self.scripts / "doshutdown"
        text = doshutdown.read_text()
        assert text.count("\ntolva-shutdown\n") == 1
        doshutdown.write_text(text.replace(
            "\ntolva-shutdown\n", "\ntolva-shutdown -w 2 -i 1\n"))

    def event(self, name):
        """What the daemon does at an event."""
        return self.site.run(self.control, name, "probe", "0", "1",
                             env=self.env)

    def start(self, ups):
        conf = self.site.dir / "apcupsd.conf"
        conf.write_text(
            "## apcupsd.conf v1.1 ##\nUPSNAME probe\nUPSCABLE ether\n"
            f"UPSTYPE net\nDEVICE 127.0.0.1:{ups.server_address[1]}\n"
            f"POLLTIME 1\nLOCKFILE {self.site.dir}\n"
            f"SCRIPTDIR {self.scripts}\nPWRFAILDIR {self.site.dir}\n"
            f"NOLOGINDIR {self.site.dir}\nONBATTERYDELAY 1\n"
            "BATTERYLEVEL 5\nMINUTES 3\nTIMEOUT 0\nNETSERVER off\n"
            f"EVENTSFILE {self.site.dir}/events\n"
            f"STATFILE {self.site.dir}/status\n")
        # It insists on being root.
        prefix = [] if os.geteuid() == 0 else ["fakeroot"]
        self.daemon = self.site.start(
            *prefix, self.root / "sbin/apcupsd", "-b", "-f", conf, "-P",
            self.site.dir / "pid", env={**self.env, **self.libraries})


@pytest.fixture
def ups(site):
    ups = PlayedUps(free_port())
    yield ups
    ups.close()


def test_the_daemon_warns_and_shuts_the_hosts_down(site, debian, ups):
    hosts = [site.listener(f"127.42.0.{n}") for n in (1, 2)]
    dead = f"127.42.0.3:{free_port()}"
    apc = Apcupsd(site, debian, f"# hosts\n{hosts[0].where} {dead}\n"
                  f"no-such-host.invalid # a name\n{hosts[1].where}\n")
    apc.start(ups)
    wait_for(lambda: len(ups.asked) > 3, what="the daemon asks its UPS")
    assert apc.daemon.running(), apc.daemon.describe()
    assert not hosts[0].effect()

    warned = ["tolva_message.sh Power failure (UPS probe is on battery)"]
    ups.state = "battery"
    for host in hosts:
        host.wait_effect(warned)

    restored = warned + ["tolva_execute.sh cancel-shutdown",
                         "tolva_message.sh The power is back (UPS probe)"]
    ups.state = "mains"
    for host in hosts:
        host.wait_effect(restored)

    ups.state = "battery"
    for host in hosts:
        host.wait_effect(restored + warned)
    assert not apc.local.exists()
    ups.state = "low"
    for host in hosts:
        host.wait_effect(restored + warned + ["tolva_shutdown.sh "])
    assert wait_for_lines(apc.ours) == "-h +0 The UPS asks for a shutdown\n"
    assert not apc.local.exists()


def test_each_event_with_apccontrol_alone(site, debian):
    host = site.listener("127.42.0.4")
    apc = Apcupsd(site, debian, host.where)
    assert apc.event("onbattery").status == 0
    expected = ["tolva_message.sh Power failure (UPS probe is on battery)"]
    host.wait_effect(expected)
    assert apc.event("offbattery").status == 0
    expected += ["tolva_execute.sh cancel-shutdown",
                 "tolva_message.sh The power is back (UPS probe)"]
    host.wait_effect(expected)
    assert apc.event("annoyme").status == 0
    assert apc.event("doshutdown").status == 0
    host.wait_effect(expected + ["tolva_shutdown.sh "])
    assert apc.ours.read_text() == "-h +0 The UPS asks for a shutdown\n"
    assert not apc.local.exists()


def test_this_host_goes_down_when_nobody_can_be_told(site, debian):
    apc = Apcupsd(site, debian, f"127.42.0.5:{free_port()}")
    assert apc.event("doshutdown").status == 0
    assert apc.ours.exists() and not apc.local.exists()


@pytest.mark.parametrize("why", ["missing", "failing"])
def test_apccontrol_shuts_down_where_tolva_shutdown_cannot(site, debian, why):
    apc = Apcupsd(site, debian, "")
    (site.bin / "tolva-shutdown").unlink()
    if why == "failing":
        site.stand_in("tolva-shutdown", "exit 127")
    assert apc.event("doshutdown").status == 0
    assert apc.local.read_text() == \
        "-h now apcupsd UPS probe initiated shutdown\n"


def test_in_a_rehearsal_this_host_stays_up(site, debian):
    host = site.listener("127.42.0.5")
    apc = Apcupsd(site, debian, host.where)
    (apc.home / "rehearsal").touch()
    for event in ("onbattery", "offbattery", "doshutdown"):
        assert apc.event(event).status == 0
    assert not host.effect()
    assert not apc.local.exists() and not apc.ours.exists()


@pytest.mark.parametrize("path", [None, ""])
def test_the_events_need_no_search_path(site, debian, path):
    host = site.listener("127.42.0.10")
    apc = Apcupsd(site, debian, host.where)
    for name in ("tolva-tell", "doshutdown"):
        script = apc.scripts / name
        script.write_text(script.read_text().replace(
            "}/usr/local/bin:", f"}}{site.bin}:/usr/local/bin:"))
    env = {**apc.env, "PATH": path}
    assert site.run(apc.scripts / "onbattery", "probe", env=env).status == 0
    site.run(apc.scripts / "doshutdown", "probe", env=env)
    host.wait_effect(
        ["tolva_message.sh Power failure (UPS probe is on battery)",
         "tolva_shutdown.sh "])


def test_tell_names_who_has_not_done_it(site, debian):
    host = site.listener("127.42.0.6")
    lacking = site.listener("127.42.0.11", body="exit 2")
    dead = f"127.42.0.7:{free_port()}"
    apc = Apcupsd(site, debian,
                  f"{dead} {host.where} nowhere.invalid {lacking.where}")
    ran = site.run(apc.scripts / "tolva-tell", "cancel", env=apc.env)
    assert ran.status == 1
    assert f"COULD NOT tell {dead}: nobody listens there\n" in ran.out
    assert "COULD NOT tell nowhere.invalid: no such name" in ran.out
    assert f"told {lacking.where}, where the script FAILED" in ran.out
    assert f"told {host.where}\n" in ran.out
    host.wait_effect(["tolva_execute.sh cancel-shutdown"])


def test_nothing_in_a_message_reaches_the_other_shell(site, debian):
    host = site.listener("127.42.0.8")
    apc = Apcupsd(site, debian, host.where)
    effect = site.dir / "broken-in"
    ran = site.run(apc.scripts / "tolva-tell", "message",
                   f"a; touch {effect} & $(touch {effect}) `x` '\"*\t\n>b",
                   env=apc.env)
    assert ran.status == 0
    wait_for(host.effect, what="the message script runs")
    line, = host.effect()
    # As it was, but for the control characters.
    assert line == ("tolva_message.sh "
                    f"a; touch {effect} & $(touch {effect}) `x` '\"*  >b")
    assert not effect.exists()


@pytest.mark.parametrize("words", [[], ["message"], ["message", ""],
                                   ["cancel", "now"], ["shutdown"]])
def test_wrong_words_send_nothing(site, debian, words):
    host = site.listener("127.42.0.9")
    apc = Apcupsd(site, debian, host.where)
    ran = site.run(apc.scripts / "tolva-tell", *words, env=apc.env)
    assert ran.status == 2
    assert "usage: tolva-tell" in ran.err
    assert message(795) not in host.log()
