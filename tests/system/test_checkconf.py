"""What tolva-checkconf finds: a scene for each row of its manual's tables.

In a scene nothing else is wrong, and nothing else is found.
"""

import dataclasses
import os
import re
import shutil
import typing

import pytest

import manual
import preload
from checkconf import CLEAN, NO_NAME, SCRIPTS, House
from harness import ROOT, message_arguments
from namespaces import private_network

PAGE = manual.Page("tolva-checkconf.8")
ROWS = [(words, kind) for kind in ("error", "warning")
        for words, _ in PAGE.table(f"{kind}s")]

# The lines of two members that are watched and may send; the next is 6.
MEMBERS = ("ListenUDP=FALSE\nAllowedAddresses=192.0.2.10 192.0.2.11\n"
           "AliveEnabled=TRUE\nAliveAddresses=192.0.2.10 192.0.2.11\n"
           "RedundancyEnabled=TRUE\n")
TWO = "RedundancyAddresses=192.0.2.10 192.0.2.11\n"


@dataclasses.dataclass
class Scene:
    """The settings, what is done to the house, and where the finding is."""

    settings: typing.Optional[str] = None
    line: int = 0
    prepare: typing.Callable = lambda house: None
    options: typing.Callable = lambda house: {}  # of the run
    more: tuple = ()    # what is found besides: (line, kind, words)
    times: int = 1


def third(line, **more):
    """That line behind those of a house without faults."""
    return Scene(f"{CLEAN}{line}\n", 3, **more)


def sixth(*lines, line=6, **more):
    return Scene(MEMBERS + "".join(f"{one}\n" for one in lines), line, **more)


def allowed(words, **more):
    return Scene(f"ListenUDP=FALSE\nAllowedAddresses=192.0.2.10 {words}\n", 2,
                 **more)


def raw(content, line=1):
    return Scene(None, line, lambda house: house.home.write(
        "tolva.cfg", content).chmod(0o644))


def with_script(body, name="tolva_execute.sh", mode=0o755, **more):
    def prepare(house):
        house.home.write(name, body).chmod(mode)
    return Scene(prepare=prepare, **more)


def without(name):
    return lambda house: house.path(name).unlink()


def replaced_by_directory(name):
    def prepare(house):
        without(name)(house)
        house.path(name).mkdir(mode=0o755)
    return prepare


def give_away(house):
    if os.getuid() == 0:
        os.chown(house.path("tolva_execute.sh"), 12345, 12345)


def as_somebody_else(house):
    """Who is not root runs the check as another, to whom nothing belongs."""
    if os.getuid() == 0:
        return {}
    return {"env": preload.environment(house.home, preload.build(
        "somebody", "unsigned geteuid(void) { return 4242; }"))}


def failing(call):
    """The call fails for want of something, by whichever name: it has another
    where files and times are wider than words."""
    source = "#include <errno.h>\n" + "".join(
        f"long {name}() {{ errno = EIO; return -1; }}\n"
        for name in (call, f"__{call}64_time64"))
    return lambda house: {"env": preload.environment(
        house.home, preload.build(f"no_{call}", source))}


def read_only_log(house):
    """Runs it where the directory "log" is only to be read."""
    mount = ('mount --bind "$0" "$0" && mount -o remount,ro,bind "$0" && '
             'exec "$@"')
    return {"prefix": [*private_network(), "sh", "-c", mount,
                       str(house.path("log"))]}


def make_log(house):
    house.path("log").mkdir()
    house.home.write("log/tolva.log", "")
    house.settings(f"{CLEAN}LogfileName={house.path('log')}/tolva.log\n")


def accounts(text):
    """Runs it where these are the accounts of the host."""
    def options(house):
        (house.home.dir / "passwd").write_text(text)
        mount = 'mount --bind "$0" /etc/passwd && exec "$@"'
        return {"prefix": [*private_network(), "sh", "-c", mount,
                           str(house.home.dir / "passwd")]}
    return options


ROOT_ALONE = "root:x:0:0:root:/root:/bin/bash\n"
SERVICES = ROOT_ALONE + "www:x:33:33::/var/www:/usr/sbin/nologin\n" \
    "build:x:1001:1001::/srv:/usr/sbin/nologin\n" \
    "nobody:x:65534:65534::/:/bin/sh\n"
