"""The shipped script that shuts the host down."""

import contextlib
import os
import pathlib
import subprocess
import time

import pytest

from harness import ROOT
from scripthost import HOST, SCRIPTS

REHEARSED = 42


def test_shutdown_announces_then_starts_the_shutdown(host):
    ran = host.run("tolva_shutdown.sh")
    assert ran.status == 0
    assert host.names() == ["logger", "wall", "shutdown"]
    logger, wall, shutdown = host.calls()
    text = f"The UPS asks for a shutdown: {HOST} goes down in 2 minutes."
    assert logger.args == ["-t", "tolva", "-p", "daemon.crit", "--", text]
    assert wall.args == [] and wall.input == text + "\n"
    assert shutdown.args == ["-h", "+2", text]
    assert ran.out == text + "\n"


def test_shutdown_starts_sbin_shutdown_unless_told_otherwise():
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert "\nSHUTDOWN=${TOLVA_SHUTDOWN:-/sbin/shutdown}\n" in text


def test_shutdown_delay_is_set_at_the_top(host, tmp_path):
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert text.index("\nDELAY=2\n") < 900
    changed = tmp_path / "tolva_shutdown.sh"
    changed.write_text(text.replace("\nDELAY=2\n", "\nDELAY=17\n"))
    changed.chmod(0o755)
    host.scripts = tmp_path
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.calls("shutdown")[0].args[:2] == ["-h", "+17"]
    assert "in 17 minutes" in host.calls("wall")[0].input


@pytest.mark.parametrize("delay, taken, complains", [
    ("now", 0, False), ("NOW", 0, False), ("+3", 3, False), ("08", 8, False),
    ("000", 0, False), ("10", 10, False), ("", 2, True), ("soon", 2, True),
    ("120s", 2, True), ("-1", 2, True), ("1.5", 2, True),
    ("99999999999999999999", 2, True), ("'2 3'", 2, True)])
def test_a_delay_that_is_no_number_is_said_and_replaced(
        host, tmp_path, delay, taken, complains):
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    changed = tmp_path / "tolva_shutdown.sh"
    changed.write_text(text.replace("\nDELAY=2\n", f"\nDELAY={delay}\n"))
    changed.chmod(0o755)
    host.scripts = tmp_path
    host.schedule(3600, "poweroff")  # which it calculates with
    ran = host.run("tolva_shutdown.sh")
    assert (ran.status, ran.err) == (0, "")
    assert host.calls("shutdown")[0].args[:2] == ["-h", f"+{taken}"]
    assert ("is no number of minutes; 2 is taken" in ran.out) == complains


@pytest.mark.parametrize("stuck", ["output", "logger", "wall"])
@pytest.mark.parametrize("timeout", [True, False])
def test_nothing_that_is_stuck_holds_the_shutdown_up(host, tmp_path, stuck,
                                                     timeout):
    """Ten seconds are shortened to one."""
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    changed = tmp_path / "tolva_shutdown.sh"
    changed.write_text(text.replace("KILL 10 ", "KILL 1 ")
                       .replace("left=10", "left=1")
                       .replace("command -v timeout", "command -v timeout"
                                if timeout else "false"))
    changed.chmod(0o755)
    if stuck != "output":
        (host.bin / stuck).unlink()
        (host.bin / stuck).write_text("#!/bin/sh\nexec sleep 600\n")
        (host.bin / stuck).chmod(0o755)
    read, write = os.pipe()
    with open(read), open(write, "w") as full:
        if stuck == "output":
            os.set_blocking(write, False)
            with contextlib.suppress(BlockingIOError):
                while os.write(write, bytes(4096)):
                    pass
            os.set_blocking(write, True)
        subprocess.run([changed], env=host.env, stdin=subprocess.DEVNULL,
                       stdout=full, stderr=full, check=True, timeout=60)
    assert len(host.calls("shutdown")) == 1


