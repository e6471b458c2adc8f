"""examples/staged-shutdown: no stage is told before the last one has ended."""

import os
import subprocess

import pytest

from conftest import EXAMPLES
from harness import message
from ports import free_port
from waiting import wait_for

STAGED = EXAMPLES / "staged-shutdown" / "staged-shutdown"


def stages(site, *lines):
    path = site.dir / "stages"
    path.write_text("# stage seconds host command\n\n" + "\n".join(lines))
    return path


def test_a_stage_waits_for_the_scripts_of_the_one_before(site):
    gates = [site.dir / f"gate-{n}" for n in (1, 2)]
    for gate in gates:
        os.mkfifo(gate)
    first = [site.listener(f"127.43.0.{n}", body=f'cat "{gate}"')
             for n, gate in enumerate(gates, 1)]
    second = site.listener("127.43.0.3")
    run = site.start(STAGED, stages(
        site, f"apps 300 {first[0].where} EXECUTE stop  the  apps",
        f"apps 300 {first[1].where} EXECUTE stop-apps # both at once",
        f"hosts 300 {second.where} SHUTDOWN battery low"))
    first[0].wait_effect(["tolva_execute.sh stop the apps"])
    first[1].wait_effect(["tolva_execute.sh stop-apps"])
    # One has ended, the other has not.
    os.close(os.open(gates[0], os.O_WRONLY))
    wait_for(lambda: "done" in run.out, what="the first one is reported")
    assert not second.effect() and message(795) not in second.log()
    os.close(os.open(gates[1], os.O_WRONLY))
    assert run.wait().status == 0
    second.wait_effect(["tolva_shutdown.sh battery low"])
    assert run.out.splitlines() == [
        f"stage apps: {first[0].where}: done",
        f"stage apps: {first[1].where}: done",
        f"stage hosts: {second.where}: done",
        "every host has done what it was told"]


@pytest.mark.parametrize("how, status", [
    ("exit 0", 0), ("exit 1", 128), ("exit 3", 130), ("exit 127", 254),
    ("exit 128", 128), ("exit 200", 200), ("exit 255", 255),
])
def test_what_the_readme_says_about_exit_statuses(site, how, status):
    host = site.listener("127.43.0.13", body=how)
    ran = site.run(site.bin / "tolva", "-sr", "EXECUTE x", "-a", host.where)
    assert ran.status == status


def test_a_script_that_is_killed(site):
    """It depends on /bin/sh, which runs the script, or becomes it."""
    host = site.listener("127.43.0.14", body="kill -9 $$")
    alone = subprocess.run(["/bin/sh", "-c",
                            f"{host.home}/tolva_execute.sh x"])
    ran = site.run(site.bin / "tolva", "-sr", "EXECUTE x", "-a", host.where)
    assert ran.status == {128 + 9: 137, -9: 136}[alone.returncode]


@pytest.mark.parametrize("status, shown", [
    (1, "FAILED: its script ended with 1 or 128, or has no status"),
    (3, "FAILED: its script ended with 3, or with 130 itself"),
    (127, "FAILED: its script ended with 127, or with 254 itself"),
    (130, "FAILED: its script ended with 3, or with 130 itself"),
    (255, "FAILED: its script ended with 255 or more"),
])
def test_exit_status_of_a_script(site, status, shown):
    host = site.listener("127.43.0.4", body=f"exit {status}")
    ran = site.run(STAGED, stages(site, f"a 60 {host.where} EXECUTE x"))
    assert ran.status == 1
    assert ran.out.splitlines() == [
        f"stage a: {host.where}: {shown}", "stage a: 1 not done; going on",
        "hosts that have not done what they were told: 1"]


def failing_first_stage(site):
    bad = site.listener("127.43.0.5", body="exit 7")
    dead = f"127.43.0.6:{free_port()}"
    last = site.listener("127.43.0.7")
    return last, stages(site, f"one 60 {bad.where} EXECUTE x",
                        f"one 60 {dead} EXECUTE x",
                        "one 60 nowhere.invalid EXECUTE x",
                        f"two 60 {last.where} SHUTDOWN")


def test_goes_on_after_a_failure(site):
    last, path = failing_first_stage(site)
    ran = site.run(STAGED, path)
    assert ran.status == 1
    last.wait_effect(["tolva_shutdown.sh "])
    assert "NO ANSWER within 60 seconds (system: Connection refused)" \
        in ran.out
    assert "(could not handle address [nowhere.invalid])" in ran.out
    assert "stage one: 3 not done; going on\n" in ran.out
    assert f"stage two: {last.where}: done\n" in ran.out
    assert ran.out.endswith("hosts that have not done what they were told: 3\n")


def test_stops_after_a_failure_if_told_to(site):
    last, path = failing_first_stage(site)
    ran = site.run(STAGED, path, env={"STAGED_ON_FAILURE": "stop"})
    assert ran.status == 1
    assert ran.out.endswith(
        "stage one: 3 not done; the stages behind it are not told\n")
    assert message(795) not in last.log()


def test_a_script_that_takes_too_long_is_not_waited_for(site):
    gate = site.dir / "gate"
    os.mkfifo(gate)
    slow = site.listener("127.43.0.8", body=f'cat "{gate}"')
    last = site.listener("127.43.0.9")
    ran = site.run(STAGED, stages(site, f"one 1 {slow.where} EXECUTE x",
                                  f"two 60 {last.where} SHUTDOWN"))
    assert ran.status == 1
    assert f"stage one: {slow.where}: NO ANSWER within 1 seconds " \
        "(error: Connection timed out)" in ran.out
    last.wait_effect(["tolva_shutdown.sh "])


def test_a_refused_sender_shows_as_no_answer(site):
    host = site.listener("127.43.0.10", allowed="127.43.0.99")
    ran = site.run(STAGED, stages(site, f"one 60 {host.where} SHUTDOWN"))
    assert ran.status == 1
    assert "NO ANSWER" in ran.out
    assert not host.effect()


@pytest.mark.parametrize("line, mistake", [
    ("two 10 HOST", 'line 4: not "<stage> <seconds> <host> <command>"'),
    ("two 0 HOST SHUTDOWN", "line 4: not"),
    ("two soon HOST SHUTDOWN", "line 4: not"),
    ("two 10 -ab SHUTDOWN", "line 4: not"),
    ("two 10 HOST SHUTDOWN\none 10 HOST SHUTDOWN",
     "line 5: stage one was there before"),
])
def test_nothing_is_sent_when_the_file_has_a_mistake(site, line, mistake):
    host = site.listener("127.43.0.11")
    ran = site.run(STAGED, stages(
        site, f"one 10 {host.where} SHUTDOWN",
        line.replace("HOST", host.where)))
    assert ran.status == 2
    assert mistake in ran.err and "nothing was sent" in ran.err
    assert message(795) not in host.log()


def test_rehearsal_sends_nothing(site):
    host = site.listener("127.43.0.12")
    ran = site.run(STAGED, "-n", stages(
        site, f"one 10 {host.where} EXECUTE a b",
        f"two 20 {host.where} SHUTDOWN"))
    assert ran.status == 0
    assert ran.out.splitlines() == [
        f'stage one: would send "EXECUTE a b" to {host.where} (10 s)',
        f'stage two: would send "SHUTDOWN" to {host.where} (20 s)']
    assert message(795) not in host.log()


def test_the_shipped_stages_are_usable(site):
    ran = site.run(STAGED, "-n", EXAMPLES / "staged-shutdown" / "stages")
    assert ran.status == 0
    assert 'stage database: would send "EXECUTE stop-database"' in ran.out
    assert len(ran.out.splitlines()) == 7