ODD_LINES = "#joe:x:1000:1000::/home/joe:/bin/bash\n\nof:no:account\n" \
    ":\nbeyond:x:99999999999:1::/:/bin/sh\n+\nroot:x:0:0:root:/root:/bin/bash"
USERS = ROOT_ALONE + "joe:x:1000:1000:Joe:/home/joe:/bin/bash\n"

SCENES = {
    # the file
    "there is no such file": Scene(prepare=without("tolva.cfg")),
    "the file cannot be read": Scene(prepare=lambda house: (
        without("tolva.cfg")(house),
        house.path("tolva.cfg").symlink_to("tolva.cfg"))),
    "this is a directory": Scene(prepare=replaced_by_directory("tolva.cfg")),
    "this is no regular file": Scene(prepare=lambda house: (
        without("tolva.cfg")(house),
        os.mkfifo(house.path("tolva.cfg"), 0o644))),
    "the file is empty": raw("", 0),
    "is UTF-16": raw(CLEAN.encode("utf-16")),
    "begins with a byte order mark": raw(CLEAN.encode("utf-8-sig")),
    "the file holds NUL bytes": raw(f"{CLEAN}Listen\0Port=1\n", 3),
    # Who is not root owns all of it, with two directories.
    "belongs to user": Scene(prepare=give_away, options=as_somebody_else,
                             times=1 if os.getuid() == 0 else 8),
    "can be written to by": Scene(
        prepare=lambda house: house.path("tolva.cfg").chmod(0o664)),
    "cannot be looked at": Scene(options=failing("lstat")),
    # its lines
    "is no setting": third("ListenPort : 6003"),
    "keys are case-sensitive": third("listenPort=6003"),
    "is unknown and is ignored": third("ListenPrt=6003"),
    "stands in line": Scene(f"{CLEAN}ListenPort=6003\n\nListenPort=6004\n", 5),
    "the line is longer than": third("#" * 4095),
    # who may send
    "is not set, so everybody": Scene("ListenUDP=FALSE\n"),
    "holds no address that can be used": Scene(
        f"ListenUDP=FALSE\nAllowedAddresses={NO_NAME}\n", 2,
        more=((2, "error", "is the name of no host"),)),
    "is the name of no host": allowed(NO_NAME),
    "holds a comma or semicolon": allowed("192.0.2.11,192.0.2.12"),
    "holds a quote": allowed('"192.0.2.11"'),
    "networks cannot be named": allowed("192.0.2.0/24"),
    "is an IPv6 address": allowed("2001:db8::1"),
    "is no name of a host": allowed("192.0.2.*"),
    "names no host": allowed(":6003"),
    "has a port, which means nothing here": allowed("192.0.2.11:6003"),
    "has no port from 1 to 65535": third(
        "AliveAddresses=192.0.2.10:577o\nAliveEnabled=TRUE"),
    "four decimal numbers": allowed("192.0.2.011"),
    "is the address of no host": allowed("0.0.0.0"),
    # numbers and words
    "is taken as every address": third("ListenAddress=localhost"),
    "cannot be listened at": third("ListenAddress=192.0.2.1"),
    "cannot be tried": third("ListenAddress=127.0.0.1",
                             options=failing("socket")),
    "is no number": third("ListenPort=6O03"),
    "is taken as port": third("ListenPort=99999"),
    "is any port that the system chooses": third("AlivePort=0"),
    "drops every sender at once": third("ListenTimeout=-1"),
    "is taken as 60": third("AliveInterval=59"),
    "which is for ever": third("AliveRetries=-1"),
    "forgets what has just happened": third("LogfileSize=15"),
    "holds nothing back": third("RedundancyLevel=-1"),
    "is more than makes sense": third("ListenTimeout=86401"),
    "is taken as FALSE": third("AliveEnabled=yes"),
    # scripts, actions, log, texts
    "put a script there": Scene(prepare=without("tolva_shutdown.sh")),
    "is not found": third("ExecProg=no-such-program-anywhere"),
    "a quote without its end": third('ExecProg="/bin/true'),
    "is no file: write": Scene(
        prepare=replaced_by_directory("tolva_mail.sh")),
    "cannot be run": Scene(
        prepare=lambda house: house.path("tolva_mail.sh").chmod(0o644)),
    "is to be run by": with_script("#!/no/such/shell\n"),
    "ends its lines as Windows does": with_script("#!/bin/sh\r\nexit 0\r\n"),
    "begins with a byte order mark, so": with_script(
        b"\xef\xbb\xbf#!/bin/sh\n"),
    "is empty and does nothing": with_script(""),
    "cannot be read:": Scene(options=failing("read"), times=4),
    "cannot be looked into": Scene(
        prepare=lambda house: house.home.write("actions.d", "")),
    "depends on where": third("MsgDatName=messages.dat"),
    "the log cannot be written in": third("LogfileName=/no/such/tolva.log"),
    "cannot be written": Scene(None, 3, make_log, read_only_log),
    "is no file: name": Scene(prepare=lambda house:
                              house.path("tolva.log").mkdir()),
    "so the log stays empty": Scene(prepare=without("messages.dat")),
    "has no line for": Scene(
        prepare=lambda house: house.texts(without=(756,))),
    # redundancy
    "is on, but nothing is watched": third("AliveEnabled=TRUE"),
    "so the listener does not start": third("RedundancyEnabled=TRUE"),
    "is a name, and a member": sixth(
        "RedundancyAddresses=192.0.2.10 192.0.2.11 " + NO_NAME,
        "RedundancyLevel=1", more=((6, "error", "is the name of no host"),)),
    "addresses, and only the first": Scene(
        "".join(f"{key}={' '.join(f'192.0.2.{n}' for n in range(1, 32))}\n"
                for key in ("AllowedAddresses", "AliveAddresses",
                            "RedundancyAddresses")) +
        "ListenUDP=FALSE\nAliveEnabled=TRUE\nRedundancyEnabled=TRUE\n"
        "RedundancyLevel=29\n", 3),
    "stands there twice": sixth(
        "RedundancyAddresses=192.0.2.10 192.0.2.11 192.0.2.10",
        "RedundancyLevel=1"),
    "may not send": Scene(
        MEMBERS.replace(" 192.0.2.11", "", 1) + TWO + "RedundancyLevel=1\n",
        6),
    "nothing is known of": Scene(
        MEMBERS.replace("AliveAddresses=192.0.2.10 ", "AliveAddresses=") +
        TWO + "RedundancyLevel=1\n", 6),
    "is ever let through": sixth(TWO.strip(), "RedundancyLevel=2", line=7),
    "is let through at once": sixth(TWO.strip(), line=0),
    "and is not run": sixth(
        TWO.strip(), "RedundancyLevel=1",
        f"RedundancyBatchFile=/bin/true {'x' * 502}", line=8),
    # warnings
    "has no value, and so its default": third("MailProg="),
    "do what root can: take it away": allowed("127.0.0.1",
                                              options=accounts(USERS)),
    "can be forged": Scene("AllowedAddresses=192.0.2.10\n"),
    "is there, so that no shutdown": Scene(
        prepare=lambda house: house.path("rehearsal").symlink_to("nowhere")),
    "never drops a sender": third("ListenTimeout=0"),
    "lets the log grow": third("LogfileSize=0"),
    "cannot be checked": third("ExecProg=$TOLVAHOME/tolva_execute.sh"),
    "is older than the program": Scene(
        prepare=lambda house: house.texts(without=(842,))),
    "is set, but nothing is watched": third(
        "AliveAddresses=192.0.2.10"),
    "but no shutdown is held back": third(TWO.strip()),
}


