"""examples/ansible, run against hosts of Debian 12 (tools/ansible-test)."""

import re
import shlex

import pytest
import yaml

from hosts import EXAMPLE

SETTINGS = "/etc/tolva/tolva.cfg"
LISTENER = "127.7.0.1:16103"
ONLY_LISTENER = ("--limit", "web1")


def main_process(site):
    return site.listener.says("systemctl", "show", "-P", "MainPID", "tolva")


def is_refused(site, task, **variables):
    """The run fails at that task, and the listener is as it was."""
    host = site.listener
    before = host.text(SETTINGS), main_process(site)
    played = site.play(*ONLY_LISTENER, **variables)
    assert played.status != 0, played.said
    # In front of a description of ours stand words of Ansible.
    assert played.failed_at().split(" - ")[-1] == task, played.said
    assert (host.text(SETTINGS), main_process(site)) == before
    return played.said


def test_a_dry_run_on_bare_hosts_succeeds_and_changes_nothing(site):
    assert site.dry.status == 0, site.dry.said
    assert site.dry.total("failed") == 0
    assert site.dry.total("changed") > 0
    assert site.was_there == [False, False]


def test_the_first_run_changes_both_hosts_and_the_second_neither(site):
    assert set(site.first.recap) == {"web1", "ups1"}
    assert all(counts["changed"] > 0 for counts in site.first.recap.values())
    assert all(counts["changed"] == 0 and counts["ok"] > 0
               for counts in site.second.recap.values()), site.second.said


def test_a_dry_run_on_hosts_that_are_set_up_finds_nothing_to_change(site):
    dry = site.play("--check")
    assert (dry.status, dry.total("changed")) == (0, 0), dry.said


def test_a_dry_run_shows_a_change_and_does_not_make_it(site):
    before = site.listener.text(SETTINGS), main_process(site)
    dry = site.play("--check", "--diff", *ONLY_LISTENER,
                    tolva_settings={"LogfileSize": 77})
    assert dry.status == 0, dry.said
    assert "+LogfileSize=77" in dry.said
    assert dry.total("changed") > 0
    assert (site.listener.text(SETTINGS), main_process(site)) == before


def test_the_listener_runs_with_the_settings_of_the_inventory(site):
    host = site.listener
    assert host.says("systemctl", "is-active", "tolva") == "active"
    assert host.says("systemctl", "is-enabled", "tolva") == "enabled"
    in_force = dict(
        line.split(" #")[0].split("=", 1) for line in
        host.says("tolva-checkconf", "-p", "-H", "/etc/tolva").splitlines()
        if " #" in line)
    wanted = {"AllowedAddresses": "127.0.0.1", "ListenAddress": "127.7.0.1",
              "ListenPort": "16103", "ListenUDP": "FALSE",
              "LogfileSize": "4096",
              "LogfileName": "/var/log/tolva/tolva.log"}
    assert {key: in_force[key].strip() for key in wanted} == wanted


def test_a_sender_without_a_listener_listens_to_nobody(site):
    assert site.sender.run("systemctl", "is-active", "tolva")[0] != 0


def test_the_senders_list_reaches_the_listener_and_nothing_goes_down(site):
    assert LISTENER in site.sender.text("/etc/tolva/hosts")
    status, said = site.sender.run("tolva-shutdown")
    assert status == 42, said
    assert re.search(rf"{LISTENER}.* answers", said), said
    status, said = site.sender.run(
        "tolva", "-sr", "SHUTDOWN 'rehearsal'", "-a", LISTENER)
    assert status == 169, said
    assert all(host.is_up() for host in site.hosts)


@pytest.mark.parametrize("settings, said", [
    ({"ListenTimeuot": 5}, "is unknown and is ignored"),
    ({"AliveEnabled": True, "AliveAddresses": "192.0.2.10,192.0.2.11"},
     "holds a comma"),
    ({"ListenUDP": "yes"}, "is taken as FALSE"),
    ({"ShutdownProg": "/etc/tolva/missing.sh"}, "put a script there"),
])
def test_settings_with_a_mistake_are_not_put_in_place(site, settings, said):
    out = is_refused(
        site, "Put the settings in place, if tolva-checkconf finds no error",
        tolva_settings=settings)
    assert re.search(rf"tolva\.cfg:\d+: error: [^\n]*{said}", out), out


