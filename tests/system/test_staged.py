"""tolva-staged: no stage is told before the last one has ended, and nothing
that is stuck holds it up."""

import contextlib
import fcntl
import os
import shutil
import signal
import subprocess
import time

import pytest

import manual
from crowd import Crowd, addresses
from harness import ROOT, TOLVA
from waiting import BOUND, wait_for

SCRIPT = ROOT / "share" / "bin" / "tolva-staged"
FLEET = TOLVA.parent / "tolva-fleet"
PAGE = manual.Page("tolva-staged.8")
REQUEST = "CONNECT TO TOLVA (SEND) MSG_EXECSTATUS "


class Staged:
    """The two commands beside each other, as they are installed, and stages
    that are told to a crowd."""

    def __init__(self, home):
        self.home = home
        self.bin = home.dir / "bin"
        self.bin.mkdir()
        shutil.copy(SCRIPT, self.bin)
        (self.bin / "tolva-fleet").symlink_to(FLEET)
        self.command = self.bin / "tolva-staged"
        self.stand_in("logger", 'echo "$*" >>"%s"' % (home.dir / "logged"))

    def stand_in(self, name, body):
        path = self.bin / name
        path.write_text(f"#!/bin/sh\n{body}\n")
        path.chmod(0o755)

    def stages(self, *lines):
        path = self.home.dir / "stages"
        path.write_text("# a comment\n\n" + "".join(f"{x}\n" for x in lines))
        return path

    def environment(self, env=None):
        return {"PATH": f"{self.bin}:{os.environ['PATH']}", **(env or {})}

    def start(self, *args, env=None, **options):
        return self.home.start(*args, program=str(self.command),
                               env=self.environment(env), **options)

    def run(self, *args, **options):
        return self.start(*args, **options).wait()


@pytest.fixture
def staged(home):
    return Staged(home)


@pytest.fixture
def crowd(home):
    with contextlib.ExitStack() as stack:
        yield lambda peers: stack.enter_context(Crowd(home, peers))


def senders(home):
    """The processes of tolva-fleet that are left."""
    found = []
    for pid in home.marked_pids():
        with contextlib.suppress(OSError):
            with open(f"/proc/{pid}/cmdline") as f:
                # Where it is emulated, this is not the first word.
                words = [w.rpartition("/")[2] for w in f.read().split("\0")]
            if FLEET.name in words:
                found.append(pid)
    return found


def told(peers):
    """(address, command) of each request, in the order they came in."""
    return [(address, text.removeprefix(REQUEST))
            for address, text in peers.requests()]


def test_the_script_has_no_fault():
    shellcheck = shutil.which("shellcheck")
    assert shellcheck, "shellcheck is missing (apt-get install shellcheck)"
    done = subprocess.run([shellcheck, SCRIPT], stdout=subprocess.PIPE,
                          text=True, check=False)
    assert (done.stdout, done.returncode) == ("", 0)


def test_the_next_stage_is_told_when_the_last_has_ended(staged, crowd):
    peers = crowd({"127.90.0.1": "slow 1 0", "127.90.0.2": "answer 0",
                   "127.90.0.3": "answer 0"})
    run = staged.start("-p", peers.port, staged.stages(
        "one 60 127.90.0.1 EXECUTE stop 'a b'",
        "one 50 127.90.0.2 EXECUTE other  # at the same time",
        f"two 60 127.90.0.3:{peers.port} SHUTDOWN low", "two 60 127.90.0.2 "
        "LOG_TEXT down"))
    wait_for(lambda: len(told(peers)) == 2, what="the first stage is told")
    assert sorted(told(peers)) == [("127.90.0.1", "EXECUTE stop 'a b'"),
                                   ("127.90.0.2", "EXECUTE other")]
    done = run.wait()
    assert done.status == 0
    assert sorted(told(peers)[2:]) == [("127.90.0.2", "LOG_TEXT down"),
                                       ("127.90.0.3", "SHUTDOWN low")]
    lines = done.out.splitlines()
    assert lines[0] == "stage one: told, at most 65 s"
    assert "stage one: done         127.90.0.1" in lines
    assert lines.index("stage one: done") < \
        lines.index("stage two: told, at most 65 s")
    assert lines[-1] == "2 stages: 2 done"
    assert done.err == ""