@pytest.fixture
def house(home):
    return House(home)


def test_there_is_a_scene_for_each_row_of_the_manual():
    assert sorted(SCENES) == sorted(words for words, _ in ROWS)


@pytest.mark.parametrize("words, kind", ROWS, ids=[row[0] for row in ROWS])
def test_a_row_of_the_manual(house, words, kind):
    scene = SCENES[words]
    if scene.settings is not None:
        house.settings(scene.settings)
    scene.prepare(house)
    expected = [(scene.line, kind, words)] * scene.times
    found = house.found(**scene.options(house))
    assert len(found) == len(expected) + len(scene.more), found
    for line, how, text in (*expected, *scene.more):
        assert [one for one in found
                if one[:2] == (line, how) and text in one[2]], found


def test_nothing_is_found_in_a_house_without_faults(house):
    result = house.check()
    assert (result.status, result.out, result.err) == (0, "", "")


def test_nothing_is_found_in_two_members_that_watch_each_other(house):
    house.settings(MEMBERS + TWO + "RedundancyLevel=1\n")
    assert house.found() == []


# --- what one row has more than one of ---------------------------------------


@pytest.mark.parametrize("line, meant", [
    ("AllowedAdresses=192.0.2.10", "write AllowedAddresses, if"),
    ("AllowAddresses=192.0.2.10", "write AllowedAddresses, if"),
    ("LogFileNames=/x", "write LogfileName, if"),
    ("ALLOWEDADDRESSES=192.0.2.10", "write AllowedAddresses"),
    ("Colour=blue", "tolva.cfg(5) lists the keys"),
    ("AllowedAddresses: 192.0.2.10", "write AllowedAddresses=value"),
    ("AllowedAddresses 192.0.2.10", "write AllowedAddresses=value"),
    ("allowedaddresses : 192.0.2.10", "write AllowedAddresses=value"),
    ("AllowedAddresses: a=b", "write AllowedAddresses=value"),
    ("a=1", "write Key=value, or put a # in front"),
    ("[listener]", "write Key=value, or put a # in front"),
    ("; a comment", "write Key=value, or put a # in front"),
    ("=5", "write Key=value, or put a # in front"),
])
def test_a_line_that_does_nothing_is_told_with_what_was_meant(house, line,
                                                              meant):
    house.settings(f"{CLEAN}{line}\n")
    house.expect([(3, "error", meant)])


