"""Commands: the surroundings in which a script runs."""

import signal
import subprocess

import pytest

import preload
from fakeclock import FakeClock, settle
from harness import message
from home import gate
from peers import reader
from processes import signal_set, sockets_of
from waiting import wait_for
from wire import EXECUTE, STATUS, reply_parts

HOST = "127.0.0.1"

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
