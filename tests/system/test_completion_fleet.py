"""Bash completion of tolva-fleet and tolva-staged, asked of bash itself, and
their manual pages."""

import os
import shutil
import subprocess

import pytest

import completions
import manual
from harness import ROOT

FILE = ROOT / "packaging" / "bash-completion" / "tolva-fleet"
WORDS = ["EXECUTE", "LOG_ID", "LOG_TEXT", "MAIL_ID", "MAIL_TEXT", "MSG_ID",
         "MSG_TEXT", "SHUTDOWN"]


def offered(*words, cwd=None):
    return completions.offered(FILE, "_" + words[0].replace("-", "_"), words, cwd)


def test_the_file_has_no_fault():
    assert completions.has_no_fault(FILE)


def test_it_is_found_under_each_name():
    assert os.readlink(FILE.with_name("tolva-staged")) == FILE.name
    done = subprocess.run(
        ["bash", "--norc", "-c", f"source {FILE} && complete -p tolva-fleet "
         "tolva-staged"], stdout=subprocess.PIPE, text=True, check=True)
    assert done.stdout.splitlines() == [
        "complete -F _tolva_fleet tolva-fleet",
        "complete -F _tolva_staged tolva-staged"]


@pytest.mark.parametrize("name, group", [("tolva-fleet", "fleet"),
                                         ("tolva-staged", "staged")])
def test_every_documented_option_is_offered(name, group):
    documented = {f"-{option}"
                  for option in manual.Page(f"{name}.8").options(group)}
    assert set(offered(name, "-")) == documented


@pytest.mark.parametrize("words, expected", [
    (["tolva-fleet", "hosts", ""], WORDS),
    (["tolva-fleet", "-q", "-t", "3", "hosts", "log"], ["LOG_ID", "LOG_TEXT"]),
    (["tolva-fleet", "-o", ""], ["json", "text", "tsv"]),
    (["tolva-fleet", "-qo", "t"], ["text", "tsv"]),
    (["tolva-fleet", "-t", ""], []),
    (["tolva-fleet", "-", "'EX"], ["EXECUTE"]),
    (["tolva-fleet", "hosts", "EXECUTE", ""], []),
    (["tolva-staged", "-f", ""], ["go-on", "stop"]),
    (["tolva-staged", "-b", ""], []),
])
def test_values_are_offered(words, expected):
    assert offered(*words) == expected


@pytest.mark.parametrize("words", [
    ["tolva-fleet"], ["tolva-fleet", "-t", "3"], ["tolva-fleet", "-r"],
    ["tolva-staged"], ["tolva-staged", "-n", "-b", "3"]])
def test_files_are_offered(tmp_path, words):
    (tmp_path / "hosts.a").touch()
    (tmp_path / "other").touch()
    assert offered(*words, "ho", cwd=tmp_path) == ["hosts.a"]


def test_the_pages_have_no_fault(tmp_path):
    mandoc = shutil.which("mandoc")
    assert mandoc, "mandoc is missing (apt-get install mandoc)"
    pages = ["tolva.8", "tolva-fleet.8", "tolva-staged.8"]
    for name in pages:
        shutil.copy(manual.DIRECTORY / name, tmp_path / name)
    done = subprocess.run([mandoc, "-Tlint", "-Wall", *pages[1:]],
                          cwd=tmp_path, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, check=False)
    assert (done.stdout, done.returncode) == ("", 0)