@pytest.mark.parametrize("content", [
    CLEAN.replace("\n", "\r\n") + "\r\n# end\r\n",
    "\n \t\n# a\n" + CLEAN + "  \t", CLEAN.rstrip("\n"),
    " AllowedAddresses = 192.0.2.10 # the master\nListenUDP=false\n",
    CLEAN + "ListenPort=6003 # TCP\n",
    CLEAN + "AliveRetries=0\nListenTimeout=+5\n",
    CLEAN + "ExecProg=/bin/true\nMsgProg=true\nMailProg='/bin/true' -x\n",
    CLEAN + "LogfileName=/dev/null\n", CLEAN + "LogfileEnabled=FALSE\n"
    "LogfileName=/no/such/log\n",
    CLEAN + "ListenAddress=127.0.0.2\n", CLEAN + "ListenAddress=0.0.0.0\n",
    "ListenUDP=FALSE\nAllowedAddresses=\t192.0.2.10\t 192.0.2.11 \n",
])
def test_what_the_listener_understands_is_no_finding(house, content):
    house.settings(content)
    assert house.found() == []


@pytest.mark.parametrize("value, taken", [
    ("99999", "taken as port 34463"), ("-1", "taken as port 65535"),
    ("65537", "taken as port 1:"), ("65536", "any port that the system"),
    ("4294973299", "taken as port 65535"), ("0", "any port"),
    ("6O03", "no number and is taken as 6:"),
    ('"6003"', "no number and is taken as 0:"),
    ("0x1773", "no number and is taken as 0:"),
    ("6003 6004", "no number and is taken as 6003:")])
@pytest.mark.parametrize("key", ["ListenPort", "AlivePort"])
def test_a_port_that_is_another_one_is_told_with_that(house, key, value,
                                                      taken):
    house.settings(f"{CLEAN}{key}={value}\n")
    house.expect([(3, "error", taken)])


@pytest.mark.parametrize("key", [
    "ListenUDP", "AliveEnabled", "LogfileEnabled", "RedundancyEnabled",
    "RedundancyBatchSuppress"])
@pytest.mark.parametrize("value", ["yes", "1", "on", "TRUE.", '"TRUE"', "0"])
def test_no_truth_value_passes_for_one(house, key, value):
    house.settings(f"AllowedAddresses=192.0.2.10\n\n{key}={value}\n" +
                   ("" if key == "ListenUDP" else "ListenUDP=FALSE\n"))
    house.expect([(3, "error", f"{key}={value} is taken as FALSE")])


@pytest.mark.parametrize("key", ["ListenTimeout", "AliveInterval",
                                 "AliveRetries", "LogfileSize",
                                 "RedundancyLevel"])
def test_a_number_with_a_unit_is_none(house, key):
    house.settings(f"{CLEAN}{key}=100s\n")
    house.expect([(3, "error", f"{key}=100s is no number and is taken as 100")])


