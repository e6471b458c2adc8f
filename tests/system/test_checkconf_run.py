"""How tolva-checkconf is started, what it prints, and how it ends."""

import errno
import os
import pty
import re
import shutil
import subprocess

import pytest

import preload
from checkconf import CHECKCONF, CLEAN, NO_NAME, House
from harness import ROOT, message, reason, skip_when_wrapped, wrapper
from waiting import wait_for

USAGE = "usage: tolva-checkconf [-o] [-p] [-H home] [file]\n"


@pytest.fixture
def house(home):
    return House(home)


# --- arguments ----------------------------------------------------------------


@pytest.mark.parametrize("args, text", [
    (["-x"], "unknown option `-x'"), (["-ox"], "unknown option `-x'"),
    (["-H"], "a word is missing behind `-H'"),
    (["-H", "relative"], "the home is no absolute path: `relative'"),
    (["a", "b"], "more than one file: `b'"),
    ([""], "an empty name for the file: `'"),
    (["--help"], "unknown option `--'"),
])
def test_wrong_usage_is_told_with_the_right_one(house, args, text):
    result = house.check(*args)
    assert (result.status, result.out) == (2, "")
    assert result.err.startswith(f"tolva-checkconf: {text}\n{USAGE}")


@pytest.mark.parametrize("option", ["-?", "-h"])
def test_help_is_no_mistake(house, option):
    result = house.check(option)
    assert (result.status, result.err) == (0, "")
    assert result.out.startswith(USAGE)


def test_the_home_of_the_option_comes_before_that_of_the_environment(house):
    other = house.home.dir / "other"
    result = house.check("-H", other)
    assert result.status == 1
    assert result.err.startswith(f"{other}/tolva.cfg:0: error: there is no")


def test_a_relative_home_of_the_environment_is_refused(house):
    result = house.check(env={"TOLVAHOME": "relative"})
    assert (result.status, result.err) == (
        1, "tolva-checkconf: `$TOLVAHOME' (relative): Not an absolute path\n")


def test_a_file_is_looked_for_where_it_is_named(house):
    house.settings("nonsense\n" + CLEAN, "other.cfg")
    findings = [(1, "error", "`nonsense' is no setting")]
    house.expect(findings, house.path("other.cfg"))
    house.expect(findings, "other.cfg")
    assert house.found() == []


def test_without_a_home_it_is_the_directory_of_the_executable(home, tmp_path):
    """Unless the build has one."""
    program = shutil.copy(CHECKCONF, tmp_path / "checker")
    result = home.run(program=str(program), tolvahome=False)
    assert result.status in (0, 1)
    match = re.match(r"(.*)/tolva\.cfg:0: error: there is no", result.err)
    assert match[1] in (str(tmp_path), "/etc/tolva")


# --- the settings in force ----------------------------------------------------


def test_the_settings_in_force_are_printed_with_where_they_are_from(house):
    house.settings(f"# a comment\n{CLEAN}ListenPort=6010 # TCP\n"
                   "AliveRetries=\nMailProg=/bin/true -x\n")
    result = house.check("-p")
    assert result.status == 0
    shown = dict(line.split("=", 1) for line in result.out.splitlines())
    path = house.path("tolva.cfg")
    assert shown["AllowedAddresses"] == f"192.0.2.10 # {path}:2"
    assert shown["ListenPort"] == f"6010 # {path}:4"
    assert shown["AliveRetries"] == "0 # default"
    assert shown["MailProg"] == f"/bin/true -x # {path}:6"
    assert shown["ExecProg"] == f"{house.path('tolva_execute.sh')} # default"
    assert shown["AliveAddresses"] == " # default"
    table = (ROOT / "src" / "tolva2" / "files" / "settings.cpp").read_text()
    keys = re.findall(r'^    (?:number|text|file)\("(\w+)"', table, re.M)
    assert list(shown) == keys


def test_what_is_printed_is_a_settings_file_that_means_the_same(house):
    house.settings(f"{CLEAN}AliveInterval=90\nListenTimeout=7\n"
                   "AliveAddresses=192.0.2.10 192.0.2.11\n")

    def values(text):
        return [line.partition(" # ")[0] for line in text.splitlines()]

    first = house.check("-p").out
    house.settings(first, "printed.cfg")
    assert values(house.check("-p", "printed.cfg").out) == values(first)


