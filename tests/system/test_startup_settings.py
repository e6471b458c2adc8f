"""Start-up of listen mode with settings that are unusable, or missing."""

import errno
import os
import signal

import pytest

from harness import message, reason
from ports import free_port, tcp_listens
from waiting import wait_for


@pytest.mark.parametrize("config, args, text", [
    ({}, ["-c", "/no/such.cfg"], "error reading configfile /no/such.cfg"),
    ({}, ["-cx", "nosuch.cfg"], "error reading configfile nosuch.cfg"),
    ({}, ["-a", "127.0.0.1", "-bs", ""],
     "missing parameter: -bs <file> (-? for help)."),
    ({"AllowedAddresses": "127.0.0.1"}, ["-bs", ""],
     "missing parameter: -bs <file> (-? for help)."),
    ({"AliveEnabled": "true", "AliveAddresses": "127.0.0.1"}, ["-ba", ""],
     "missing parameter: -ba <file> (-? for help)."),
    ({"RedundancyEnabled": "True"}, [],
     "invalid redundancy configuration (-? for help)."),
], ids=["no file", "no file, other letter", "no shutdown script, option",
        "no shutdown script, settings", "no alive script", "redundancy"])
@pytest.mark.parametrize("foreground", [True, False],
                         ids=["foreground", "daemon"])
def test_unusable_settings_end_the_start(home, config, args, text,
                                         foreground):
    home.configure(config, ListenAddress="127.0.0.1",
                   ListenPort=free_port())
    result = home.run("-l", *(["-d"] if foreground else []), *args)
    assert result.err == f"tolva: {text}\n"
    assert result.out == ""
    assert result.status == 1


@pytest.mark.parametrize("config", [
    {}, {"AliveEnabled": "false", "AliveAddresses": "127.0.0.2"},
    {"AliveEnabled": "true"}], ids=str)
def test_a_script_for_dead_servers_is_needed_for_servers_only(home, config):
    listener = home.listener(args=["-ba", ""], config=config)
    listener.stop()
    assert listener.err == ""


def test_without_a_message_database_the_listener_says_so_and_serves(home):
    home.path("messages.dat").unlink()
    listener = home.listener()
    home.script("tolva_execute.sh", "exit 0")
    assert home.run("-sr", "EXECUTE", "-a", listener.where).status == 0
    listener.stop()
    assert listener.err == ("tolva: error initializing messages database "
                            f"[{home.path('messages.dat')}]\n")
    assert home.log_text() == ""


def test_a_missing_settings_file_means_defaults(home):
    port = free_port()
    run = home.start("-l", "-d", "-p", f"127.0.0.1:{port}")
    wait_for(lambda: tcp_listens(port))
    assert not home.path("tolva.cfg").exists()
    os.kill(run.pid, signal.SIGTERM)
    assert run.wait().status == 0
    assert home.log_messages() == [message(756), message(757)]


def test_settings_that_are_there_but_cannot_be_opened_are_told(home):
    port = free_port()
    os.symlink("tolva.cfg", home.path("tolva.cfg"))
    run = home.start("-l", "-d", "-p", f"127.0.0.1:{port}")
    wait_for(lambda: tcp_listens(port))
    os.kill(run.pid, signal.SIGTERM)
    assert run.wait().status == 0
    assert home.log_messages() == [
        f"error: cannot read {home.path('tolva.cfg')}, the defaults hold: "
        + reason(errno.ELOOP), message(756), message(757)]


def test_a_port_in_use_ends_listen_mode(home, make_home):
    listener = home.listener()
    other = make_home()
    other.configure(ListenAddress="127.0.0.1", ListenPort=listener.port)
    result = other.run("-l", "-d")
    assert result.err == ""
    assert other.log_messages() == ["system: " + reason(errno.EADDRINUSE)]
    assert result.status != 0
    listener.stop()
