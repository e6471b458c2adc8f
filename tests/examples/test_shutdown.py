"""tolva-shutdown under dead hosts, closed pipes, read-only disks and whatever
else may hang when the power is gone.  A recorder stands in the place of
/sbin/shutdown."""

import contextlib
import os
import pty
import signal
import socket
import subprocess
import sys
import time

import pytest

from conftest import SHUTDOWN
from harness import message
from namespaces import private_network
from ports import free_port
from waiting import wait_for

GONE = "The UPS asks for a shutdown"
DOG = f"{GONE}. tolva-shutdown hangs, its watchdog does it."


class Power:
    """The command, with a list of hosts and a recorder of its own."""

    def __init__(self, site):
        self.site = site
        self.local = site.effects / "local"
        self.recorder = site.stand_in(
            "shutdown", f'printf "%s\\n" "$*" >>"{self.local}"')
        self.list = site.dir / "hosts"
        self.list.write_text("")
        self.home = site.dir / "sender"
        self.home.mkdir()
        self.script = SHUTDOWN
        self.env = {"TOLVA_SHUTDOWN": self.recorder, "TOLVAHOME": self.home,
                    "TOLVA_SYSTEMD": site.dir / "no-systemd"}

    def hosts(self, *hosts):
        self.list.write_text("".join(
            f"{getattr(host, 'where', host)}\n" for host in hosts))

    def changed(self, **values):
        """A copy with other limits, or looking for commands elsewhere."""
        text = self.script.read_text()
        for name, value in values.items():
            line, = (x for x in text.splitlines()
                     if x.startswith(f"{name}="))
            text = text.replace(f"\n{line}\n", f"\n{name}={value}\n")
        self.script = self.site.dir / "tolva-shutdown"
        self.script.write_text(text)
        self.script.chmod(0o755)

    def argv(self, *options):
        return [self.script, "-i", "1", *options]

    def start(self, *options, env=None, prefix=(), **popen):
        return self.site.start(*prefix, *self.argv(*options, self.list),
                               env=self.env | (env or {}), **popen)

    def run(self, *options, **more):
        return self.start(*options, **more).wait(60)

    def went_down(self, text=GONE):
        wait_for(self.local.exists, 40, "this host goes down")
        return self.local.read_text() == f"-h +0 {text}\n"

    def stayed_up(self):
        return not self.local.exists()

    def nothing_is_left(self, *but):
        kept = {x.run.pid for x in but}
        wait_for(lambda: not set(self.site.home.marked_pids()) - kept,
                 what="nothing is left running")


@pytest.fixture
def power(site):
    return Power(site)


def goes_down(host):
    """The host's listener ends, as that of a host that goes down."""
    os.kill(host.run.pid, signal.SIGTERM)
    host.run.wait()


# --- telling and waiting ----------------------------------------------------


def test_this_host_waits_until_the_others_no_longer_answer(site, power):
    first, second = (site.listener(f"127.43.0.{n}") for n in (1, 2))
    power.hosts(first, second)
    run = power.start("-w", "600")
    for host in (first, second):
        host.wait_effect(["tolva_shutdown.sh "])
        wait_for(lambda h=host: f"told {h.where}\n" in run.out)
    goes_down(first)
    wait_for(lambda: f"{first.where} no longer answers" in run.out)
    wait_for(lambda: "waits for this host to go down" in second.log())
    assert power.stayed_up()
    goes_down(second)
    assert run.wait().status == 0
    assert power.went_down()
    assert f"told {first.where}\n" in run.out
    assert run.out.endswith("this host goes down now\n")
    power.nothing_is_left()


def test_one_that_stays_up_is_waited_for_until_the_time_is_up(site, power):
    host = site.listener("127.43.0.3")
    power.hosts(host)
    begun = time.monotonic()
    ran = power.run("-w", "4")
    assert time.monotonic() - begun >= 3
    assert ran.status == 0
    assert f"{host.where} may STILL BE UP after 4 seconds" in ran.out
    assert power.went_down()


def test_without_a_time_nobody_is_waited_for(site, power):
    host = site.listener("127.43.0.4")
    power.hosts(host)
    assert power.run("-w", "0").status == 0
    host.wait_effect(["tolva_shutdown.sh "])
    assert power.went_down()
    assert "waits for" not in host.log()