def test_a_group_is_a_file_beside_the_stages(staged, crowd):
    everybody = addresses("127.91", 30)
    peers = crowd({a: "answer 0" for a in everybody} | {"127.92.0.1":
                                                        "answer 0"})
    (staged.home.dir / "rack1").write_text(
        "".join(f"{a} web # x\r\n" for a in everybody[:20]))
    other = staged.home.dir / "other"
    other.write_text("\n".join(everybody[20:]))  # no line feed at its end
    done = staged.run("-p", peers.port, staged.stages(
        "one 60 @rack1 EXECUTE x", f"one 60 @{other} EXECUTE x",
        "one 60 127.92.0.1 EXECUTE x"))
    assert done.status == 0, done
    assert peers.told() == sorted([*everybody, "127.92.0.1"])
    assert "stage one: 31 hosts: 31 done" in done.out


def failing(staged, crowd):
    peers = crowd({"127.93.0.1": "answer 7", "127.93.0.2": "dead",
                   "127.93.0.3": "answer 0"})
    return peers, staged.stages(
        "one 600 127.93.0.1 EXECUTE x", "one 600 127.93.0.2 EXECUTE x",
        "one 600 127.93.0.089 EXECUTE x", "one 600 @nowhere EXECUTE y",
        "two 60 127.93.0.3 SHUTDOWN")


def test_it_goes_on_after_a_failure_and_the_dead_cost_little(staged, crowd):
    peers, path = failing(staged, crowd)
    began = time.monotonic()
    done = staged.run("-c", "1", "-p", peers.port, path)
    assert time.monotonic() - began < BOUND
    assert done.status == 1
    assert ("127.93.0.3", "SHUTDOWN") in told(peers)
    for line in ("failed       127.93.0.1: its script has ended with 7",
                 "unreachable  127.93.0.2: no connection in time",
                 "invalid      127.93.0.089: an address has four numbers",
                 "invalid      @nowhere  cannot be read",
                 "not all done"):
        assert f"stage one: {line}" in done.out
    assert done.out.endswith("2 stages: 1 done, not all done: one\n")


def test_it_stops_after_a_failure_when_told_to(staged, crowd):
    peers, path = failing(staged, crowd)
    done = staged.run("-f", "stop", "-c", "1", "-p", peers.port, path)
    assert done.status == 1
    assert told(peers) == [("127.93.0.1", "EXECUTE x")]
    assert done.out.endswith(
        "2 stages: 0 done, not all done: one, not told: two\n")


def test_a_script_that_takes_too_long_is_not_waited_for(staged, crowd):
    peers = crowd({"127.94.0.1": "silent", "127.94.0.2": "answer 0"})
    done = staged.run("-p", peers.port, staged.stages(
        "one 1 127.94.0.1 EXECUTE x", "two 60 127.94.0.2 SHUTDOWN"))
    assert done.status == 1
    assert "stage one: timeout      127.94.0.1: told, but no answer in time" \
        in done.out
    assert told(peers)[-1] == ("127.94.0.2", "SHUTDOWN")


# --- what is found before anything is sent ------------------------------------


@pytest.mark.parametrize("line, mistake", [
    ("two 10 HOST", 'line 4: not "<stage> <seconds> <host> <command>"'),
    ("two 0 HOST SHUTDOWN", "line 4: not"),
    ("two soon HOST SHUTDOWN", "line 4: not"),
    ("two 10 -ab SHUTDOWN", "line 4: not"),
    ("two 10 HOST LOG_TXT x", "did you mean LOG_TEXT?"),
    ("two 10 HOST EXECUTE " + "x" * 4090, "too long"),
    ("two 10 HOST SHUTDOWN\none 10 HOST SHUTDOWN",
     "line 5: stage one was there before"),
])
def test_nothing_is_sent_when_the_file_has_a_mistake(staged, crowd, line,
                                                     mistake):
    peers = crowd({"127.95.0.1": "answer 0"})
    done = staged.run("-p", peers.port, staged.stages(
        "one 10 127.95.0.1 SHUTDOWN", line.replace("HOST", "127.95.0.1")))
    assert (done.status, done.out) == (2, "")
    assert mistake in done.err and "nothing was sent" in done.err
    assert told(peers) == []


@pytest.mark.parametrize("args, said", [
    ([], "it takes one file"), (["STAGES", "STAGES"], "it takes one file"),
    (["-x", "STAGES"], "unknown option -x"), (["-b"], "missing behind -b"),
    (["-b", "0", "STAGES"], "-b takes whole minutes, not 0"),
    (["-c", "1.5", "STAGES"], "-c takes whole seconds, not 1.5"),
    (["-f", "perhaps", "STAGES"], "-f takes go-on or stop"),
    (["-p", "70000", "STAGES"], "-p takes a port"),
    (["nowhere"], "cannot read"), (["/tmp"], "cannot read"),
])
def test_a_wrong_call_sends_nothing(staged, args, said):
    path = staged.stages("one 10 127.95.0.9 SHUTDOWN")
    done = staged.run(*[path if arg == "STAGES" else arg for arg in args])
    assert (done.status, done.out) == (2, "")
    assert said in done.err and done.err.count("\n") == 1