@pytest.mark.parametrize("value", ["::1", "*", "any", "127.0.0.1:6003",
                                   "eth0"])
def test_a_listen_address_that_is_none_opens_all(house, value):
    house.settings(f"{CLEAN}ListenAddress={value}\n")
    house.expect([(3, "error", "taken as every address of this host")])


@pytest.mark.parametrize("value, taken", [
    ("127.1", "127.0.0.1"), ("0177.0.0.1", "127.0.0.1"),
    ("127.0.0.1 127.0.0.2", "127.0.0.1")])
def test_a_listen_address_that_is_another_one_is_told(house, value, taken):
    house.settings(f"{CLEAN}ListenAddress={value}\n")
    house.expect([(3, "error", f"is taken as {taken}: write")])


@pytest.mark.parametrize("word, reason", [
    ("fe80::1%eth0", "is an IPv6 address"), ("[::1]:6003", "is an IPv6"),
    ("'192.0.2.7'", "holds a quote"), ("192.0.2.7;", "holds a comma"),
    ("*", "stands for none"), ("255.255.255.255", "of no host"),
    ("224.0.0.1", "the address of no host"), ("10", "taken as 0.0.0.10:"),
    ("192.0.2.7:", "has a port"), ("192.0.2.7:abc", "has a port")])
def test_a_sender_that_is_none_or_another_is_told(house, word, reason):
    house.settings(f"{CLEAN.replace('192.0.2.10', '192.0.2.10 ' + word)}")
    house.expect([(1, "error", reason)])


@pytest.mark.parametrize("port", ["0", "65536", "x", "", "-1"])
def test_a_server_with_an_impossible_port_is_told(house, port):
    house.settings(f"{CLEAN}AliveEnabled=TRUE\n"
                   f"AliveAddresses=192.0.2.10:5769 192.0.2.11:{port}\n")
    house.expect([(4, "error", "has no port from 1 to 65535")])


# --- who may send -------------------------------------------------------------


def test_everybody_may_be_wanted(house):
    house.settings("# nobody is named\n")
    house.expect([(0, "error", "AllowedAddresses is not set")])
    assert house.found("-o") == []


def test_a_key_without_a_value_is_not_set(house):
    house.settings("\nAllowedAddresses=   # later\n")
    house.expect([(2, "error", "everybody who reaches the port could do what "
                   "root can: write AllowedAddresses=<")])


def test_nobody_is_never_wanted(house):
    house.settings(f"ListenUDP=FALSE\nAllowedAddresses={NO_NAME}\n")
    house.expect([(2, "error", "is the name of no host"),
                  (2, "error", "so nobody is admitted")], "-o")


@pytest.mark.parametrize("text", [ROOT_ALONE, SERVICES, ODD_LINES],
                         ids=["root alone", "services", "odd lines"])
def test_loopback_is_right_where_there_are_no_users(house, text):
    house.settings("ListenUDP=FALSE\nAllowedAddresses=127.0.0.1\n")
    assert house.found(**accounts(text)(house)) == []


def test_a_name_is_looked_up_once(house):
    """Of a name that is in every list there is one look-up."""
    log = house.home.dir / "lookups"
    library = preload.build("lookups", """
        #include <fcntl.h>
        #include <netdb.h>
        #include <stdlib.h>
        #include <unistd.h>
        struct hostent *gethostbyname(const char *name) {
            static char bytes[4] = {(char)192, 0, 2, 10};
            static char *list[2] = {bytes, 0};
            static struct hostent found = {"x", 0, 2, 4, list};
            int fd = open(getenv("LOOKUPS"), O_WRONLY | O_CREAT | O_APPEND,
                          0600);
            (void)!write(fd, "x", 1);
            close(fd);
            return name[0] ? &found : 0;
        }""")
    house.settings("ListenUDP=FALSE\nAllowedAddresses=master\n"
                   "AliveEnabled=TRUE\nAliveAddresses=master master:5770\n")
    env = preload.environment(house.home, library, LOOKUPS=str(log))
    assert house.found(env=env) == []
    assert log.read_text() == "x"


# --- redundancy ---------------------------------------------------------------


