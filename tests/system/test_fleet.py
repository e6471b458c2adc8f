"""tolva-fleet: everybody is told, everybody has a line, and it ends in time."""

import contextlib
import fcntl
import json
import os
import pty
import resource
import select
import signal
import subprocess
import time

import pytest

import manual
from crowd import Crowd, addresses
from harness import TOLVA, message
from peers import FullBacklog
from ports import free_port
from processes import alive, children
from test_addresses import in_namespace
from waiting import BOUND, wait_for

FLEET = TOLVA.parent / "tolva-fleet"
REQUEST = "CONNECT TO TOLVA (SEND) MSG_EXECSTATUS "
HEADINGS = "address\tname\toutcome\tstatus\tmilliseconds\treason"
PAGE = manual.Page("tolva-fleet.8")


def write_hosts(home, *lines, name="hosts"):
    path = home.dir / name
    path.write_text("".join(f"{line}\n" for line in lines))
    return path


def fleet(home, *args, **options):
    return home.run(*args, program=str(FLEET), **options)


def start(home, *args, **options):
    return home.start(*args, program=str(FLEET), **options)


def rows(result):
    """{address: {heading: field}} of a run with -o tsv."""
    text = result if isinstance(result, str) else result.out
    lines = text.splitlines()
    assert lines[0] == HEADINGS
    found = [dict(zip(HEADINGS.split("\t"), line.split("\t"), strict=True))
             for line in lines[1:]]
    assert len({row["address"] for row in found}) == len(found)
    return {row["address"]: row for row in found}


def outcomes(result):
    return {address: row["outcome"] for address, row in rows(result).items()}


@pytest.fixture
def crowd(home):
    """Makes a crowd of peers; all of them end with the test."""
    with contextlib.ExitStack() as stack:
        yield lambda peers, port=None: stack.enter_context(
            Crowd(home, peers, port))


# --- real listeners -----------------------------------------------------------


def test_a_listener_carries_the_command_out_and_answers(home):
    home.script("tolva_execute.sh", 'echo "$#:$*" >"$TOLVAHOME/ran"')
    listener = home.listener()
    done = fleet(home, "-q", "-p", listener.port,
                 write_hosts(home, "127.0.0.1 web1"), "EXECUTE", "a b", "it's")
    assert (done.status, done.err) == (0, "")
    assert done.out == ("done         127.0.0.1  web1\n"
                        "1 host: 1 done\n")
    assert home.read("ran") == b"2:a b it's\n"
    listener.stop()


def test_parameters_arrive_as_they_are(home):
    home.script("tolva_shutdown.sh", 'printf "<%s>" "$@" >"$TOLVAHOME/ran"')
    listener = home.listener()
    words = ["UPS in rack 4 (battery low)", "$HOME `id`; x & y < z > w", "*",
             '"', "'", "\\", "", "a\tb", '"quoted"']
    done = fleet(home, "-p", listener.port, write_hosts(home, "127.0.0.1"),
                 "SHUTDOWN", *words)
    assert done.status == 0
    assert home.read("ran").decode() == "".join(f"<{w}>" for w in words)
    listener.stop()


def test_words_of_the_log_have_no_quotes(home):
    listener = home.listener()
    done = fleet(home, "-p", listener.port, write_hosts(home, "127.0.0.1"),
                 "LOG_TEXT", "a test", "of (it)")
    assert done.status == 0
    listener.wait_message("a test of (it)")
    listener.stop()


def test_a_failing_script_a_missing_one_and_an_unknown_sender(home, make_home):
    home.script("tolva_execute.sh", "exit 3")
    failing = home.listener()
    other = make_home()
    stranger = other.listener(config={"AllowedAddresses": "127.0.0.9"})
    done = fleet(home, "-o", "tsv", write_hosts(
        home, f"127.0.0.1:{failing.port}", f"127.0.0.1:{stranger.port}"),
        "EXECUTE x")
    assert done.status == 1
    found = rows(done)
    assert found[f"127.0.0.1:{failing.port}"]["outcome"] == "failed"
    assert found[f"127.0.0.1:{failing.port}"]["status"] == "3"
    refused = found[f"127.0.0.1:{stranger.port}"]
    assert refused["outcome"] == "refused"
    assert "AllowedAddresses" in refused["reason"]
    assert done.err.endswith("2 hosts: 0 done, 1 failed, 1 refused\n")
    failing.stop()
    stranger.stop()