def test_told_is_said_only_of_hosts_that_have_answered(site, power):
    good = site.listener("127.43.0.5")
    refusing = site.listener("127.43.0.6", allowed="192.0.2.1")
    dead = f"127.43.0.7:{free_port()}"
    power.hosts(refusing, dead, "no-such-host.invalid", "-v", good)
    ran = power.run("-w", "0")
    good.wait_effect(["tolva_shutdown.sh "])
    assert sorted(ran.out.splitlines()) == sorted([
        f"told {good.where}",
        f"COULD NOT tell {refusing.where}: it REFUSES this host, see "
        "AllowedAddresses there",
        f"COULD NOT tell {dead}: nobody listens there",
        "COULD NOT tell no-such-host.invalid: no such name or address",
        "COULD NOT tell -v: that is no host",
        "this host goes down now"])
    assert not refusing.effect()


def test_a_host_that_is_down_at_once_was_told(power):
    with socket.socket() as listening:
        listening.bind(("127.43.0.16", 0))
        listening.listen(1)
        power.hosts(":".join(map(str, listening.getsockname())))
        run = power.start("-w", "600")
        taken, _ = listening.accept()
        listening.close()
        assert taken.recv(4096)
        taken.close()
    assert run.wait().status == 0
    assert "sent to 127.43.0.16:" in run.out
    assert ", which has not answered since\n" in run.out
    assert "COULD NOT" not in run.out
    assert power.went_down()


def test_a_reason_arrives_as_it_was_given(site, power):
    host = site.listener("127.43.0.8")
    power.hosts(host)
    ran = power.run("-w", "0", "-c", "SHUTDOWN 'rack 4 (low); <&> $HOME'")
    host.wait_effect(["tolva_shutdown.sh rack 4 (low); <&> $HOME"])
    assert f"told {host.where}\n" in ran.out


@pytest.mark.parametrize("status, said", [
    (3, "where the script FAILED: status 130 of tolva -sr"),
    (42, "which rehearses and stays up")])
def test_a_host_whose_script_fails_is_not_waited_for(site, power, status,
                                                     said):
    host = site.listener("127.43.0.9", body=f"exit {status}")
    power.hosts(host)
    ran = power.run("-w", "600", "-c", "SHUTDOWN")
    assert f"told {host.where}, {said}\n" in ran.out
    assert power.went_down()


def test_a_script_that_takes_long_is_waited_for(site, power):
    hold = site.dir / "hold"
    host = site.listener("127.43.0.10", body=f"while [ ! -e {hold} ]; do "
                         "sleep 0.1; done")
    power.hosts(host)
    power.changed(LIMIT=1)
    run = power.start("-w", "600", "-c", "SHUTDOWN")
    wait_for(lambda: "where the script is still running" in run.out)
    wait_for(lambda: "waits for this host to go down" in host.log())
    assert power.stayed_up()
    hold.touch()
    goes_down(host)
    assert run.wait().status == 0
    assert power.went_down()


def test_the_list_may_come_from_anywhere(site, power):
    hosts = [site.listener(f"127.43.0.{n}") for n in range(11, 15)]
    a, b, c, d = (host.where for host in hosts)
    power.list.write_bytes(
        f"\ufeff{a}\r\n# {a}x\r\n  \t{b} {c} # two\r\n*\r\n\r\n{b}\r\n{d}"
        .encode())
    ran = power.run("-w", "0")
    for host in hosts:
        host.wait_effect(["tolva_shutdown.sh "])
        assert f"told {host.where}\n" in ran.out
    assert "COULD NOT tell *: no such name" in ran.out
    assert ran.out.count("COULD NOT") == 1


@pytest.mark.parametrize("make", [
    lambda path: path.unlink(), lambda path: path.write_text("# none\n"),
    lambda path: path.unlink() or path.mkdir()])
def test_this_host_goes_down_without_a_list(power, make):
    make(power.list)
    ran = power.run()
    assert ran.status == 0
    assert "is told\n" in ran.out
    assert power.went_down()


# --- what hangs -------------------------------------------------------------


