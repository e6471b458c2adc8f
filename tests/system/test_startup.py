"""Start-up: help, the home directory, the search path and the trace."""

import os
import re
import shutil
import signal

import pytest

from harness import TOLVA, skip_when_wrapped
from ports import free_port, tcp_listens
from waiting import wait_for

HELP = "".join(line + "\n" for line in [
    " tolva may be run in listen-, or send-mode.",
    " listen-mode: wait for connections from tolva sender:",
    " tolva -l [options]",
    " options are:",
    " -c <file>        : read Configuration from <file>",
    " -d               : run as foreground process",
    " -bs <file>       : execute <file> if \"SHUTDOWN\" command is received",
    " -ba <file>       : execute <file> if kesdal/kesnor is not alive",
    " -a <host>        : allow tolva connection only from <host>",
    " -p <port>        : listen(/receive) on tcp(/udp) <port>",
    " -ac <host[:port]>: check if kesdal/kesnor at <host[:port]> is alive",
    " -pc <port>       : check kesdal/kesnor on <port>",
    " -rc <num>        : check is disabled after <num> unsuccessful retries",
    " -tc <time>       : check kesdal/kesnor every <time> minutes",
    "",
    " send-mode (tolva): send \"command\" to tolva listener:",
    " tolva -se \"command [parameter]\" -a <host[:port]> | -ab <ip-address> "
    "[options]",
    " -a <host[:port]> : send to tolva at <host[:port]>",
    " -ab <ip-address> : send tolva broadcast on <ip-address>",
    " \"command\" is one of:",
    " SHUTDOWN| EXECUTE| MSG_ID| MSG_TEXT| MAIL_ID| MAIL_TEXT| LOG_ID| "
    "LOG_TEXT",
    " options are:",
    " -p <port>        : send to tolva on <port>",
    " -t <time>        : try at most <time> seconds to connect",
    "",
    " send-mode (kesdal): check if kesdal/kesnor is alive:",
    " tolva -sc -a <host[:port]> [options]",
    " -a <host[:port]> : check kesdal/kesnor at <host[:port]>",
    " options are:",
    " -p <port>        : check kesdal/kesnor on <port>",
    " -t <time>        : try at most <time> seconds to connect",
    "",
    " common options:",
    " -?               : display this help and exit",
    " -v               : display version number and exit",
    "",
])

BANNER = re.compile(r"\A\ntolva V3\.00\.0 - [^\n]+\n[^\n]+\n\n\Z")


def debug_home(out):
    """The home directory that the trace names, which comes first."""
    match = re.match(r"DEBUG: workdir = >(.*)<\n", out)
    assert match, out
    return match.group(1)


def copy_executable(to):
    to.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(TOLVA, to)
    return to


# --- help and version -------------------------------------------------------


@pytest.mark.parametrize("args", [
    ["-?"], ["-h"], ["-H"], ["-help"], ["-l", "-?"], ["-x", "y", "-h"],
    ["-s", "-?", "-l"], ["-?", "-v"]], ids=" ".join)
def test_help_is_shown_byte_for_byte(home, args):
    result = home.run(*args)
    assert result.out == HELP
    assert result.err == ""
    assert result.status == 0


@pytest.mark.parametrize("args", [
    ["-v"], ["-V"], ["-version"], ["-v", "-l", "-s"], ["-l", "-v", "-?"]],
    ids=" ".join)
def test_version_is_shown(home, args):
    result = home.run(*args)
    assert BANNER.match(result.out), result.out
    assert result.err == ""
    assert result.status == 0


def test_help_names_the_product_whatever_the_program_is_called(home):
    link = home.dir / "other"
    link.symlink_to(TOLVA)
    assert home.run("-?", program=str(link)).out == HELP
    assert BANNER.match(home.run("-v", program=str(link)).out)


# --- home directory ---------------------------------------------------------


