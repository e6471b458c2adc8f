"""tolva-action: which actions are enabled, and by what."""

import os
import shutil
import signal
import stat
import subprocess

import pytest

import manual
from harness import ROOT

COMMAND = ROOT / "share" / "bin" / "tolva-action"
SHIPPED = ROOT / "share" / "actions"


class Actions:
    """A directory of shipped actions, and one of those that are enabled."""

    def __init__(self, tmp):
        self.shipped = tmp / "shipped"
        self.enabled = tmp / "home" / "actions.d"
        self.enabled.mkdir(parents=True)
        self.shipped.mkdir()
        for name in ("one", "two"):
            self.write(self.shipped, name)
        self.env = {"PATH": "/usr/bin:/bin", "TOLVA_SHIPPED": str(self.shipped),
                    "TOLVAHOME": str(tmp / "home")}

    @staticmethod
    def write(directory, name, text="", mode=0o755):
        path = directory / name
        path.write_text(f"#!/bin/sh\n# Does {name}.\n{text}")
        path.chmod(mode)
        return path

    def run(self, *args, **popen):
        return subprocess.run(
            [COMMAND, *args], env=self.env, stdin=subprocess.DEVNULL,
            capture_output=True, text=True, timeout=60, **popen)

    def states(self):
        done = self.run("list")
        assert (done.returncode, done.stderr) == (0, "")
        return {line.split()[1]: line.split()[0]
                for line in done.stdout.splitlines()}


@pytest.fixture
def actions(tmp_path):
    return Actions(tmp_path)


def test_an_action_is_enabled_by_a_copy(actions):
    done = actions.run("enable", "one")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "one is enabled\n", "")
    copy = actions.enabled / "one"
    status = copy.lstat()
    assert stat.S_ISREG(status.st_mode)
    assert status.st_mode & 0o7777 == 0o755
    assert (status.st_uid, status.st_gid) == (os.getuid(), os.getgid())
    assert status.st_nlink == 1
    assert copy.read_bytes() == (actions.shipped / "one").read_bytes()
    assert os.listdir(actions.enabled) == ["one"]
    assert actions.states() == {"one": "enabled", "two": "off"}


def test_the_mode_of_a_copy_does_not_depend_on_that_of_the_user(actions):
    actions.run("enable", "one", umask=0o077)
    assert (actions.enabled / "one").stat().st_mode & 0o7777 == 0o755


def test_the_directory_is_made(actions):
    actions.enabled.rmdir()
    assert actions.run("enable", "one", umask=0o077).returncode == 0
    assert actions.enabled.stat().st_mode & 0o777 == 0o755


def test_enabling_twice_changes_nothing(actions):
    actions.run("enable", "one")
    before = (actions.enabled / "one").stat()
    done = actions.run("enable", "one")
    assert (done.returncode, done.stdout) == (0, "one is enabled already\n")
    after = (actions.enabled / "one").stat()
    assert (after.st_ino, after.st_ctime_ns) == (before.st_ino,
                                                 before.st_ctime_ns)


def test_several_are_enabled_at_once_and_one_that_is_none_is_named(actions):
    done = actions.run("enable", "one", "three", "two")
    assert done.returncode == 1
    assert done.stderr == (
        f"tolva-action: there is no action three in {actions.shipped}\n")
    assert sorted(os.listdir(actions.enabled)) == ["one", "two"]


def test_an_action_of_ones_own_is_never_lost(actions):
    mine = actions.write(actions.enabled, "one", "echo mine\n")
    for what in ("enable", "disable"):
        done = actions.run(what, "one")
        assert done.returncode == 1
        assert f"{what} -f" in done.stderr
        assert mine.read_text().endswith("echo mine\n")
    assert actions.states()["one"] == "differs"
    assert actions.run("enable", "-f", "one").returncode == 0
    assert actions.states()["one"] == "enabled"


def test_after_an_upgrade_the_old_copy_is_known_as_such(actions):
    actions.run("enable", "one")
    actions.write(actions.shipped, "one", "echo new\n")
    assert actions.states()["one"] == "differs"


def test_disabling_deletes_the_copy_and_nothing_else(actions):
    actions.run("enable", "one", "two")
    done = actions.run("disable", "one")
    assert (done.returncode, done.stdout) == (0, "one is disabled\n")
    assert os.listdir(actions.enabled) == ["two"]
    assert (actions.shipped / "one").exists()
    again = actions.run("disable", "one")
    assert (again.returncode, again.stdout) == (0, "one is not enabled\n")


def test_ones_own_is_disabled_only_when_that_is_wanted(actions):
    actions.write(actions.enabled, "mine")
    assert actions.states()["mine"] == "own"
    assert actions.run("disable", "mine").returncode == 1
    assert actions.run("disable", "-f", "mine").returncode == 0
    assert os.listdir(actions.enabled) == []


@pytest.mark.parametrize("what", ["link", "broken link", "mode"])
def test_what_the_listener_never_runs_is_said(actions, what):
    path = actions.enabled / "one"
    if what == "mode":
        actions.write(actions.enabled, "one", mode=0o644)
    else:
        path.symlink_to(actions.shipped / ("one" if what == "link" else "x"))
    assert actions.states()["one"] == "unusable"
    assert actions.run("show", "one").returncode == 1
    assert actions.run("enable", "one").returncode == 1
    assert actions.run("enable", "-f", "one").returncode == 0
    assert actions.states()["one"] == "enabled"
    assert (actions.shipped / "one").read_text().endswith("# Does one.\n")