def test_the_last_of_two_lines_and_the_least_interval_are_in_force(house):
    house.settings(f"{CLEAN}AliveInterval=90\nAliveInterval=5\n")
    result = house.check("-p")
    assert result.status == 1
    assert f"AliveInterval=60 # {house.path('tolva.cfg')}:4\n" in result.out


def test_nothing_is_printed_of_what_is_no_settings_file(house):
    house.settings(CLEAN.encode("utf-16"))
    result = house.check("-p")
    assert (result.status, result.out) == (1, "")


def test_settings_that_cannot_be_printed_are_an_error(house):
    run = house.home.start("-c", f'exec "{CHECKCONF}" -p >/dev/full',
                           program="/bin/sh")
    result = run.wait()
    assert result.status == 1
    assert "the settings cannot be printed: No space left" in result.err


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", "<&- >&- 2>&-"])
def test_closed_descriptors_change_no_verdict(house, closed):
    command = f'exec "{CHECKCONF}" {closed}'
    good = house.home.start("-c", command, program="/bin/sh").wait()
    assert good.status == 0
    house.settings("ListenUDP=FALSE\n")
    bad = house.home.start("-c", command, program="/bin/sh").wait()
    assert bad.status == 1


def test_a_reader_who_has_gone_changes_no_verdict(house):
    house.settings("ListenUDP=FALSE\n")
    command = f'{{ "{CHECKCONF}" 2>&1; echo $? >status; }} | true'
    house.home.start("-c", command, program="/bin/sh").wait()
    wait_for(lambda: house.path("status").exists() and
             house.home.read("status"))
    assert house.home.read("status") == b"1\n"


def test_control_characters_do_not_reach_the_terminal(house):
    house.settings(f"{CLEAN}\x1b[2J\x07=1\n")
    result = house.check()
    assert "\x1b" not in result.err and "\x07" not in result.err
    assert "the key ?[2J? is unknown" in result.err


def test_a_terminal_is_told_what_is_looked_up(house):
    """What takes long shows on a terminal, and is wiped off again."""
    house.settings(f"ListenUDP=FALSE\nAllowedAddresses={NO_NAME}\n")
    plain = house.check()
    ours, theirs = pty.openpty()
    try:
        done = subprocess.run([*wrapper(), str(CHECKCONF)], stderr=theirs,
                              env=house.home.environment(), check=False)
        seen = os.read(ours, 65536).decode().replace("\r\n", "\n")
    finally:
        os.close(ours)
        os.close(theirs)
    assert done.returncode == 1
    assert seen == f"\r\x1b[Klooking up {NO_NAME}\r\x1b[K{plain.err}"


# --- trouble ------------------------------------------------------------------

