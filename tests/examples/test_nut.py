"""examples/nut with upsd, upsmon and the dummy driver."""

import contextlib
import os
import pathlib
import signal

import pytest

from conftest import EXAMPLES, only_one
from ports import free_port
from waiting import wait_for

NUT = pathlib.Path("/lib/nut")
PID_FILE = pathlib.Path("/run/nut/upsmon.pid")


@pytest.fixture
def one_upsmon():
    """upsmon keeps the process id of the only one in a fixed place."""
    assert (NUT / "upsmon").exists(), \
        "nut-server and nut-client are not installed"
    with only_one("upsmon"):
        forget_dead_upsmon()
        yield
        forget_dead_upsmon()


def forget_dead_upsmon():
    with contextlib.suppress(OSError, ValueError):
        pid = int(PID_FILE.read_text())
        name = pathlib.Path(f"/proc/{pid}/comm")
        if not (name.exists() and name.read_text().strip() == "upsmon"):
            PID_FILE.unlink()


class Ups:
    """The example's own settings, with paths and ports of this test."""

    def __init__(self, site, hosts):
        self.site = site
        self.dir = site.copy("nut", "tolva-shutdown", "ups.conf", "ups.dev",
                             "upsd.conf", "upsd.users", "upsmon.conf")
        self.dir.chmod(0o755)
        self.port = free_port()
        self.change("ups.conf", "/etc/nut/", f"{self.dir}/")
        self.change("upsd.conf", " 3493", f" {self.port}")
        self.change("upsmon.conf", ":3493", f":{self.port}",
                    "/etc/nut/", f"{self.dir}/",
                    "/etc/killpower", f"{self.dir}/killpower",
                    "POLLFREQ 5", "POLLFREQ 1",
                    "POLLFREQALERT 5", "POLLFREQALERT 1",
                    "HOSTSYNC 15", "HOSTSYNC 1",
                    "FINALDELAY 5", "FINALDELAY 0")
        (self.dir / "tolva-hosts").write_text("# the hosts\n" + hosts)
        self.local = site.effects / "local"
        self.env = {
            "NUT_CONFPATH": self.dir, "NUT_STATEPATH": self.dir,
            "NUT_ALTPIDPATH": self.dir,
            "TOLVA_HOSTS": self.dir / "tolva-hosts",
            "TOLVA_SHUTDOWN": site.stand_in(
                "shutdown", f'echo "$*" >>"{self.local}"')}
        self.user = ["-u", "root"] if os.geteuid() == 0 else []

    def change(self, name, *pairs):
        path = self.dir / name
        text = path.read_text()
        for old, new in zip(pairs[::2], pairs[1::2]):
            assert old in text, f"{name}: {old}"
            text = text.replace(old, new)
        path.write_text(text)

    def start(self):
        self.driver = self.site.start(NUT / "dummy-ups", "-a", "ups", "-D",
                                      *self.user, env=self.env)
        wait_for(lambda: (self.dir / "dummy-ups-ups").exists(),
                 what="the driver runs")
        self.upsd = self.site.start(NUT / "upsd", "-D", *self.user,
                                    env=self.env)
        wait_for(lambda: self.status() == "OL", what="upsd shows the UPS")
        self.upsmon = self.site.start(NUT / "upsmon", "-D", "-p",
                                      env=self.env)
        wait_for(lambda: "logged into" in self.upsd.out + self.upsd.err,
                 what="upsmon has logged in")

    def status(self):
        return self.site.run("upsc", f"ups@127.0.0.1:{self.port}",
                             "ups.status").out.strip()

    def becomes(self, status):
        """Changes the UPS, and waits until upsd tells everybody."""
        dev = self.dir / "ups.dev"
        text = dev.read_text().replace(f"ups.status: {self.status()}\n",
                                       f"ups.status: {status}\n")
        assert f"ups.status: {status}\n" in text
        new = self.dir / "ups.new"
        new.write_text(text)
        # The driver compares whole seconds.
        changed = dev.stat().st_mtime + 10
        os.utime(new, (changed, changed))
        os.rename(new, dev)
        wait_for(lambda: status in self.status(), what=f"upsd says {status}")

    def upsmon_said(self, text):
        return text in self.upsmon.out + self.upsmon.err