@pytest.mark.parametrize("settings, findings", [
    # Nobody is watched at all: each counts as not alive.
    (MEMBERS.replace("AliveEnabled=TRUE", "") + TWO + "RedundancyLevel=1\n",
     [(4, "warning", "nothing is watched"),
      (6, "error", "nothing is known of any member"),
      (7, "error", "RedundancyLevel is 1, but 2 members always count as not "
       "alive, so every shutdown is let through at once")]),
    (MEMBERS + "RedundancyAddresses=192.0.2.10\nRedundancyLevel=1\n",
     [(6, "error", "has 1 member that can be used, so every shutdown is let "
       "through at once")]),
    (MEMBERS + TWO + "RedundancyLevel=3\n",
     [(7, "error", "at most 2 members can fail, so no shutdown that one of "
       "them asks for is ever let through: write a level from 1 to 1")]),
    (MEMBERS + TWO + "RedundancyLevel=0\n",
     [(7, "error", "is 0, so every shutdown is let through at once")]),
    (MEMBERS + "RedundancyAddresses=192.0.2.10:5769 192.0.2.11\n"
     "RedundancyLevel=1\n", [(6, "error", "has a port")]),
    (MEMBERS + "RedundancyAddresses=192.0.2.10 192.0.2.011\n"
     "RedundancyLevel=1\n",
     [(6, "error", "is taken as 192.0.2.9"),
      (6, "error", "may not send"), (6, "error", "nothing is known of")]),
])
def test_redundancy_that_does_nothing_is_told(house, settings, findings):
    house.settings(settings)
    house.expect(findings)


@pytest.mark.parametrize("suppress, missing", [("FALSE", True),
                                               ("TRUE", False)])
def test_the_batch_file_is_needed_when_it_is_run(house, suppress, missing):
    house.path("ShutdownSuppressed.sh").unlink()
    house.settings(MEMBERS + TWO + "RedundancyLevel=1\n"
                   f"RedundancyBatchSuppress={suppress}\n")
    house.expect([(0, "error", "ShutdownSuppressed.sh: No such file")]
                 if missing else [])


# --- scripts and files --------------------------------------------------------


@pytest.mark.parametrize("name, needed_by", [
    ("tolva_notalive.sh", "AliveEnabled=TRUE\nAliveAddresses=192.0.2.10\n"),
    ("tolva_shutdown.sh", ""), ("tolva_execute.sh", ""),
    ("tolva_message.sh", ""), ("tolva_mail.sh", "")])
def test_a_script_that_is_used_must_be_there(house, name, needed_by):
    house.path(name).unlink()
    house.settings(CLEAN + needed_by)
    house.expect([(0, "error", f"{house.path(name)}: No such file")])


@pytest.mark.parametrize("name", ["tolva_notalive.sh",
                                  "ShutdownSuppressed.sh"])
def test_a_script_that_is_not_used_may_be_missing(house, name):
    house.path(name).unlink()
    assert house.found() == []


def test_a_script_that_a_line_names_must_be_there_at_any_time(house):
    house.settings(f"{CLEAN}AliveProg=/no/such/script\n")
    house.expect([(3, "error", "/no/such/script: No such file")])


@pytest.mark.parametrize("shebang, missing", [
    ("#!/usr/bin/env no-such-language", "`no-such-language'"),
    ("#!/usr/bin/env -S A=1 no-such-language -x", "`no-such-language'"),
    ("#! /no/such/perl -w", "`/no/such/perl'"), ("#!", "`'"),
    ("#!/etc", "`/etc'")])
def test_a_script_needs_its_interpreter(house, shebang, missing):
    house.home.write("tolva_mail.sh", f"{shebang}\nexit 0\n")
    house.expect([(0, "error", f"is to be run by {missing}")])


@pytest.mark.parametrize("content", [
    "#!/usr/bin/env sh\n", "#! /bin/sh -e\n", "#!/bin/sh", "exit 0\n",
    b"\x7fELF"])
def test_a_script_with_an_interpreter_is_no_finding(house, content):
    house.home.write("tolva_mail.sh", content)
    assert house.found() == []


def test_a_blank_ends_the_name_of_a_script(house):
    path = house.home.script("a script.sh")
    house.settings(f"{CLEAN}ExecProg={path}\n")
    house.expect([(3, "error", f"{house.path('a')}: No such file")])
    house.settings(f"{CLEAN}ExecProg='{path}'\n")
    assert house.found() == []


