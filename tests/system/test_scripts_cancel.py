"""The shipped action that calls a shutdown off."""

import os
import pathlib
import time

import pytest

from harness import ROOT
from scripthost import HOST

ACTION = ROOT / "share" / "actions" / "cancel-shutdown"
TEXT = f"The power is back: the shutdown of {HOST} is called off."


@pytest.fixture
def host(host):
    host.scripts = ACTION.parent
    # This machine may be anything but on its way down.
    (host.bin / "systemctl").write_text("#!/bin/sh\necho running\n")
    (host.bin / "systemctl").chmod(0o755)
    return host


def note(host, pid="1", due_in=120):
    host.state.mkdir(exist_ok=True)
    (host.state / "shutdown").write_text(
        f"{pid} {int(time.time()) + due_in}\n")


def cancels(host):
    """Puts a shutdown there that removes its schedule, as systemd does."""
    (host.bin / "shutdown").unlink()
    (host.bin / "shutdown").write_text(
        '#!/bin/sh\nprintf "%s\\n" "$@" >>"$STANDIN/called"\n'
        'rm -f "$TOLVA_SCHEDULED" "$TOLVA_SHUTDOWN_PID"\n')
    (host.bin / "shutdown").chmod(0o755)


def called(host):
    path = host.record / "called"
    return path.read_text().splitlines() if path.exists() else []


def test_it_calls_off_what_the_shutdown_script_has_ordered(host):
    cancels(host)
    host.schedule(120, "poweroff")
    note(host)
    ran = host.run("cancel-shutdown")
    assert (ran.status, ran.err) == (0, "")
    assert called(host) == ["-c", TEXT]
    assert ran.out == TEXT + "\n"
    assert not (host.state / "shutdown").exists()


def test_it_does_so_after_the_shutdown_script_itself(host):
    cancels(host)
    shutdown = host.bin / "shutdown"
    shutdown.write_text(shutdown.read_text().replace(
        "rm -f", 'case $1 in -h) printf "USEC=%s000000\\nMODE=poweroff\\n" '
        '$(($(date +%s) + 120)) >"$TOLVA_SCHEDULED"; exit ;; esac\nrm -f'))
    host.scripts = ROOT / "share" / "scripts"
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.scheduled.exists()
    host.scripts = ACTION.parent
    assert host.run("cancel-shutdown").status == 0
    assert called(host)[-2:] == ["-c", TEXT]
    assert not host.scheduled.exists()


def test_under_init_the_process_is_ours_when_it_is_in_the_note(host):
    cancels(host)
    pathlib.Path(host.env["TOLVA_SHUTDOWN_PID"]).write_text(f"{os.getpid()}\n")
    note(host, pid=os.getpid())
    assert host.run("cancel-shutdown").status == 0
    assert called(host) == ["-c", TEXT]


@pytest.mark.parametrize("ordered", [
    lambda host: host.schedule(120, "reboot"),
    lambda host: host.schedule(3600, "poweroff"),
    lambda host: host.scheduled.write_text("garbage\n"),
    lambda host: host.scheduled.write_text("USEC=\nMODE=poweroff\n"),
    lambda host: pathlib.Path(host.env["TOLVA_SHUTDOWN_PID"]).write_text(
        f"{os.getpid()}\n")])
def test_what_somebody_else_has_ordered_stays(host, ordered):
    note(host)
    ordered(host)
    ran = host.run("cancel-shutdown")
    assert ran.status == 0
    assert "not by the UPS: it stays" in ran.out
    assert host.calls("shutdown") == []


@pytest.mark.parametrize("text", ["", "x y\n", "1\n", "1 99999999999999999\n"])
def test_a_note_that_makes_no_sense_is_nobodys(host, text):
    note(host)
    (host.state / "shutdown").write_text(text)
    host.schedule(120, "poweroff")
    ran = host.run("cancel-shutdown")
    assert (ran.status, ran.err) == (0, "")
    assert host.calls("shutdown") == []


def test_with_nothing_ordered_it_is_content_as_often_as_it_is_asked(host):
    for _ in range(2):
        ran = host.run("cancel-shutdown")
        assert (ran.status, ran.err) == (0, "")
        assert "nothing to call off" in ran.out
    assert host.calls("shutdown") == []


def test_a_process_that_has_ended_is_no_shutdown(host):
    pathlib.Path(host.env["TOLVA_SHUTDOWN_PID"]).write_text("4194305\n")
    assert "nothing to call off" in host.run("cancel-shutdown").out


def test_it_says_when_it_is_too_late(host):
    (host.bin / "systemctl").write_text("#!/bin/sh\necho stopping; exit 1\n")
    ran = host.run("cancel-shutdown")
    assert ran.status == 3
    assert "too late" in ran.out


def test_a_dry_run_only_says(host):
    host.schedule(120, "poweroff")
    note(host)
    ran = host.run("cancel-shutdown", "--dry-run")
    assert ran.status == 0
    assert ran.out == f'would run: {host.bin}/shutdown -c "{TEXT}"\n'
    assert host.calls("shutdown") == []
    assert (host.state / "shutdown").exists()


def test_a_rehearsal_only_says(host):
    host.schedule(120, "poweroff")
    note(host)
    (host.home / "rehearsal").symlink_to("nowhere")
    ran = host.run("cancel-shutdown")
    assert ran.status == 42
    assert ran.out.startswith("rehearsal, would run: ")
    assert host.calls("shutdown") == []


@pytest.mark.parametrize("status", [0, 1])
def test_a_shutdown_that_stays_is_a_failure(host, status):
    host.fails("shutdown", status)
    host.schedule(120, "poweroff")
    note(host)
    ran = host.run("cancel-shutdown")
    assert ran.status == 1
    assert "FAILED to call the shutdown off" in ran.out
    assert len(host.calls("shutdown")) == 1


@pytest.mark.parametrize("words", ["now", "--dry-run now", "''", "-c"])
def test_wrong_words_do_nothing(host, words):
    host.schedule(120, "poweroff")
    note(host)
    ran = host.run("cancel-shutdown", words)
    assert ran.status == 2
    assert ran.err == "usage: cancel-shutdown [--dry-run]\n"
    assert host.calls("shutdown") == []


def test_the_journal_has_each_line_once(host):
    assert host.run_in_journal("cancel-shutdown").startswith("<4>no shutdown")
    assert host.calls("logger") == []
