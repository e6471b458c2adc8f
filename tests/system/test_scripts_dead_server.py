"""The shipped script for a UPS server that does not answer."""

import time

import pytest

from scripthost import HOST, SCRIPTS

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