# --- every way to behave ------------------------------------------------------

FORGED = (r"say nonsense\nserver[127.60.0.10]: COMMAND= PID=0 EXITSTATUS=0"
          r"\n\x1b[2J")
WAYS = {
    "127.60.0.1": ("answer 0", "done", "0", ""),
    "127.60.0.2": ("answer 3", "failed", "3", "ended with 3"),
    "127.60.0.3": ("answer 127", "failed", "127", "not found, perhaps"),
    "127.60.0.4": ("refuse", "refused", "-", "AllowedAddresses"),
    "127.60.0.5": ("reset", "refused", "-", ""),
    "127.60.0.6": ("close", "closed", "-", "has run nothing"),
    "127.60.0.7": ("say HTTP/1.0 400 Bad\\r\\n", "garbage", "-",
                   "HTTP/1.0 400 Bad\\\\x0d\\\\x0a"),
    "127.60.0.8": (FORGED, "garbage", "-", "nonsense\\\\x0aserver["),
    "127.60.0.9": ("half", "timeout", "-", "no answer in time"),
    "127.60.0.10": ("silent", "timeout", "-", "its script may still run"),
    "127.60.0.11": ("slow 0.3 0", "done", "0", ""),
    "127.60.0.12": ("split 0.3 0", "done", "0", ""),
    "127.60.0.13": ("dead", "unreachable", "-", "no connection in time"),
    "127.60.0.14": ("say CONNECT TO TOLVA (REPLY) COMMAND=/x PID=1", "failed",
                    "-", "no exit status"),
    "127.60.0.15": ("say CONNECT TO TOLVA (RE", "garbage", "-", ""),
    "127.60.0.16": ("say connect to tolva (reply) EXITSTATUS=-9", "failed",
                    "-9", ""),
    "127.60.0.17": (r"say CONNECT TO TOLVA (REPLY) COMMAND=x\n PID=1 "
                    "EXITSTATUS=4", "failed", "4", ""),
}


@pytest.mark.parametrize("form", ["text", "tsv", "json"])
def test_every_way_to_behave_has_its_outcome(home, crowd, form):
    peers = crowd({address: way[0] for address, way in WAYS.items()})
    hosts = write_hosts(home, *WAYS, "127.60.0.200", "127.60.0.089 typo")
    done = fleet(home, "-q", "-c", "2", "-s", "3", "-o", form, "-p",
                 peers.port, hosts, "EXECUTE x")
    assert done.status == 1
    expected = {a: way[1] for a, way in WAYS.items()}
    expected |= {"127.60.0.200": "refused", "127.60.0.089": "invalid"}
    if form == "tsv":
        found = rows(done)
        for address, (_, _, status, reason) in WAYS.items():
            assert found[address]["status"] == status, address
            assert reason in found[address]["reason"], address
        assert "nobody listens" in found["127.60.0.200"]["reason"]
        assert found["127.60.0.089"]["name"] == "typo"
    elif form == "json":
        found = {row["address"]: row
                 for row in map(json.loads, done.out.splitlines())}
        assert found["127.60.0.2"]["status"] == 3
        assert found["127.60.0.4"]["status"] is None
        assert "\\x0aserver[" in found["127.60.0.8"]["reason"]
    else:
        lines = done.out.splitlines()
        assert lines.pop() == (
            "19 hosts: 3 done, 5 failed, 3 refused, 1 closed, 3 garbage, "
            "1 unreachable, 2 timeout, 1 invalid")
        found = {line.split()[1].rstrip(":"): {"outcome": line.split()[0]}
                 for line in lines}
        assert len(lines) == len(found)
    assert {a: row["outcome"] for a, row in found.items()} == expected
    assert all(c == "\n" or " " <= c <= "~" or c == "\t" for c in done.out)