@pytest.mark.parametrize("value", ["relative/dir", "", ".", "~", " /tmp"])
@pytest.mark.parametrize("args", [["-v"], ["-?"], [], ["-l"]],
                         ids=lambda a: " ".join(a) or "none")
def test_relative_home_is_refused_before_any_option(home, value, args):
    result = home.run(*args, env={"TOLVAHOME": value})
    assert result.err == (
        f"tolva: `$TOLVAHOME' ({value}): Not an absolute path\n")
    assert result.out == ""
    assert result.status == 1


@pytest.mark.parametrize("value", ["/", "/tmp/", "/no/such//dir/../x/", "//"])
def test_absolute_home_is_taken_as_it_stands(home, value):
    result = home.run("-v", env={"TOLVAHOME": value, "TOLVADEBUG": "1"})
    assert debug_home(result.out) == value
    assert result.status == 0


@pytest.mark.parametrize("typed, directory", [
    ("./tolva", ""),
    ("./bin/tolva", "/bin"),
    ("bin//./tolva", "/bin"),
    ("bin/../bin/./tolva", "/bin"),
    ("./bin/../sbin/../bin//tolva", "/bin"),
    ("../home/bin/tolva", "/bin"),
])
def test_home_is_where_the_executable_is(home, typed, directory):
    copy_executable(home.path("tolva"))
    copy_executable(home.path("bin/tolva"))
    home.path("sbin").mkdir()
    result = home.run("-v", program=typed, tolvahome=False,
                      env={"TOLVADEBUG": "1"})
    assert debug_home(result.out) == os.path.realpath(home.home) + directory


def test_home_of_an_executable_by_absolute_path(home):
    program = copy_executable(home.path("a b/tolva"))
    result = home.run("-v", program=f"{program.parent}/.//../a b/tolva",
                      tolvahome=False, env={"TOLVADEBUG": "1"}, cwd="/")
    assert debug_home(result.out) == str(program.parent)


@pytest.mark.parametrize("slash", ["", "/"], ids=["plain", "slash"])
def test_home_is_found_through_the_search_path(home, slash):
    copy_executable(home.path("first/tolva-here")).chmod(0o644)
    copy_executable(home.path("second/tolva-here"))
    copy_executable(home.path("third/tolva-here"))
    path = os.pathsep.join(
        [str(home.path("missing")), ""] +
        [str(home.path(d)) + slash for d in ("second", "third")] +
        ["/usr/bin:/bin"])
    result = home.run("-v", program="tolva-here", tolvahome=False,
                      env={"TOLVADEBUG": "1", "PATH": path})
    assert debug_home(result.out) == str(home.path("second"))


def test_a_file_that_may_not_be_executed_is_passed_over(home):
    copy_executable(home.path("first/tolva-here")).chmod(0o644)
    copy_executable(home.path("second/tolva-here"))
    path = f"{home.path('first')}:{home.path('second')}"
    result = home.run("-v", program="tolva-here", tolvahome=False,
                      env={"TOLVADEBUG": "1", "PATH": path})
    assert debug_home(result.out) == str(home.path("second"))


def test_home_that_cannot_be_found_ends_the_program(home):
    skip_when_wrapped("a wrapper sets its own program name")
    run = home.start("-v", program="tolva-nowhere", tolvahome=False,
                     env={"PATH": str(home.path("empty"))},
                     executable=str(TOLVA))
    result = run.wait()
    assert result.err == "tolva-nowhere: could not determine `$TOLVAHOME'\n"
    assert result.out == ""
    assert result.status == 1


def test_program_name_is_the_base_name_of_the_first_argument(home):
    link = home.dir / "any name"
    link.symlink_to(TOLVA)
    result = home.run(program=str(link))
    assert result.err == "any name: missing parameter! (-? for help).\n"


# --- search path ------------------------------------------------------------


