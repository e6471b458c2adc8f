"""Commands: which script runs, with what, in what surroundings, and what the
sender is told."""

import os
import signal
import subprocess

import pytest

import preload
from fakeclock import FakeClock, settle
from harness import message
from home import gate
from peers import read_to_end, reader
from processes import children, signal_set, sockets_of
from waiting import wait_for
from wire import (
    EXECUTE, HEADER, LOGGED, NOT_LOGGED, REPLY_HEADER, STATUS, reply_parts,
    reply_with)

HOST = "127.0.0.1"
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


# --- replies ----------------------------------------------------------------


@pytest.mark.parametrize("status", [0, 1, 2, 63, 126, 127, 128, 200, 255])
def test_the_exit_status_is_replied(home, status):
    home.script("tolva_execute.sh",
                f'echo $$ $PPID > "$TOLVAHOME/pids"; exit {status}')
    listener = home.listener()
    reply = listener.request(STATUS + b"EXECUTE some words")
    path = home.path("tolva_execute.sh")
    # The shell may run the script in its own place.
    pids = home.read("pids").split()
    assert reply in [reply_with(b"EXITSTATUS=%d" % status,
                                str(path).encode(), int(pid))
                     for pid in pids]
    assert reply_parts(reply)[1] != listener.pid
    number = 793 if status else 794
    assert listener.messages()[-1] == message(number, f"{path} some words")
    listener.stop()


@pytest.mark.parametrize("kind, status", [
    ("missing", 127), ("not executable", 126), ("directory", 126)])
def test_what_the_shell_cannot_run(home, kind, status):
    if kind == "not executable":
        home.script("tolva_execute.sh", mode=0o644)
    elif kind == "directory":
        home.path("tolva_execute.sh").mkdir()
    listener = home.listener()
    reply = listener.request(STATUS + b"EXECUTE")
    path = str(home.path("tolva_execute.sh"))
    command, _, replied = reply_parts(reply)
    assert (command, replied) == (path, status)
    assert listener.messages()[-1] == message(793, path)
    listener.stop()


@pytest.mark.parametrize("number", [
    signal.SIGKILL, signal.SIGTERM, signal.SIGUSR1, signal.SIGINT],
    ids=lambda n: n.name)
def test_a_killed_shell_is_replied_with_its_raw_status(home, number):
    listener = home.listener(config={"ExecProg": f"kill -{int(number)} $$"})
    reply = listener.request(STATUS + b"EXECUTE")
    command, _, status = reply_parts(reply)
    assert (command, status) == ("kill", int(number))
    assert listener.messages()[-1] == message(793, f"kill -{int(number)} $$")
    listener.stop()


def test_the_handlers_of_the_listener_do_not_save_scripts(home):
    """The default of each signal is in force from the very start."""
    home.script("tolva_execute.sh", "exit 0")
    listener = home.listener(level=0, config={"ExecProg": "kill -TERM $$;"})
    for _ in range(20):
        assert reply_parts(listener.request(STATUS + b"EXECUTE"))[2] == 15
    assert listener.running()
    listener.stop()


# Lets a signal come when the child is just about to become the shell.
EARLY = r"""
#define _GNU_SOURCE
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

int execl(const char *path, const char *first, ...)
{
    const char *args[8] = {first};
    va_list more;
    va_start(more, first);
    for (int i = 1; i < 7 && args[i - 1]; i++) {
        args[i] = va_arg(more, const char *);
    }
    va_end(more);
    kill(getpid(), atoi(getenv("TOLVA_TEST_SIGNAL")));
    return execv(path, (char *const *)args);
}
"""


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT],
                         ids=lambda n: n.name)
def test_a_signal_that_comes_before_the_shell_is_not_swallowed(home, number):
    listener = home.listener(
        config={"ExecProg": "exit"},
        env=preload.environment(home, preload.build("early", EARLY),
                                TOLVA_TEST_SIGNAL=number.value))
    assert reply_parts(listener.request(STATUS + b"EXECUTE 0"))[2] == number
    listener.stop()


STOP = "kill -STOP $$; touch $TOLVAHOME/went.on; exit 0;"


def continue_script(home, pid):
    os.kill(pid, signal.SIGCONT)
    wait_for(lambda: home.path("went.on").exists(), what="the script goes on")


