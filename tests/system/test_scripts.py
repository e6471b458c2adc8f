"""The shipped scripts: what they have in common, and the ones that tell people
something."""

import os

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


@pytest.mark.parametrize("script, params, level", [
    ("tolva_mail.sh", "ops x", 3), ("tolva_message.sh", "x", 3),
    ("tolva_execute.sh", "x", 3), ("tolva_notalive.sh", "192.0.2.1 d t", 4),
    ("ShutdownSuppressed.sh", "", 4)])
def test_the_journal_has_each_line_once_with_its_level(host, script, params,
                                                       level):
    host.without("sendmail", "wall")
    (host.bin / "stat").symlink_to("/usr/bin/stat")
    said = host.run_in_journal(script, params).splitlines()
    assert len(said) == 1
    assert said[0].startswith(f"<{level}>")
    assert host.calls("logger") == []


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