def test_every_option_is_in_the_manual(staged):
    helped = staged.run("-?")
    assert (helped.status, helped.err) == (0, "")
    listed = {line.split()[0].lstrip("-") for line in helped.out.splitlines()
              if line.startswith("  -")}
    assert listed | {"?", "h"} == set(PAGE.options("staged"))


def test_a_plan_sends_nothing_and_adds_up_the_times(staged, crowd):
    peers = crowd({"127.96.0.1": "answer 0"})
    (staged.home.dir / "rack").write_text("127.96.0.1 web\n")
    path = staged.stages("one 300 @rack EXECUTE a b", "one 20 127.96.0.1 "
                         "LOG_TEXT x", "two 400 127.96.0.1 SHUTDOWN")
    done = staged.run("-n", "-c", "10", "-b", "12", "-p", peers.port, path)
    assert (done.status, done.err) == (0, "")
    assert done.out.splitlines() == [
        "stage one: at most 310 s",
        "stage one, 300 s: would be sent to 127.96.0.1  web: EXECUTE a b",
        "stage one, 20 s: would be sent to 127.96.0.1: LOG_TEXT x",
        "stage two: at most 410 s",
        "stage two, 400 s: would be sent to 127.96.0.1: SHUTDOWN",
        "all stages: at most 720 s, the battery lasts 720 s"]
    short = staged.run("-n", "-c", "11", "-b", "12", path)
    assert short.status == 1
    assert "the plan may take 722 s, which is longer than the battery's " \
        "12 minutes (720 s)" in short.err
    assert told(peers) == []


def test_a_battery_that_is_too_small_is_said_and_no_reason_to_wait(staged,
                                                                   crowd):
    peers = crowd({"127.96.1.1": "answer 0"})
    done = staged.run("-b", "1", "-p", peers.port, staged.stages(
        "one 300 127.96.1.1 SHUTDOWN"))
    assert done.status == 0
    assert done.out.startswith("the plan may take 305 s")
    assert told(peers) == [("127.96.1.1", "SHUTDOWN")]


# --- one at a time, and its end -----------------------------------------------


def running(staged, crowd):
    """A run whose second stage of three is under way."""
    peers = crowd({"127.97.0.1": "answer 0", "127.97.0.2": "silent"})
    path = staged.stages(
        "one 600 127.97.0.1 EXECUTE x", "two 600 127.97.0.2 EXECUTE x",
        "two 500 127.97.0.1 EXECUTE y", "three 600 127.97.0.1 SHUTDOWN")
    run = staged.start("-p", peers.port, path)
    wait_for(lambda: len(told(peers)) == 3 and "done         127.97.0.1" in
             run.out.partition("stage two")[2], what="the second stage")
    wait_for(lambda: len(senders(staged.home)) == 1,
             what="one of its two commands has ended")
    return peers, path, run


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_a_signal_says_what_was_told_and_what_was_not(staged, crowd, name):
    peers, _, run = running(staged, crowd)
    run.process.send_signal(getattr(signal, name))
    done = run.wait()
    assert done.status == 1
    assert "stage two: timeout      127.97.0.2: told, but no answer before" \
        in done.out
    assert done.out.endswith(f"ended by {name}: 3 stages: 1 done, not all "
                             "done: two, not told: three\n")
    assert len(told(peers)) == 3
    assert not senders(staged.home)


def test_two_runs_do_not_tell_everybody_twice(staged, crowd):
    peers, path, run = running(staged, crowd)
    other = staged.run("-p", peers.port, path)
    assert (other.status, other.out) == (2, "")
    assert "is in use by another run; nothing was sent" in other.err
    assert len(told(peers)) == 3
    assert staged.run("-n", path).status == 0
    run.process.terminate()
    run.wait()


def test_a_run_that_was_killed_leaves_no_lock(staged, crowd):
    peers, _, run = running(staged, crowd)
    for pid in staged.home.marked_pids():
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    run.wait()
    path = staged.stages("one 60 127.97.0.1 SHUTDOWN")
    assert staged.run("-p", peers.port, path).status == 0


@pytest.mark.parametrize("closed", [[0], [1], [2], [0, 1, 2]])
def test_closed_descriptors_keep_nobody_from_being_told(staged, crowd,
                                                        closed):
    peers = crowd({"127.98.0.1": "answer 0", "127.98.0.2": "answer 0"})

    def close():
        for fd in closed:
            os.close(fd)

    done = staged.run("-p", peers.port, staged.stages(
        "one 60 127.98.0.1 SHUTDOWN", "two 60 127.98.0.2 SHUTDOWN"),
        preexec_fn=close)
    assert done.status == 0
    assert peers.told() == ["127.98.0.1", "127.98.0.2"]