@pytest.mark.parametrize("addresses", [[], ["", " "]])
def test_a_listener_that_names_no_sender_is_refused(site, addresses):
    out = is_refused(
        site, "See whether somebody is named who may shut this host down",
        tolva_allowed_addresses=addresses)
    assert "names nobody who may shut web1 down" in out


def test_settings_cannot_name_senders_past_the_variable_for_them(site):
    is_refused(site, "See whether somebody is named who may shut this host "
               "down", tolva_settings={"AllowedAddresses": ""})


def test_an_address_that_is_none_is_refused(site):
    out = is_refused(
        site, "Put the settings in place, if tolva-checkconf finds no error",
        tolva_allowed_addresses=["192.0.2.0/24"])
    assert "networks cannot be named" in out


def test_a_variable_of_the_wrong_type_is_refused_before_anything_is_done(site):
    is_refused(site, "Listener and sender of shutdown requests from a UPS",
               tolva_rehearsal="perhaps")


def test_new_settings_are_in_force_at_once(site):
    before = main_process(site)
    try:
        played = site.set_up(tolva_listen_port=16104)
        assert played.recap["web1"]["changed"] > 0
        assert main_process(site) != before
        status, said = site.sender.run("tolva-shutdown")
        assert status == 42, said
        assert re.search(r"127\.7\.0\.1:16104.* answers", said), said
    finally:
        site.set_up()
    assert site.sender.run("tolva-shutdown")[0] == 42


def test_settings_are_checked_also_when_another_user_has_brought_them(site):
    """As Ansible does that logs in as somebody else than root."""
    host = site.listener
    command = validation()
    host.says("cp", SETTINGS, "/var/tmp/brought.cfg")
    host.says("chown", "nobody", "/var/tmp/brought.cfg")
    assert "belongs to user" in host.run(
        "tolva-checkconf", "-H", "/etc/tolva", "/var/tmp/brought.cfg")[1]
    host.says(*command("/var/tmp/brought.cfg"))
    host.says("sh", "-c", "echo Nonsense=1 >>/var/tmp/brought.cfg")
    status, said = host.run(*command("/var/tmp/brought.cfg"))
    assert status == 1 and "is unknown" in said
    assert host.says("find", "/tmp", "-name", "tolva.cfg") == ""
    host.says("rm", "/var/tmp/brought.cfg")


def validation():
    """The role's command for a file, as Ansible splits it into words."""
    variables = yaml.safe_load(
        (EXAMPLE / "roles" / "tolva" / "vars" / "main.yml").read_text())
    return lambda path: shlex.split(variables["tolva_validate"] % path)


def test_actions_are_enabled_and_disabled(site):
    def state(action):
        return re.search(rf"^(\w+) +{action}\b",
                         site.listener.says("tolva-action", "list"),
                         re.M).group(1)
    assert state("stop-services") == "enabled"
    assert state("wake-hosts") == "off"
    try:
        site.set_up(*ONLY_LISTENER, tolva_actions=["wake-hosts"],
                    tolva_actions_off=["stop-services"])
        assert state("stop-services") == "off"
        assert state("wake-hosts") == "enabled"
    finally:
        site.set_up(*ONLY_LISTENER)
    assert state("stop-services") == "enabled"
    assert state("wake-hosts") == "off"


def test_an_action_of_your_own_can_be_run(site, tmp_path):
    action = tmp_path / "say-hello"
    action.write_text("#!/bin/sh\nexit 7\n")
    try:
        site.set_up(*ONLY_LISTENER, tolva_own_actions=[str(action)])
        status, _ = site.sender.run(
            "tolva", "-sr", "EXECUTE say-hello", "-a", LISTENER)
        assert status == 127 + 7
    finally:
        site.listener.says("tolva-action", "disable", "-f", "say-hello")


def test_the_packet_filter_is_loaded_now_and_at_the_next_start(site):
    host = site.listener
    rules = host.says("nft", "list", "table", "inet", "tolva")
    assert "elements = { 127.0.0.1 }" in rules
    assert "dport 16103 drop" in rules
    assert host.says("systemctl", "is-enabled", "nftables") == "enabled"
    assert host.text("/etc/nftables.conf").count("/etc/nftables/*.nft") == 1
    host.says("nft", "-c", "-f", "/etc/nftables.conf")


