"""What monitoring is told, in the hands of those who are told: Prometheus'
parser, the library of Perl's monitoring plugins, logrotate and rsyslog."""

import os
import re
import subprocess
import textwrap

import pytest

from conftest import ROOT, unpacked
from monitored import Site as Monitored
from ports import free_port, tcp_listens
from upsserver import good
from waiting import BOUND, wait_for

DOCUMENT = ROOT / "docs" / "monitoring.md"


def recipe(first):
    """The example of the document that begins with this line."""
    blocks = re.findall(r"(?:^    .*\n|^\n(?=    ))+", DOCUMENT.read_text(),
                        re.MULTILINE)
    found = [textwrap.dedent(block).strip("\n") + "\n" for block in blocks]
    (one,) = [block for block in found if block.startswith(first)]
    return one


@pytest.fixture
def monitored(site):
    return Monitored(site.home)


# --- Prometheus ---------------------------------------------------------------


def promtool(*args, **options):
    root = unpacked("prometheus")
    return subprocess.run([root / "usr/bin/promtool", *args], text=True,
                          capture_output=True, timeout=BOUND * 3, **options)


def test_prometheus_reads_the_gauges(monitored):
    server = monitored.home.server(good)
    listener = monitored.listener(
        AliveEnabled="TRUE", AliveAddresses=f"{server.where} 127.0.0.3:9")
    wait_for(lambda: len([x for x in monitored.metrics()
                          if "server_alive" in x]) == 2, 60,
             "both servers were looked at")
    monitored.home.path("rehearsal").touch()
    with open(monitored.home.path("tolva.log"), "a") as log:
        log.write("11/20/2026,14:40:02, tolva[00000]: Shutdown suppressed, "
                  "redundancy-level = 1, failure count = 0.\n")
    ran = monitored.run("tolva-metrics")
    assert ran.out.count("# TYPE tolva_") == 10
    done = promtool("check", "metrics", input=ran.out)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    listener.stop()


def test_prometheus_refuses_what_is_no_exposition():
    """So that the test above means something."""
    assert promtool("check", "metrics", input="tolva_up{ 1\n").returncode != 0


def test_the_alerts_of_the_document_are_rules(tmp_path):
    rules = tmp_path / "rules.yml"
    rules.write_text(recipe("groups:"))
    done = promtool("check", "rules", rules)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "6 rules found" in done.stdout + done.stderr
    page = (ROOT / "man" / "tolva-metrics.8").read_text()
    for name in re.findall(r"\btolva_\w+", rules.read_text()):
        assert f".It {name} " in page


# --- plugins ------------------------------------------------------------------

PERL = ("libmonitoring-plugin-perl", "libclass-accessor-perl",
        "libconfig-tiny-perl", "libmath-calc-units-perl",
        "libmodule-implementation-perl", "libmodule-runtime-perl",
        "libparams-validate-perl", "libsub-name-perl", "libtry-tiny-perl")


