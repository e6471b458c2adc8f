"""The shipped script that shuts the host down."""

import pytest

from scripthost import HOST, SCRIPTS


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
    assert text.index("\nDELAY=2\n") < 700
    changed = tmp_path / "tolva_shutdown.sh"
    changed.write_text(text.replace("\nDELAY=2\n", "\nDELAY=17\n"))
    changed.chmod(0o755)
    host.scripts = tmp_path
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.calls("shutdown")[0].args[:2] == ["-h", "+17"]
    assert "in 17 minutes" in host.calls("wall")[0].input


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
    timeout.write_text('#!/bin/sh\nshift; echo "$1" >>"$STANDIN/bounded"\n')
    timeout.chmod(0o755)
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["shutdown"]
    assert (host.record / "bounded").read_text() == "logger\nwall\n"


def test_rehearsal_only_says_what_would_be_done(host):
    (host.home / "rehearsal").write_text("")
    ran = host.run("tolva_shutdown.sh", "battery low")
    assert ran.status == 0
    assert host.names() == ["logger", "logger"]
    lines = ran.out.splitlines()
    assert [x.args[-1] for x in host.calls()] == lines
    assert lines[0].startswith("rehearsal, nothing is shut down: The UPS asks")
    assert lines[0].endswith("(battery low)")
    assert lines[1] == (
        f"rehearsal, would run: {host.bin}/shutdown -h +2")


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