def test_the_outcomes_are_those_of_the_manual():
    documented = {row[0] for row in PAGE.table("outcomes")}
    assert documented == {way[1] for way in WAYS.values()} | {"invalid"}


def test_every_option_is_in_the_manual(home):
    helped = fleet(home, "-?")
    assert (helped.status, helped.err) == (0, "")
    told = {line.split()[0].lstrip("-") for line in helped.out.splitlines()
            if line.startswith("  -")}
    assert told | {"?", "h", "v"} == set(PAGE.options("fleet"))


# --- the list -----------------------------------------------------------------


def test_what_is_no_address_is_invalid_and_the_others_are_told(home, crowd):
    good = addresses("127.61", 20)
    peers = crowd({address: "answer 0" for address in good})
    wrong = ["127.61.0.010", "127.61.0.256", "127.61.1", "127.1", "0.0.0.0",
             "0x7f.0.0.1", "127.61.0.1.1", "2130706433", "-ab", "*", "a_b.7",
             "127.61.0.1:0", "127.61.0.1:65536", "127.61.0.1:", "::1", "a:b:1",
             "127.61.0.1:06003", "\x1b[2J"]
    text = "\r\n".join(["# a list", *good[:10], "", *wrong, "  " + good[10] +
                        "\tname with blanks # comment", *good[10:],
                        good[0] + f":{peers.port}"])
    hosts = home.dir / "hosts"
    hosts.write_bytes(b"\xef\xbb\xbf" + text.encode())  # no line feed behind
    done = fleet(home, "-q", "-o", "tsv", "-p", peers.port, hosts,
                 "EXECUTE x")
    assert done.status == 1
    assert peers.told() == sorted(good)
    expected = {a: "done" for a in good}
    expected |= {w.replace("\x1b", "\\x1b"): "invalid" for w in wrong}
    assert outcomes(done) == expected
    assert rows(done)[good[10]]["name"] == "name with blanks"


def test_the_list_may_be_standard_input(home, crowd):
    peers = crowd({"127.62.0.1": "answer 0"})
    ran = subprocess.run([FLEET, "-q", "-p", str(peers.port), "-",
                          "EXECUTE x"], input=b"127.62.0.1 it", timeout=BOUND,
                         stdout=subprocess.PIPE)
    assert (ran.returncode, ran.stdout) == \
        (0, b"done         127.62.0.1  it\n1 host: 1 done\n")


def test_a_host_is_told_once(home, crowd):
    peers = crowd({"127.62.1.1": "answer 0"})
    done = fleet(home, "-p", peers.port, write_hosts(
        home, "127.62.1.1 a", "127.62.1.1", f"127.62.1.1:{peers.port} b"),
        "EXECUTE x")
    assert done.status == 0
    assert peers.requests() == [("127.62.1.1", REQUEST + "EXECUTE x")]


# --- the call -----------------------------------------------------------------


@pytest.mark.parametrize("args, said", [
    ([], "no list of hosts"),
    (["HOSTS"], "no command"),
    (["HOSTS", ""], "unknown command"),
    (["HOSTS", "LOG_TXT"], "did you mean LOG_TEXT?"),
    (["HOSTS", "shutdow now"], "did you mean SHUTDOWN?"),
    (["HOSTS", "-x"], "unknown command"),
    (["HOSTS", "MAIL_TEXT", "root", "a b"], "one argument"),
    (["HOSTS", "EXECUTE " + "x" * 4080], "too long"),
    (["-t", "0", "HOSTS", "EXECUTE x"], "-t takes whole seconds, not 0"),
    (["-s", "soon", "HOSTS", "EXECUTE x"], "-s takes whole seconds"),
    (["-p", "70000", "HOSTS", "EXECUTE x"], "-p takes a port"),
    (["-o", "xml", "HOSTS", "EXECUTE x"], "text, tsv or json"),
    (["-x", "HOSTS", "EXECUTE x"], "unknown option -x"),
    (["-t"], "a value is missing behind -t"),
    (["no-such-file", "EXECUTE x"], "cannot read no-such-file"),
    (["EMPTY", "EXECUTE x"], "no host in"),
    (["-r", "no-such-file", "HOSTS", "EXECUTE x"], "cannot read"),
    (["-r", "HOSTS", "HOSTS", "EXECUTE x"], "not a file of results"),
])
def test_nothing_is_sent_by_a_wrong_call(home, crowd, args, said):
    peers = crowd({"127.62.2.1": "answer 0"})
    files = {"HOSTS": write_hosts(home, f"127.62.2.1:{peers.port}"),
             "EMPTY": write_hosts(home, "# nobody", name="empty")}
    done = fleet(home, *[files.get(arg, arg) for arg in args])
    assert (done.status, done.out) == (2, "")
    assert said in done.err and done.err.count("\n") == 1
    assert peers.requests() == []