def full_pipe():
    read, write = os.pipe()
    os.set_blocking(write, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(write, bytes(4096)):
            pass
    os.set_blocking(write, True)
    return read, write


@pytest.mark.parametrize("outputs", ["closed", "nobody reads", "full"])
def test_nobody_has_to_read_what_is_said(site, power, outputs):
    host = site.listener("127.43.1.1")
    power.hosts(host, f"127.43.1.2:{free_port()}")
    argv = power.argv("-w", "0", power.list)
    env = site.home.environment(site.environment(power.env))
    if outputs == "closed":
        argv = ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", *argv]
        subprocess.run(argv, env=env, timeout=60, check=True)
    else:
        read, write = full_pipe() if outputs == "full" else os.pipe()
        if outputs != "full":
            os.close(read)
        subprocess.run(argv, env=env, timeout=60, check=True, stdout=write,
                       stderr=write)
        os.close(write)
    host.wait_effect(["tolva_shutdown.sh "])
    assert power.went_down()


@pytest.mark.parametrize("path", [None, ""])
def test_no_search_path_is_needed(site, power, path):
    host = site.listener("127.43.1.3")
    power.hosts(host)
    power.changed(PATH="${PATH:+$PATH:}" + f"{site.bin}:/usr/bin:/bin")
    ran = power.run("-w", "0", env={"PATH": path})
    assert f"told {host.where}\n" in ran.out
    host.wait_effect(["tolva_shutdown.sh "])
    assert power.went_down()


@pytest.mark.parametrize("tool", ["logger", "tolva", "uname", "stat"])
@pytest.mark.parametrize("how", ["exec sleep 600", "kill -s STOP $$"])
@pytest.mark.parametrize("timeout", [True, False])
def test_whatever_hangs_this_host_goes_down(site, power, tool, how, timeout):
    host = site.listener("127.43.1.4")
    power.hosts(host)
    if not timeout:
        power.script = site.dir / "without-timeout"
        power.script.write_text(SHUTDOWN.read_text().replace(
            "if command -v timeout", "if false"))
    power.changed(LIMIT=1)
    site.stand_in(tool, how)
    ran = power.run("-w", "0", env={"JOURNAL_STREAM": "1:1"})
    assert ran.status == 0
    assert power.went_down()
    if tool == "tolva":
        assert f"COULD NOT tell {host.where}: no answer within" in ran.out
    else:
        host.wait_effect(["tolva_shutdown.sh "])
    power.nothing_is_left(host)


@pytest.mark.parametrize("signal_number", [
    signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT,
    signal.SIGPIPE, signal.SIGUSR1, signal.SIGALRM])
def test_no_signal_ends_it_before_its_time(site, power, signal_number):
    host = site.listener("127.43.1.5")
    power.hosts(host)
    run = power.start("-w", "600", start_new_session=True)
    host.wait_effect(["tolva_shutdown.sh "])
    os.killpg(run.pid, signal_number)
    wait_for(lambda: "waits for this host to go down" in host.log())
    os.killpg(run.pid, signal_number)
    assert run.running() and power.stayed_up()
    goes_down(host)
    assert run.wait().status == 0
    assert power.went_down()


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSTOP])
@pytest.mark.parametrize("setsid", [True, False])
def test_the_watchdog_acts_where_it_is_killed_or_stopped(site, power, number,
                                                         setsid):
    host = site.listener("127.43.1.6")
    power.hosts(host)
    if not setsid:
        power.script = site.dir / "without-setsid"
        power.script.write_text(SHUTDOWN.read_text().replace(
            "if command -v setsid", "if false"))
    # So that only the watchdog can be meant.
    power.changed(SPARE=-594)
    run = power.start("-w", "600")
    host.wait_effect(["tolva_shutdown.sh "])
    os.kill(run.pid, number)
    assert power.went_down(DOG)
    run.process.kill()


def test_the_watchdog_does_not_act_before_its_time(site, power):
    """Ending what it waits with only lets it wait anew."""
    host = site.listener("127.43.1.10")
    power.hosts(host)
    power.start("-w", "600")
    host.wait_effect(["tolva_shutdown.sh "])
    first = wait_for(lambda: sleepers(site, 590))
    os.kill(first[0], signal.SIGKILL)
    wait_for(lambda: set(sleepers(site, 590)) - set(first),
             what="it waits again")
    assert power.stayed_up()


def sleepers(site, seconds):
    """Who waits for so many seconds or more."""
    found = []
    for pid in site.home.marked_pids():
        with contextlib.suppress(OSError, ValueError, IndexError):
            with open(f"/proc/{pid}/cmdline") as f:
                words = f.read().split("\0")
            if words[0] == "sleep" and int(words[1]) >= seconds:
                found.append(pid)
    return found


