"""tolva-metrics: what it finds out about the listener of this host."""

import os
import re
import signal
import socket
import subprocess
import time

import pytest

import manual
import namespaces
from harness import ROOT, skip_when_wrapped
from monitored import Site, parsed
from peers import reader
from upsserver import good
from waiting import wait_for

COMMAND = ROOT / "share" / "bin" / "tolva-metrics"


@pytest.fixture
def site(home):
    return Site(home)


# --- the service --------------------------------------------------------------


def test_a_listener_that_is_well(site):
    skip_when_wrapped("the process has the name of the wrapper")
    listener = site.listener()
    found = site.metrics()
    assert found == {
        "tolva_up": 1, "tolva_config_valid": 1, "tolva_listening": 1,
        "tolva_rehearsal": 0, "tolva_log_enabled": 1, "tolva_log_writable": 1,
        "tolva_servers": 0}
    listener.stop()
    found = site.metrics()
    assert (found["tolva_up"], found["tolva_listening"]) == (0, 0)


@pytest.mark.parametrize("text", ["", "x\n", "-1\n", "999999999\n"])
def test_a_pid_file_that_names_nobody_is_no_service(site, text):
    site.pidfile.write_text(text)
    assert site.metrics()["tolva_up"] == 0


def test_a_pid_file_that_names_another_program_is_no_service(site):
    site.pidfile.write_text(f"{os.getpid()}\n")
    assert site.metrics()["tolva_up"] == 0


@pytest.mark.parametrize("status", [0, 3])
def test_systemd_is_asked_where_it_is_init(site, status):
    (site.home.dir / "systemd").mkdir()
    site.stand_in("systemctl", f'[ "$*" = "is-active --quiet tolva.service" ]'
                  f' && exit {status}; exit 4')
    assert site.metrics()["tolva_up"] == (status == 0)


def test_another_address_or_port_is_not_the_listener_s(site):
    listener = site.listener()
    assert site.metrics("-p", listener.port)["tolva_listening"] == 1
    assert site.metrics("-p", "9")["tolva_listening"] == 0
    site.home.configure(ListenAddress="127.0.0.2")
    assert site.metrics()["tolva_listening"] == 0
    site.home.configure(ListenAddress="0.0.0.0")
    assert site.metrics()["tolva_listening"] == 0
    listener.stop()


def test_a_connection_to_the_port_is_no_listener(site):
    server = site.home.server(reader)
    with socket.create_connection(("127.0.0.1", server.port)) as conn:
        port = conn.getsockname()[1]
        site.home.configure(ListenAddress="127.0.0.1", ListenPort=port)
        assert site.metrics()["tolva_listening"] == 0


def test_settings_that_do_not_pass(site):
    site.home.configure(AllowedAdresses="127.0.0.1")
    assert site.metrics()["tolva_config_valid"] == 0


def test_settings_that_are_missing(site):
    site.home.path("tolva.cfg").unlink()
    found = site.metrics()
    assert found["tolva_config_valid"] == 0
    assert "tolva_log_writable" not in found


def test_what_nobody_knows_is_left_out(site):
    (site.bin / "tolva-checkconf").unlink()
    assert site.metrics() == {"tolva_up": 0, "tolva_rehearsal": 0}


@pytest.mark.parametrize("link", [False, True])
def test_a_rehearsal_has_a_beginning(site, link):
    path = site.home.path("rehearsal")
    if link:
        path.symlink_to("nowhere")
    else:
        path.touch()
    os.utime(path, (1700000000, 1700000000), follow_symlinks=False)
    found = site.metrics()
    assert found["tolva_rehearsal"] == 1
    assert found["tolva_rehearsal_since_timestamp_seconds"] == 1700000000


# --- the log ------------------------------------------------------------------


def log(site, *texts, name="tolva.log"):
    site.home.write(name, "".join(
        f"11/20/2026,14:40:0{number}, tolva[01234]: {text}\n"
        for number, text in enumerate(texts)))


def watching(site, *servers):
    site.home.configure(AliveEnabled="TRUE", AliveAddresses=" ".join(servers))


def alive(found):
    return {key.split('"')[1]: value for key, value in found.items()
            if key.startswith("tolva_server_alive{")}


def test_the_state_of_servers_that_a_listener_really_watches(site):
    server = site.home.server(good)
    dead = "127.0.0.3:9"
    listener = site.listener(AliveEnabled="TRUE",
                             AliveAddresses=f"{server.where} {dead}")
    wait_for(lambda: len(alive(site.metrics())) == 2, 60,
             "both servers were looked at")
    found = site.metrics()
    assert alive(found) == {"127.0.0.1": 1, "127.0.0.3": 0}
    assert found["tolva_servers"] == 2
    listener.stop()


def test_the_last_state_of_a_server_counts(site):
    watching(site, "127.0.0.2", "127.0.0.3", "127.0.0.4")
    log(site, "UPS server 127.0.0.2 is alive",
        "UPS server 127.0.0.3 is alive", "UPS server 127.0.0.2 is not alive",
        "UPS server 127.0.0.4 is alive",
        "UPS server 127.0.0.4 failed too often and is not watched again "
        "before a restart")
    assert alive(site.metrics()) == {
        "127.0.0.2": 0, "127.0.0.3": 1, "127.0.0.4": 0}