def test_a_list_of_invalid_lines_sends_nothing(home):
    done = fleet(home, "-q", write_hosts(home, "127.0.0.01"), "EXECUTE x")
    assert done.status == 2
    assert done.out.endswith("1 host: 0 done, 1 invalid\n")


def test_the_longest_command_is_sent(home, crowd):
    peers = crowd({"127.62.2.2": "answer 0"})
    command = "EXECUTE " + "x" * (4095 - len(REQUEST) - 8)
    hosts = write_hosts(home, "127.62.2.2")
    assert fleet(home, "-p", peers.port, hosts, command).status == 0
    assert peers.requests() == [("127.62.2.2", REQUEST + command)]
    assert fleet(home, "-p", peers.port, hosts, command + "x").status == 2


def test_a_plan_sends_nothing(home, crowd):
    peers = crowd({"127.62.3.1": "answer 0"})
    hosts = write_hosts(home, f"127.62.3.1:{peers.port} web", "127.0.0.01")
    done = fleet(home, "-n", hosts, "EXECUTE", "a b")
    assert done.status == 1
    assert done.out.splitlines() == [
        f"would be sent to 127.62.3.1:{peers.port}  web: EXECUTE 'a b'",
        "not sent to 127.0.0.01: an address has four numbers of 0 to 255 "
        "without leading zeros"]
    assert peers.requests() == []


# --- limits and crowds --------------------------------------------------------


def test_two_thousand_hosts_are_told_at_once(home, crowd):
    """One process, and no child of it."""
    everybody = addresses("127.63", 2000)
    peers = crowd({address: "answer 0" for address in everybody})
    began = time.monotonic()
    done = fleet(home, "-q", "-p", peers.port,
                 write_hosts(home, *everybody), "EXECUTE x")
    assert done.status == 0, done.out[-2000:]
    assert done.out.endswith("2000 hosts: 2000 done\n")
    assert peers.told() == sorted(everybody)
    assert time.monotonic() - began < BOUND


def test_the_dead_hold_nobody_up(home, crowd):
    """Half of them are dead, in front of the others, and few descriptors."""
    dead, living = addresses("127.64", 60), addresses("127.65", 60)
    peers = crowd({a: "dead" for a in dead} | {a: "answer 0" for a in living})
    run = start(home, "-q", "-c", "600", "-o", "tsv", "-p", peers.port,
                write_hosts(home, *dead, *living), "EXECUTE x",
                limits="24:24")
    wait_for(lambda: run.out.count("\tdone\t") == 60,
             what="every living host is told")
    assert run.running()
    run.process.terminate()
    assert run.wait().status == 1
    assert set(outcomes(run.out).values()) == {"done", "timeout"}
    assert len(outcomes(run.out)) == 120


def test_results_come_while_others_are_waited_for(home, crowd):
    peers = crowd({"127.66.0.1": "silent", "127.66.0.2": "answer 0"})
    run = start(home, "-q", "-s", "600", "-p", peers.port,
                write_hosts(home, "127.66.0.1", "127.66.0.2"), "EXECUTE x")
    wait_for(lambda: run.out == "done         127.66.0.2\n",
             what="the first result")
    assert run.running()
    run.process.terminate()
    run.wait()


