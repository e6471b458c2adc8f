"""The static executable in a root directory that holds nothing else, but its
own home: no C library, no shell, no /dev, no /etc."""

import os
import shutil

import pytest

from harness import TOLVA
from upsserver import answers
from wire import LOGGED, STATUS


@pytest.fixture
def inside(home):
    """How to run it in there: options for start(), run() and listener()."""
    root = home.dir / "root"
    root.mkdir()
    home.home = home.home.rename(root / "home")
    shutil.copy(TOLVA, root / "tolva")
    enter = ["chroot", str(root)]
    if os.getuid() != 0:
        enter = ["unshare", "-r", *enter]
    yield {"program": "/tolva", "prefix": enter,
           "env": {"TOLVAHOME": "/home"}}
    assert sorted(os.listdir(root)) == ["home", "tolva"]


def test_the_help(home, inside):
    result = home.run("-?", **inside)
    assert result.status == 0
    assert " common options:" in result.out
    assert result.err == ""


def test_a_sender_has_a_listener_log(home, inside):
    listener = home.listener(**inside)
    sent = home.run("-sr", "LOG_TEXT from nowhere", "-a", listener.where,
                    **inside)
    assert sent.status == 0
    assert home.log_messages().count("from nowhere") == 1
    assert listener.request(STATUS + b"LOG_TEXT again") == LOGGED
    listener.stop()


def test_a_script_without_a_shell_fails_and_nothing_else(home, inside):
    home.script("tolva_execute.sh")
    listener = home.listener(**inside)
    reply = listener.request(STATUS + b"EXECUTE x")
    assert b" EXITSTATUS=" in reply
    assert not reply.endswith(b" EXITSTATUS=0")
    assert listener.request(STATUS + b"LOG_TEXT on") == LOGGED
    listener.stop()


def test_a_check_of_a_server(home, inside):
    server = home.server(answers(b"0|0", b"0|0"))
    result = home.run("-sc", "-a", server.where, **inside)
    assert result.status == 0
    assert b" LOGON" in server.only()
    assert b" LOGOFF" in server.only()