def test_a_directory_is_left_alone(actions):
    (actions.enabled / "one").mkdir()
    for words in (["enable", "-f", "one"], ["disable", "-f", "one"]):
        assert actions.run(*words).returncode == 1
    assert os.listdir(actions.enabled / "one") == []


def test_the_list_says_what_each_is_for(actions):
    actions.write(actions.enabled, "mine")
    assert actions.run("list").stdout.splitlines() == [
        "own       mine             Does mine.",
        "off       one              Does one.",
        "off       two              Does two."]


def test_show_shows_what_would_run(actions):
    assert actions.run("show", "one").stdout == (
        f"# one: not enabled; {actions.shipped}/one is\n"
        "#!/bin/sh\n# Does one.\n")
    actions.write(actions.enabled, "one", "echo mine\n")
    shown = actions.run("show", "one").stdout
    assert shown.startswith("# one: enabled, but not as shipped; "
                            f"{actions.enabled}/one is\n#!/bin/sh\n")
    assert "\n# what was changed in it:\n" in shown
    assert "\n+echo mine\n" in shown
    assert actions.run("show", "three").returncode == 1


@pytest.mark.parametrize("name", [
    "../one", "/bin/sh", "", ".", "..", ".one", "-x", "o ne", "one/", "o;e",
    "one\n", "*"])
@pytest.mark.parametrize("what", ["enable", "disable", "show"])
def test_a_name_never_leads_elsewhere(actions, what, name):
    done = actions.run(what, "-f", name) if what != "show" else \
        actions.run(what, name)
    assert done.returncode == 2
    assert os.listdir(actions.enabled) == []


@pytest.mark.parametrize("words", [
    [], ["start", "one"], ["enable"], ["disable", "-f"], ["show"],
    ["show", "one", "two"], ["list", "one"], ["-x"]])
def test_wrong_usage_is_said_and_does_nothing(actions, words):
    done = actions.run(*words)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("tolva-action: ")
    assert "usage: tolva-action list\n" in done.stderr


@pytest.mark.parametrize("word", ["-h", "-?", "--help"])
def test_help_is_no_error(actions, word):
    done = actions.run(word)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("usage: tolva-action list\n")


def test_a_full_disk_leaves_nothing_behind(actions):
    """The new copy cannot be written: the old one stays."""
    old = actions.write(actions.enabled, "one", "echo mine\n")
    before = old.read_text()
    actions.write(actions.shipped, "one", "#" * 200000)

    def no_room():
        import resource
        resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)

    done = actions.run("enable", "-f", "one", preexec_fn=no_room)
    assert done.returncode == 1
    assert "one could not be copied" in done.stderr
    assert old.read_text() == before
    assert os.listdir(actions.enabled) == ["one"]


def test_it_works_without_a_path_and_with_closed_descriptors(actions):
    del actions.env["PATH"]

    def closed():
        for descriptor in (0, 1, 2):
            os.close(descriptor)

    done = subprocess.run([COMMAND, "enable", "one"], env=actions.env,
                          timeout=60, preexec_fn=closed)
    assert done.returncode == 0
    assert (actions.enabled / "one").read_bytes() == (
        actions.shipped / "one").read_bytes()


def test_all_that_are_shipped_can_be_enabled(actions):
    actions.env["TOLVA_SHIPPED"] = str(SHIPPED)
    names = sorted(path.name for path in SHIPPED.iterdir())
    assert actions.run("enable", *names).returncode == 0
    assert actions.states() == dict.fromkeys(names, "enabled")


def test_it_is_plain_shell():
    shellcheck = shutil.which("shellcheck")
    assert shellcheck, "shellcheck is missing (apt-get install shellcheck)"
    files = [*(ROOT / "share" / "bin").iterdir(), *SHIPPED.iterdir(),
             *(ROOT / "share" / "lib").iterdir()]
    done = subprocess.run([shellcheck, "-x", *files], cwd=ROOT, text=True,
                          stdout=subprocess.PIPE, check=False)
    assert (done.stdout, done.returncode) == ("", 0)


# --- the manual ---------------------------------------------------------------


def test_the_examples_of_the_manual_work_as_they_stand(home):
    page = manual.Page("tolva-action.8")
    examples = page.displays("run")
    names = home.dir / "names"
    names.mkdir()
    (names / "tolva-action").symlink_to(COMMAND)
    (home.home / "actions.d").mkdir()
    script = "set -e\n" + "".join(examples.values())
    done = home.start(
        "-c", script, program="/bin/sh",
        env={"PATH": f"{names}:{os.environ['PATH']}",
             "TOLVA_SHIPPED": str(SHIPPED)}).wait()
    assert (done.status, done.err) == (0, "")
    assert list(examples) == ["list", "show", "enable", "disable"]
    assert "stop-services is enabled\n" in done.out
    assert os.listdir(home.home / "actions.d") == []