@pytest.mark.parametrize("limit", ["5:5", "8:8", "12:4096"])
def test_few_descriptors_suffice(home, crowd, limit):
    everybody = addresses("127.67", 40)
    peers = crowd({address: "answer 0" for address in everybody})
    done = fleet(home, "-p", peers.port, write_hosts(home, *everybody),
                 "EXECUTE x", limits=limit)
    assert (done.status, done.out.splitlines()[-1]) == \
        (0, "40 hosts: 40 done")


def test_the_limit_of_the_whole_is_kept_and_never_short(home, crowd):
    peers = crowd({"127.68.0.1": "silent", "127.68.0.2": "dead",
                   "127.68.0.3": "slow 0.8 0"})
    hosts = write_hosts(home, "127.68.0.1", "127.68.0.2", "127.68.0.3")
    began = time.monotonic()
    done = fleet(home, "-q", "-t", "3", "-o", "tsv", "-p", peers.port, hosts,
                 "EXECUTE x")
    took = time.monotonic() - began
    assert 3 <= took < BOUND
    assert outcomes(done) == {"127.68.0.1": "timeout",
                              "127.68.0.2": "timeout", "127.68.0.3": "done"}
    found = rows(done)
    assert found["127.68.0.1"]["reason"].startswith("told, but no answer")
    assert found["127.68.0.2"]["reason"].startswith("not told")
    assert 3000 <= int(found["127.68.0.1"]["milliseconds"])


def test_the_connection_and_the_script_have_limits_apart(home, crowd):
    peers = crowd({"127.68.1.1": "slow 2.5 0", "127.68.1.2": "dead"})
    done = fleet(home, "-q", "-c", "1", "-s", "60", "-o", "tsv", "-p",
                 peers.port, write_hosts(home, "127.68.1.1", "127.68.1.2"),
                 "EXECUTE x")
    found = rows(done)
    assert found["127.68.1.1"]["outcome"] == "done"
    assert found["127.68.1.2"]["outcome"] == "unreachable"
    assert int(found["127.68.1.2"]["milliseconds"]) < 2400


# --- names --------------------------------------------------------------------


def test_names_are_looked_up(home, crowd):
    peers = crowd({"127.69.0.7": "answer 0"})
    prefix = in_namespace(home, hosts="127.0.0.1 web.example other\n",
                          resolv="nameserver 127.0.0.1\n")
    done = fleet(home, "-o", "tsv", "-p", peers.port, write_hosts(
        home, "web.example", "WEB.example again", "other:1", "none.example"),
        "EXECUTE x", prefix=prefix)
    # In a network of its own nobody listens.
    assert outcomes(done) == {"web.example": "refused", "other:1": "refused",
                              "none.example": "unreachable"}


def test_a_silent_name_server_holds_nobody_up(home):
    names = [f"web{n}.example" for n in range(90)]
    prefix = in_namespace(home, server=True)
    began = time.monotonic()
    run = start(home, "-q", "-c", "2", "-o", "tsv", write_hosts(
        home, *names, "127.0.0.1 here"), "EXECUTE x", prefix=prefix)
    wait_for(lambda: "127.0.0.1\there\trefused" in run.out,
             what="the host with an address has its result")
    assert "example" not in run.out
    done = run.wait()
    assert time.monotonic() - began < BOUND
    found = outcomes(done)
    assert len(found) == 91
    assert {found[name] for name in names} == {"unreachable"}


def test_no_look_up_goes_on_behind_the_run(home):
    prefix = in_namespace(home, server=True)
    run = start(home, "-q", "-c", "60", write_hosts(home, "web.example"),
                "EXECUTE x", prefix=prefix)
    queries = home.dir / "queries"
    wait_for(lambda: queries.exists() and queries.read_text(),
             what="the name server is asked")
    fleet, = children(run.process.pid)  # which is the name server
    look_up, = children(fleet)
    os.kill(fleet, signal.SIGTERM)
    assert run.wait().status == 1
    assert run.out.endswith("ended by SIGTERM: 1 host: 0 done, 1 timeout\n")
    wait_for(lambda: not alive(fleet) and not alive(look_up),
             what="none of them is left")