def test_rules_of_others_survive_a_change_of_ours(site):
    host = site.listener
    host.says("nft", "add", "table", "inet", "other")
    try:
        site.set_up(*ONLY_LISTENER,
                    tolva_allowed_addresses=["127.0.0.1", "192.0.2.10"])
        assert "192.0.2.10" in host.says(
            "nft", "list", "table", "inet", "tolva")
        host.says("nft", "list", "table", "inet", "other")
    finally:
        host.says("nft", "delete", "table", "inet", "other")
        site.set_up(*ONLY_LISTENER)
    assert "192.0.2.10" not in host.says(
        "nft", "list", "table", "inet", "tolva")


def test_upsmon_gets_its_lines_once_and_is_not_started(site):
    lines = site.sender.text("/etc/nut/upsmon.conf").splitlines()
    for line in ('SHUTDOWNCMD "/usr/bin/tolva-shutdown -w 180"',
                 "NOTIFYCMD /sbin/upssched",
                 "NOTIFYFLAG ONBATT SYSLOG+EXEC",
                 "NOTIFYFLAG ONLINE SYSLOG+EXEC"):
        word = line.rsplit(maxsplit=1)[0].split('"')[0].strip()
        assert [li for li in lines if li.startswith(word)] == [line]
    assert "START-TIMER five-minutes 300" in \
        site.sender.text("/etc/nut/upssched.conf")
    assert "SHUTDOWN '5 min on battery'" in \
        site.sender.text("/etc/nut/tolva-sched")
    assert site.sender.path("/etc/nut/tolva-sched").stat().st_mode & 0o777 \
        == 0o755
    assert site.sender.run("systemctl", "is-active", "nut-monitor")[0] != 0


def test_requests_go_through_tls_when_it_is_switched_on(site):
    try:
        # With one address for all, stunnel is where the listener was.
        first = site.set_up("--diff", tolva_tls=True)
        assert "PRIVATE KEY" not in first.said
        assert all(c["changed"] > 0 for c in first.recap.values())
        second = site.set_up(tolva_tls=True)
        assert second.total("changed") == 0, second.said
        assert "127.6.0.1:16003  # web1" in \
            site.sender.text("/etc/tolva/hosts")
        status, said = site.sender.run(
            "tolva", "-sr", "SHUTDOWN 'rehearsal'", "-a", "127.6.0.1:16003")
        assert status == 169, said
        assert "ListenAddress=127.0.0.1\n" in site.listener.text(SETTINGS)
        # Past stunnel nobody listens, and not everybody may go there.
        assert site.sender.run(
            "tolva", "-sr", "LOG_TEXT x", "-a", LISTENER)[0] == 1
        assert site.listener.run(
            "runuser", "-u", "nobody", "--",
            "tolva", "-sr", "LOG_TEXT x", "-a", "127.0.0.1:16103")[0] == 1
        for host, key in ((site.listener, "host.pem"),
                          (site.sender, "sender.pem")):
            assert host.says("stat", "-c", "%a %U",
                             f"/etc/stunnel/tolva/{key}") == "600 root"
            assert not host.path("/etc/stunnel/tolva/ca.key").exists()
    finally:
        for host, unit in ((site.listener, "stunnel@tolva-host"),
                           (site.sender, "stunnel@tolva-sender")):
            host.run("systemctl", "disable", "--now", unit)
        site.set_up()
    assert site.sender.run("tolva-shutdown")[0] == 42


def test_no_run_has_shut_anything_down(site):
    assert all(host.is_up() for host in site.hosts)
    for host in site.hosts:
        assert "Shutdown" not in host.says("journalctl", "-b", "-u", "tolva")
        assert host.run("test", "-e", "/run/systemd/shutdown/scheduled")[0]


def test_a_chroot_is_set_up_too_and_nothing_is_started_there(chroots):
    assert chroots.first.total("changed") > 0
    assert chroots.second.total("changed") == 0, chroots.second.said
    host = chroots.listener
    assert "ListenPort=16103\n" in host.text(SETTINGS)
    assert host.says("systemctl", "is-enabled", "tolva") == "enabled"
    assert not host.path("/var/log/tolva/tolva.log").exists()


def test_apcupsd_gets_its_scripts(chroots):
    host = chroots.sender
    for name in ("doshutdown", "onbattery", "offbattery", "tolva-tell"):
        assert host.path(f"/etc/apcupsd/{name}").stat().st_mode & 0o777 == \
            0o755
    assert "tolva-shutdown -w '180'" in host.text("/etc/apcupsd/doshutdown")
    host.says("sh", "-n", "/etc/apcupsd/doshutdown")