def test_a_stopped_script_counts_as_ended(home):
    listener = home.listener(config={"ExecProg": STOP})
    reply = listener.request(STATUS + b"EXECUTE")
    raw = signal.SIGSTOP << 8 | 0x7f
    command, pid, status = reply_parts(reply)
    assert (command, status) == ("kill", raw)
    assert listener.messages()[-1] == message(793, STOP)
    assert not home.path("went.on").exists()
    continue_script(home, pid)
    wait_for(lambda: not children(listener.pid),
             what="the script is collected in the end")
    settle(listener)
    listener.stop()
    assert listener.messages() == [
        message(756), message(795), message(792, STOP), message(793, STOP),
        message(757)]


def test_a_stopped_script_nobody_waits_for(home):
    listener = home.listener(config={"ExecProg": STOP})
    assert listener.request(EXECUTE + b"EXECUTE") == b""
    listener.wait_message(message(793, STOP))
    [pid] = children(listener.pid)
    continue_script(home, pid)
    wait_for(lambda: not children(listener.pid),
             what="the script is collected in the end")
    listener.stop()


def test_each_sender_gets_the_reply_of_its_own_script(home):
    home.script("tolva_execute.sh",
                f'touch "$TOLVAHOME/on.$1"; {gate("go.$1")}\nexit $1')
    listener = home.listener()
    conns = {n: listener.connect() for n in (11, 22, 33)}
    for number, conn in conns.items():
        conn.sendall(STATUS + b"EXECUTE %d" % number)
        wait_for(lambda: home.path(f"on.{number}").exists())
    for number in (22, 33, 11):
        home.write(f"go.{number}", "")
        reply = read_to_end(conns[number])
        assert reply_parts(reply)[2] == number
        conns[number].close()
    path = home.path("tolva_execute.sh")
    assert listener.messages()[-3:] == [
        message(793, f"{path} {n}") for n in (22, 33, 11)]
    listener.stop()


def test_a_reply_names_the_program_up_to_the_first_blank(home):
    name = "x" * 4100
    listener = home.listener(args=["-bs", f"exit 3;\t{name} y"])
    reply = listener.request(STATUS + b"SHUTDOWN")
    command, _, status = reply_parts(reply)
    assert (command, status) == ("exit", 3)
    listener.stop()


def test_a_reply_never_has_more_than_4096_bytes(home):
    name = "x" * 5000
    listener = home.listener(args=["-bs", name])
    reply = listener.request(STATUS + b"SHUTDOWN")
    whole = REPLY_HEADER + b" COMMAND=" + name.encode()
    assert len(reply) == 4096
    assert reply[:4095] == whole[:4095]
    listener.stop()


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


# --- the surroundings of a script -------------------------------------------

# Runs in the shell before any code of the shell does, since some shells
# change the signals they find.
WITNESS = r"""
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

__attribute__((constructor)) static void witness(void)
{
    char text[4096];
    FILE *in = fopen("/proc/self/comm", "r");
    int is_shell = in && fgets(text, sizeof text, in) &&
                   strcmp(text, "sh\n") == 0;
    if (in) {
        fclose(in);
    }
    if (!is_shell) {
        return;
    }
    snprintf(text, sizeof text, "%s/status.%d", getenv("TOLVAHOME"),
             getppid());
    in = fopen("/proc/self/status", "r");
    FILE *out = fopen(text, "w");
    while (in && out && fgets(text, sizeof text, in)) {
        fputs(text, out);
    }
    for (int fd = 0; fd < 1024; fd++) {
        char link[64];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t size = readlink(link, text, sizeof text - 1);
        if (size > 0 && fd != fileno(in) && fd != fileno(out)) {
            text[size] = '\0';
            fprintf(out, "fd:\t%d %s\n", fd, text);
        }
    }
    fclose(in);
    fclose(out);
}
"""


@pytest.fixture
def witness():
    return preload.build("witness", WITNESS)


def fields_of(text):
    fields = {}
    for line in text.splitlines():
        key, _, value = line.partition(":\t")
        fields.setdefault(key, []).append(value)
    return fields


def ignored_at_start():
    """What a process that this test starts ignores anyway."""
    status = subprocess.run(["/bin/cat", "/proc/self/status"], check=True,
                            capture_output=True, text=True).stdout
    return signal_set(fields_of(status)["SigIgn"][0])


@pytest.mark.parametrize("daemon", [False, True],
                         ids=["foreground", "daemon"])
