"""examples/nut with upsd, upsmon and the dummy driver."""

import contextlib
import os
import pathlib
import signal
import socket
import time

import pytest

from conftest import EXAMPLES, only_one
from harness import ROOT
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
        self.dir = site.copy("nut", "ups.conf", "ups.dev", "upsd.conf",
                             "upsd.users", "upsmon.conf", "upssched.conf",
                             "tolva-sched")
        self.dir.chmod(0o755)
        self.port = free_port()
        self.change("ups.conf", "/etc/nut/", f"{self.dir}/")
        self.change("upsd.conf", " 3493", f" {self.port}")
        self.change("upsmon.conf", ":3493", f":{self.port}",
                    "/usr/bin/tolva-shutdown",
                    f"{site.bin}/tolva-shutdown -i 1 -w 3",
                    "/etc/killpower", f"{self.dir}/killpower",
                    "POLLFREQ 5", "POLLFREQ 1",
                    "POLLFREQALERT 5", "POLLFREQALERT 1",
                    "HOSTSYNC 15", "HOSTSYNC 1",
                    "FINALDELAY 5", "FINALDELAY 0")
        (self.dir / "tolva-hosts").write_text("# the hosts\n" + hosts)
        self.local = site.effects / "local"
        self.home = site.dir / "sender"
        self.home.mkdir()
        self.env = {
            "NUT_CONFPATH": self.dir, "NUT_STATEPATH": self.dir,
            "NUT_ALTPIDPATH": self.dir,
            "TOLVA_HOSTS": self.dir / "tolva-hosts",
            "TOLVAHOME": self.home,
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
    assert ups.local.read_text() == "-h +0 The UPS asks for a shutdown\n"
    said = ups.upsmon.out
    assert f"told {first.where}\n" in said
    assert f"told {second.where}\n" in said
    assert f"COULD NOT tell {dead}: nobody listens there\n" in said
    assert "COULD NOT tell no-such-host.invalid: no such name" in said
    assert f"{first.where} may STILL BE UP after 3 seconds" in said


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


def test_in_a_rehearsal_this_host_stays_up(site, one_upsmon):
    host = site.listener("127.41.0.5")
    ups = Ups(site, host.where)
    (ups.home / "rehearsal").touch()
    ups.start()
    ups.becomes("OB LB")
    assert ups.upsmon.wait().status == 0
    assert f"would tell {host.where}, which answers\n" in ups.upsmon.out
    assert not host.effect()
    assert not ups.local.exists()


# --- the document's way back from "upsmon -c fsd" ---------------------------


def fsd(ups):
    """What "upsmon -c fsd" does, and how often SHUTDOWNCMD has run.

    The command itself finds the process only where root has noted it."""
    os.kill(ups.upsmon.pid, signal.SIGUSR1)
    ups.upsmon.wait()
    return len(ups.local.read_text().splitlines())


def start_upsmon(ups):
    before = (ups.upsd.out + ups.upsd.err).count("logged into")
    ups.upsmon = ups.site.start(NUT / "upsmon", "-F", "-p", env=ups.env)
    wait_for(lambda: (ups.upsd.out + ups.upsd.err).count("logged into") >
             before or not ups.upsmon.running(), what="upsmon has logged in")


def test_upsd_keeps_fsd_and_a_new_upsmon_shuts_down_again(site, one_upsmon):
    """Why the order of the document matters."""
    ups = Ups(site, "")
    ups.start()
    assert fsd(ups) == 1
    assert "FSD" in ups.status()
    ups.upsmon = site.start(NUT / "upsmon", "-F", "-p", env=ups.env)
    ups.upsmon.wait()
    assert len(ups.local.read_text().splitlines()) == 2
    assert (ups.dir / "killpower").exists()


def test_the_order_of_the_document_ends_fsd(site, one_upsmon):
    ups = Ups(site, "")
    ups.start()
    assert fsd(ups) == 1
    assert (ups.dir / "killpower").exists()
    # systemctl stop nut-monitor: it has ended by itself here
    os.kill(ups.upsd.pid, signal.SIGTERM)
    ups.upsd.wait()
    ups.upsd = site.start(NUT / "upsd", "-D", *ups.user, env=ups.env)
    wait_for(lambda: ups.status() == "OL", what="FSD is gone")
    (ups.dir / "killpower").unlink()
    start_upsmon(ups)
    # It has looked at the UPS when it sees what comes next.
    ups.becomes("OB")
    wait_for(lambda: ups.upsmon_said("on battery"),
             what="upsmon knows of the mains failure")
    assert ups.upsmon.running()
    assert len(ups.local.read_text().splitlines()) == 1
    assert not (ups.dir / "killpower").exists()
    os.kill(ups.upsmon.pid, signal.SIGTERM)
    ups.upsmon.wait()


def test_the_document_has_that_order():
    text = (ROOT / "docs" / "rehearsal.md").read_text()
    step = text[text.index("upsmon -c fsd\n"):]
    places = [step.index(f"    {line}\n") for line in (
        "systemctl stop nut-monitor", "systemctl restart nut-server",
        "rm -f /etc/killpower", "upsc ups ups.status",
        "systemctl start nut-monitor")]
    assert places == sorted(places)
    assert text.index("    upsc -c ups\n") < text.index("upsmon -c fsd\n")


def test_upsc_shows_who_else_would_shut_down(site, one_upsmon):
    ups = Ups(site, "")
    ups.start()
    ran = site.run("upsc", "-c", f"ups@127.0.0.1:{ups.port}")
    assert ran.out == "127.0.0.1\n"
    os.kill(ups.upsmon.pid, signal.SIGTERM)
    ups.upsmon.wait()


# --- upssched ---------------------------------------------------------------


@pytest.fixture
def scheduled(site, one_upsmon):
    """The recipe, with five minutes that take two seconds."""
    host = site.listener("127.41.0.6")
    ups = Ups(site, host.where)
    ups.change("upssched.conf", "/etc/nut/", f"{ups.dir}/",
               "/run/nut/", f"{ups.dir}/", " 300", " 2")
    for name in ("ups.dev", "upssched.conf"):
        (ups.dir / name).chmod(0o644)
    # It runs as root too here, as a user of its own there.
    ups.change("upsmon.conf", "NOTIFYCMD /sbin/upssched",
               f'NOTIFYCMD "NUT_CONFPATH={ups.dir} /sbin/upssched"')
    ups.env["TOLVA_SYSTEMD"] = site.dir / "none"
    ups.start()
    yield host, ups
    if ups.upsmon.running():
        os.kill(ups.upsmon.pid, signal.SIGTERM)
        ups.upsmon.wait()


WARNED = "tolva_message.sh Power failure (on battery)"
CALLED_OFF = "tolva_execute.sh cancel-shutdown"


def test_upssched_calls_the_shutdown_off_when_the_power_is_back(scheduled):
    host, ups = scheduled
    ups.becomes("OB")
    host.wait_effect([WARNED, "tolva_shutdown.sh five minutes on battery"])
    ups.becomes("OL")
    host.wait_effect([WARNED, "tolva_shutdown.sh five minutes on battery",
                      CALLED_OFF])
    assert not ups.local.exists()


def test_upssched_shuts_nothing_down_before_its_time(scheduled):
    host, ups = scheduled
    ups.change("upssched.conf", " 2\n", " 600\n")
    ups.becomes("OB")
    host.wait_effect([WARNED])
    ups.becomes("OL")
    host.wait_effect([WARNED, CALLED_OFF])
    assert not ups.local.exists()


def test_an_unknown_timer_does_nothing(site):
    ran = site.run(EXAMPLES / "nut" / "tolva-sched", "bogus")
    assert ran.status == 2
    assert 'names "bogus"' in ran.err


# --- the rehearsal ----------------------------------------------------------


def rehearse(site, upsd_port, tolva_port, **popen):
    return site.start(EXAMPLES / "nut" / "rehearse", env={
        "UPSD_PORT": upsd_port, "TOLVA_PORT": tolva_port,
        "TMPDIR": site.dir}, **popen)


def nothing_is_left(site):
    wait_for(lambda: not site.home.marked_pids(),
             what="nothing is left running")
    assert not list(site.dir.glob("tmp.*"))


def test_the_rehearsal_works(site, one_upsmon):
    walls = site.effects / "walls"
    site.stand_in("wall", f'cat >>"{walls}"')
    ran = rehearse(site, free_port(), free_port()).wait(120)
    assert ran.status == 0, ran
    assert "started: " in ran.out and "tolva_shutdown.sh" in ran.out
    assert "here this host would shut down" in ran.out
    assert " no longer answers\n" in ran.out
    assert ran.out.endswith("The chain works.\n")
    assert not walls.exists()
    nothing_is_left(site)


@pytest.mark.parametrize("which", ["upsd", "tolva"])
def test_the_rehearsal_reports_a_taken_port_at_once(site, one_upsmon, which):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen(1)
        ports = {"upsd": free_port(), "tolva": free_port(),
                 which: taken.getsockname()[1]}
        begun = time.monotonic()
        ran = rehearse(site, ports["upsd"], ports["tolva"]).wait(60)
        assert time.monotonic() - begun < 15
    assert ran.status == 1
    assert f"on port {ports[which]}; is it taken?" in ran.err
    assert f"{which.upper()}_PORT=<another>" in ran.err
    nothing_is_left(site)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("step", ["2. ", "3. "])
def test_the_rehearsal_leaves_nothing_running(site, one_upsmon, number, step):
    run = rehearse(site, free_port(), free_port(), start_new_session=True)
    wait_for(lambda: f"\n{step}" in run.out, what="it has come so far")
    if step == "3. ":
        wait_for(lambda: any("tolva-shutdown" in command(pid)
                             for pid in site.home.marked_pids()),
                 what="tolva-shutdown runs")
    os.killpg(run.pid, number)
    assert run.wait(60).status == 1
    nothing_is_left(site)


def command(pid):
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{pid}/cmdline").read_text("latin-1")
    return ""
