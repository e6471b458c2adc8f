"""Commands: which script runs, with which parameters, and what is logged."""

import pytest

from harness import message
from waiting import wait_for
from wire import EXECUTE, HEADER, LOGGED, NOT_LOGGED, STATUS, reply_parts

SCRIPTS = ("shutdown", "execute", "message", "mail")
TEXTS = {12: "UPS #NAME at #PCT%s done", 13: "#A and %s", 14: "plain",
         15: "100%sure #low #UP! %d %", 16: "gr\xfc\xdfe %s"}


@pytest.fixture
def scripts(home):
    """Scripts that write down their name and each of their parameters."""
    for name in SCRIPTS:
        home.script(f"tolva_{name}.sh",
                    f'printf "%s\\0" {name} "$@" > "$TOLVAHOME/new"\n'
                    'mv "$TOLVAHOME/new" "$TOLVAHOME/ran"')
    home.messages(TEXTS)
    return home


def ran(home):
    """The script that ran and its parameters, as latin-1."""
    wait_for(lambda: home.path("ran").exists(), what="the script ran")
    return home.read("ran").decode("latin-1").split("\0")[:-1]


# --- which script, with which parameters ------------------------------------

# Text behind the verb: (script, its line behind the path, its parameters)
COMMANDS = {
    "SHUTDOWN": ("shutdown", "", []),
    "SHUTDOWN now": ("shutdown", " now", ["now"]),
    "SHUTDOWN \t ": ("shutdown", "", []),
    "shutdown In 5 minutes": ("shutdown", " In 5 minutes",
                              ["In", "5", "minutes"]),
    "EXECUTE": ("execute", "", []),
    "EXECUTE backup now": ("execute", " backup now", ["backup", "now"]),
    "ExEcUtE  a   b  ": ("execute", " a   b", ["a", "b"]),
    'EXECUTE "two words"': ("execute", " two words", ["two", "words"]),
    'EXECUTE  "two words" \t': ("execute", " two words", ["two", "words"]),
    'EXECUTE "a b" "c d"': ("execute", ' "a b" "c d"', ["a b", "c d"]),
    'EXECUTE x "a b"': ("execute", ' x "a b"', ["x", "a b"]),
    'EXECUTE ""': ("execute", "", []),
    'EXECUTE "" ""': ("execute", ' "" ""', ["", ""]),
    "EXECUTE 'a  b'": ("execute", " 'a  b'", ["a  b"]),
    "EXECUTE a\\ b": ("execute", " a\\ b", ["a b"]),
    "EXECUTE $((6*7))": ("execute", " $((6*7))", ["42"]),
    "EXECUTE a 2>&1 # b": ("execute", " a 2>&1 # b", ["a"]),
    "EXECUTE gr\xfc\xdfe \xff\x80": ("execute", " gr\xfc\xdfe \xff\x80",
                                     ["gr\xfc\xdfe", "\xff\x80"]),
    "EXECUTE %s %d %n %%": ("execute", " %s %d %n %%",
                            ["%s", "%d", "%n", "%%"]),
    "EXECUTE MSG_TEXT": ("execute", " MSG_TEXT", ["MSG_TEXT"]),
    "MSG_TEXT UPS on battery": ("message", " UPS on battery",
                                ["UPS", "on", "battery"]),
    'MSG_TEXT  "UPS on battery" ': ("message", " UPS on battery",
                                    ["UPS", "on", "battery"]),
    "msg_text": ("message", "", []),
    "MSG_ID 12 UPS1 45": ("message", " UPS UPS1 at 45%s done",
                          ["UPS", "UPS1", "at", "45%s", "done"]),
    "MSG_ID 12 UPS1 45 x": ("message", " UPS UPS1 at 45x done",
                            ["UPS", "UPS1", "at", "45x", "done"]),
    'MSG_ID 13 "a b" c': ("message", " a b and c", ["a", "b", "and", "c"]),
    'MSG_ID 13 a  "b c"': ("message", ' a and "b', None),
    "MSG_ID 14": ("message", " plain", ["plain"]),
    "MSG_ID \t 14 unused": ("message", " plain", ["plain"]),
    "MSG_ID 14abc": ("message", " plain", ["plain"]),
    "MSG_ID 15 x y z": ("message", " 100%sure #low x! %d %",
                        ["100%sure"]),
    "MSG_ID 16 \xe4": ("message", " gr\xfc\xdfe \xe4",
                       ["gr\xfc\xdfe", "\xe4"]),
    "MSG_ID 13": ("message", " #A and %s", []),
    "MSG_ID 99999": ("message", "", []),
    "MSG_ID 0": ("message", "", []),
    "MSG_ID x": ("message", "", []),
    "MSG_ID": ("message", "", []),
    'MAIL_TEXT ops "Battery low"': ("mail", ' ops "Battery low"',
                                    ["ops", "Battery low"]),
    "MAIL_TEXT ops Battery low": ("mail", ' ops "Battery low"',
                                  ["ops", "Battery low"]),
    "MAIL_TEXT ops": ("mail", " ops", ["ops"]),
    "MAIL_TEXT ops$Battery low": ("mail", ' ops "Battery low"',
                                  ["ops", "Battery low"]),
    'MAIL_TEXT ops "a" "b"': ("mail", ' ops ""a" "b""', ["ops", "a b"]),
    "MAIL_TEXT": ("mail", "", []),
    "MAIL_ID 14 ops": ("mail", ' ops  "plain"', ["ops", "plain"]),
    "MAIL_ID 13 ops a b": ("mail", ' ops  "a and b"', ["ops", "a and b"]),
    "MAIL_ID 13 ops$a b": ("mail", ' ops  "a and b"', ["ops", "a and b"]),
    "MAIL_ID 99999 ops a": ("mail", " ops ", ["ops"]),
    "MAIL_ID 14": ("mail", "", []),
    "MAIL_ID 0 ops": ("mail", "", []),
    "MAIL_ID": ("mail", "", []),
}