def test_what_was_before_the_last_start_is_forgotten(site):
    watching(site, "127.0.0.2")
    log(site, "UPS server 127.0.0.9 is not alive",
        "watching the UPS servers", "UPS server 127.0.0.2 is alive")
    assert alive(site.metrics()) == {"127.0.0.2": 1}


def test_servers_that_are_not_watched_any_more_are_not_told(site):
    log(site, "UPS server 127.0.0.9 is not alive")
    found = site.metrics()
    assert (alive(found), found["tolva_servers"]) == ({}, 0)


def test_the_log_before_the_last_rotation_is_read_too(site):
    watching(site, "127.0.0.2")
    log(site, "UPS server 127.0.0.2 is alive", name="tolva.log.1")
    log(site, "message received")
    assert alive(site.metrics()) == {"127.0.0.2": 1}


def test_texts_may_be_edited(site):
    watching(site, "127.0.0.2", "127.0.0.3")
    text = site.home.read("messages.dat").decode()
    site.home.write("messages.dat", text.replace(
        "m814=UPS server %s is alive", "m814=%s: läuft = ok [a-z]\\n\r"
    ).replace("m828=UPS server %s is not alive", "m828=tot ist %s"))
    log(site, "127.0.0.2: läuft = ok [a-z]\\n", "tot ist 127.0.0.3",
        "UPS server 127.0.0.9 is alive")
    assert alive(site.metrics()) == {"127.0.0.2": 1, "127.0.0.3": 0}


@pytest.mark.parametrize("text", [
    'UPS server 1"} 1 is alive', "UPS server a b is alive",
    "UPS server  is alive", "started: UPS server 127.0.0.2 is alive",
    "UPS server 127.0.0.2 is alive!", "UPS server \\ is alive"])
def test_other_texts_are_no_states(site, text):
    watching(site, "127.0.0.2")
    log(site, text)
    assert alive(site.metrics()) == {}


def test_the_last_shutdown_that_was_held_back(site):
    log(site, "Shutdown suppressed, redundancy-level = 1, failure count = 0.",
        "message received",
        "Shutdown suppressed, redundancy-level = 1, failure count = 1.",
        "started: Shutdown suppressed, redundancy-level")
    found = site.metrics(env={"TZ": "UTC0"})
    assert found["tolva_last_shutdown_suppressed_timestamp_seconds"] == \
        1795185602
    # The log is in local time.
    found = site.metrics(env={"TZ": "XYZ-2"})
    assert found["tolva_last_shutdown_suppressed_timestamp_seconds"] == \
        1795185602 - 7200


def test_that_text_is_the_program_s():
    source = ROOT / "src" / "tolva2" / "listen" / "redundancy.cpp"
    assert '"Shutdown suppressed, redundancy-level = %d, failure' in \
        source.read_text()


@pytest.mark.parametrize("log_name, writable", [
    ("new.log", 1), ("missing/tolva.log", 0), ("actions.d", 0),
    ("/proc/version", 0)])
def test_whether_the_log_can_be_written(site, log_name, writable):
    site.home.path("actions.d").mkdir()
    site.home.configure(LogfileName=str(site.home.home / log_name))
    before = sorted(os.listdir(site.home.home))
    if log_name == "/proc/version" and os.getuid() != 0:
        return
    assert site.metrics()["tolva_log_writable"] == writable
    assert sorted(os.listdir(site.home.home)) == before


@pytest.mark.parametrize("kind", ["full", "read-only"])
def test_a_log_on_a_disk_that_takes_no_more(site, kind):
    mount = site.home.dir / "mount"
    mount.mkdir()
    site.home.configure(LogfileName=f"{mount}/tolva.log")
    prepare = {
        "full": "cat /dev/zero >$MOUNT/fill 2>/dev/null",
        "read-only": "mount -o remount,bind,ro $MOUNT || exit"}[kind]
    script = (f"MOUNT={mount}; mount -t tmpfs -o size=64k none $MOUNT || exit;"
              f" : >$MOUNT/tolva.log; {prepare}; exec {COMMAND}")
    ran = site.home.start(
        "-c", script, program="/bin/sh", env=site.env,
        prefix=namespaces.private_network()).wait()
    assert (ran.status, ran.err) == (0, "")
    assert parsed(ran.out)["tolva_log_writable"] == 0


def test_another_user_cannot_tell_whether_the_log_can_be_written(site):
    if os.getuid() == 0:
        for path in (site.home.dir, site.home.home):
            path.chmod(0o755)
        site.home.path("tolva.log").touch(0o644)
        done = subprocess.run(
            [COMMAND], env=site.home.environment(site.env), user=65534,
            group=65534, extra_groups=[], capture_output=True, text=True,
            timeout=60)
        assert (done.returncode, done.stderr) == (0, "")
        found = parsed(done.stdout)
    else:
        site.home.configure(LogfileName="/etc/passwd")
        found = site.metrics()
    assert found["tolva_log_enabled"] == 1
    assert "tolva_log_writable" not in found