@pytest.mark.parametrize("env", [{}, {"PATH": ""}])
def test_shutdown_works_without_a_path(host, env):
    kept = {k: v for k, v in host.env.items() if k != "PATH"}
    ran = subprocess.run(
        ["/bin/sh", "-c", 'exec "$0" >&- 2>&-',
         SCRIPTS / "tolva_shutdown.sh"],
        env=kept | env | {"TOLVAHOME": str(host.home)}, timeout=60,
        cwd=host.home)
    assert ran.returncode == 0
    assert len(host.calls("shutdown")) == 1


def test_the_journal_has_each_line_once_with_its_level(host):
    said = host.run_in_journal("tolva_shutdown.sh")
    assert said == ("<2>The UPS asks for a shutdown: "
                    f"{HOST} goes down in 2 minutes.\n")
    assert "logger" not in host.names()


def test_a_journal_elsewhere_does_not_silence_the_logger(host):
    host.run("tolva_shutdown.sh", JOURNAL_STREAM="9:12345")
    assert host.names() == ["logger", "wall", "shutdown"]


def test_shutdown_notes_what_it_has_ordered(host):
    before = int(time.time())
    (host.bin / "shutdown").unlink()
    (host.bin / "shutdown").write_text(
        '#!/bin/sh\necho $$ >"$STANDIN/pid"\n')
    (host.bin / "shutdown").chmod(0o755)
    assert host.run("tolva_shutdown.sh").status == 0
    pid, due = (host.state / "shutdown").read_text().split()
    assert pid == (host.record / "pid").read_text().strip()
    assert before + 120 <= int(due) <= time.time() + 120


def test_shutdown_goes_on_where_it_can_note_nothing(host):
    host.state.write_text("in the way")
    ran = host.run("tolva_shutdown.sh")
    assert (ran.status, ran.err) == (0, "")
    assert len(host.calls("shutdown")) == 1


def test_shutdown_leaves_its_own_that_waits_under_init_alone(host):
    host.state.mkdir()
    (host.state / "shutdown").write_text(f"{os.getpid()} 1\n")
    pid_file = pathlib.Path(host.env["TOLVA_SHUTDOWN_PID"])
    pid_file.write_text(f"{os.getpid()}\n")
    ran = host.run("tolva_shutdown.sh")
    assert "already under way" in ran.out
    assert host.calls("shutdown") == []
    pid_file.write_text("1\n")  # somebody else's
    host.run("tolva_shutdown.sh")
    assert len(host.calls("shutdown")) == 1


def test_shutdown_tells_the_reason_as_one_line(host):
    host.run("tolva_shutdown.sh", "'battery\nlow\033[2J' '$(id)' '`id`'")
    said = host.calls("wall")[0].input
    assert said.endswith(" (battery low [2J $(id) `id`)\n")
    assert said.count("\n") == 1
    assert len(host.calls("shutdown")[0].args) == 3


def test_shutdown_takes_no_option_from_the_sender(host):
    host.run("tolva_shutdown.sh", "-c -r now")
    assert host.calls("shutdown")[0].args[:2] == ["-h", "+2"]
    assert host.calls("shutdown")[0].args[2].endswith("(-c -r now)")


def test_shutdown_passes_the_exit_status_on(host):
    host.fails("shutdown", 7)
    assert host.run("tolva_shutdown.sh").status == 7


def test_shutdown_goes_on_when_nobody_can_be_told(host):
    host.fails("wall", 1)
    host.fails("logger", 1)
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["logger", "wall", "shutdown"]


def test_shutdown_works_without_wall_logger_and_timeout(host):
    host.without("wall", "logger", "sendmail")
    (host.bin / "timeout").unlink()
    ran = host.run("tolva_shutdown.sh")
    assert (ran.status, ran.err) == (0, "")
    assert host.names() == ["shutdown"]


def test_shutdown_announces_without_timeout(host):
    host.without()
    (host.bin / "timeout").unlink()
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["logger", "wall", "shutdown"]