@pytest.mark.parametrize("udp", [False, True], ids=["tcp", "udp"])
def test_signals_and_descriptors_of_a_script(home, witness, daemon, udp):
    clock = FakeClock(home)
    server = home.server(reader)
    listener = home.listener(
        daemon=daemon,
        env={**clock.env,
             "LD_PRELOAD": f"{clock.env['LD_PRELOAD']}:{witness}"},
        config={"AllowedAddresses": HOST, "AliveEnabled": "true",
                "AliveAddresses": server.where, "ExecProg": ": done"})
    others = [listener.connect() for _ in range(3)]
    # Every kind of socket is open: both listeners, clients, a check.
    clock.advance(listener, 5, lambda: server.conversations)
    wait_for(lambda: len(sockets_of(listener.pid)) == 6)
    if udp:
        listener.datagram(EXECUTE + b"EXECUTE")
    else:
        listener.request(STATUS + b"EXECUTE")
    listener.wait_message(message(794, ": done"))
    fields = fields_of(home.read(f"status.{listener.pid}").decode())
    assert signal_set(fields["SigBlk"][0]) == {signal.SIGCHLD}
    ignored = {signal.SIGHUP, signal.SIGPIPE}
    if daemon:
        ignored.add(signal.SIGINT)
    # What the listener handles is no longer ignored, whoever started it.
    handled = {signal.SIGINT, signal.SIGTERM, signal.SIGQUIT, signal.SIGCHLD}
    assert signal_set(fields["SigIgn"][0]) == ignored | (
        ignored_at_start() - handled)
    assert signal_set(fields["SigCgt"][0]) == set()
    assert [int(v.split()[0]) for v in fields["fd"]] == [0, 1, 2]
    if daemon:
        assert {v.split()[1] for v in fields["fd"]} == {"/dev/null"}
    for conn in others:
        conn.close()
    listener.stop()


@pytest.mark.parametrize("daemon", [False, True],
                         ids=["foreground", "daemon"])
def test_environment_and_directory_of_a_script(home, daemon):
    work = home.dir / "work"
    work.mkdir()
    more = {"TOLVA_TEST_OTHER": "a b\tc=d", "PATH": "/usr/bin:/bin"}
    listener = home.listener(
        daemon=daemon, cwd=work, env=more,
        config={"ExecProg": "env -0 > $TOLVAHOME/env; pwd > "
                            "$TOLVAHOME/pwd; exit"})
    assert reply_parts(listener.request(STATUS + b"EXECUTE 0"))[2] == 0
    found = dict(entry.split("=", 1) for entry in
                 home.read("env").decode().split("\0")[:-1])
    expected = home.environment(more)
    expected["PATH"] = f"{home.home}:/usr/bin:/bin"
    for own in ("PWD", "OLDPWD", "_", "SHLVL"):  # the shell's own
        found.pop(own, None)
        expected.pop(own, None)
    assert found == expected
    assert home.read("pwd") == f"{work}\n".encode()
    listener.stop()


def test_scripts_are_found_in_the_home_directory_first(home):
    home.script("true", 'touch "$TOLVAHOME/mine"; exit 7')
    listener = home.listener(config={"ExecProg": "env true"})
    assert reply_parts(listener.request(STATUS + b"EXECUTE"))[2] == 7
    assert home.path("mine").exists()
    listener.stop()


def test_scripts_of_a_foreground_listener_write_to_its_output(home):
    home.script("tolva_execute.sh", "echo to out; echo to err >&2")
    listener = home.listener()
    listener.request(STATUS + b"EXECUTE")
    listener.stop()
    assert listener.out == "to out\n"
    assert listener.err == "to err\n"


def test_a_script_that_outlives_the_listener(home):
    home.script("tolva_execute.sh",
                f'touch "$TOLVAHOME/on"; {gate()}\ntouch "$TOLVAHOME/end"')
    listener = home.listener()
    listener.request(EXECUTE + b"EXECUTE")
    wait_for(lambda: home.path("on").exists())
    listener.stop()
    home.write("go", "")
    wait_for(lambda: home.path("end").exists())


def test_children_that_a_script_leaves_behind_hold_nothing_up(home):
    home.script("tolva_execute.sh",
                f'({gate()}) > /dev/null 2>&1 & exit 3')
    listener = home.listener()
    assert reply_parts(listener.request(STATUS + b"EXECUTE"))[2] == 3
    settle(listener)
    assert listener.request(STATUS + b"LOG_TEXT x").endswith(b"STATUS=0")
    home.write("go", "")
    listener.stop()
