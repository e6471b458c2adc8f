"""check_tolva: what a monitoring system is told."""

import os
import re
import subprocess
import time

import pytest

import manual
from harness import ROOT, skip_when_wrapped
from monitored import Site
from peers import reader
from ports import free_port
from waiting import wait_for

COMMAND = ROOT / "share" / "bin" / "check_tolva"
LINE = re.compile(r"^TOLVA (OK|WARNING|CRITICAL|UNKNOWN) - [^|]+"
                  r"( \| '\w+'=[0-9.]+s?;[^;|]*;[^;|]*;[0-9.]*;[0-9.]*"
                  r"( '\w+'=[0-9.]+s?;[^;|]*;[^;|]*;[0-9.]*;[0-9.]*)*)?$")
STATES = {"OK": 0, "WARNING": 1, "CRITICAL": 2, "UNKNOWN": 3}
WELL = {"tolva_up": 1, "tolva_listening": 1, "tolva_config_valid": 1,
        "tolva_rehearsal": 0, "tolva_log_enabled": 1, "tolva_log_writable": 1,
        "tolva_servers": 0}


@pytest.fixture
def site(home):
    return Site(home)


def found(site, facts=None, **more):
    """Has tolva-metrics find what is well, but for these facts; None leaves
    one out."""
    facts = {**WELL, **{f"tolva_{key}": value for key, value in more.items()},
             **(facts or {})}
    text = "".join(f"{key} {value}\n" for key, value in facts.items()
                   if value is not None)
    (site.home.dir / "facts").write_text(text)
    site.stand_in("tolva-metrics", f'cat "{site.home.dir}/facts"')


def judged(site, *args):
    """(state, text) of the one line, which has the form of the guidelines."""
    status, line = site.check(*args)
    assert LINE.match(line), line
    state = line.split()[1]
    assert STATES[state] == status
    return state, line.partition(" - ")[2]


# --- this host ----------------------------------------------------------------


def test_a_listener_that_is_well(site):
    skip_when_wrapped("the process has the name of the wrapper")
    listener = site.listener()
    state, text = judged(site)
    assert (state, text) == (
        "OK", "the service runs, it listens, the settings are good, "
        "no rehearsal, the log can be written | 'rehearsal'=0s;;;0;")
    listener.stop()
    state, text = judged(site)
    assert state == "CRITICAL"
    assert text.startswith("the service does not run, "
                           "nobody listens on its port | ")


@pytest.mark.parametrize("fact, value, state, text", [
    ("up", 0, "CRITICAL", "the service does not run"),
    ("up", None, "UNKNOWN", "nobody can say whether the service runs"),
    ("listening", 0, "CRITICAL", "nobody listens on its port"),
    ("listening", None, "UNKNOWN", "its port is not known"),
    ("config_valid", 0, "CRITICAL",
     "the settings are not: see tolva-checkconf"),
    ("config_valid", None, "UNKNOWN",
     "there is no tolva-checkconf to look at the settings"),
    ("log_writable", 0, "WARNING", "the log cannot be written"),
    ("log_writable", None, "UNKNOWN",
     "this user cannot see whether the log can be written"),
])
def test_what_is_not_well_is_said(site, fact, value, state, text):
    found(site, **{fact: value})
    assert judged(site) == (state, text + " | 'rehearsal'=0s;;;0;")


def test_a_log_in_the_journal_is_no_trouble(site):
    found(site, log_enabled=0, log_writable=None)
    assert judged(site)[0] == "OK"


def test_the_worst_comes_first_and_decides(site):
    found(site, log_writable=0, config_valid=None, up=0)
    state, text = judged(site)
    assert state == "CRITICAL"
    assert text.startswith(
        "the service does not run, the log cannot be written, there is no")
    found(site, log_writable=0, config_valid=None)
    assert judged(site)[0] == "WARNING"


def rehearse(site, age):
    found(site, rehearsal=1,
          rehearsal_since_timestamp_seconds=int(time.time()) - age)


