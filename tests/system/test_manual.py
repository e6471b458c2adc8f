"""The manual pages say what the program does: their tables, examples, options
and messages are read from the pages and tried."""

import os
import re
import shutil
import subprocess

import pytest

import manual
from fakeclock import FakeClock
from harness import ROOT, TOLVA, message, message_arguments, wrapper
from peers import reader
from ports import free_port, tcp_listens
from upsserver import good
from waiting import wait_for
from wire import EXECUTE, HEADER, reply_with

TOLVA_8 = manual.Page("tolva.8")
CFG_5 = manual.Page("tolva.cfg.5")
MESSAGES_5 = manual.Page("tolva-messages.5")
SHARE = ROOT / "share"
SOURCE = ROOT / "src"
PAGES = ("tolva.8", "sendtolva.8", "listentolva.8", "tolva.cfg.5",
         "tolva-messages.5")


def source_text():
    return "".join(path.read_text() for path in sorted(
        SOURCE.rglob("*.*")))


# --- the pages --------------------------------------------------------------


def test_the_pages_have_no_fault(tmp_path):
    mandoc = shutil.which("mandoc")
    assert mandoc, "mandoc is missing (apt-get install mandoc)"
    for path in manual.DIRECTORY.iterdir():
        shutil.copy(path, tmp_path / path.name)
    # References are looked up here, too: not every system has these pages.
    for name in ("logger.1", "shutdown.8"):
        (tmp_path / name).touch()
    done = subprocess.run(
        [mandoc, "-Tlint", "-Wall", *PAGES], cwd=tmp_path, text=True,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    assert done.stdout == ""
    assert done.returncode == 0, done.stderr


@pytest.mark.parametrize("name", ["sendtolva.8", "listentolva.8"])
def test_the_other_names_have_the_same_page(name):
    assert os.readlink(manual.DIRECTORY / name) == "tolva.8"


# --- exit status ------------------------------------------------------------

IN_ANSWER = {
    "0": ["EXITSTATUS=0"],
    "1 to 127": ["EXITSTATUS=1", "EXITSTATUS=2", "EXITSTATUS=127"],
    "128 to 255": ["EXITSTATUS=128", "EXITSTATUS=200", "EXITSTATUS=255"],
    "above 255": ["EXITSTATUS=256", "EXITSTATUS=32512"],
    "missing or negative": ["", "EXITSTATUS=", "EXITSTATUS=-1",
                            "EXITSTATUS=-200"],
}
EXIT_STATUS = {"that plus 127": lambda status: status + 127,
               "the same": lambda status: status}


def test_the_status_table_has_a_row_for_every_status():
    assert [row[0] for row in TOLVA_8.table("status")] == list(IN_ANSWER)


@pytest.mark.parametrize("answered, expected", TOLVA_8.table("status"))
def test_a_row_of_the_status_table(home, answered, expected):
    for words in IN_ANSWER[answered]:
        def play(talk, words=words):
            talk.read_some()
            talk.send(reply_with(words.encode()))

        server = home.server(play)
        sent = home.run("-sr", "EXECUTE x", "-a", server.where)
        if expected in EXIT_STATUS:
            status = EXIT_STATUS[expected](int(words.partition("=")[2]))
        else:
            status = int(expected)
        assert (words, sent.status) == (words, status)


@pytest.mark.parametrize("script, expected, meaning",
                         TOLVA_8.table("scripts"))
def test_a_row_of_the_table_of_scripts(home, script, expected, meaning):
    assert meaning
    home.script("tolva_execute.sh", f"exit {script}")
    listener = home.listener()
    sent = home.run("-sr", "EXECUTE x", "-a", listener.where)
    assert sent.status == int(expected)
    listener.stop()


def test_the_table_of_scripts_has_what_the_shipped_ones_end_with():
    text = "".join(path.read_text() for path in SHARE.glob("scripts/*.sh"))
    ends = set(re.findall(r"^ *exit (\d+)$", text, re.MULTILINE)) | {"0"}
    rows = {script for script, _, _ in TOLVA_8.table("scripts")}
    assert {"0", "2", "42", "69"} <= ends <= rows
    # Those of the shell are told besides.
    assert rows - ends == {"126", "127"}


# --- parameters and the shell at the host -------------------------------------


def test_the_table_of_quoting_shows_what_has_a_meaning():
    told = "".join(sent for sent, _, _ in TOLVA_8.table("quoting"))
    assert set("'(<&;|#") <= set(told)


@pytest.mark.parametrize("sent, what, status", TOLVA_8.table("quoting"))
def test_a_row_of_the_table_of_quoting(home, sent, what, status):
    home.script("tolva_shutdown.sh",
                """for word; do printf '[%s]' "$word"; done >>"$TOLVAHOME/got"
                   echo >>"$TOLVAHOME/got\"""")
    listener = home.listener()
    reply = home.run("-sr", f"SHUTDOWN {sent}", "-a", listener.where)
    assert reply.status == int(status)
    got = home.path("got")
    if "not started" in what:
        assert not got.exists()
    else:
        expected = re.search(r"gets (\[.*?\])(?:;|$)", what)[1] + "\n"
        # One that was sent to the background may still be writing.
        wait_for(lambda: got.exists() and got.read_text() == expected,
                 what=expected)
    listener.stop()


def test_double_quotes_around_all_parameters_are_taken_away(home):
    home.script("tolva_shutdown.sh", 'echo "$1" >"$TOLVAHOME/got"')
    listener = home.listener()
    for sent, status in (('"rack (low)"', 129), ("'rack (low)'", 0)):
        reply = home.run("-sr", f"SHUTDOWN {sent}", "-a", listener.where)
        assert (sent, reply.status) == (sent, status)
    assert home.read("got") == b"rack (low)\n"
    listener.stop()


# --- the service ------------------------------------------------------------

UNIT = ROOT / "packaging" / "tolva.service"


@pytest.mark.parametrize("cannot, because", TOLVA_8.table("walls"))
def test_a_wall_of_the_service_is_there(cannot, because):
    assert cannot
    settings = dict(re.findall(r"^(\w+)=(.*)$", UNIT.read_text(),
                               re.MULTILINE))
    assert settings["ProtectSystem"] == "full"
    assert settings["ProtectHome"] == "read-only"
    # A list that allows: mounts and the network's administration are not in.
    assert "CAP_SYS_ADMIN" not in UNIT.read_text()
    assert "CAP_NET_ADMIN" not in UNIT.read_text()
    for name in because.split(", "):
        assert settings[name] not in ("no", "false", "")


def test_the_service_starts_what_the_page_says():
    text = UNIT.read_text()
    command = re.search(r"^ExecStart=/usr/bin/(.*)$", text, re.MULTILINE)[1]
    page = TOLVA_8.path.read_text()
    assert f".Ql {command}\n" in page
    init = (ROOT / "packaging" / "tolva.init").read_text()
    for where in (text, init):
        assert "checkconf" in where.lower()
    assert "RestartSec=5\n" in text and "every five seconds" in page
    assert "Type=notify\n" in text and "READY=1" in page


# --- options ----------------------------------------------------------------

MODES = {"listen": ["-l"], "send": ["-s"], "check": ["-sc"]}
NO_VALUE = {"?", "h", "v", "l", "s", "se", "sr", "sc", "d"}
ANY_MODE = ["pc", "r", "rc", "tc"]
SELECTS = {"l", "s", "se", "sr", "sc"}


def take(home, mode, option):
    """Runs the program up to a wrong option that stands behind this one."""
    argv = [] if option in SELECTS else list(MODES[mode])
    argv.append(f"-{option}")
    if option not in NO_VALUE:
        argv.append("127.0.0.1" if option[0] == "a" else "7")
    return home.run(*argv, "-zz")


@pytest.mark.parametrize("mode", MODES)
def test_every_option_of_a_mode_is_taken(home, mode):
    options = TOLVA_8.options(mode)
    assert options
    for option in options + ANY_MODE:
        result = take(home, mode, option)
        assert (option, result.err) == (
            option, "tolva: unknown parameter: `-zz' (-? for help).\n")


def test_every_option_of_all_modes_is_taken(home):
    options = TOLVA_8.options("any")
    assert set(options) == {"d", "?", "h", "v"}
    for option in options:
        for mode in MODES:
            result = take(home, mode, option)
            assert result.status == (1 if option == "d" else 0)


def test_every_option_of_the_program_is_in_the_manual():
    listed = {option for group in ("any", "listen", "send", "check")
              for option in TOLVA_8.options(group)}
    text = (SOURCE / "tolva2" / "start" / "help.cpp").read_text()
    told = set(re.findall(r"(?<![\w<])-([a-z?]{1,2})(?=[ \\])", text))
    assert {"l", "ac", "rc"} <= told
    assert told <= listed


def test_a_check_under_the_sending_name_is_a_shutdown_request(home):
    server = home.server(reader)
    sent = home.run("-sc", "-a", server.where, program="sendtolva")
    assert sent.status == 0
    assert server.only() == HEADER


def test_a_request_for_the_status_under_the_sending_name_is_none(home):
    server = home.server(reader)
    sent = home.run("-sr", "EXECUTE x", "-a", server.where,
                    program="sendtolva")
    assert sent.status == 0
    assert server.only() == EXECUTE + b"EXECUTE x"


# --- messages ---------------------------------------------------------------


def test_every_diagnostic_is_a_text_of_the_program():
    texts = source_text() + (SHARE / "messages.dat").read_text()
    items = TOLVA_8.items("diag")
    assert len(items) > 20
    assert [item for item in items if item not in texts] == []


def test_the_numbers_are_those_of_the_program():
    listed = {int(number): 2 if value.startswith("two ") else
              len(value.split(", ")) if value else 0
              for number, value, _ in MESSAGES_5.table("texts")}
    assert listed == message_arguments()
    shipped = (SHARE / "messages.dat").read_text()
    for number, count in listed.items():
        text = re.search(rf"^m{number}=(.*)$", shipped, re.MULTILINE)[1]
        assert (number, text.count("%s")) == (number, count)


@pytest.mark.parametrize("text, params, result", MESSAGES_5.table("fill"))
def test_a_row_of_the_table_of_placeholders(home, text, params, result):
    home.messages({2001: text})
    listener = home.listener()
    sent = home.run("-sr", f"LOG_ID 2001 {params}", "-a", listener.where)
    assert sent.status == 0
    listener.wait_message(result)
    listener.stop()


def test_the_example_of_a_text(home):
    home.messages()
    with open(home.path("messages.dat"), "a", encoding="ascii") as file:
        file.write(MESSAGES_5.displays("text")["2001"])
    home.script("tolva_message.sh", 'echo "$*" >"$TOLVAHOME/shown"')
    listener = home.listener()
    done = run_as_it_stands(home, MESSAGES_5.displays("command")["2001"],
                            listener.port)
    assert done.status == 0
    assert home.read("shown") == b"UPS rack 4 is on battery for 30 seconds\n"
    listener.stop()


# --- settings ---------------------------------------------------------------


def documented_settings():
    return {key.strip(): value.strip() for key, value in
            (mark.split("=") for mark in CFG_5.marks("key"))}


def program_settings():
    """{key: default} from the program's own table."""
    base = SOURCE / "tolva2" / "base" / "codes.h"
    ports = dict(re.findall(r"int32_t (\w+_PORT) = (\d+);", base.read_text()))
    text = (SOURCE / "tolva2" / "files" / "settings.cpp").read_text()
    rows = re.findall(r'^    (number|text|file)\("(\w+)", &params::\w+,\s*'
                      r'"?([^")]+)"?\)', text, re.MULTILINE)
    values = {"nullptr": ""} | ports
    return {key: f"HOME/{value}" if kind == "file" else values.get(value, value)
            for kind, key, value in rows}


def test_the_settings_and_their_defaults_are_those_of_the_program():
    settings = program_settings()
    assert len(settings) > 20
    assert documented_settings() == settings


def test_every_setting_is_described():
    described = [line.removeprefix(".It Cm ") for line in CFG_5.lines
                 if line.startswith(".It Cm ")]
    assert sorted(described) == sorted(documented_settings())


def test_the_shipped_file_shows_the_same_keys_and_defaults():
    shipped = dict(re.findall(r"^#?(\w+)=(.*)$",
                              (SHARE / "tolva.cfg").read_text(),
                              re.MULTILINE))
    documented = {key: value.replace("HOME", "/etc/tolva")
                  for key, value in documented_settings().items()}
    documented["ListenUDP"] = "FALSE"
    documented["LogfileName"] = "/var/log/tolva/tolva.log"
    assert shipped == documented


@pytest.mark.parametrize("name", CFG_5.displays("settings"))
def test_an_example_of_settings(home, name):
    home.script("tolva_execute.sh")
    text = CFG_5.displays("settings")[name]
    home.write("example.cfg", text)
    clock = FakeClock(home)  # stands still: no server is asked
    port = free_port()
    listener = home.start("-l", "-d", "-p", port, "-c",
                          home.path("example.cfg"), env=clock.env)
    if "ListenAddress" in text:  # which -p leaves alone
        wait_for(lambda: tcp_listens(port), what="it listens")
    sent = wait_for(lambda: answered(home, port), what="an answer")
    assert sent.status == 0
    said = home.log_messages()
    assert message(756) in said
    # UDP is on unless it is switched off, but never without a list.
    assert (message(821) in said) == (name == "redundancy")
    assert (message(829) in said) == (name == "redundancy")
    listener.process.terminate()
    assert listener.wait().status == 0


def answered(home, port):
    """The result of a command with status, once the listener is there."""
    sent = home.run("-sr", "EXECUTE x", "-a", f"127.0.0.1:{port}")
    return sent if sent.status == 0 else None


# --- examples ---------------------------------------------------------------


def shipped_home(home):
    """Puts what is shipped into the home, as the examples expect it."""
    for path in [SHARE / "tolva.cfg", SHARE / "messages.dat"]:
        shutil.copy(path, home.path(path.name))
    for path in (SHARE / "scripts").glob("*.sh"):
        shutil.copy(path, home.path(path.name))
        home.path(path.name).chmod(0o755)


def run_as_it_stands(home, script, port, check_port=1):
    """Runs a text of shell commands.

    The names of the program lead to it with ports of the test's own in the
    place of its usual ones.
    """
    names = home.dir / "names"
    names.mkdir(exist_ok=True)
    for name in ("tolva", "sendtolva", "listentolva"):
        start = " ".join(wrapper() + [str(TOLVA.parent / name)])
        (names / name).write_text(
            f'#!/bin/sh\nexec {start} "$@" -p {port} -pc {check_port}\n')
        (names / name).chmod(0o755)
    path = f"{names}:{os.environ['PATH']}"
    return home.start("-c", script, program="/bin/sh",
                      env={"PATH": path}, cwd="/").wait()


def test_the_examples_work_as_they_stand(home):
    shipped_home(home)
    server = home.server(good)
    examples = TOLVA_8.displays("run")
    assert list(examples) == ["listen", "shutdown", "unquoted", "bare",
                              "execute", "several", "logid", "check", "end"]
    script = "".join(
        f"{text}printf '%s %s\\n' {name} $? >>\"$TOLVAHOME/done\"\n"
        for name, text in examples.items()) + "wait\n"
    done = run_as_it_stands(home, script, free_port(), server.port)
    assert home.read("done").decode().splitlines() == [
        f"{name} 0" for name in examples], done
    said = home.log_messages()
    shutdown = str(home.path("tolva_shutdown.sh"))
    reason = "'UPS in rack 4 (battery low)'"
    assert said.count(f"started: {shutdown} {reason}") == 1
    unquoted = f"started: {shutdown} UPS in rack 4 (battery low)"
    assert said.count(unquoted) == 2
    assert "everybody who reaches the port may send" not in "".join(said)
    assert said.count(f"started: {shutdown}") == 1
    action = f"{home.path('tolva_execute.sh')} stop-database orders"
    assert said.count(f"started: {action}") == 1
    assert said.count(f"failed: {action}") == 1
    assert "stopping the database orders" in home.read("tolva.out").decode()
    assert "power is back" in said
    assert "UPS rack 4 is on battery for 30 seconds" in said
    assert "the UPS server does not answer" not in done.out
    assert b"LOGOFF" in server.only()
    scripts = home.read("tolva.out").decode()
    assert scripts.count("rehearsal, nothing is shut down") == 2
    assert scripts.count("(UPS in rack 4 (battery low))\n") == 1
    assert scripts.count("Syntax error") == 2
    assert said[-1] == "listener stopped"