def test_shutdown_bounds_the_announcement(host):
    timeout = host.bin / "timeout"
    timeout.write_text('#!/bin/sh\necho "$*" >>"$STANDIN/bounded"\n')
    timeout.chmod(0o755)
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["shutdown"]
    bounded = [x for x in (host.record / "bounded").read_text().splitlines()
               if x.startswith("-s ")]
    assert [x.split()[:4] for x in bounded] == [
        ["-s", "KILL", "10", x] for x in ("sh", "logger", "wall")]


def test_rehearsal_only_says_what_would_be_done(host):
    (host.home / "rehearsal").write_text("")
    ran = host.run("tolva_shutdown.sh", "battery low")
    assert ran.status == REHEARSED
    assert host.names() == ["logger", "logger"]
    lines = ran.out.splitlines()
    assert [x.args[-1] for x in host.calls()] == lines
    assert lines[0].startswith("rehearsal, nothing is shut down: The UPS asks")
    assert lines[0].endswith("(battery low)")
    assert lines[1] == (
        f"rehearsal, would run: {host.bin}/shutdown -h +2")


def test_the_status_of_a_rehearsal_is_in_the_script_and_the_document():
    assert f"{REHEARSED} when it was a rehearsal" in \
        (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert f"status {REHEARSED + 127}" in \
        (ROOT / "docs" / "rehearsal.md").read_text()


@pytest.mark.parametrize("rehearsal", [False, True])
@pytest.mark.parametrize("spoil, status", [
    (lambda path: path.unlink(), 127),
    (lambda path: path.unlink() or path.symlink_to("nowhere"), 127),
    (lambda path: path.unlink() or path.write_text("x"), 126),
    (lambda path: path.unlink() or path.mkdir(), 126)])
def test_a_shutdown_that_cannot_be_run_fails_in_a_rehearsal_too(
        host, rehearsal, spoil, status):
    spoil(host.bin / "shutdown")
    if rehearsal:
        (host.home / "rehearsal").write_text("")
    ran = host.run("tolva_shutdown.sh")
    assert ran.status == status
    assert ("would FAIL" if rehearsal else "CANNOT BE RUN") in ran.out
    assert "wall" not in host.names()


def test_rehearsal_holds_for_a_dangling_link_too(host):
    (host.home / "rehearsal").symlink_to("nowhere")
    host.run("tolva_shutdown.sh")
    assert host.calls("shutdown") == []


def test_rehearsal_file_is_looked_for_in_etc_by_default():
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert "\nREHEARSAL=${TOLVAHOME:-/etc/tolva}/rehearsal\n" in text


@pytest.mark.parametrize("in_seconds, mode, ordered", [
    (30, "poweroff", False),    # a repeated request begins no new delay
    (30, "halt", False),
    (-30, "poweroff", False),
    (3600, "poweroff", True),   # the operator's own, which is too late
    (30, "reboot", True),       # comes up again on an empty battery
])
def test_shutdown_leaves_one_that_is_under_way_alone(host, in_seconds, mode,
                                                     ordered):
    host.schedule(in_seconds, mode)
    ran = host.run("tolva_shutdown.sh")
    assert ran.status == 0
    assert bool(host.calls("shutdown")) == ordered
    assert bool(host.calls("wall")) == ordered
    assert ("already under way" in ran.out) == (not ordered)


@pytest.mark.parametrize("text", [
    "", "garbage", "USEC=\nMODE=poweroff\n", "USEC=soon\nMODE=poweroff\n",
    "MODE=poweroff\n", "USEC=1000000000000000\n"])
def test_shutdown_is_ordered_when_the_schedule_makes_no_sense(host, text):
    host.scheduled.write_text(text)
    ran = host.run("tolva_shutdown.sh")
    assert (ran.status, ran.err) == (0, "")
    assert len(host.calls("shutdown")) == 1