def test_a_rehearsal_is_never_forgotten(site):
    rehearse(site, 7230)
    state, text = judged(site)
    assert state == "WARNING"
    assert text.startswith("shutdowns are only rehearsed, since 120 minutes")
    assert re.search(r"'rehearsal'=72[34]\ds;;;0;$", text)


@pytest.mark.parametrize("ranges, state", [
    (["-w", "3600"], "OK"), (["-w", "600"], "WARNING"),
    (["-w", "600", "-c", "1800"], "CRITICAL"), (["-c", "3600"], "OK")])
def test_a_rehearsal_may_take_a_while(site, ranges, state):
    rehearse(site, 2000)
    assert judged(site, *ranges)[0] == state


@pytest.mark.parametrize("states, state, text", [
    ((1, 1), "OK", "2 UPS servers alive"),
    ((1, 0), "WARNING", "UPS servers not alive: 127.0.0.3"),
    ((0, 0), "CRITICAL", "UPS servers not alive: 127.0.0.2 127.0.0.3"),
    ((1,), "UNKNOWN", "the log tells of 1 of 2 UPS servers"),
    ((), "UNKNOWN", "the log tells of 0 of 2 UPS servers"),
])
def test_watched_servers(site, states, state, text):
    found(site, {f'tolva_server_alive{{server="127.0.0.{number + 2}"}}': value
                 for number, value in enumerate(states)}, servers=2)
    got, said = judged(site, "-v")
    assert got == state
    assert text in said
    assert f"'servers_alive'={sum(states)};;;0;2" in said


@pytest.mark.parametrize("ago, state", [(60, "WARNING"), (90000, "OK")])
def test_a_shutdown_that_was_held_back(site, ago, state):
    found(site, last_shutdown_suppressed_timestamp_seconds=int(
        time.time()) - ago)
    got, text = judged(site)
    assert got == state
    assert ("a shutdown was held back 1 minutes ago" in text) == (ago == 60)


def test_verbose_says_what_is_well_too_and_shows_what_was_found(site):
    found(site, log_writable=0)
    assert "the service runs" not in judged(site)[1]
    assert "the service runs" in judged(site, "-v")[1]
    ran = site.run("check_tolva", "-vv")
    assert (ran.status, ran.err) == (1, "")
    assert "tolva_log_writable 0" in ran.out.splitlines()[1:]
    assert ran.out.count("|") == 1


def test_without_tolva_metrics_nothing_is_known(site):
    site.stand_in("tolva-metrics", "exit 127")
    assert judged(site) == ("UNKNOWN", "tolva-metrics does not work here")


# --- over the network ---------------------------------------------------------


def test_a_host_that_takes_commands(site):
    listener = site.listener()
    state, text = judged(site, "-H", "127.0.0.1", "-p", listener.port)
    assert state == "OK"
    assert re.fullmatch(
        r"127\.0\.0\.1 answers in (\d+\.\d\d) seconds \| "
        r"'time'=\1s;;;0;10", text)
    listener.wait_message("check_tolva")
    listener.stop()


@pytest.mark.parametrize("options, state", [
    (["-w", "50", "-c", "100"], "OK"), (["-w", "50:"], "WARNING"),
    (["-w", "50:", "-c", "60:"], "CRITICAL"), (["-c", "@0:50"], "CRITICAL")])
def test_how_long_the_answer_may_take(site, options, state):
    listener = site.listener()
    got, text = judged(site, "-H", "127.0.0.1", "-p", listener.port, *options)
    assert got == state
    assert text.startswith("127.0.0.1 answers in ")
    listener.stop()


def test_a_host_that_refuses(site):
    listener = site.listener(AllowedAddresses="127.0.0.9")
    state, text = judged(site, "-H", "127.0.0.1", "-p", listener.port)
    assert state == "CRITICAL"
    assert text.startswith("127.0.0.1: ")
    listener.stop()


