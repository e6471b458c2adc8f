"""The manual page of tolva-shutdown, and its completion, say what it does."""

import re
import shutil
import subprocess

import pytest

import manual
from conftest import SHUTDOWN
from harness import ROOT, TOLVA
from home import Home
from scripthost import SCRIPTS

PAGE = manual.Page("tolva-shutdown.8")
COMPLETION = ROOT / "packaging" / "bash-completion" / "tolva-shutdown"
ASK = r"""
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
_tolva_shutdown "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
printf '%s\n' "${COMPREPLY[@]}"
"""


def test_the_page_has_no_fault(tmp_path):
    mandoc = shutil.which("mandoc")
    assert mandoc, "mandoc is missing (apt-get install mandoc)"
    shutil.copy(PAGE.path, tmp_path)
    for name in ("tolva.8", "tolva.cfg.5", "shutdown.8", "tolva-actions.7",
                 "tolva-fleet.8", "tolva-staged.8"):
        (tmp_path / name).touch()
    done = subprocess.run(
        [mandoc, "-Tlint", "-Wall", PAGE.path.name], cwd=tmp_path,
        capture_output=True, text=True)
    assert (done.stdout, done.returncode) == ("", 0)


def options_of_the_page():
    start = PAGE.lines.index("The options:")
    end = PAGE.lines.index(".Ss What it says")
    return [line.split()[2] for line in PAGE.lines[start:end]
            if line.startswith(".It Fl ")]


def test_the_page_has_every_option():
    given, = re.findall(r"getopts ([\w:]+) ", SHUTDOWN.read_text())
    assert options_of_the_page() == sorted(given.replace(":", ""))


def test_the_page_has_the_defaults():
    text = " ".join(PAGE.lines)
    script = SHUTDOWN.read_text()
    for option, variable in (("i", "every"), ("w", "wait")):
        default, = re.findall(rf"\b{variable}=(\d+)", script)
        entry = text.split(f".It Fl {option} ")[1].split(".It")[0]
        assert f" {default} if not given" in entry
    spare, = re.findall(r"^SPARE=(\d+)", script, re.MULTILINE)
    assert f" {spare} seconds after the time of" in text


def test_the_page_has_the_statuses_of_the_script():
    statuses = [row[0] for row in PAGE.table("status")]
    script = SHUTDOWN.read_text()
    assert "\nREHEARSED=42\n" in script
    assert set(re.findall(r"(?:exit|status=)\s?(\d+)", script)) - \
        set(statuses) == set()


@pytest.fixture
def home():
    home = Home()
    yield home
    home.close()


def test_the_examples_of_the_page(home):
    """In this order, with the port of a listener that is there."""
    bin_dir = home.dir / "bin"
    bin_dir.mkdir()
    (bin_dir / "tolva").symlink_to(TOLVA)
    (bin_dir / "tolva-shutdown").symlink_to(SHUTDOWN)
    called = home.dir / "called"
    for name in ("shutdown", "logger", "wall"):
        (bin_dir / name).write_text(
            f'#!/bin/sh\necho "{name} $*" >>"{called}"\ncat >>"{called}"\n')
        (bin_dir / name).chmod(0o755)
    actions = home.home / "actions.d"
    actions.mkdir()
    shutil.copy(ROOT / "share" / "actions" / "cancel-shutdown", actions)
    for script in SCRIPTS.glob("*.sh"):
        shutil.copy(script, home.home)
    env = {"PATH": f"{bin_dir}:/usr/bin:/bin",
           "TOLVA_SHUTDOWN": str(bin_dir / "shutdown"),
           "TOLVA_SHUTDOWN_PID": str(home.dir / "pid"),
           "TOLVA_SCHEDULED": str(home.dir / "scheduled"),
           "TOLVA_STATE": str(home.dir / "state")}
    listener = home.listener(config={"AllowedAddresses": "127.0.0.1"},
                             env=env)
    said = {}
    examples = PAGE.displays("run")
    assert list(examples) == ["rehearse", "tell", "cancel", "warn"]
    for name, text in examples.items():
        text = text.replace("127.0.0.1 #", f"{listener.where} #")
        ran = subprocess.run(["sh", "-ec", text.replace(
            "tolva-shutdown\ntest", "tolva-shutdown || test")],
            env=home.environment(env), cwd=home.dir, timeout=60,
            capture_output=True, text=True)
        assert ran.returncode == 0, (name, ran.stdout, ran.stderr)
        said[name] = ran.stdout
    assert f"would tell {listener.where}, which answers" in said["rehearse"]
    assert f"told {listener.where}\n" in said["tell"]
    record = called.read_text()
    assert "(UPS in rack 4 (battery low))" in record
    assert len(re.findall("^shutdown -h", record, re.MULTILINE)) == 1
    assert "wall \nPower failure (on battery)\n" in record
    listener.stop()


def offered(*words, cwd=None):
    done = subprocess.run(
        ["bash", "--norc", "-c", ASK, "bash", COMPLETION, *words],
        capture_output=True, text=True, cwd=cwd, check=True)
    assert done.stderr == ""
    return sorted(done.stdout.split())


def test_the_completion_has_no_fault():
    done = subprocess.run(["shellcheck", COMPLETION], capture_output=True,
                          text=True)
    assert (done.stdout, done.returncode) == ("", 0)


def test_the_completion_offers_options_files_and_command_words(tmp_path):
    (tmp_path / "hosts").touch()
    assert offered("tolva-shutdown", "-") == \
        sorted(f"-{x}" for x in options_of_the_page())
    for words in (["-f"], ["-s"], ["-n"], []):
        assert offered("tolva-shutdown", *words, "ho", cwd=tmp_path) == \
            ["hosts"]
    assert offered("tolva-shutdown", "-c", "exe") == ["EXECUTE"]
    assert offered("tolva-shutdown", "-w", "") == []
