"""The shipped scripts, with stand-ins for the commands that they call.

They are started as the listener starts them: through "sh -c", with the
parameters unquoted, SIGCHLD blocked, and SIGHUP and SIGPIPE ignored.
"""

import os
import shutil
import time

import pytest

from scripthost import ALL, HOST, SCRIPTS


# --- all --------------------------------------------------------------------


@pytest.mark.parametrize("name", ALL)
def test_script_is_executable_and_plain_shell(name):
    script = SCRIPTS / name
    assert os.access(script, os.X_OK)
    assert script.read_text().startswith("#!/bin/sh\n")


def test_the_six_scripts_are_all_there_are():
    assert sorted(x.name for x in SCRIPTS.iterdir()) == sorted(ALL)


# --- shutdown ---------------------------------------------------------------


def test_shutdown_announces_then_starts_the_shutdown(host):
    ran = host.run("tolva_shutdown.sh")
    assert ran.status == 0
    assert host.names() == ["logger", "wall", "shutdown"]
    logger, wall, shutdown = host.calls()
    text = f"The UPS asks for a shutdown: {HOST} goes down in 2 minutes."
    assert logger.args == ["-t", "tolva", "-p", "daemon.crit", "--", text]
    assert wall.args == [] and wall.input == text + "\n"
    assert shutdown.args == ["-h", "+2", text]
    assert ran.out == text + "\n"


def test_shutdown_starts_sbin_shutdown_unless_told_otherwise():
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert "\nSHUTDOWN=${TOLVA_SHUTDOWN:-/sbin/shutdown}\n" in text


def test_shutdown_delay_is_set_at_the_top(host, tmp_path):
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert text.index("\nDELAY=2\n") < 700
    changed = tmp_path / "tolva_shutdown.sh"
    changed.write_text(text.replace("\nDELAY=2\n", "\nDELAY=17\n"))
    changed.chmod(0o755)
    host.scripts = tmp_path
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.calls("shutdown")[0].args[:2] == ["-h", "+17"]
    assert "in 17 minutes" in host.calls("wall")[0].input


def test_shutdown_tells_the_reason_as_one_line(host):
    host.run("tolva_shutdown.sh", "'battery\nlow\033[2J' '$(id)' '`id`'")
    said = host.calls("wall")[0].input
    assert said.endswith(" (battery low [2J $(id) `id`)\n")
    assert said.count("\n") == 1
    assert len(host.calls("shutdown")[0].args) == 3


def test_shutdown_takes_no_option_from_the_sender(host):
    host.run("tolva_shutdown.sh", "-c -r now")
    assert host.calls("shutdown")[0].args[:2] == ["-h", "+2"]
    assert host.calls("shutdown")[0].args[2].endswith("(-c -r now)")


def test_shutdown_passes_the_exit_status_on(host):
    host.fails("shutdown", 7)
    assert host.run("tolva_shutdown.sh").status == 7


def test_shutdown_goes_on_when_nobody_can_be_told(host):
    host.fails("wall", 1)
    host.fails("logger", 1)
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["logger", "wall", "shutdown"]


def test_shutdown_works_without_wall_logger_and_timeout(host):
    host.without("wall", "logger", "sendmail")
    (host.bin / "timeout").unlink()
    ran = host.run("tolva_shutdown.sh")
    assert (ran.status, ran.err) == (0, "")
    assert host.names() == ["shutdown"]


def test_shutdown_announces_without_timeout(host):
    host.without()
    (host.bin / "timeout").unlink()
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["logger", "wall", "shutdown"]


def test_shutdown_bounds_the_announcement(host):
    timeout = host.bin / "timeout"
    timeout.write_text('#!/bin/sh\nshift; echo "$1" >>"$STANDIN/bounded"\n')
    timeout.chmod(0o755)
    assert host.run("tolva_shutdown.sh").status == 0
    assert host.names() == ["shutdown"]
    assert (host.record / "bounded").read_text() == "logger\nwall\n"


def test_rehearsal_only_says_what_would_be_done(host):
    (host.home / "rehearsal").write_text("")
    ran = host.run("tolva_shutdown.sh", "battery low")
    assert ran.status == 0
    assert host.names() == ["logger", "logger"]
    lines = ran.out.splitlines()
    assert [x.args[-1] for x in host.calls()] == lines
    assert lines[0].startswith("rehearsal, nothing is shut down: The UPS asks")
    assert lines[0].endswith("(battery low)")
    assert lines[1] == (
        f"rehearsal, would run: {host.bin}/shutdown -h +2")