def test_the_watchdog_acts_where_the_list_cannot_be_opened(power):
    power.list.unlink()
    os.mkfifo(power.list)
    power.changed(SPARE=1)
    run = power.start("-w", "1")
    assert power.went_down(DOG)
    run.process.kill()


def test_nothing_is_written_to_any_file(site, power):
    """All disks are read-only, but for the recorder's directory."""
    effects = site.effects
    setup = (f'mount --bind /tmp /tmp; mount --bind {effects} {effects}; '
             "mount -o remount,bind,ro /tmp && mount -o remount,bind,ro / && "
             f'! touch {site.dir}/x 2>/dev/null && exec "$@"')
    power.hosts("127.43.1.7", "127.43.1.8")
    ran = power.run("-w", "0", prefix=[
        *private_network(), "sh", "-c", setup, "sh"])
    assert ran.out.count("COULD NOT tell") == 2, ran.describe()
    assert power.went_down()


# A name server that takes every question and answers none, and one listener.
NO_NAMES = """
import pathlib, socket, subprocess, sys, threading
record, resolv, *command = sys.argv[1:]
names = socket.socket(type=socket.SOCK_DGRAM)
names.bind(("127.0.0.1", 53))
pathlib.Path(resolv).write_text("nameserver 127.0.0.1\\n")
subprocess.run(["mount", "--bind", resolv, "/etc/resolv.conf"], check=True)
server = socket.create_server(("127.0.0.1", 6003))
def take():
    conn, _ = server.accept()
    pathlib.Path(record).write_bytes(conn.recv(4096))
    conn.close()
threading.Thread(target=take, daemon=True).start()
sys.exit(subprocess.run(command).returncode)
"""


def test_a_name_server_that_is_dead_keeps_nobody_from_being_told(site,
                                                                 power):
    record = site.effects / "request"
    power.hosts("host.example", "other.example", "127.0.0.1")
    power.changed(LIMIT=1)
    run = power.start("-w", "0", prefix=[
        *private_network(), sys.executable, "-c", NO_NAMES, record,
        site.dir / "resolv"])
    wait_for(record.exists, what="the host with an address is told")
    assert "COULD NOT" not in run.out
    assert run.wait(60).status == 0
    assert "COULD NOT tell host.example: " in run.out
    assert "COULD NOT tell other.example: " in run.out
    assert power.went_down()


@pytest.mark.parametrize("status", [0, 1])
def test_a_shutdown_that_fails_is_tried_again(site, power, status):
    site.stand_in("shutdown", f'echo x >>"{power.local}"\n'
                  f'[ $(wc -l <"{power.local}") -gt 2 ] || exit 5\n'
                  f"exit {status}")
    power.changed(SPARE=600)
    ran = power.run("-w", "0")
    assert ran.status == status
    assert "-h +0 ended with status 5" in ran.out
    assert power.local.read_text() == "x\n" * 3
    # Only then the watchdog is left, which would try it once more.
    assert bool(sleepers(site, 590)) == bool(status)


# --- stages and fleets ------------------------------------------------------


def test_a_fleet_is_told_by_tolva_fleet_and_then_waited_for(site, power):
    host = site.listener("127.43.2.1")
    told = site.effects / "told"
    site.stand_in("tolva-fleet", f'printf "[%s]" "$@" >"{told}"; '
                  "echo '1 hosts: 1 done'; exit 1")
    power.hosts(f"{host.where} name * of a host")
    run = power.start("-w", "600", "-c", "SHUTDOWN 'low'", "-f")
    wait_for(lambda: "waits for this host to go down" in host.log())
    assert told.read_text() == f"[-q][{power.list}][SHUTDOWN 'low']"
    assert power.stayed_up()
    goes_down(host)
    assert run.wait().status == 0
    assert "1 hosts: 1 done\n" in run.out
    assert "tolva-fleet has ended with status 1\n" in run.out
    assert power.went_down()


def test_without_tolva_fleet_the_hosts_are_told_all_the_same(site, power):
    host = site.listener("127.43.2.2")
    power.hosts(f"{host.where} name * of a host")
    power.changed(PATH=f"{site.bin}:/usr/bin:/bin")
    ran = power.run("-w", "0", "-f")
    assert "the command tolva-fleet is MISSING" in ran.out
    assert ran.out.count("told") == 1
    host.wait_effect(["tolva_shutdown.sh "])
    assert power.went_down()