def test_missing_search_path_ends_the_program(home):
    for args in ([], ["-v"], ["-l"]):
        result = home.run(*args, env={"PATH": None})
        assert re.fullmatch(r"tolva: getenv\(\): \n: [^\n]+\n", result.err)
        assert result.out == ""
        assert result.status == 1


@pytest.mark.parametrize("path", ["/usr/bin:/bin", ""],
                         ids=["usual", "empty"])
def test_scripts_find_the_home_directory_first(home, path):
    home.script("tolva_execute.sh", 'echo "$PATH" > "$TOLVAHOME/path"')
    listener = home.listener(env={"PATH": path})
    home.run("-sr", "EXECUTE", "-a", listener.where)
    assert home.read("path").decode() == f"{home.home}:{path}\n"
    listener.stop()


# --- trace level ------------------------------------------------------------


def traced(out, kind):
    return [line for line in out.splitlines() if line.startswith(kind)]


@pytest.mark.parametrize("value, debug, entries, exits", [
    (None, False, False, False),
    ("-5", False, False, False),
    ("", False, False, False),
    ("0", False, False, False),
    ("abc", False, False, False),
    ("1", True, False, False),
    ("5", True, False, False),
    ("6", True, True, False),
    ("9", True, True, False),
    ("10", True, True, True),
    (" 12x", True, True, True),
])
@pytest.mark.parametrize("by_option", [False, True],
                         ids=["environment", "option"])
def test_trace_levels(home, value, debug, entries, exits, by_option):
    if by_option and (value is None or value.startswith("-")):
        value = "0"
    env = {"TOLVADEBUG": None if by_option else value}
    options = ["-d", value] if by_option else []
    # A name, so that the resolver's exit trace is seen.
    result = home.run(*options, "-s", "X", "-a", "localhost:1", env=env)
    assert result.status == 1
    assert (f"DEBUG: workdir = >{home.home}<" in result.out) is \
        (debug and not by_option)
    assert ("DEBUG: sizeof(iaddr->addr) = 16\n" in result.out) is debug
    assert bool(traced(result.out, "DEBUG: ")) is debug
    assert bool(traced(result.out, "TRACEIN: ")) is entries
    assert bool(traced(result.out, "TRACEOUT: ")) is exits
    for name in ("new_inetaddr", "init_sender"):
        assert (f"TRACEIN: {name}\n" in result.out) is entries
    assert ("TRACEIN: check_input\n" in result.out) is \
        (entries and not by_option)
    for name in ("start_timeout", "GetHostAddrFromHostName"):
        assert (f"TRACEOUT: {name}\n" in result.out) is exits


def test_the_option_overrides_the_environment(home):
    result = home.run("-s", "X", "-a", "127.0.0.1:1", "-d",
                      env={"TOLVADEBUG": "7"})
    before, after = result.out.split("TRACEIN: new_inetaddr\n")
    assert "TRACEIN: check_input\n" in before
    assert "TRACEIN: init_sender\n" not in after
    result = home.run("-d", "7", "-s", "X", "-a", "127.0.0.1:1",
                      env={"TOLVADEBUG": "0"})
    assert "TRACEIN: init_sender\n" in result.out


@pytest.mark.parametrize("value", ["0", "abc", ""])
def test_level_zero_stays_in_the_foreground_without_trace(home, value):
    port = free_port()
    home.configure(ListenAddress="127.0.0.1", ListenPort=port)
    run = home.start("-l", env={"TOLVADEBUG": value})
    wait_for(lambda: tcp_listens(port))
    assert run.running()
    os.kill(run.pid, signal.SIGTERM)
    result = run.wait()
    assert result.status == 0
    assert result.out == ""
    assert result.err == ""


def test_long_trace_lines_are_cut(home):
    directory = "/" + "d" * 2000
    result = home.run("-v", env={"TOLVAHOME": directory, "TOLVADEBUG": "1"})
    line = f"DEBUG: workdir = >{directory}<\n"[:1023]
    assert result.out.startswith(line + "\ntolva V3.00.0")
