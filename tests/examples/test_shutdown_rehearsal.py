"""tolva-shutdown: rehearsals, staying up, and the service manager."""

import os
import pty
import subprocess

import pytest

from conftest import SHUTDOWN
from harness import message
from ports import free_port
from shutdowncommand import Power, goes_down
from waiting import wait_for


@pytest.fixture
def power(site):
    return Power(site)


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