def test_low_battery_shuts_the_hosts_down(site, one_upsmon):
    first = site.listener("127.41.0.1")
    second = site.listener("127.41.0.2")
    dead = f"127.41.0.3:{free_port()}"
    ups = Ups(site, f"{first.where}  {dead}   # two on a line\n"
              f"no-such-host.invalid\n\n{second.where}")  # no line end
    ups.start()

    ups.becomes("OB")
    wait_for(lambda: ups.upsmon_said("on battery"),
             what="upsmon knows of the mains failure")
    assert not first.effect() and not second.effect()
    assert not ups.local.exists()

    ups.becomes("OB LB")
    assert ups.upsmon.wait().status == 0
    first.wait_effect(["tolva_shutdown.sh "])
    second.wait_effect(["tolva_shutdown.sh "])
    assert ups.local.read_text() == \
        "-h +0 The battery of the UPS is low\n"
    said = ups.upsmon.out
    assert f"told {first.where} to shut down" in said
    assert f"told {second.where} to shut down" in said
    assert f"COULD NOT tell {dead} to shut down" in said
    assert "COULD NOT tell no-such-host.invalid to shut down" in said


def test_a_low_battery_on_mains_shuts_nothing_down(site, one_upsmon):
    host = site.listener("127.41.0.4")
    ups = Ups(site, host.where)
    ups.start()
    ups.becomes("OL LB")
    # upsmon has looked at it when it sees what comes after it.
    ups.becomes("OB")
    wait_for(lambda: ups.upsmon_said("on battery"),
             what="upsmon knows of the mains failure")
    assert ups.upsmon.running()
    assert not host.effect()
    assert not ups.local.exists()
    os.kill(ups.upsmon.pid, signal.SIGTERM)
    ups.upsmon.wait()


def test_this_host_goes_down_without_a_list_too(site):
    local = site.effects / "local"
    stand_in = site.stand_in("shutdown", f'echo "$*" >>"{local}"')
    ran = site.run(EXAMPLES / "nut" / "tolva-shutdown", env={
        "TOLVA_HOSTS": site.dir / "no-such-file", "TOLVA_SHUTDOWN": stand_in})
    assert ran.status == 0
    assert "nobody is told" in ran.out
    assert local.read_text() == "-h +0 The battery of the UPS is low\n"


def test_silent_hosts_delay_nobody(site):
    host = site.listener("127.41.0.5")
    local = site.effects / "local"
    stand_in = site.stand_in("shutdown", f'echo "$*" >>"{local}"')
    # The sender of a silent host only ends when the test lets it.
    hold = site.dir / "hold"
    os.mkfifo(hold)
    real = site.dir / "real"
    real.mkdir()
    os.rename(site.bin / "sendtolva", real / "sendtolva")
    site.stand_in("sendtolva",
                  f'case $* in *silent*) cat "{hold}"; exit 1 ;; esac\n'
                  f'exec "{real}/sendtolva" "$@"')
    hosts = site.dir / "hosts"
    hosts.write_text(f"silent-1 silent-2\n{host.where}\n")
    run = site.start(EXAMPLES / "nut" / "tolva-shutdown", env={
        "TOLVA_HOSTS": hosts, "TOLVA_SHUTDOWN": stand_in})
    host.wait_effect(["tolva_shutdown.sh "])
    assert run.running() and not local.exists()

    def let_go():
        # Each opening lets those go that wait by then.
        with contextlib.suppress(OSError):
            os.close(os.open(hold, os.O_WRONLY | os.O_NONBLOCK))
        return not run.running()

    wait_for(let_go, what="the silent hosts are given up")
    assert run.wait().status == 0
    assert local.exists()


def test_the_rehearsal_works(site, one_upsmon):
    ran = site.run(EXAMPLES / "nut" / "rehearse",
                   env={"UPSD_PORT": free_port(), "TOLVA_PORT": free_port(),
                        "TMPDIR": site.dir}, timeout=120)
    assert ran.status == 0, ran
    assert "started: " in ran.out and "tolva_shutdown.sh" in ran.out
    assert "here this host would shut down" in ran.out
    assert ran.out.endswith("The chain works.\n")
    assert not list(site.dir.glob("tmp.*"))