def test_rehearsal_holds_for_a_dangling_link_too(host):
    (host.home / "rehearsal").symlink_to("nowhere")
    host.run("tolva_shutdown.sh")
    assert host.calls("shutdown") == []


def test_rehearsal_file_is_looked_for_in_etc_by_default():
    text = (SCRIPTS / "tolva_shutdown.sh").read_text()
    assert "\nREHEARSAL=${TOLVAHOME:-/etc/tolva}/rehearsal\n" in text


@pytest.mark.parametrize("in_seconds, mode, ordered", [
    (30, "poweroff", False),    # a repeated request begins no new delay
    (30, "halt", False),
    (-30, "poweroff", False),
    (3600, "poweroff", True),   # the operator's own, which is too late
    (30, "reboot", True),       # comes up again on an empty battery
])
def test_shutdown_leaves_one_that_is_under_way_alone(host, in_seconds, mode,
                                                     ordered):
    host.schedule(in_seconds, mode)
    ran = host.run("tolva_shutdown.sh")
    assert ran.status == 0
    assert bool(host.calls("shutdown")) == ordered
    assert bool(host.calls("wall")) == ordered
    assert ("already under way" in ran.out) == (not ordered)


@pytest.mark.parametrize("text", [
    "", "garbage", "USEC=\nMODE=poweroff\n", "USEC=soon\nMODE=poweroff\n",
    "MODE=poweroff\n", "USEC=1000000000000000\n"])
def test_shutdown_is_ordered_when_the_schedule_makes_no_sense(host, text):
    host.scheduled.write_text(text)
    ran = host.run("tolva_shutdown.sh")
    assert (ran.status, ran.err) == (0, "")
    assert len(host.calls("shutdown")) == 1


# --- notalive ---------------------------------------------------------------

SILENT = "192.0.2.7 11/16/2026 02:24:18"


def stamp(host, server="192.0.2.7"):
    return host.state / f"notalive.{server}"


def test_notalive_tells_the_administrator(host):
    ran = host.run("tolva_notalive.sh", SILENT)
    text = (f"The UPS server 192.0.2.7 does not answer {HOST} "
            "(11/16/2026 02:24:18).")
    assert ran.status == 0
    assert host.names() == ["logger", "sendmail"]
    logger, mail = host.calls()
    assert logger.args == ["-t", "tolva", "-p", "daemon.warning", "--", text]
    assert mail.args == ["-oi", "--", "root"]
    headers, body = mail.input.split("\n\n", 1)
    assert headers.splitlines() == [
        "To: root", "Subject: UPS server 192.0.2.7 does not answer",
        "Auto-Submitted: auto-generated"]
    assert body.splitlines()[0] == text
    assert "after 240 minutes" in body


def test_notalive_never_shuts_down(host):
    for server in range(1, 6):
        host.run("tolva_notalive.sh", f"192.0.2.{server} 11/16/2026 02:24:18")
    assert host.calls("shutdown") == []
    lines = (SCRIPTS / "tolva_notalive.sh").read_text().splitlines()
    code = [x for x in lines if not x.startswith("#")]
    for word in ("/sbin/shutdown", "poweroff", "tolva_shutdown", "halt "):
        assert not any(word in x for x in code)


def test_notalive_reports_a_silent_server_once(host):
    for _ in range(4):
        assert host.run("tolva_notalive.sh", SILENT).status == 0
    assert host.names() == ["logger", "sendmail"]


def test_notalive_reports_each_server(host):
    for server in ("192.0.2.7", "192.0.2.8", "192.0.2.7", "192.0.2.8"):
        host.run("tolva_notalive.sh", f"{server} 11/16/2026 02:24:18")
    assert len(host.calls("sendmail")) == 2


@pytest.mark.parametrize("ago, told", [
    (14300, False),     # still in the quiet time
    (14401, True),      # the quiet time is over
    (-3600, True),      # the clock was wrong then
])
def test_notalive_reports_again_after_the_quiet_time(host, ago, told):
    host.state.mkdir()
    stamp(host).write_text(f"{int(time.time()) - ago}\n")
    assert host.run("tolva_notalive.sh", SILENT).status == 0
    assert bool(host.calls("sendmail")) == told
    if told:
        assert abs(int(stamp(host).read_text()) - time.time()) < 120