def perl(program, *args):
    root = unpacked(*PERL)
    includes = [f"-I{root}/usr/share/perl5",
                *(f"-I{path}" for path in
                  root.glob("usr/lib/*/perl5/*"))]
    done = subprocess.run(["/usr/bin/perl", *includes, "-e", program, "--", *args],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return done.stdout


def script_alerts(values, text):
    source = (ROOT / "share" / "bin" / "check_tolva").read_text()
    function = source[source.index("alerts() {"):]
    function = function[:function.index("\n}\n") + 3]
    loop = 'range=$1; shift; for x in "$@"; do ' \
        'if alerts "$x" "$range"; then echo 1; else echo 0; fi; done'
    return subprocess.run(
        ["sh", "-c", function + loop, "sh", text, *map(str, values)],
        capture_output=True, text=True, timeout=60, check=True).stdout


@pytest.mark.parametrize("text", [
    "10", "10:", "~:10", "10:20", "@10:20", "@10", "0.5:1.5", "0:", "~:",
    "@~:5", "-5:5", "@-5:5"])
def test_a_range_means_what_it_means_to_other_plugins(text):
    values = [-1000, -5.5, -5, -1, 0, 0.4, 0.5, 1, 1.5, 1.6, 5, 9.99, 10,
              10.01, 15, 20, 20.5, 1000]
    theirs = perl(
        "use Monitoring::Plugin::Range; my $r = Monitoring::Plugin::Range->"
        "parse_range_string(shift); print $r->check_range($_) ? 1 : 0, qq(\n)"
        " for @ARGV;", text, *map(str, values))
    assert script_alerts(values, text) == theirs


@pytest.mark.parametrize("words", [
    [], ["-w", "60:600", "-c", "@5"], ["-H", "127.0.0.1", "-w", "2", "-c",
                                       "0.5:8"]])
def test_performance_data_is_what_other_plugins_write(monitored, words):
    listener = monitored.listener(AliveEnabled="TRUE",
                                  AliveAddresses="127.0.0.3:9")
    if "-H" in words:
        words = [*words, "-p", str(listener.port)]
    status, line = monitored.check(*words)
    text, _, data = line.partition(" | ")
    told = perl(
        "use Monitoring::Plugin::Performance; "
        "print join(q(;), map { $_->label, $_->value, $_->uom // q(), "
        "$_->min // q(), $_->max // q() } $_), qq(\n) for Monitoring::Plugin::"
        "Performance->parse_perfstring(shift);", data).splitlines()
    names = [line.split(";")[0] for line in told]
    if "-H" in words:
        assert names == ["time"]
        assert told[0].split(";")[2:] == ["s", "0", "10"]
    else:
        assert names == ["rehearsal", "servers_alive"]
        assert told[1] == "servers_alive;0;;0;1"
    listener.stop()


def test_other_tools_understand_it(monitored):
    """negate(1) reads the state out of the line and the status."""
    root = unpacked("monitoring-plugins-common", "monitoring-plugins-basic")
    monitored.stand_in("tolva-metrics", "echo tolva_up 0")
    done = subprocess.run(
        [root / "usr/lib/nagios/plugins/negate", "-s", "-c", "OK",
         monitored.bin / "check_tolva"], capture_output=True, text=True,
        env=monitored.home.environment(monitored.env), timeout=60)
    assert done.returncode == 0, done.stderr
    assert done.stdout.startswith("TOLVA OK - the service does not run")


# --- the log elsewhere --------------------------------------------------------


def unit_command():
    """How the unit starts the listener."""
    text = (ROOT / "packaging" / "tolva.service").read_text()
    return re.search(r"^ExecStart=/usr/bin/tolva (.*)$", text,
                     re.MULTILINE)[1].split()


def started_by_the_unit(site, settings):
    """The listener as the unit starts it; returns it and its port."""
    port = free_port()
    site.home.write("tolva.cfg", f"ListenAddress=127.0.0.1\nListenPort={port}"
                    f"\nAllowedAddresses=127.0.0.1\n{settings}")
    words = [word.replace("/etc/tolva", str(site.home.home))
             for word in unit_command()]
    run = site.start("tolva", *words)
    wait_for(lambda: tcp_listens(port) or not run.running(),
             what="the listener listens")
    assert run.running(), run.err
    return run, port


def send(site, port, text):
    sent = site.run("tolva", "-sr", f"LOG_TEXT {text}", "-a",
                    f"127.0.0.1:{port}")
    assert sent.status == 0, sent


def test_without_a_file_the_journal_gets_the_log(site):
    """That is standard output of the unit, line by line as they come."""
    run, port = started_by_the_unit(site, recipe("LogfileEnabled="))
    send(site, port, "power is back")
    wait_for(lambda: re.search(r"tolva\[\d+\]: power is back\n", run.out),
             what="the line comes at once")
    assert not site.home.path("tolva.log").exists()
    run.process.terminate()
    assert run.wait().status == 0


def test_logrotate_takes_the_log_while_the_listener_runs(site):
    root = unpacked("logrotate")
    log = site.dir / "log" / "tolva.log"
    log.parent.mkdir(mode=0o755)
    run, port = started_by_the_unit(
        site, f"LogfileName={log}\nLogfileSize=0\n")
    config = site.dir / "logrotate.conf"
    config.write_text(recipe("/var/log/tolva/tolva.log {").replace(
        "/var/log/tolva/tolva.log", str(log)))
    config.chmod(0o644)
    for number in range(3):
        send(site, port, f"line {number}")
        wait_for(lambda: f"line {number}" in log.read_text("latin-1"),
                 what="the line is in the new file")
        done = site.run(root / "usr/sbin/logrotate", "--force", "--state",
                        site.dir / "state", config)
        assert done.status == 0, done
        assert not log.exists()
    kept = sorted(os.listdir(log.parent))
    assert kept == ["tolva.log.1", "tolva.log.2.gz", "tolva.log.3.gz"]
    # What was written is there, each line once.
    text = (log.parent / "tolva.log.1").read_text("latin-1") + "".join(
        subprocess.run(["gzip", "-dc", log.parent / name], text=True,
                       capture_output=True, check=True).stdout
        for name in kept[1:])
    for number in range(3):
        assert text.count(f": line {number}\n") == 1
    run.process.terminate()
    assert run.wait().status == 0


def test_rsyslog_reads_the_log(site):
    root = unpacked("rsyslog", "libestr0", "libfastjson4")
    log = site.dir / "tolva.log"
    run, port = started_by_the_unit(
        site, f"LogfileName={log}\nLogfileSize=0\n")
    out = site.dir / "syslog"
    (modules,) = root.glob("usr/lib/*/rsyslog")
    config = site.dir / "rsyslog.conf"
    work = site.dir / "work"
    work.mkdir()
    config.write_text(
        f'global(workDirectory="{work}")\n' +
        recipe("module(load=").replace("/var/log/tolva/tolva.log", str(log)) +
        f'action(type="omfile" file="{out}")\n')
    libraries = ":".join(str(path) for path in
                         root.glob("**/*-linux-gnu"))
    daemon = site.start(
        root / "usr/sbin/rsyslogd", "-n", "-f", config, "-i",
        site.dir / "pid", "-M", modules, env={"LD_LIBRARY_PATH": libraries})
    send(site, port, "power is back")
    wait_for(lambda: out.exists() and re.search(
        r" tolva: .*power is back\n", out.read_text()) or
        not daemon.running(), what="rsyslog has the line")
    assert daemon.running(), daemon.err
    daemon.process.terminate()
    daemon.wait()
    run.process.terminate()
    assert run.wait().status == 0