@pytest.mark.parametrize("name", [*SCRIPTS[:4], "messages.dat", "tolva.cfg"])
@pytest.mark.parametrize("mode, who", [
    (0o775, "every user of its group"), (0o757, "everybody")])
def test_what_root_runs_or_reads_is_for_root_to_change(house, name, mode,
                                                       who):
    path = house.path(name)
    path.chmod(mode)
    house.expect([(0, "error", f"{path} can be written to by {who}, and so "
                   f"change what root does: chmod go-w {path}")])


@pytest.mark.parametrize("mode", [0o775, 0o777, 0o1777])
def test_so_are_the_directories_on_the_way(house, mode):
    house.home.home.chmod(mode)
    house.expect([(0, "error", f"{house.home.home} can be written to by")])


def test_the_directory_of_a_directory_counts_but_a_sticky_one(house):
    house.home.dir.chmod(0o1777)
    assert house.found() == []
    house.home.dir.chmod(0o777)
    house.expect([(0, "error", f"{house.home.dir} can be written to by")])


def test_links_are_followed_to_where_they_lead(house):
    elsewhere = house.home.dir / "elsewhere"
    elsewhere.mkdir()
    house.path("tolva_mail.sh").rename(elsewhere / "mail")
    house.path("tolva_mail.sh").symlink_to(elsewhere / "mail")
    elsewhere.chmod(0o755)
    assert house.found() == []
    elsewhere.chmod(0o777)
    house.expect([(0, "error", f"{elsewhere} can be written to by")])


def test_actions_are_looked_at_like_scripts(house):
    actions = house.path("actions.d")
    actions.mkdir(mode=0o755)
    actions.chmod(0o755)
    house.home.script("actions.d/good")
    house.home.write("actions.d/notes", "").chmod(0o644)
    (actions / "link").symlink_to("/no/such/file")
    assert house.found() == []
    house.home.script("actions.d/good", mode=0o775)
    house.home.write("actions.d/dos", "#!/bin/sh\r\n").chmod(0o755)
    found = house.found()
    assert len(found) == 2
    assert any(f"{actions / 'good'} can be written to" in text
               for _, _, text in found)
    assert any(f"{actions / 'dos'} ends its lines as Windows" in text
               for _, _, text in found)
    house.home.script("actions.d/good")
    (actions / "dos").unlink()
    actions.chmod(0o777)
    house.expect([(0, "error", f"{actions} can be written to by everybody, "
                   "and so replace what is in it")])


def test_a_log_that_cannot_be_made_is_told(house):
    house.path("log").mkdir()
    house.settings(f"{CLEAN}LogfileName={house.path('log')}/tolva.log\n")
    assert house.found() == []
    house.expect([(3, "error", "LogfileName: the log cannot be written in "
                   f"{house.path('log')} (Read-only file system)")],
                 **read_only_log(house))


def test_a_text_may_be_silent_but_not_missing(house):
    house.texts({835: "", 814: ""}, without=(756, 792))
    house.expect([(0, "error", "has no line for 756 792, so")])


def test_every_event_of_the_program_must_have_a_line(house):
    house.home.write("messages.dat", "m1=x\n").chmod(0o644)
    (_, first, needed), (_, second, later) = house.found()
    assert (first, second) == ("error", "warning")
    numbers = re.findall(r"(?<= )\d+", needed.partition("has no line")[2] +
                         later.partition("does not have")[2])
    assert sorted(map(int, numbers)) == sorted(message_arguments())


def test_the_shipped_files_lack_nothing_but_the_senders(house):
    """Which is one error, that says what to write."""
    share = ROOT / "share"
    for path in (share / "messages.dat", *(share / "scripts").glob("*.sh")):
        shutil.copy(path, house.path(path.name))
        house.path(path.name).chmod(0o755)
    text = re.sub("^AllowedAddresses=.*$", "#AllowedAddresses=",
                  (share / "tolva.cfg").read_text(), flags=re.M)
    house.settings(text)
    house.expect([(0, "error", "AllowedAddresses is not set, so everybody who "
                   "reaches the port could do what root can: write "
                   "AllowedAddresses=<the addresses of the hosts that send>")])
    house.settings(text.replace("#AllowedAddresses=\n",
                                "AllowedAddresses=192.0.2.10\n"))
    assert house.found() == []