@pytest.mark.parametrize("text", ["", "x", "-5", "08", "1 2", "$(id)"])
def test_notalive_reports_when_its_memory_is_damaged(host, text):
    host.state.mkdir()
    stamp(host).write_text(text)
    ran = host.run("tolva_notalive.sh", SILENT)
    assert (ran.status, ran.err) == (0, "")
    assert len(host.calls("sendmail")) == 1


def test_notalive_keeps_its_memory_to_itself(host):
    host.run("tolva_notalive.sh", SILENT)
    assert host.state.stat().st_mode & 0o777 == 0o700
    assert stamp(host).stat().st_mode & 0o777 == 0o600


def test_notalive_without_a_memory_tells_only_the_log(host):
    host.state.write_text("a file where the directory should be")
    for _ in range(2):
        ran = host.run("tolva_notalive.sh", SILENT)
        assert ran.status == 1
    assert host.names() == ["logger"] * 4
    assert "cannot be written" in host.calls()[1].args[-1]


def test_notalive_tries_a_failed_mail_again(host):
    host.fails("sendmail", 75)
    assert host.run("tolva_notalive.sh", SILENT).status == 1
    host.fails("sendmail", 0)
    assert host.run("tolva_notalive.sh", SILENT).status == 0
    assert host.run("tolva_notalive.sh", SILENT).status == 0
    assert len(host.calls("sendmail")) == 2


def test_notalive_uses_the_terminals_where_there_is_no_mail(host):
    host.without("sendmail")
    assert host.run("tolva_notalive.sh", SILENT).status == 0
    assert host.names() == ["logger", "wall"]
    assert host.calls("wall")[0].input.startswith("The UPS server 192.0.2.7 ")


def test_notalive_works_without_any_way_to_tell(host):
    host.without("sendmail", "wall", "logger")
    ran = host.run("tolva_notalive.sh", SILENT)
    assert (ran.status, ran.err) == (0, "")
    assert ran.out.startswith("The UPS server 192.0.2.7 does not answer")


@pytest.mark.parametrize("params", [
    "", "''", "../../etc/passwd d t", "'a b' d t", "'1\nBcc: x' d t",
    "'$(id)' d t", "'*' d t"])
def test_notalive_refuses_what_is_no_address(host, params):
    ran = host.run("tolva_notalive.sh", params)
    assert ran.status == 2
    assert ran.err == "usage: tolva_notalive.sh <address> <date> <time>\n"
    assert host.calls() == []
    assert not host.state.exists()


def test_notalive_makes_no_header_of_date_and_time(host):
    host.run("tolva_notalive.sh", "192.0.2.7 '1\nBcc: x@y' '2\n\nz'")
    headers, body = host.calls("sendmail")[0].input.split("\n\n", 1)
    assert "Bcc" not in headers
    assert "(1 Bcc: x@y 2  z)." in body.splitlines()[0]


# --- execute ----------------------------------------------------------------

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


# --- message ----------------------------------------------------------------


def test_message_goes_to_the_terminals(host):
    assert host.run("tolva_message.sh", "UPS on battery").status == 0
    (wall,) = host.calls()
    assert (wall.name, wall.args) == ("wall", [])
    assert wall.input == "UPS on battery\n"


@pytest.mark.parametrize("text", [
    "/etc/passwd", "-n", "--help", "-e a", "%s%n", "back\\nslash", "äöü"])
def test_message_is_shown_as_it_stands(host, text):
    assert host.run("tolva_message.sh", f"'{text}'").status == 0
    (wall,) = host.calls()
    assert (wall.args, wall.input) == ([], text + "\n")


def test_message_steers_no_terminal(host):
    host.run("tolva_message.sh", "'a\033]0;b\007\nc\177'")
    assert host.calls()[0].input == "a ]0;b  c \n"


@pytest.mark.parametrize("params", ["", "''"])
def test_message_without_text_is_refused(host, params):
    ran = host.run("tolva_message.sh", params)
    assert ran.status == 2
    assert ran.err == "usage: tolva_message.sh <text>\n"
    assert host.calls() == []