# --- its end ------------------------------------------------------------------


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
@pytest.mark.parametrize("form", ["text", "tsv", "json"])
def test_a_signal_half_way_loses_no_line(home, crowd, name, form):
    good, quiet = addresses("127.70", 30), addresses("127.71", 30)
    peers = crowd({a: "answer 0" for a in good} | {a: "silent" for a in quiet})
    run = start(home, "-q", "-s", "600", "-o", form, "-p", peers.port,
                write_hosts(home, *good, *quiet, "127.0.0.01"), "EXECUTE x")
    wait_for(lambda: run.out.count("done") == 30 and
             len(peers.told()) == 60, what="half of them are done")
    run.process.send_signal(getattr(signal, name))
    done = run.wait()
    assert done.status == 1
    summary = f"ended by {name}: 61 hosts: 30 done, 30 timeout, 1 invalid\n"
    assert (done.out if form == "text" else done.err).endswith(summary)
    assert sum(done.out.count(f"{a}{end}") for a in good + quiet
               for end in ("\n", "\t", '"', ":")) == 60
    assert done.out.count(f"before {name}") == 30


def test_a_signal_that_is_ignored_stays_so(home, crowd):
    peers = crowd({"127.72.0.1": "slow 1 0"})
    run = start(home, "-p", peers.port, write_hosts(home, "127.72.0.1"),
                "EXECUTE x", preexec_fn=lambda: signal.signal(
                    signal.SIGHUP, signal.SIG_IGN))
    wait_for(peers.requests, what="the host is told")
    run.process.send_signal(signal.SIGHUP)
    assert run.wait().status == 0


@pytest.mark.parametrize("closed", [[0], [1], [2], [0, 1, 2]])
def test_closed_descriptors_keep_nobody_from_being_told(home, crowd, closed):
    everybody = addresses("127.73", 10)
    peers = crowd({address: "answer 0" for address in everybody})

    def close():
        for fd in closed:
            os.close(fd)

    done = fleet(home, "-p", peers.port, write_hosts(home, *everybody),
                 "EXECUTE x", preexec_fn=close)
    assert done.status == 0
    assert peers.told() == sorted(everybody)
    assert [r for _, r in peers.requests()] == [REQUEST + "EXECUTE x"] * 10


def test_a_reader_that_has_gone_keeps_nobody_from_being_told(home, crowd):
    everybody = addresses("127.74", 10)
    peers = crowd({address: "answer 4" for address in everybody})
    hosts = write_hosts(home, *everybody)
    end, gone = os.pipe()
    os.close(end)
    ran = subprocess.run([FLEET, "-q", "-p", str(peers.port), hosts,
                          "EXECUTE x"], stdout=gone, stderr=subprocess.PIPE,
                         timeout=BOUND, text=True)
    os.close(gone)
    assert ran.returncode == 1
    assert ran.stderr == ("10 hosts: 0 done, 10 failed\n"
                          "tolva-fleet: results were lost: Broken pipe\n")
    assert peers.told() == sorted(everybody)


def test_a_full_disk_keeps_nobody_from_being_told(home, crowd):
    peers = crowd({"127.74.1.1": "answer 0"})
    hosts = write_hosts(home, "127.74.1.1")
    with open("/dev/full", "wb") as full:
        ran = subprocess.run([FLEET, "-p", str(peers.port), hosts,
                              "EXECUTE x"], stdout=full, timeout=BOUND,
                             stderr=subprocess.PIPE, text=True)
    assert ran.returncode == 0
    assert "1 host: 1 done\n" in ran.stderr
    assert "results were lost: No space left on device" in ran.stderr


