"""tolva-shutdown under closed pipes, read-only disks, dead name servers and
whatever else may hang when the power is gone."""

import contextlib
import os
import signal
import subprocess
import sys

import pytest

from conftest import SHUTDOWN
from namespaces import private_network
from ports import free_port
from shutdowncommand import DOG, Power, goes_down
from waiting import wait_for


@pytest.fixture
def power(site):
    return Power(site)


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