@pytest.mark.parametrize("text", COMMANDS)
def test_command_word_and_parameters(scripts, text):
    name, line, parameters = COMMANDS[text]
    listener = scripts.listener()
    reply = listener.request(STATUS + text.encode("latin-1"))
    path = scripts.path(f"tolva_{name}.sh")
    started = message(792, f"{path}{line}")
    assert listener.messages()[1:3] == [message(795), started]
    command, pid, status = reply_parts(reply)
    if parameters is None:
        # An open quote: the shell has nothing to run.
        assert status == 2
        assert not scripts.path("ran").exists()
    else:
        assert (command, status) == (str(path), 0)
        assert ran(scripts) == [name, *parameters]
        assert listener.messages()[3:] == [message(794, f"{path}{line}")]
    assert pid not in (0, listener.pid)
    listener.stop()


@pytest.mark.parametrize("text", [
    "SHUTDOWN now", "EXECUTE x", "MSG_TEXT x", "MSG_ID 14", "MAIL_TEXT x y",
    "MAIL_ID 14 x"])
def test_commands_run_without_a_reply_too(scripts, text):
    listener = scripts.listener()
    assert listener.request(EXECUTE + text.encode()) == b""
    name, line, parameters = {**COMMANDS, **{
        "EXECUTE x": ("execute", " x", ["x"]),
        "MSG_TEXT x": ("message", " x", ["x"]),
        "MAIL_TEXT x y": ("mail", ' x "y"', ["x", "y"]),
        "MAIL_ID 14 x": ("mail", ' x  "plain"', ["x", "plain"]),
        "MSG_ID 14": ("message", " plain", ["plain"])}}[text]
    path = scripts.path(f"tolva_{name}.sh")
    listener.wait_message(message(794, f"{path}{line}"))
    assert ran(scripts) == [name, *parameters]
    listener.stop()


def test_the_shell_interprets_the_line(home):
    """Nothing is quoted: a line feed ends a shell command, too."""
    home.script("tolva_execute.sh", 'echo "$@" >> "$TOLVAHOME/ran"; exit 9')
    listener = home.listener()
    reply = listener.request(
        STATUS + b'EXECUTE one; tolva_execute.sh two\ntolva_execute.sh "3 '
        b'three"; exit 4')
    assert home.read("ran") == b"one\ntwo\n3 three\n"
    assert reply_parts(reply)[2] == 4
    listener.stop()


@pytest.mark.parametrize("key, word, name", [
    ("ShutdownProg", "SHUTDOWN", "a"), ("ExecProg", "EXECUTE", "b"),
    ("MsgProg", "MSG_TEXT", "c"), ("MailProg", "MAIL_TEXT", "d")])
def test_script_paths_come_from_the_settings(home, key, word, name):
    home.script(name, 'echo "$# $*" > "$TOLVAHOME/ran"')
    listener = home.listener(config={key: f"{home.path(name)} first"})
    reply = listener.request(STATUS + word.encode() + b" second")
    command, _, status = reply_parts(reply)
    assert (command, status) == (str(home.path(name)), 0)
    assert home.read("ran") == b"2 first second\n"
    listener.stop()


def test_the_script_of_the_command_line_comes_first(home):
    home.script("own.sh", 'echo "$# $*" > "$TOLVAHOME/ran"')
    listener = home.listener(config={"ShutdownProg": "/nonexistent"},
                             args=["-bs", f"{home.path('own.sh')} 1"])
    assert listener.request(HEADER) == b""
    listener.wait_message(message(794, f"{home.path('own.sh')} 1"))
    assert home.read("ran") == b"1 1\n"
    listener.stop()