def test_a_port_where_nobody_listens(site):
    state, text = judged(site, "-H", "127.0.0.1", "-p", free_port())
    assert state == "CRITICAL"
    assert text.startswith("127.0.0.1: Connection refused | ")


def test_a_host_that_cannot_write_its_log(site):
    listener = site.listener(LogfileName="/nonexistent/tolva.log")
    state, text = judged(site, "-H", "127.0.0.1", "-p", listener.port)
    assert state == "WARNING"
    assert text.startswith("127.0.0.1 answers, but cannot write its log | ")
    listener.stop()


def test_a_host_without_the_sender(site):
    site.stand_in("tolva", "exit 127")
    assert judged(site, "-H", "127.0.0.1")[0] == "UNKNOWN"


def test_an_answer_cannot_break_the_line(site):
    site.stand_in("tolva", "printf 'x, tolva[1]: system: a|b\\033[2Jc\\n'; "
                  "exit 1")
    state, text = judged(site, "-H", "127.0.0.1")
    assert text.startswith("127.0.0.1: a/b?[2Jc | ")


# --- time ---------------------------------------------------------------------


def test_a_silent_host_is_critical_in_time(site):
    server = site.home.server(reader)
    before = time.monotonic()
    state, text = judged(site, "-H", "127.0.0.1", "-p", server.port, "-t", "1")
    assert state == "CRITICAL"
    assert time.monotonic() - before < 15


@pytest.mark.parametrize("name, options, state", [
    ("tolva", ["-H", "127.0.0.1"], "CRITICAL"), ("tolva-metrics", [],
                                                 "UNKNOWN")])
def test_what_hangs_is_not_waited_for(site, name, options, state):
    site.stand_in(name, "exec sleep 300")
    before = time.monotonic()
    got, text = judged(site, *options, "-t", "1")
    assert got == state
    assert "within 1 seconds" in text
    assert 0.9 < time.monotonic() - before < 15


def test_nothing_of_it_stays_behind(site):
    """Who reads its output sees the end of it at once."""
    found(site)
    before = time.monotonic()
    done = subprocess.run([COMMAND, "-t", "300"], timeout=60,
                          env=site.home.environment(site.env),
                          capture_output=True)
    assert done.returncode == 0
    assert time.monotonic() - before < 30
    wait_for(lambda: not site.home.marked_pids(), what="no timer is left")


# --- the guidelines -----------------------------------------------------------

RANGES = [  # range, values that alert, values that do not
    ("10", [-1, 10.1, 11], [0, 5, 10]),
    ("10:", [9, 9.99, -5], [10, 11, 1000]),
    ("~:10", [10.5, 11], [-1000, 0, 10]),
    ("10:20", [9, 21, 20.5], [10, 15, 20]),
    ("@10:20", [10, 15, 20], [9, 21, 9.5]),
    ("0.5:1.5", [0.4, 1.6], [0.5, 1, 1.5]),
    ("@5", [0, 5, 3], [-1, 6]),
    ("0:", [-1], [0, 1]),
]


def alerts(value, text):
    """What the script's own function says."""
    source = COMMAND.read_text()
    function = source[source.index("alerts() {"):]
    function = function[:function.index("\n}\n") + 3]
    done = subprocess.run(["sh", "-c", function + 'alerts "$1" "$2"', "sh",
                           str(value), text], timeout=60)
    assert done.returncode in (0, 1)
    return done.returncode == 0


@pytest.mark.parametrize("text, alerting, quiet", RANGES)
def test_ranges_mean_what_the_guidelines_say(text, alerting, quiet):
    assert [x for x in alerting if not alerts(x, text)] == []
    assert [x for x in quiet if alerts(x, text)] == []


@pytest.mark.parametrize("option", ["-w", "-c"])
@pytest.mark.parametrize("text", [
    "", "@", "x", "10:5", "1:2:3", "~", "1..2", "@@1", "1-2", "$(id)", "1 2",
    "10,5"])
