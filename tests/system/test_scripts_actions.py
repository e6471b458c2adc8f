"""The shipped script that runs an action of the administrator."""

import shutil

import pytest

from scripthost import SCRIPTS

SHOW = 'for p in "$0" "$@"; do echo "[$p]"; done\n'


def test_execute_runs_the_action_with_its_parameters(host):
    file = host.action("backup", SHOW)
    ran = host.run("tolva_execute.sh", "backup now \"a  b\" '*' '' '$HOME'")
    assert ran.status == 0
    assert ran.out == f"[{file}]\n[now]\n[a  b]\n[*]\n[]\n[$HOME]\n"


@pytest.mark.parametrize("status", [0, 1, 2, 77, 255])
def test_execute_returns_the_exit_status_of_the_action(host, status):
    host.action("job", f"exit {status}\n")
    assert host.run("tolva_execute.sh", "job").status == status


def test_execute_names_the_actions_when_asked_for_an_unknown_one(host):
    host.action("restart-web", "")
    host.action("backup", "")
    host.action("notes.txt", "", mode=0o644)
    ran = host.run("tolva_execute.sh", "backp")
    assert ran.status == 2
    text = (f'no action "backp" in {host.home}/actions.d; '
            "there is: backup restart-web")
    assert ran.err == f"tolva_execute.sh: {text}\n"
    assert [x.args[-1] for x in host.calls("logger")] == [text]


@pytest.mark.parametrize("make", [True, False])
def test_execute_says_when_there_are_no_actions(host, make):
    if make:
        (host.home / "actions.d").mkdir()
    ran = host.run("tolva_execute.sh", "backup")
    assert ran.status == 2
    assert ran.err.endswith("; there is: nothing\n")


@pytest.mark.parametrize("name", [
    "../outside", "actions.d/../../outside", "./good", "sub/inner", "..", ".",
    "/bin/true", "-good", ".hidden", "''", "' good'", "'good\n'", "'good;id'",
    "'a\nb'", "'a\033[2Jb'",
    "'*'", "'go?d'", "'$(echo good)'", ""])
def test_execute_never_leaves_its_directory(host, name):
    trace = 'echo ran >>"$STANDIN/ran"\n'
    host.action("good", trace)
    host.action(".hidden", trace)
    host.action("-good", trace)
    outside = host.home / "outside"
    outside.write_text("#!/bin/sh\n" + trace)
    outside.chmod(0o755)
    sub = host.home / "actions.d" / "sub"
    sub.mkdir()
    shutil.copy(outside, sub / "inner")
    ran = host.run("tolva_execute.sh", name)
    assert ran.status == 2
    assert not (host.record / "ran").exists()
    assert ran.err.endswith("; there is: good\n")
    assert ran.err[:-1].isprintable()


def test_execute_does_not_follow_links_out_of_its_directory(host):
    outside = host.home / "outside"
    outside.write_text("#!/bin/sh\nexit 0\n")
    outside.chmod(0o755)
    (host.home / "actions.d").mkdir()
    (host.home / "actions.d" / "link").symlink_to(outside)
    ran = host.run("tolva_execute.sh", "link")
    assert ran.status == 2
    assert ran.err.endswith("; there is: nothing\n")


@pytest.mark.parametrize("what", ["file", "directory"])
def test_execute_runs_only_executable_files(host, what):
    host.action("good", "")
    if what == "file":
        host.action("other", "exit 0\n", mode=0o644)
    else:
        (host.home / "actions.d" / "other").mkdir()
    assert host.run("tolva_execute.sh", "other").status == 2


def test_execute_finds_actions_in_etc_by_default():
    text = (SCRIPTS / "tolva_execute.sh").read_text()
    assert "\nACTIONS=${TOLVAHOME:-/etc/tolva}/actions.d\n" in text


def test_execute_works_without_logger(host):
    host.without("logger")
    ran = host.run("tolva_execute.sh", "x")
    assert ran.status == 2
    assert ran.err.count("\n") == 1
