"""The manual pages and the completion of the actions and of monitoring."""

import re
import shutil
import subprocess

import pytest

import manual
from harness import ROOT

PAGES = ["check_tolva.8", "tolva-action.8", "tolva-actions.7",
         "tolva-metrics.8"]
# Pages of other packages, which not every system has.
ELSEWHERE = ["etherwake.8", "systemd-run.1", "wakeonlan.1"]
COMPLETION = ROOT / "packaging" / "bash-completion"
COMMANDS = ["check_tolva", "tolva-action", "tolva-metrics"]


def test_the_pages_have_no_fault(tmp_path):
    mandoc = shutil.which("mandoc")
    assert mandoc, "mandoc is missing (apt-get install mandoc)"
    for path in manual.DIRECTORY.glob("*.[1-9]"):
        shutil.copy(path, tmp_path)
    for name in ELSEWHERE:
        (tmp_path / name).touch()
    done = subprocess.run(
        [mandoc, "-Tlint", "-Wall", *PAGES], cwd=tmp_path, text=True,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    # Without an index of the system's pages it says so once.
    assert done.stdout == ""
    assert done.returncode == 0, done.stderr


def offered(command, *words, env=""):
    """What is offered for the last of the words."""
    ask = (f"{env}\nsource {COMPLETION / command}; "
           'COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
           f"_{command.replace('-', '_')} "
           '"$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"; '
           'printf "%s\\n" "${COMPREPLY[@]}"')
    done = subprocess.run(
        ["bash", "--norc", "-c", ask, "bash", command, *words],
        capture_output=True, text=True, check=True, timeout=60)
    assert done.stderr == ""
    return sorted(done.stdout.split())


@pytest.mark.parametrize("command", COMMANDS)
def test_the_completion_has_no_fault(command):
    shellcheck = shutil.which("shellcheck")
    assert shellcheck, "shellcheck is missing (apt-get install shellcheck)"
    done = subprocess.run([shellcheck, COMPLETION / command], text=True,
                          stdout=subprocess.PIPE, check=False)
    assert (done.stdout, done.returncode) == ("", 0)


def test_every_option_of_the_plugin_is_offered():
    options = manual.Page("check_tolva.8").options("any")
    short = sorted(f"-{x}" for x in options if len(x) == 1)
    long = sorted(f"-{x}" for x in options if len(x) > 1)
    assert offered("check_tolva", "") == short
    assert offered("check_tolva", "--") == long
    assert offered("check_tolva", "-p", "") == []


def test_every_option_of_tolva_metrics_is_offered():
    synopsis = [line for line in manual.Page("tolva-metrics.8").lines
                if line.startswith(".Op Fl ")]
    assert offered("tolva-metrics", "") == [
        "-" + re.match(r"\.Op Fl (\w)", line)[1] for line in synopsis]


def test_actions_are_offered_by_what_can_be_done_with_them(tmp_path):
    shipped = tmp_path / "shipped"
    enabled = tmp_path / "enabled"
    for directory, name in ((shipped, "suspend"), (shipped, "containers"),
                            (enabled, "mine")):
        directory.mkdir(exist_ok=True)
        (directory / name).touch()
    env = f"TOLVA_SHIPPED={shipped} TOLVA_ACTIONS={enabled}"

    def ask(*words):
        return offered("tolva-action", *words, env=env)

    assert ask("") == ["disable", "enable", "list", "show"]
    assert ask("enable", "") == ["containers", "suspend"]
    assert ask("enable", "s") == ["suspend"]
    assert ask("disable", "") == ["mine"]
    assert ask("show", "") == ["containers", "mine", "suspend"]
    assert ask("enable", "-") == ["-f"]
    assert ask("list", "-") == []


def test_systemd_takes_the_units(tmp_path):
    """As far as that can be seen without a service manager."""
    analyze = shutil.which("systemd-analyze")
    assert analyze, "systemd-analyze is missing (apt-get install systemd)"
    command = ROOT / "share" / "bin" / "tolva-metrics"
    units = []
    for kind in ("service", "timer"):
        text = (ROOT / "packaging" / f"tolva-metrics.{kind}").read_text()
        unit = tmp_path / f"tolva-metrics.{kind}"
        unit.write_text(text.replace("/usr/bin/tolva-metrics", str(command)))
        units.append(unit)
    done = subprocess.run([analyze, "verify", "--man=no", *units],
                          capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