def test_what_is_no_range_is_refused(site, option, text):
    found(site)
    ran = site.run("check_tolva", option, text)
    assert (ran.status, ran.err) == (3, "")
    assert ran.out.startswith("TOLVA UNKNOWN - this is no range: ")
    assert ran.out.count("\n") == 1


@pytest.mark.parametrize("words", [
    ["-x"], ["-H"], ["-H", ""], ["-H", "-x"], ["-H", "a;id"], ["-H", "a b"],
    ["-p", "0"], ["-p", "65536"], ["-p", "x"], ["-t", "0"], ["-t", "-1"],
    ["more"], ["--nothing"], ["--port"], ["-H", "a|b"], ["-H", "a\nb"]])
def test_wrong_usage_is_unknown(site, words):
    ran = site.run("check_tolva", *words)
    assert (ran.status, ran.err) == (3, "")
    assert ran.out.startswith("TOLVA UNKNOWN - ")
    assert ran.out.count("\n") == 1
    assert "|" not in ran.out


@pytest.mark.parametrize("words", [
    ["-H", "127.0.0.1", "-p", "PORT", "-t", "30", "-w", "20", "-c", "25"],
    ["-H127.0.0.1", "-pPORT", "-t30", "-w20", "-c25"],
    ["--hostname", "127.0.0.1", "--port", "PORT", "--timeout", "30",
     "--warning", "20", "--critical", "25"],
    ["--hostname=127.0.0.1", "--port=PORT", "--timeout=30", "--warning=20",
     "--critical=25"]])
def test_every_form_of_an_option(site, words):
    listener = site.listener()
    state, text = judged(site, *(
        word.replace("PORT", str(listener.port)) for word in words))
    assert state == "OK"
    assert text.endswith(";20;25;0;30")
    listener.stop()


@pytest.mark.parametrize("word", ["-h", "--help", "-V", "--version"])
def test_help_and_version_are_unknown_too(site, word):
    ran = site.run("check_tolva", word)
    assert (ran.status, ran.err) == (3, "")
    if "-h" in word:
        for option in ("-H", "-p", "-t", "-w", "-c", "-v", "-h", "-V"):
            assert f"\n {option}, --" in ran.out
        assert max(map(len, ran.out.splitlines())) <= 80
    else:
        assert re.fullmatch(r"check_tolva \(tolva V[0-9.]+\)\n", ran.out)


def test_it_works_without_a_path_and_with_closed_descriptors(site):
    def closed():
        for descriptor in (0, 2):
            os.close(descriptor)

    done = subprocess.run(
        [COMMAND, "-w", "x"], timeout=60, preexec_fn=closed, env={},
        stdout=subprocess.PIPE)
    assert done.returncode == 3
    assert done.stdout.startswith(b"TOLVA UNKNOWN - this is no range: x")


# --- the manual ---------------------------------------------------------------


def test_every_option_is_in_the_manual():
    page = manual.Page("check_tolva.8")
    assert set(page.options("any")) == {
        "H", "p", "t", "w", "c", "v", "h", "V", "-hostname", "-port",
        "-timeout", "-warning", "-critical", "-verbose", "-help", "-version"}


@pytest.mark.parametrize("name", ["here", "rehearsal", "there", "all"])
def test_an_example_of_the_manual(site, name):
    """As they stand, but for the address and the port."""
    skip_when_wrapped("the process has the name of the wrapper")
    listener = site.listener()
    text = manual.Page("check_tolva.8").displays("run")[name]
    text = text.replace("192.0.2.21", f"127.0.0.1 -p {listener.port}")
    done = site.home.start("-c", text, program="/bin/sh", env=site.env).wait()
    assert (done.status, done.err) == (0, "")
    assert LINE.match(done.out.splitlines()[0])
    assert done.out.startswith("TOLVA OK - ")
    listener.stop()