def test_message_returns_the_status_of_wall(host):
    host.fails("wall", 3)
    assert host.run("tolva_message.sh", "x").status == 3


# --- mail -------------------------------------------------------------------


def mail_of(host):
    (mail,) = host.calls()
    assert mail.name == "sendmail"
    headers, body = mail.input.split("\n\n", 1)
    return mail.args, headers.splitlines(), body


def test_mail_goes_to_the_recipient_with_the_text(host):
    assert host.run("tolva_mail.sh", 'ops "Battery  low"').status == 0
    args, headers, body = mail_of(host)
    assert args == ["-oi", "--", "ops"]
    assert headers == [
        "To: ops", f"Subject: Message from {HOST}",
        "Auto-Submitted: auto-generated", "MIME-Version: 1.0",
        "Content-Type: text/plain; charset=utf-8",
        "Content-Transfer-Encoding: 8bit"]
    assert body == "Battery  low\n"


@pytest.mark.parametrize("text", [
    "To: x@y", ".", "Bcc: x@y\n\nBcc: z", "%s %d\\n", "-f x", "", "äöü"])
def test_mail_text_is_only_ever_text(host, text):
    assert host.run("tolva_mail.sh", f"ops '{text}'").status == 0
    args, headers, body = mail_of(host)
    assert args == ["-oi", "--", "ops"]
    assert len(headers) == 6
    assert body == text + "\n"


def test_mail_without_text_is_sent(host):
    assert host.run("tolva_mail.sh", "ops").status == 0
    assert mail_of(host)[2] == "\n"


@pytest.mark.parametrize("recipient", [
    "ops@example.org", "first.last+tag@example.org", "o'brien"])
def test_mail_recipient_is_taken_as_given(host, recipient):
    host.run("tolva_mail.sh", f'"{recipient}" x')
    args, headers, _ = mail_of(host)
    assert args[-1] == recipient
    assert headers[0] == f"To: {recipient}"


@pytest.mark.parametrize("params", [
    "", "''", "'ops\nBcc: x@y' text", "'ops\rBcc: x@y' text", "'ops\n' text",
    "'\nops' text", "'ops\033' text", "-t text", "-Ctricky.cf text"])
def test_mail_recipient_injects_neither_header_nor_option(host, params):
    ran = host.run("tolva_mail.sh", params)
    assert ran.status == 2
    assert ran.err == "usage: tolva_mail.sh <recipient> [<text>]\n"
    assert host.calls() == []


def test_mail_returns_the_status_of_sendmail(host):
    host.fails("sendmail", 75)
    assert host.run("tolva_mail.sh", "ops x").status == 75


@pytest.mark.parametrize("script, params, command", [
    ("tolva_mail.sh", "ops x", "sendmail"), ("tolva_message.sh", "x", "wall")])
@pytest.mark.parametrize("logged", [True, False])
def test_script_says_what_this_host_lacks(host, script, params, command,
                                          logged):
    host.without(command, *([] if logged else ["logger"]))
    ran = host.run(script, params)
    text = f"{script}: this host has no {command} command"
    assert (ran.status, ran.err) == (69, text + "\n")
    assert [x.args[-1] for x in host.calls()] == ([text] if logged else [])


# --- suppressed shutdown ----------------------------------------------------


def test_suppressed_shutdown_is_announced_and_nothing_else(host):
    ran = host.run("ShutdownSuppressed.sh")
    assert ran.status == 0
    assert host.names() == ["logger", "wall"]
    logger, wall = host.calls()
    assert logger.args[:-1] == ["-t", "tolva", "-p", "daemon.warning", "--"]
    assert f"shutdown of {HOST}" in logger.args[-1]
    assert "held back" in logger.args[-1]
    assert wall.args == [] and wall.input == logger.args[-1] + "\n"
    assert ran.out == wall.input


def test_suppressed_shutdown_is_no_failure_when_nobody_can_be_told(host):
    host.fails("wall", 1)
    assert host.run("ShutdownSuppressed.sh").status == 0


def test_suppressed_shutdown_needs_nobody_to_tell(host):
    host.without("wall", "logger")
    ran = host.run("ShutdownSuppressed.sh")
    assert (ran.status, ran.err) == (0, "")