# The allocation with that number fails, and all behind it if so wanted. The
# file tells whether there was one.
NO_MEMORY = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
static int count;
static int fails(void) {
    const char *which = getenv("FAILS");
    if (!which || ++count != atoi(which))
        return 0;
    int fd = open(getenv("FAILED"), O_WRONLY | O_CREAT | O_APPEND, 0600);
    (void)!write(fd, "x", 1);
    close(fd);
    errno = ENOMEM;
    return 1;
}
#define REAL(name) __typeof__(name) *real = \\
    (__typeof__(name) *)dlsym(RTLD_NEXT, #name)
void *malloc(size_t size) {
    REAL(malloc);
    return fails() ? 0 : real(size);
}
void *calloc(size_t n, size_t size) {
    REAL(calloc);
    return fails() ? 0 : real(n, size);
}
char *strdup(const char *text) {
    size_t size = strlen(text) + 1;
    char *copy = malloc(size);
    return copy ? memcpy(copy, text, size) : 0;
}
FILE *fopen(const char *path, const char *mode) {
    REAL(fopen);
    return fails() ? 0 : real(path, mode);
}
FILE *fdopen(int fd, const char *mode) {
    REAL(fdopen);
    return fails() ? 0 : real(fd, mode);
}
ssize_t getline(char **line, size_t *size, FILE *file) {
    REAL(getline);
    return fails() ? -1 : real(line, size, file);
}
char *realpath(const char *path, char *into) {
    REAL(realpath);
    return fails() ? 0 : real(path, into);
}
"""


def test_no_lack_of_memory_passes_for_no_error(house):
    """Each allocation fails in turn.  What could do without it, such as a
    stream that has a smaller buffer then, finds all the same; all else ends
    with status 1."""
    skip_when_wrapped("the wrapper has allocations of its own")
    if b"__asan_init" in CHECKCONF.read_bytes():
        pytest.skip("a sanitizer has allocations of its own")
    house.settings("ListenUDP=TRUE\nAllowedAddresses=192.0.2.11 192.0.2.10\n"
                   "AliveEnabled=TRUE\nAliveAddresses=192.0.2.11 192.0.2.10\n"
                   "RedundancyEnabled=TRUE\nRedundancyLevel=1\n"
                   "RedundancyAddresses=192.0.2.11 192.0.2.10\nMailProg=\n")
    library = preload.build("nomemory", NO_MEMORY)
    failed = house.home.dir / "failed"
    refused = 0
    whole = house.check()
    assert (whole.status, whole.err.count("warning: ")) == (0, 2)
    for number in range(1, 2000):
        env = preload.environment(house.home, library, FAILS=str(number),
                                  FAILED=str(failed))
        result = house.home.start(program=str(CHECKCONF), env=env).wait()
        if not failed.exists():
            break
        failed.unlink()
        if (result.status, result.err) == (0, whole.err):
            continue
        assert (number, result.status) == (number, 1), result
        assert re.fullmatch(
            rf"(.*\n)*tolva-checkconf: .*{reason(errno.ENOMEM)}\n"
            r"|(.*\n)*.*: error: .*\n(.*\n)*", result.err), (number, result)
        refused += 1
    assert 50 < number < 1999
    assert refused > number / 2


# --- the listener does just that ----------------------------------------------


@pytest.fixture
def listening(house):
    """A listener that has 127.0.0.1 to be asked from."""
    house.home.settings = {}
    return house


def test_a_misspelt_list_admits_whom_it_does_not_name(listening):
    home = listening.home
    listener = home.listener(config={"AllowedAdresses": "192.0.2.10"})
    assert home.run("-sr", "EXECUTE", "-a", listener.where).status == 0
    found = listening.found()
    assert [(line, words.partition(" is")[0]) for line, _, words in found] == [
        (0, "AllowedAddresses"), (3, "the key AllowedAdresses")]
    listener.stop()


def test_a_list_of_nobody_admits_nobody(listening):
    home = listening.home
    listener = home.listener(config={"AllowedAddresses": NO_NAME,
                                     "ListenUDP": "FALSE"})
    assert home.run("-sr", "EXECUTE", "-a", listener.where).status != 0
    listening.expect([(3, "error", "is the name of no host"),
                      (3, "error", "so nobody is admitted")])
    listener.stop()


def test_a_truth_value_that_is_none_is_false(listening):
    home = listening.home
    listener = home.listener(config={"AllowedAddresses": "127.0.0.1",
                                     "ListenUDP": "yes"})
    listener.wait_message(message(756))
    assert message(821) not in home.log_messages()
    assert (4, "error", "ListenUDP=yes is taken as FALSE: write TRUE or FALSE"
            ) in listening.found()
    listener.stop()


@pytest.mark.parametrize("body, status", [("#!/no/such/shell\n", 127),
                                          ("#!/bin/sh\r\n", 127)])
def test_a_script_without_its_interpreter_is_not_run(listening, body, status):
    home = listening.home
    home.write("tolva_execute.sh", body)
    listener = home.listener(config={"AllowedAddresses": "127.0.0.1",
                                     "ListenUDP": "FALSE"})
    sent = home.run("-sr", "EXECUTE", "-a", listener.where)
    assert sent.status == status + 127
    assert [kind for _, kind, text in listening.found()
            if "tolva_execute.sh" in text] == ["error"]
    listener.stop()