def test_a_log_in_the_journal_is_read_from_there(site):
    watching(site, "127.0.0.2")
    site.home.configure(LogfileEnabled="FALSE")
    site.stand_in("journalctl", """
        [ "$*" = "-q --no-pager -u tolva -o cat -n 20000" ] || exit 1
        echo "Started something."
        echo "11/20/2026,14:40:02, tolva[00000]: UPS server 127.0.0.2 is alive"
        """)
    found = site.metrics()
    assert alive(found) == {"127.0.0.2": 1}
    assert found["tolva_log_enabled"] == 0
    assert "tolva_log_writable" not in found


# --- into a file --------------------------------------------------------------


def test_a_file_is_written_at_once_and_for_everybody_to_read(site):
    target = site.home.dir / "prom"
    target.mkdir()
    out = target / "tolva.prom"
    for _ in range(2):
        ran = site.run("tolva-metrics", "-o", out, umask=0o077)
        assert (ran.status, ran.out, ran.err) == (0, "", "")
        assert out.stat().st_mode & 0o7777 == 0o644
        assert os.listdir(target) == ["tolva.prom"]
        assert parsed(out.read_text())["tolva_rehearsal"] == 0


def test_a_file_is_never_seen_half_written(site):
    out = site.home.dir / "tolva.prom"
    assert site.run("tolva-metrics", "-o", out).status == 0
    whole = parsed(out.read_text()).keys()
    run = site.home.start("-c", f"for i in 1 2 3 4 5; do {COMMAND} -o {out};"
                          " done", program="/bin/sh", env=site.env)
    end = time.monotonic() + 60
    while run.running():
        assert time.monotonic() < end
        assert parsed(out.read_text()).keys() == whole
    assert run.wait().status == 0


def test_a_file_that_cannot_be_written_stays_as_it_was(site):
    target = site.home.dir / "prom"
    target.mkdir()
    out = target / "tolva.prom"
    out.write_text("old\n")

    def no_room():
        import resource
        resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)

    done = subprocess.run(
        [COMMAND, "-o", out], env=site.home.environment(site.env),
        capture_output=True, text=True, timeout=60, preexec_fn=no_room)
    assert done.returncode == 1
    assert done.stderr.endswith(f"tolva-metrics: cannot write {out}\n")
    assert (os.listdir(target), out.read_text()) == (["tolva.prom"], "old\n")


def test_a_directory_that_is_missing_is_said(site):
    ran = site.run("tolva-metrics", "-o", "/nonexistent/tolva.prom")
    assert ran.status == 1
    assert "tolva-metrics: cannot write beside /nonexistent/tolva.prom" in \
        ran.err


# --- usage --------------------------------------------------------------------


@pytest.mark.parametrize("words", [
    ["-x"], ["-o"], ["-p"], ["-p", "x"], ["-p", ""], ["-p", "123456"],
    ["more"]])
def test_wrong_usage_is_one_line(site, words):
    ran = site.run("tolva-metrics", *words)
    assert (ran.status, ran.out) == (2, "")
    assert ran.err.startswith("tolva-metrics: ")
    assert "usage: tolva-metrics " in ran.err
    assert ran.err.count("\n") == 1


def test_help_is_no_error(site):
    ran = site.run("tolva-metrics", "-?")
    assert (ran.status, ran.err) == (0, "")
    assert ran.out == "usage: tolva-metrics [-o <file>] [-p <port>]\n"


def test_it_works_without_a_path_and_with_closed_descriptors(site):
    """Without a path the tolva-checkconf of the tests is not found."""
    out = site.home.dir / "tolva.prom"

    def closed():
        for descriptor in (0, 1, 2):
            os.close(descriptor)

    done = subprocess.run(
        [COMMAND, "-o", out], timeout=60, preexec_fn=closed,
        env={"TOLVAHOME": str(site.home.home),
             "TOLVA_PIDFILE": str(site.pidfile)})
    assert done.returncode == 0
    assert parsed(out.read_text())["tolva_rehearsal"] == 0


# --- the manual ---------------------------------------------------------------


def test_every_gauge_is_in_the_manual():
    told = [row[0] for row in
            manual.Page("tolva-metrics.8").table("gauges")]
    gauges = re.findall(r"\bgauge (\w+) ", COMMAND.read_text())
    assert sorted(told) == sorted(f"tolva_{name}" for name in gauges)


def test_the_examples_of_the_manual_work_as_they_stand(site):
    """But for the directory, which is a test's own."""
    examples = manual.Page("tolva-metrics.8").displays("run")
    assert list(examples) == ["look", "write"]
    script = "set -e\n" + "".join(examples.values()).replace(
        "/var/lib/prometheus/node-exporter", str(site.home.dir))
    ran = site.home.start("-c", script, program="/bin/sh",
                          env=site.env).wait()
    assert (ran.status, ran.out, ran.err) == (0, "tolva_listening 0\n", "")
    assert parsed((site.home.dir / "tolva.prom").read_text())["tolva_up"] == 0