def test_a_bare_request_has_no_parameters(scripts):
    listener = scripts.listener()
    assert listener.request(HEADER) == b""
    assert ran(scripts) == ["shutdown"]
    path = scripts.path("tolva_shutdown.sh")
    listener.wait_message(message(794, path))
    assert listener.messages() == [message(756), message(795),
                                   message(792, path), message(794, path)]
    assert listener.err == "returning: TRUE\n"
    listener.stop()


@pytest.mark.parametrize("request_bytes", [
    HEADER, EXECUTE + b"SHUTDOWN", STATUS + b"SHUTDOWN x"])
def test_without_a_script_nothing_runs_and_nobody_is_answered(
        home, request_bytes):
    listener = home.listener(args=["-bs", ""])
    assert listener.request(request_bytes) == b""
    listener.stop()
    assert listener.messages() == [message(756), message(795), message(757)]


@pytest.mark.parametrize("request_bytes, line", [
    (STATUS + b"REBOOT", 820), (STATUS, 819), (STATUS + b" \t", 819)])
def test_a_bad_command_is_not_answered(home, request_bytes, line):
    listener = home.listener()
    assert listener.request(request_bytes) == b""
    listener.stop()
    assert listener.messages() == [message(756), message(795),
                                   message(line), message(757)]


def test_trace_of_a_command(home):
    home.script("tolva_execute.sh")
    home.messages(TEXTS)
    listener = home.listener(level=1)
    listener.request(STATUS + b"EXECUTE  a b ")
    listener.request(EXECUTE + b"MSG_ID 13 x  y")
    listener.stop()
    parts = [
        "DEBUG: tolvamsg = [MSG_EXECSTATUS EXECUTE  a b ]\n"
        "DEBUG: ptr1 = [MSG_EXECSTATUS]\nDEBUG: ptr2 = [EXECUTE]\n"
        "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
        "DEBUG: ptr3 = [a b]\n",
        "DEBUG: ptr2 = [MSG_ID]\n"
        "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
        "DEBUG: compare = [MSG_ID]\nDEBUG: params = [13 x  y]\n"
        "DEBUG: buffer = [#A and %s]\nDEBUG: ptrptr = [x  y]\n"
        "DEBUG: param = [x]\nDEBUG: param = [y]\n",
    ]
    for part in parts:
        assert part in listener.out, part


# --- texts for the log ------------------------------------------------------

TEXTS_OF_LOG = {
    "LOG_TEXT UPS on battery": "UPS on battery",
    'LOG_TEXT "UPS on battery"': "UPS on battery",
    'LOG_TEXT "a" "b"': '"a" "b"',
    "LOG_TEXT 100%s %d %%": "100%s %d %%",
    "log_text x": "x",
    "LOG_TEXT TOLVA   ERROR: x": "error: x",
    "LOG_TEXT error: x": "error: x",
    "LOG_TEXT Error: x": "Error: x",
    "LOG_TEXT tolva hello": "hello",
    "LOG_ID 14": "plain",
    "LOG_ID 12 UPS1 45 %": "UPS UPS1 at 45% done",
    'LOG_ID 13 "a b" c': "a b and c",
    "LOG_ID 13": "#A and %s",
}


@pytest.mark.parametrize("text", TEXTS_OF_LOG)
def test_a_text_for_the_log(scripts, text):
    listener = scripts.listener()
    assert listener.request(STATUS + text.encode()) == LOGGED
    assert listener.request(EXECUTE + text.encode()) == b""
    listener.wait_message(TEXTS_OF_LOG[text], 2)
    listener.stop()
    assert listener.messages() == [
        message(756), *[message(795), TEXTS_OF_LOG[text]] * 2, message(757)]
    assert not scripts.path("ran").exists()


@pytest.mark.parametrize("text", [
    "LOG_TEXT", "LOG_TEXT  \t ", 'LOG_TEXT ""', "LOG_ID", "LOG_ID 0",
    "LOG_ID 99999 x", "LOG_ID x"])
def test_no_text_for_the_log(scripts, text):
    listener = scripts.listener()
    assert listener.request(STATUS + text.encode()) == NOT_LOGGED
    assert listener.request(EXECUTE + text.encode()) == b""
    listener.stop()
    assert listener.messages() == [
        message(756), message(795), message(795), message(757)]


def test_a_text_that_cannot_be_logged(home):
    home.path("folder").mkdir()
    listener = home.listener(config={"LogfileName": home.path("folder")})
    assert listener.request(STATUS + b"LOG_TEXT x") == NOT_LOGGED
    listener.stop()


def test_a_text_that_a_daemon_drops_counts_as_logged(home):
    listener = home.listener(daemon=True, config={"LogfileEnabled": "no"})
    assert listener.request(STATUS + b"LOG_TEXT x") == LOGGED
    listener.stop()