def test_a_reader_that_does_not_read_ends_with_the_limit(home, crowd):
    everybody = addresses("127.75", 200)
    peers = crowd({address: "answer 0" for address in everybody})
    hosts = write_hosts(home, *[f"{a} {'x' * 200}" for a in everybody])
    end, stuck = os.pipe()
    fcntl.fcntl(stuck, fcntl.F_SETPIPE_SZ, 4096)
    began = time.monotonic()
    ran = subprocess.run([FLEET, "-t", "2", "-p", str(peers.port), hosts,
                          "EXECUTE x"], stdout=stuck, stderr=subprocess.PIPE,
                         timeout=BOUND, text=True)
    took = time.monotonic() - began
    assert ran.returncode == 0
    assert "200 hosts: 200 done\n" in ran.stderr
    assert "results were lost: nobody reads them" in ran.stderr
    assert peers.told() == sorted(everybody)
    assert took < BOUND / 2
    os.close(end)
    os.close(stuck)


def test_a_slow_reader_gets_every_line(home, crowd):
    everybody = addresses("127.76", 300)
    peers = crowd({address: "answer 0" for address in everybody})
    hosts = write_hosts(home, *[f"{a} {'x' * 200}" for a in everybody])
    run = subprocess.Popen([FLEET, "-q", "-o", "tsv", "-p", str(peers.port),
                            hosts, "EXECUTE x"], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL)
    wait_for(lambda: len(peers.told()) == 300, what="everybody is told")
    out = run.communicate(timeout=BOUND)[0].decode()
    assert run.returncode == 0
    assert set(outcomes(out)) == set(everybody)


def test_nothing_of_the_environment_is_needed(home, crowd):
    everybody = addresses("127.77", 10)
    peers = crowd({address: "answer 0" for address in everybody})
    hosts = write_hosts(home, *everybody)
    ran = subprocess.run(["env", "-i", FLEET, "-q", "-p", str(peers.port),
                          hosts, "EXECUTE x"], cwd="/", timeout=BOUND,
                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE)
    assert (ran.returncode, ran.stderr) == (0, b"")
    assert ran.stdout.endswith(b"10 hosts: 10 done\n")


def test_no_file_is_needed(home, crowd):
    """It could not even write one, whichever directory there is room in."""
    everybody = addresses("127.78", 10)
    peers = crowd({address: "answer 0" for address in everybody})
    ran = subprocess.run(
        [FLEET, "-q", "-p", str(peers.port), write_hosts(home, *everybody),
         "EXECUTE x"], stdout=subprocess.PIPE, timeout=BOUND, preexec_fn=lambda:
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)))
    assert ran.returncode == 0
    assert ran.stdout.endswith(b"10 hosts: 10 done\n")


# --- again, and progress ------------------------------------------------------


@pytest.mark.parametrize("form", ["tsv", "json"])
def test_those_that_are_not_done_are_told_again(home, crowd, form):
    port = free_port()
    good, bad = addresses("127.79", 5), addresses("127.80", 5)
    hosts = write_hosts(home, *[f'{a} done "x\\' for a in good + bad])
    results = home.dir / "results"
    first = crowd({a: "answer 0" for a in good} |
                  {a: "answer 1" for a in bad}, port)
    done = fleet(home, "-o", form, "-p", port, hosts, "EXECUTE x")
    assert done.status == 1
    first.close()
    # One was lost, and the last line is only half there.
    lines = [line for line in done.out_bytes.splitlines(keepends=True)
             if good[0].encode() + b'"' not in line and
             good[0].encode() + b"\t" not in line]
    results.write_bytes(b"".join(lines) + lines[-1][:-9])
    second = crowd({a: "answer 0" for a in good + bad}, port)
    again = fleet(home, "-o", form, "-r", results, "-p", port, hosts,
                  "EXECUTE x")
    assert again.status == 0
    assert second.told() == sorted([good[0], *bad])
    with open(results, "wb") as file:
        file.write(done.out_bytes + again.out_bytes)
    last = fleet(home, "-r", results, "-p", port, hosts, "EXECUTE x")
    assert (last.status, last.out) == (0, "0 hosts: 0 done\n")