def test_no_environment_and_no_room_for_a_file(staged, crowd):
    peers = crowd({"127.98.1.1": "answer 0", "127.98.1.2": "answer 0"})
    (staged.home.dir / "rack").write_text("127.98.1.2\n" * 2000)
    path = staged.stages("one 60 127.98.1.1 SHUTDOWN",
                         "two 60 @rack SHUTDOWN")
    ran = subprocess.run(
        ["env", "-i", "sh", "-c", 'ulimit -f 0; exec "$@"', "sh",
         staged.command, "-p", str(peers.port), path], cwd="/",
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=BOUND)
    assert ran.returncode == 0
    assert ran.stdout.endswith(b"2 stages: 2 done\n")
    assert peers.told() == ["127.98.1.1", "127.98.1.2"]


def test_a_stuck_log_service_holds_nothing_up(staged, crowd):
    staged.stand_in("logger", "sleep 600")
    peers = crowd({"127.98.2.1": "answer 0", "127.98.2.2": "answer 0"})
    began = time.monotonic()
    done = staged.run("-p", peers.port, staged.stages(
        *[f"s{n} 60 127.98.2.{n % 2 + 1} EXECUTE x" for n in range(8)]))
    assert done.status == 0
    assert len(told(peers)) == 8
    assert time.monotonic() - began < BOUND


def test_the_log_service_hears_of_the_stages(staged, crowd):
    peers = crowd({"127.98.3.1": "answer 0"})
    done = staged.run("-p", peers.port, staged.stages(
        "one 60 127.98.3.1 EXECUTE x"))
    assert done.status == 0
    logged = staged.home.dir / "logged"
    # Each is told by a process of its own, and may come late.
    for line in ("stage one: done", "1 stage: 1 done"):
        told_so = f"-t tolva-staged -p daemon.warning -- {line}"
        wait_for(lambda: logged.exists() and told_so in logged.read_text(),
                 what=line)


def test_a_reader_that_does_not_read_holds_nothing_up(staged, crowd):
    peers = crowd({"127.98.4.1": "answer 0"})
    (staged.home.dir / "rack").write_text("".join(
        f"127.98.5.{n} {'x' * 100}\n" for n in range(1, 100)))
    path = staged.stages(*[f"s{n} 600 {host} EXECUTE x" for n, host in
                           enumerate(["@rack", "127.98.4.1", "127.98.4.1"])])
    end, stuck = os.pipe()
    fcntl.fcntl(stuck, fcntl.F_SETPIPE_SZ, 4096)
    ran = subprocess.run([staged.command, "-p", str(peers.port), path],
                         env=staged.environment(), stdout=stuck,
                         stderr=subprocess.DEVNULL, timeout=2 * BOUND)
    os.close(end)
    os.close(stuck)
    assert ran.returncode == 1
    assert len(told(peers)) == 2


# --- what is shipped ----------------------------------------------------------


def test_the_shipped_stages_are_usable(staged):
    path = ROOT / "examples" / "staged-shutdown" / "stages"
    done = staged.run("-n", path)
    assert (done.status, done.err) == (0, "")
    assert "stage database, 600 s: would be sent to 192.0.2.31: EXECUTE " \
        "stop-database" in done.out
    assert done.out.count("would be sent") == 7


def test_the_examples_of_the_manual_work_as_they_stand(staged, crowd):
    peers = crowd({"127.99.0.1": "answer 0", "127.99.0.2": "answer 0",
                   "127.99.0.3": "answer 0"})
    text = PAGE.displays("stages")["example"]
    text = text.replace("192.0.2.23", "127.99.0.2").replace("192.0.2.31",
                                                            "127.99.0.3")
    work = staged.home.dir / "work"
    work.mkdir()
    (work / "stages").write_text(text)
    (work / "web").write_text("127.99.0.1 web1\n")
    examples = PAGE.displays("run")
    assert list(examples) == ["plan", "shutdown"]
    for example in examples.values():
        done = staged.home.run(
            "-c", example.replace("stages", f"-p {peers.port} stages"),
            program="/bin/sh", cwd=work, env=staged.environment())
        assert (done.status, done.err) == (0, "")
    assert sorted(told(peers)) == sorted([
        ("127.99.0.1", "EXECUTE stop-applications"),
        ("127.99.0.2", "EXECUTE stop-queue"),
        ("127.99.0.3", "EXECUTE stop-database"),
        ("127.99.0.1", "SHUTDOWN battery low"),
        ("127.99.0.3", "SHUTDOWN battery low")])