def test_stages_are_told_by_tolva_staged_and_then_waited_for(site, power):
    down, other, third = (site.listener(f"127.43.2.{n}")
                          for n in (3, 4, 6))
    (site.dir / "group").write_text(f"{third.where} name of it\n")
    told = site.effects / "told"
    site.stand_in("tolva-staged", f'printf "[%s]" "$@" >"{told}"')
    power.list.write_text(f"1 60 {other.where} EXECUTE stop-database\n"
                          f"2 60 {down.where} shutdown 'low' # last\n"
                          "2 60 @group SHUTDOWN\n")
    run = power.start("-w", "600", "-s")
    for host in (down, third):
        wait_for(lambda h=host: "waits for this host to go down" in h.log())
    assert told.read_text() == f"[-q][{power.list}]"
    assert power.stayed_up()
    goes_down(down)
    goes_down(third)
    assert run.wait().status == 0
    assert "waits for" not in other.log()
    assert power.went_down()


@pytest.mark.parametrize("plan, option", [("tolva-fleet", "-f"),
                                          ("tolva-staged", "-s")])
def test_a_plan_that_hangs_is_given_up_when_the_time_is_up(site, power, plan,
                                                           option):
    site.stand_in(plan, "echo begun; exec sleep 600")
    power.list.write_text("127.43.2.5\n")
    ran = power.run("-w", "3", option)
    assert "begun\n" in ran.out
    assert f"{plan} has ended with status 137\n" in ran.out
    assert power.went_down()
    power.nothing_is_left()


# --- rehearsals, and staying up ---------------------------------------------


@pytest.mark.parametrize("options", [[], ["-c", "SHUTDOWN"], ["-k"], ["-f"]])
def test_a_rehearsal_sends_a_line_for_the_log_and_nothing_else(
        site, power, options):
    host = site.listener("127.43.3.1")
    dead = f"127.43.3.2:{free_port()}"
    power.hosts(host, dead)
    (power.home / "rehearsal").symlink_to("nowhere")
    ran = power.run(*options)
    assert ran.status == 42
    assert f"rehearsal: would tell {host.where}, which answers\n" in ran.out
    assert f"rehearsal: could NOT tell {dead}: nobody listens" in ran.out
    assert ("would then run: " in ran.out) == ("-k" not in options)
    assert "rehearsal\n" in host.log()
    assert message(792).partition("%")[0] not in host.log()
    assert not host.effect()
    assert power.stayed_up()
    power.nothing_is_left(host)


@pytest.mark.parametrize("option", ["-n", None])
@pytest.mark.parametrize("spoil, status", [
    (lambda path: path.unlink(), 127), (lambda path: path.chmod(0o644), 126)])
def test_a_rehearsal_fails_where_the_shutdown_would(power, option, spoil,
                                                    status):
    spoil(power.recorder)
    if option:
        ran = power.run(option)
    else:
        (power.home / "rehearsal").touch()
        ran = power.run()
    assert ran.status == status
    assert f"would then FAIL to run: {power.recorder}\n" in ran.out


def test_a_rehearsal_that_begins_meanwhile_keeps_this_host_up(site, power):
    host = site.listener("127.43.3.3")
    power.hosts(host)
    run = power.start("-w", "600")
    wait_for(lambda: "waits for this host to go down" in host.log())
    (power.home / "rehearsal").touch()
    goes_down(host)
    assert run.wait().status == 42
    assert "this host is NOT shut down" in run.out
    power.nothing_is_left()
    assert power.stayed_up()


def test_a_dry_run_sends_nothing_at_all(site, power):
    host = site.listener("127.43.3.4")
    power.hosts(host)
    ran = power.run("-n")
    assert ran.status == 0
    assert ran.out == (f"would tell {host.where}\n"
                       f"would then run: {power.recorder} -h +0\n")
    assert message(795) not in host.log()
    assert power.stayed_up()


@pytest.mark.parametrize("command, script", [
    ("EXECUTE cancel-shutdown", "tolva_execute.sh cancel-shutdown"),
    ("MSG_TEXT 'on battery (rack 4)'",
     "tolva_message.sh on battery (rack 4)")])
@pytest.mark.parametrize("all_there", [True, False])
def test_this_host_stays_up_when_the_others_are_only_told(
        site, power, command, script, all_there):
    host = site.listener("127.43.3.5")
    power.hosts(host, *([] if all_there else [f"127.43.3.6:{free_port()}"]))
    ran = power.run("-k", "-c", command)
    assert ran.status == (0 if all_there else 1)
    host.wait_effect([script])
    power.nothing_is_left(host)
    assert power.stayed_up()