def test_a_line_each_second_where_there_is_no_terminal(home, crowd):
    peers = crowd({"127.81.0.1": "silent", "127.81.0.2": "answer 0"})
    hosts = write_hosts(home, "127.81.0.1", "127.81.0.2")
    done = fleet(home, "-t", "3", "-p", peers.port, hosts, "EXECUTE x")
    lines = done.err.splitlines()
    assert 2 <= len(lines) <= 4
    assert lines[0] in [f"1 of 2 done, 0 failed, 1 waiting, {s} s left"
                        for s in (2, 3)]
    quiet = fleet(home, "-q", "-t", "1", "-p", peers.port, hosts, "EXECUTE x")
    assert quiet.err == ""


def test_a_line_is_rewritten_on_a_terminal(home, crowd):
    peers = crowd({"127.82.0.1": "slow 1.2 0"})
    hosts = write_hosts(home, "127.82.0.1")
    try:
        ours, theirs = pty.openpty()
    except OSError:
        pytest.skip("this machine gives no terminals (/dev/pts)")
    run = subprocess.Popen([FLEET, "-p", str(peers.port), hosts, "EXECUTE x"],
                           stdout=theirs, stderr=theirs,
                           stdin=subprocess.DEVNULL)
    os.close(theirs)
    seen = b""
    with contextlib.suppress(OSError):  # its end
        while select.select([ours], [], [], BOUND)[0]:
            piece = os.read(ours, 4096)
            if not piece:
                break
            seen += piece
    os.close(ours)
    assert run.wait(BOUND) == 0
    text = seen.decode()
    line = "0 of 1 done, 0 failed, 1 waiting, "
    assert 2 <= text.count("\r" + line) <= 6
    assert text.endswith("\rdone         127.82.0.1\r\n1 host: 1 done\r\n")


# --- the lock -----------------------------------------------------------------


def test_a_lock_goes_with_its_process(home):
    held = write_hosts(home, "a", name="lock")
    first = start(home, "-L", held, "/bin/sh", "-c", "echo on; exec sleep 600")
    wait_for(lambda: first.out == "on\n", what="the first has the lock")
    second = fleet(home, "-L", held, "/bin/echo", "mine")
    assert (second.status, second.out) == (2, "")
    assert "in use by another run" in second.err
    os.kill(first.pid, signal.SIGKILL)
    first.wait()
    third = fleet(home, "-L", held, "/bin/echo", "mine")
    assert (third.status, third.out) == (0, "mine\n")


# --- the manual ---------------------------------------------------------------


def test_the_examples_work_as_they_stand(home):
    home.script("tolva_shutdown.sh", 'echo "$*" >>"$TOLVAHOME/down"')
    home.script("tolva_execute.sh", 'echo "$*" >>"$TOLVAHOME/acted"')
    listener = home.listener()
    names = home.dir / "names"
    names.mkdir()
    (names / "tolva-fleet").write_text(
        f'#!/bin/sh\nexec "{FLEET}" -p {listener.port} "$@"\n')
    (names / "tolva-fleet").chmod(0o755)
    work = home.dir / "work"
    work.mkdir()
    (work / "hosts").write_text("127.0.0.1 web1\n127.0.0.2 web2\n")
    said = {}
    for name, text in PAGE.displays("run").items():
        said[name] = home.run("-c", text, program="/bin/sh", cwd=work, env={
            "PATH": f"{names}:{os.environ['PATH']}"})
    assert list(said) == ["log", "plan", "again", "names", "shutdown"]
    assert "would be sent to 127.0.0.2  web2: SHUTDOWN 'UPS in rack 4 " \
        "(battery low)'" in said["plan"].out
    listener.wait_message("a test of the fleet")
    results = (work / "results").read_text()
    assert results.count("127.0.0.1\tweb1\tdone") == 1
    assert results.count("127.0.0.2\tweb2\trefused") == 2
    assert said["names"].out.startswith("127.0.0.2 refused connection refused")
    assert home.read("down") == b"the UPS battery is low\n"
    assert home.read("acted") == b"stop-database\n"
    assert message(795) in home.log_messages()
    listener.stop()


def test_a_full_backlog_is_unreachable(home):
    with FullBacklog("127.0.0.1") as full:
        done = fleet(home, "-q", "-c", "1", write_hosts(home, full.where),
                     "EXECUTE x")
    assert done.out.startswith(f"unreachable  {full.where}: no connection")
