"""The manual page and the completion of tolva-checkconf keep to the program;
what the page says of each finding is tried in test_checkconf.py."""

import os
import re
import shutil
import subprocess

import pytest

import completions
import manual
from checkconf import CHECKCONF, CLEAN, House, program_texts
from harness import ROOT, wrapper

PAGE = manual.Page("tolva-checkconf.8")
COMPLETION = ROOT / "packaging" / "bash-completion" / "tolva-checkconf"


@pytest.fixture
def house(home):
    return House(home)


def words_of(kind):
    return [words for words, _ in PAGE.table(f"{kind}s")]


def test_the_page_has_no_fault(tmp_path):
    mandoc = shutil.which("mandoc")
    assert mandoc, "mandoc is missing (apt-get install mandoc)"
    names = ("tolva-checkconf.8", "tolva.8", "tolva.cfg.5",
             "tolva-messages.5")
    for name in names:
        shutil.copy(manual.DIRECTORY / name, tmp_path / name)
    done = subprocess.run([mandoc, "-Tlint", "-Wall", names[0]], cwd=tmp_path,
                          text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    assert (done.returncode, done.stdout) == (0, "")


@pytest.mark.parametrize("kind", ["error", "warning"])
def test_every_text_of_the_program_is_in_the_manual(kind):
    # Texts that tables complete are found by the words of those.
    completed = {"the file %s: save it as plain UTF-8 without a byte order "
                 "mark", "%s=%s %s: write %s, from %d to %d",
                 "%s=0 %s: write %s", "%s: `%s' %s"}
    texts = program_texts()[kind]
    assert len(texts) >= len(words_of(kind)) - 10
    told = [text for text in texts - completed
            if any(words in text for words in words_of(kind))]
    assert sorted(texts - completed) == sorted(told)


def test_the_words_in_the_manual_are_those_of_the_program():
    folder = ROOT / "src" / "tolva2" / "checkconf"
    texts = "".join(path.read_text() for path in folder.glob("*.cpp"))
    texts = texts.replace("the file %s", "the file begins").replace("\\", "")
    assert [words for words in words_of("error") + words_of("warning")
            if words not in texts] == []


# --- exit status and examples -------------------------------------------------


STATUS = {"0": (CLEAN, []), "1": ("ListenUDP=FALSE\n", []),
          "2": (CLEAN, ["-x"])}


@pytest.mark.parametrize("status", [row[0] for row in PAGE.table("status")])
def test_a_row_of_the_status_table(house, status):
    settings, args = STATUS[status]
    house.settings(settings)
    assert house.check(*args).status == int(status)


def run_example(house, name):
    """Runs it with the house in the place of /etc/tolva."""
    names = house.home.dir / "names"
    names.mkdir(exist_ok=True)
    start = " ".join([*wrapper(), str(CHECKCONF)])
    (names / "tolva-checkconf").write_text(f'#!/bin/sh\nexec {start} "$@"\n')
    (names / "tolva-checkconf").chmod(0o755)
    text = PAGE.displays("run")[name]
    return house.home.start(
        "-c", text.replace("/etc/tolva", str(house.home.home)),
        program="/bin/sh", env={"PATH": f"{names}:{os.environ['PATH']}"},
        tolvahome=False).wait()


def test_the_examples_are_these():
    assert list(PAGE.displays("run")) == ["service", "where", "new"]


def test_the_example_of_a_service(house):
    assert run_example(house, "service").status == 0
    house.settings("ListenUDP=FALSE\n")
    assert run_example(house, "service").status == 1


def test_the_example_of_where_the_listener_would_listen(house):
    house.settings(f"{CLEAN}ListenPort=6010\n")
    done = run_example(house, "where")
    assert f"ListenPort=6010 # {house.path('tolva.cfg')}:3\n" in done.out
    assert all(line.startswith("Listen") for line in done.out.splitlines())


def test_the_example_of_new_settings(house):
    house.settings(f"{CLEAN}ListenPort=6O03\n", "tolva.cfg.new")
    assert run_example(house, "new").status == 1
    assert house.home.read("tolva.cfg").decode() == CLEAN
    house.settings(f"{CLEAN}ListenPort=6010\n", "tolva.cfg.new")
    assert run_example(house, "new").status == 0
    assert b"ListenPort=6010" in house.home.read("tolva.cfg")


def test_the_options_are_those_of_the_program(house):
    usage = house.check("-?").out
    listed = sorted(PAGE.options("any"))
    assert listed == sorted(re.findall(r"^  -(\w)", usage, re.M))
    assert listed == ["H", "o", "p"]


# --- completion ---------------------------------------------------------------


ASK = r"""
source "$1"; shift
_tolva_checkconf tolva-checkconf "$1" "$2"
printf '%s\n' "${COMPREPLY[@]}"
complete -p tolva-checkconf
"""


def offered(word, previous, cwd):
    """What is offered for a word behind another one."""
    done = subprocess.run(["bash", "--norc", "-c", ASK, "bash", COMPLETION,
                           word, previous], cwd=cwd, text=True, check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert done.stderr == ""
    *words, last = done.stdout.split("\n")[:-1]
    assert last == "complete -F _tolva_checkconf tolva-checkconf"
    return sorted(filter(None, words))


def test_the_completion_has_no_fault():
    assert completions.has_no_fault(COMPLETION)


@pytest.mark.parametrize("word, previous, expected", [
    ("-", "tolva-checkconf", ["-H", "-o", "-p"]),
    ("", "tolva-checkconf", ["house", "tolva.cfg"]),
    ("t", "-o", ["tolva.cfg"]), ("", "-H", ["house"]), ("", "-pH", ["house"]),
])
def test_options_directories_and_files_are_offered(tmp_path, word, previous,
                                                   expected):
    (tmp_path / "house").mkdir()
    (tmp_path / "tolva.cfg").touch()
    assert offered(word, previous, tmp_path) == expected


def test_every_documented_option_is_offered(tmp_path):
    assert offered("-", "x", tmp_path) == sorted(
        f"-{option}" for option in PAGE.options("any"))