@pytest.mark.parametrize("options", [
    ["-x"], ["-w"], ["-w", "soon"], ["-w", "-1"], ["-w", "1000000"],
    ["-i", "0"], ["a"], ["-f", "a"]])
def test_wrong_usage_is_said_and_does_nothing(power, options):
    ran = power.site.run(power.script, *options, power.list, env=power.env) \
        if options != ["-w"] else \
        power.site.run(power.script, *options, env=power.env)
    assert ran.status == 2
    assert "usage: tolva-shutdown " in ran.out + ran.err
    assert power.stayed_up()


def test_an_administrator_can_interrupt_it_at_a_terminal(site, power):
    host = site.listener("127.43.3.7")
    power.hosts(host)
    main, other = pty.openpty()
    run = subprocess.Popen(
        power.argv("-w", "600", power.list), stdin=other,
        stdout=subprocess.PIPE, text=True, start_new_session=True,
        env=site.home.environment(site.environment(power.env)),
        preexec_fn=lambda: os.close(os.open(os.ttyname(0), os.O_RDWR)))
    host.wait_effect(["tolva_shutdown.sh "])
    os.write(main, b"\x03")
    out, _ = run.communicate(timeout=60)
    os.close(main)
    os.close(other)
    assert run.returncode == 130
    assert "interrupted: this host is NOT shut down\n" in out
    power.nothing_is_left(host)
    assert power.stayed_up()


# --- the service manager ----------------------------------------------------


def test_it_leaves_the_service_that_has_started_it(site, power):
    """With its watchdog, before anybody is told."""
    (site.dir / "no-systemd").mkdir()
    asked = site.effects / "asked"
    site.stand_in("busctl", f'echo "$*" >"{asked}"; '
                  f'for last; do echo "$last"; done >>"{asked}"')
    run = power.start("-w", "0")
    assert run.wait().status == 0
    lines = asked.read_text().splitlines()
    assert f"tolva-shutdown-{run.pid}.scope fail 2 PIDs au 2 {run.pid} " in \
        lines[0]
    assert power.went_down()


@pytest.mark.parametrize("how", ["exec sleep 600", "kill -s STOP $$",
                                 "exit 1"])
def test_a_service_manager_that_hangs_is_not_needed(site, power, how):
    (site.dir / "no-systemd").mkdir()
    site.stand_in("busctl", how)
    assert power.run("-w", "0").status == 0
    assert power.went_down()


@pytest.mark.parametrize("logger", [True, False])
def test_the_journal_has_each_line_once(site, power, logger):
    """Under the tag of this program, where there is a logger."""
    logged = site.effects / "logged"
    site.stand_in("logger", f'shift 5; echo "$*" >>"{logged}"')
    if not logger:
        power.script = site.dir / "without-logger"
        power.script.write_text(SHUTDOWN.read_text().replace(
            "command -v logger", "false"))
        power.script.chmod(0o755)
    journal = site.dir / "journal"
    with open(journal, "w") as stream:
        there = os.fstat(stream.fileno())
        subprocess.run(
            power.argv("-w", "0", power.list), stdout=stream, timeout=60,
            env=site.home.environment(site.environment(power.env | {
                "JOURNAL_STREAM": f"{there.st_dev}:{there.st_ino}"})))
    power.nothing_is_left()
    lines = [f"NO HOSTS in {power.list}: nobody is told",
             "this host goes down now"]
    if logger:
        assert sorted(logged.read_text().splitlines()) == sorted(lines)
        assert journal.read_text() == ""
    else:
        assert not logged.exists()
        assert journal.read_text() == "".join(f"<2>{x}\n" for x in lines)


def test_elsewhere_each_line_is_shown_and_logged(site, power):
    logged = site.effects / "logged"
    site.stand_in("logger", f'echo "$*" >>"{logged}"')
    ran = power.run("-w", "0", env={"JOURNAL_STREAM": "9:12345"})
    assert len(ran.out.splitlines()) == 2
    wait_for(lambda: logged.exists() and len(
        logged.read_text().splitlines()) == 2, what="the logger is told")
    assert set(logged.read_text().splitlines()) == {
        f"-t tolva -p daemon.crit -- {x}" for x in ran.out.splitlines()}
