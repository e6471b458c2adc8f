"""Bash completion: what is offered, asked of bash itself."""

import contextlib
import os
import pty
import re
import select
import subprocess
import time

import pytest

import completions
import manual
from harness import ROOT
from waiting import BOUND

FILE = ROOT / "packaging" / "bash-completion" / "tolva"
WORDS = ["SHUTDOWN", "EXECUTE", "MSG_ID", "MSG_TEXT", "MAIL_ID", "MAIL_TEXT",
         "LOG_ID", "LOG_TEXT"]
LISTEN = "-a -ar -ba -bs -c -d -p -pc -pr -r -rc -t -tc -tr"
SEND = "-a -ab -ar -d -p -pr -t -tr"


def offered(*words, cwd=None):
    """What is offered for the last of the words."""
    return completions.offered(FILE, "_tolva", words, cwd)


def test_the_file_has_no_fault():
    assert completions.has_no_fault(FILE)


def test_it_serves_all_three_names():
    done = subprocess.run(
        ["bash", "--norc", "-c", f"source {FILE} && complete -p tolva "
         "sendtolva listentolva"], stdout=subprocess.PIPE, text=True,
        check=True)
    assert done.stdout.splitlines() == [
        f"complete -F _tolva {name}"
        for name in ("tolva", "sendtolva", "listentolva")]


@pytest.mark.parametrize("name", ["sendtolva", "listentolva"])
def test_it_is_found_under_each_name(name):
    """Bash loads the file that is called as the command."""
    assert os.readlink(FILE.with_name(name)) == FILE.name


def test_every_documented_option_is_offered():
    page = manual.Page("tolva.8")
    documented = {f"-{option}"
                  for group in ("any", "listen", "send", "check")
                  for option in page.options(group)}
    assert set(offered("tolva", "-")) == documented


@pytest.mark.parametrize("words, options", [
    (["tolva", "-l", ""], LISTEN),
    (["tolva", "-s", "SHUTDOWN", ""], SEND),
    (["tolva", "-se", "SHUTDOWN", "-"], SEND),
    (["tolva", "-sr", "SHUTDOWN", ""], "-a -ar -d -p -pr -t -tr"),
    (["tolva", "-sc", ""], "-a -ar -d -pc -t -tr"),
    (["/usr/bin/sendtolva", ""], SEND + " -s -se"),
    (["listentolva", ""], LISTEN + " -l"),
    (["tolva", "-l", "-b"], "-ba -bs"),
    (["tolva", "-L", "-b"], "-ba -bs"),
    (["tolva", "-s"], "-s -sc -se -sr"),
    (["tolva", "-l", "-d", ""], LISTEN),
    (["tolva", "-l", "-c", "-d"], "-d"),
])
def test_the_options_of_a_mode_are_offered(words, options):
    assert offered(*words) == sorted(options.split())


@pytest.mark.parametrize("words, expected", [
    (["tolva", "-s", ""], WORDS),
    (["tolva", "-se", '"M'], [w for w in WORDS if w.startswith("M")]),
    (["tolva", "-sr", "log"], ["LOG_ID", "LOG_TEXT"]),
    (["sendtolva", "-s", "'EX"], ["EXECUTE"]),
    (["tolva", "-sr", "EXECUTE x"], []),
    (["tolva", "-l", "-p", ""], []),
    (["tolva", "-s", "SHUTDOWN", "-t", ""], []),
    (["tolva", "-l", "-d", "1"], ["1", "10"]),
])
def test_values_are_offered(words, expected):
    assert offered(*words) == sorted(expected)


@pytest.mark.parametrize("option", ["-bs", "-ba", "-c"])
def test_files_are_offered(tmp_path, option):
    (tmp_path / "down.sh").touch()
    (tmp_path / "other").touch()
    assert offered("tolva", "-l", option, "do", cwd=tmp_path) == ["down.sh"]


def test_hosts_are_offered(tmp_path):
    hosts = tmp_path / "hosts"
    hosts.write_text("192.0.2.7 upsmaster\n")
    assert completions.offered(
        FILE, "_tolva", ["tolva", "-s", "-a", "upsm"],
        first=f"HOSTFILE={hosts}\n") == ["upsmaster"]


def has_terminals():
    try:
        for fd in os.openpty():
            os.close(fd)
    except OSError:
        return False
    return True


def test_the_tabulator_completes_a_quoted_command(tmp_path):
    """The whole way, through a terminal."""
    if not has_terminals():
        pytest.skip("this machine gives no terminals (/dev/pts)")
    pid, terminal = pty.fork()
    if pid == 0:
        os.execvpe("bash", ["bash", "--norc", "--noprofile", "-i"],
                   {"PATH": os.environ["PATH"], "TERM": "dumb", "PS1": "> ",
                    "HOME": str(tmp_path), "INPUTRC": "/dev/null",
                    "LC_ALL": "C"})
    try:
        os.write(terminal, f"source {FILE}; echo re''ady\n".encode())
        read_until(terminal, rb"\nready\r")
        os.write(terminal, b'tolva -se "SHUT\t')
        read_until(terminal, rb'tolva -se "SHUTDOWN" ')
    finally:
        os.close(terminal)
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, 9)
        os.waitpid(pid, 0)


def read_until(terminal, pattern):
    seen = b""
    end = time.monotonic() + BOUND
    while not re.search(pattern, seen):
        left = end - time.monotonic()
        assert left > 0 and select.select([terminal], [], [], left)[0], seen
        seen += os.read(terminal, 4096)
