"""The actions that are ready, with commands that write down how they are
called."""

import os
import re
import subprocess
import textwrap

import pytest

import manual
from actionhost import ACTIONS, ActionHost
from harness import ROOT
from waiting import wait_for

ALL = sorted(path.name for path in ACTIONS.iterdir())
# What is not of this library.
OF_ITS_OWN = {"cancel-shutdown"}
READY = [name for name in ALL if name not in OF_ITS_OWN]
ONE = "6695eb01-f6a4-8304-79aa-97f2502e193f"
TWO = "7795eb01-f6a4-8304-79aa-97f2502e193f"


@pytest.fixture
def host(tmp_path):
    return ActionHost(tmp_path)


def complete(host):
    """Everything that any of the actions needs, and something to do."""
    host.has_systemd()
    host.group("virsh", "*list*", "*shutdown*|*destroy*", [ONE, TWO])
    host.group("qm", "list", "shutdown*", ["100", "101"])
    host.group("pct", "list", "shutdown*", ["200"])
    host.group("docker", "ps*", "stop*", ["aa11", "bb22"])
    host.group("podman", "ps*", "stop*", ["cc33"])
    host.group("zpool", "list*", "export*", ["tank", "backup"])
    for name in ("systemctl", "systemd-run", "wakeonlan", "etherwake"):
        host.tool(name)
    host.mounts("a:/b /srv/a nfs4 rw 0 0\n//c/d /srv/c cifs rw 0 0\n"
                "/dev/sda1 / ext4 rw 0 0\n")
    host.tool("umount", f': >"{host.dir}/mounts"')
    (host.dir / "power").write_text("freeze mem disk\n")
    (host.home / "stop-services.list").write_text("one\ntwo.service # x\n")
    (host.home / "wake-hosts.list").write_text("00:11:22:33:44:55\n")


# --- what they have in common -------------------------------------------------


@pytest.mark.parametrize("name", READY)
def test_an_action_is_a_short_shell_script(name):
    path = ACTIONS / name
    text = path.read_text()
    assert os.access(path, os.X_OK)
    assert text.startswith("#!/bin/sh\n# ")
    assert len(text.splitlines()) < 120
    assert "\n# exit status:\n" in text


def test_there_are_these():
    assert READY == ["containers", "export-zfs", "guests-libvirt",
                     "guests-proxmox", "stop-services", "suspend",
                     "unmount-network", "wake-hosts"]


@pytest.mark.parametrize("name", READY)
def test_the_help_is_the_comment_of_the_script(host, name):
    ran = host.run(name, "--help")
    assert (ran.status, ran.err) == (0, "")
    assert ran.out.startswith(
        (ACTIONS / name).read_text().splitlines()[1].removeprefix("# "))
    assert "--dry-run, --help\n" in ran.out
    assert host.calls() == []


CHANGES = re.compile(r"(shutdown|destroy|stop|export|umount|wakeonlan|"
                     r"etherwake|pm-suspend|systemd-run)\b")


@pytest.mark.parametrize("how", ["--dry-run", "rehearsal"])
@pytest.mark.parametrize("name", READY)
def test_nothing_is_changed_in_a_rehearsal_or_dry_run(host, name, how):
    complete(host)
    if how == "rehearsal":
        host.rehearses()
    ran = host.run(name, how if how == "--dry-run" else "")
    assert (ran.status, ran.err) == (0, "")
    would = "would run: " if how == "--dry-run" else "rehearsal, would run: "
    assert all(line.startswith(would) for line in ran.out.splitlines())
    assert CHANGES.search(ran.out.replace(would, ""))
    assert [x for x in host.calls() if CHANGES.search(x)] == []


@pytest.mark.parametrize("name", READY)
def test_what_a_dry_run_shows_is_what_is_run(host, name):
    complete(host)
    if name == "unmount-network":
        host.tool("umount", f"""
            case "$2" in *c) exit ;; esac
            : >"{host.dir}/mounts\"""")
    shown = [re.sub(r"^would run: (within \d+ )?", "", line)
             for line in host.run(name, "--dry-run").out.splitlines()]
    before = len(host.calls())
    ran = host.run(name)
    assert (ran.status, ran.err) == (0, "")
    done = [x for x in host.calls()[before:] if CHANGES.search(x)]
    assert sorted(done) == sorted(shown)


@pytest.mark.parametrize("name", READY)
def test_a_second_run_has_nothing_to_do(host, name):
    complete(host)
    assert host.run(name).status == 0
    again = host.run(name)
    assert (again.status, again.err) == (0, "")


@pytest.mark.parametrize("name", READY)
@pytest.mark.parametrize("params", [
    "--nothing", "-x", "'a b'", "'a;id'", "'$(id)'", "''", "'--wait 5'",
    "'a\nb'", "../x"])
def test_parameters_from_outside_are_refused(host, name, params):
    complete(host)
    ran = host.run(name, params)
    assert (ran.status, ran.out) == (64, "")
    assert ran.err.count("\n") == 1
    assert ran.err[:-1].isprintable()
    assert host.calls() == []


TIMED = ["containers", "export-zfs", "guests-libvirt", "guests-proxmox",
         "unmount-network"]


@pytest.mark.parametrize("name", TIMED)
@pytest.mark.parametrize("value", ["", "x", "-1", "1.5", "010", "100000",
                                   "'1 2'", "''"])
def test_seconds_are_a_number(host, name, value):
    complete(host)
    ran = host.run(name, f"--wait {value}")
    assert ran.status == 64
    assert ran.err.startswith("--wait takes seconds")
    assert host.calls() == []


LACKS = {
    "containers": "this host has neither docker nor podman",
    "export-zfs": "this host has no zpool command",
    "guests-libvirt": "this host has no virsh command",
    "guests-proxmox": "this host has neither qm nor pct",
    "stop-services": "this host has no service command",
    "suspend": "this host cannot suspend",
    "unmount-network": "this host has no umount command",
    "wake-hosts": "this host has neither wakeonlan nor etherwake",
}


@pytest.mark.parametrize("name", READY)
def test_an_action_says_what_this_host_lacks(host, name):
    (host.home / "stop-services.list").write_text("one\n")
    (host.home / "wake-hosts.list").write_text("00:11:22:33:44:55\n")
    ran = host.run(name)
    assert (ran.status, ran.out, ran.err) == (69, "", LACKS[name] + "\n")
    assert host.logged() == [
        f"logger -t tolva -p daemon.err -- {name}: {LACKS[name]}"]
    dry = host.run(name, "--dry-run")
    assert (dry.status, dry.out) == (
        0, f"would end with status 69: {LACKS[name]}\n")


@pytest.mark.parametrize("name", READY)
@pytest.mark.parametrize("closed", [(1,), (2,), (0, 1, 2)])
def test_closed_descriptors_do_no_harm(host, name, closed):
    complete(host)
    assert host.run(name, closed=closed).status == 0
    assert any(CHANGES.search(x) for x in host.calls())


@pytest.mark.parametrize("name", READY)
def test_an_action_works_without_a_path(host, name):
    """With the real library, whose commands are the system's own."""
    done = subprocess.run(
        [ACTIONS / name, "--help"], stdin=subprocess.DEVNULL, timeout=60,
        env={"TOLVA_LIB": str(ACTIONS.parent / "lib")}, capture_output=True)
    assert (done.returncode, done.stderr) == (0, b"")


# --- outside the service ------------------------------------------------------

OUTSIDE = ["containers", "export-zfs", "guests-proxmox", "unmount-network",
           "wake-hosts"]


@pytest.mark.parametrize("name", READY)
def test_what_needs_more_than_the_service_runs_as_a_unit(host, name):
    complete(host)
    del host.env["TOLVA_OUTSIDE"]
    host.tool("id", "echo 0")
    host.tool("systemd-run", '''
        while [ "$1" != -- ]; do
            case $1 in --setenv=*) export "${1#*=}" ;; --on-active*) exit ;; esac
            shift
        done
        shift
        exec "$@"''')
    ran = host.run(name)
    assert (ran.status, ran.err) == (0, "")
    units = host.calls("systemd-run")
    if name in OUTSIDE:
        assert units == [
            "systemd-run --quiet --wait --collect --pipe "
            f"--setenv=TOLVA_OUTSIDE=1 --setenv=TOLVAHOME={host.home} -- "
            f"{ACTIONS / name}"]
    elif name == "suspend":
        assert units == ["systemd-run --quiet --collect --on-active=3s "
                         "systemctl suspend"]
    else:
        assert units == []


# --- each of them -------------------------------------------------------------


def test_libvirt_guests_are_shut_down_and_never_switched_off(host):
    host.group("virsh", "*list*", "*shutdown*", [ONE, TWO], stubborn=[TWO])
    ran = host.run("guests-libvirt", "--wait 1")
    assert ran.status == 1
    assert ran.err == f"guests still run: {TWO} \n"
    assert host.things("virsh") == [TWO]
    assert not any("destroy" in x for x in host.calls())


def test_libvirt_guests_are_switched_off_when_that_is_wanted(host):
    host.group("virsh", "*list*", "*shutdown*|*destroy*", [ONE, TWO],
               stubborn=[TWO], forced="*destroy*")
    ran = host.run("guests-libvirt", "--force-after 1 --connect qemu:///system")
    assert ran.status == 0
    assert host.things("virsh") == []
    assert host.calls()[0] == "virsh -q -c qemu:///system list --uuid"
    assert [x for x in host.calls() if "destroy" in x] == [
        f"virsh -q -c qemu:///system destroy {TWO}"]


def test_a_libvirt_that_does_not_answer_is_no_success(host):
    host.tool("virsh", "exit 1")
    ran = host.run("guests-libvirt")
    assert (ran.status, ran.err) == (1, "libvirt does not answer\n")


@pytest.mark.parametrize("uri", ["''", "--wait", "'qemu:///a b'", "'x;id'",
                                 "'x$y'", "''\"'\"''"])
def test_a_uri_has_safe_characters(host, uri):
    host.group("virsh", "*list*", "*shutdown*", [ONE])
    ran = host.run("guests-libvirt", f"--connect {uri}")
    assert (ran.status, host.calls()) == (64, [])


def test_proxmox_guests_and_containers_are_shut_down(host):
    host.group("qm", "list", "shutdown*", ["100", "101"])
    host.group("pct", "list", "shutdown*", ["200"])
    ran = host.run("guests-proxmox", "--wait 7")
    assert ran.status == 0
    assert sorted(x for x in host.calls() if "shutdown" in x) == [
        "pct shutdown 200 --timeout 7", "qm shutdown 100 --timeout 7",
        "qm shutdown 101 --timeout 7"]


def test_proxmox_guests_that_stay_are_named(host):
    host.group("qm", "list", "shutdown*", ["100", "101"], stubborn=["101"])
    ran = host.run("guests-proxmox")
    assert ran.status == 1
    assert "qm: still running: 101" in ran.out


def test_proxmox_guests_are_stopped_hard_when_that_is_wanted(host):
    host.group("qm", "list", "shutdown*", ["100"])
    assert host.run("guests-proxmox", "--force-after 9").status == 0
    assert "qm shutdown 100 --timeout 9 --forceStop 1" in host.calls()


def test_the_other_proxmox_tool_is_used_when_one_fails(host):
    host.tool("qm", "exit 1")
    host.group("pct", "list", "shutdown*", ["200"])
    ran = host.run("guests-proxmox")
    assert ran.status == 1
    assert "qm cannot list what runs" in ran.out
    assert host.things("pct") == []


def test_containers_of_both_are_stopped(host):
    host.group("docker", "ps*", "stop*", ["aa11", "bb22"])
    host.group("podman", "ps*", "stop*", ["cc33"])
    assert host.run("containers", "--wait 5").status == 0
    assert [x for x in host.calls() if "stop" in x] == [
        "docker stop -t 5 aa11 bb22", "podman stop -t 5 cc33"]


def test_only_the_containers_of_one_are_stopped(host):
    host.group("docker", "ps*", "stop*", ["aa11"])
    host.group("podman", "ps*", "stop*", ["cc33"])
    assert host.run("containers", "podman").status == 0
    assert host.things("docker") == ["aa11"]
    assert host.things("podman") == []


def test_a_container_that_stays_is_named(host):
    host.group("docker", "ps*", "stop*", ["aa11", "bb22"], stubborn=["bb22"])
    ran = host.run("containers")
    assert ran.status == 1
    assert "docker: still running: bb22" in ran.out


def test_a_docker_that_does_not_answer_does_not_keep_podman(host):
    host.tool("docker", "exit 1")
    host.group("podman", "ps*", "stop*", ["cc33"])
    ran = host.run("containers")
    assert ran.status == 1
    assert "docker does not answer" in ran.out
    assert host.things("podman") == []


@pytest.mark.parametrize("systemd", [True, False])
def test_services_are_stopped_in_the_order_of_the_list(host, systemd):
    if systemd:
        host.has_systemd()
    host.tool("systemctl")
    host.tool("service")
    (host.home / "stop-services.list").write_text(
        "# first\nweb\n\n  db@1.service # the data\nlast")
    assert host.run("stop-services").status == 0
    assert host.calls() == ([
        "systemctl stop -- web", "systemctl stop -- db@1.service",
        "systemctl stop -- last"] if systemd else [
        "service web stop", "service db@1.service stop",
        "service last stop"])


def test_a_service_that_does_not_stop_does_not_keep_the_next(host):
    host.tool("service", '[ "$1" != web ]')
    (host.home / "stop-services.list").write_text("web\ndb\n")
    ran = host.run("stop-services")
    assert (ran.status, ran.err) == (1, "not stopped: web\n")
    assert host.calls() == ["service web stop", "service db stop"]


@pytest.mark.parametrize("text", [
    None, "web;id\n", "-web\n", "a b\n", "$(id)\n", "tolva\n",
    "web\ntolva.service\n", "../x\n"])
def test_a_list_of_services_that_is_none_stops_nothing(host, text):
    host.tool("service")
    if text:
        (host.home / "stop-services.list").write_text(text)
    ran = host.run("stop-services")
    assert ran.status == 66
    assert host.calls() == []


def listed_mounts(*mounts):
    return "".join(f"server:/x {where} {kind} rw 0 0\n"
                   for where, kind in mounts)


def test_network_mounts_are_unmounted_the_last_one_first(host):
    host.mounts(listed_mounts(
        ("/", "nfs4"), ("/srv", "nfs"), ("/srv/a\\040b\\134c", "cifs"),
        ("/local", "ext4")))
    host.tool("umount", f"""
        case "$2" in
        *srv) echo 'x / nfs4 rw 0 0' >"{host.dir}/mounts" ;;
        esac""")
    ran = host.run("unmount-network")
    assert ran.status == 0
    assert host.calls() == ["umount -- /srv/a b\\c", "umount -- /srv"]


def test_a_mount_that_stays_is_named_and_not_taken_out_of_sight(host):
    host.mounts(listed_mounts(("/srv", "nfs4")))
    host.tool("umount", "exit 32")
    ran = host.run("unmount-network")
    assert (ran.status, ran.err) == (1, "still mounted: /srv \n")
    assert host.calls() == ["umount -- /srv"]


def test_a_mount_is_taken_out_of_sight_when_that_is_wanted(host):
    host.mounts(listed_mounts(("/srv", "nfs4")))
    host.tool("umount", f'[ "$1" = -l ] && : >"{host.dir}/mounts"')
    assert host.run("unmount-network", "--lazy").status == 0
    assert host.calls() == ["umount -- /srv", "umount -l -- /srv"]


def test_an_unmount_that_hangs_is_ended(host):
    host.mounts(listed_mounts(("/srv", "nfs4")))
    host.tool("umount", "exec sleep 300")
    assert host.run("unmount-network", "--wait 1").status == 1


def test_all_pools_but_the_one_of_the_root_are_exported(host):
    host.mounts("rpool/ROOT/debian / zfs rw 0 0\n")
    host.group("zpool", "list*", "export*", ["rpool", "tank", "backup"])
    assert host.run("export-zfs").status == 0
    assert host.things("zpool") == ["rpool"]
    assert [x for x in host.calls() if "export" in x] == [
        "zpool export backup", "zpool export tank"]


def test_only_the_pools_that_are_named_are_exported(host):
    host.mounts("")
    host.group("zpool", "list*", "export*", ["tank", "backup"])
    assert host.run("export-zfs", "--force tank elsewhere").status == 0
    assert host.things("zpool") == ["backup"]
    assert "zpool export -f tank" in host.calls()


def test_a_pool_that_stays_is_named(host):
    host.mounts("")
    host.group("zpool", "list*", "export*", ["tank"], stubborn=["tank"])
    ran = host.run("export-zfs")
    assert (ran.status, ran.err) == (1, "still imported: tank\n")


def test_a_suspend_comes_after_the_answer(host):
    host.has_systemd()
    host.tool("systemd-run")
    (host.dir / "power").write_text("freeze mem disk\n")
    ran = host.run("suspend", "--delay 8")
    assert (ran.status, ran.out) == (0, "this host sleeps in 8 seconds\n")
    assert host.calls() == ["systemd-run --quiet --collect --on-active=8s "
                            "systemctl suspend"]


def test_a_suspend_that_cannot_be_ordered_is_no_success(host):
    host.has_systemd()
    host.tool("systemd-run", "exit 1")
    (host.dir / "power").write_text("mem\n")
    assert host.run("suspend").status == 1


def test_a_host_without_systemd_is_suspended_too(host):
    host.tool("pm-suspend")
    (host.dir / "power").write_text("mem\n")
    assert host.run("suspend", "--delay 0").status == 0
    wait_for(lambda: host.calls() == ["pm-suspend "], what="the suspend")


def test_a_host_that_can_only_hibernate_is_not_suspended(host):
    host.has_systemd()
    host.tool("systemd-run")
    (host.dir / "power").write_text("disk\n")
    assert host.run("suspend").status == 69
    assert host.calls() == []


LIST = """\
# the rack
00:11:22:33:44:55
00:11:22:33:44:66 192.0.2.255   # over the router
00:11:22:33:44:77 eth0
00:11:22:33:44:88 # no address
"""


def test_hosts_are_woken_by_what_their_line_needs(host):
    host.tool("wakeonlan")
    host.tool("etherwake")
    (host.home / "wake-hosts.list").write_text(LIST)
    assert host.run("wake-hosts", "--port 7").status == 0
    assert host.calls() == [
        "wakeonlan -p 7 00:11:22:33:44:55",
        "wakeonlan -i 192.0.2.255 -p 7 00:11:22:33:44:66",
        "etherwake -i eth0 00:11:22:33:44:77",
        "wakeonlan -p 7 00:11:22:33:44:88"]


def test_a_host_that_cannot_be_called_does_not_keep_the_next(host):
    host.tool("wakeonlan", 'case "$*" in *55) exit 1 ;; esac')
    (host.home / "wake-hosts.list").write_text(
        "00:11:22:33:44:55\n00:11:22:33:44:66\n")
    ran = host.run("wake-hosts")
    assert (ran.status, ran.err) == (
        1, "could not be called: 00:11:22:33:44:55\n")
    assert len(host.calls()) == 2


@pytest.mark.parametrize("text", [
    None, "00:11:22:33:44\n", "00:11:22:33:44:5g\n", "00:11:22:33:44:55:66\n",
    "00:11:22:33:44:55 -i\n", "00:11:22:33:44:55 eth0;id\n",
    "00:11:22:33:44:55 eth0 x\n", "00:11:22:33:44:66\n$(id)\n"])
def test_a_list_of_hosts_that_is_none_wakes_nobody(host, text):
    host.tool("wakeonlan")
    host.tool("etherwake")
    if text:
        (host.home / "wake-hosts.list").write_text(text)
    assert host.run("wake-hosts").status == 66
    assert host.calls() == []


# --- the manual ---------------------------------------------------------------

PAGE = manual.Page("tolva-actions.7")


def test_every_action_and_its_options_are_in_the_manual():
    told = {line.split()[2]: set(re.findall(r"--[a-z-]+", line))
            for line in PAGE.lines if line.startswith(".It Cm ")}
    scripts = {name: set(re.findall(r"^ *(--[a-z-]+)\)",
                                    (ACTIONS / name).read_text(),
                                    re.MULTILINE)) - {"--help", "--dry-run"}
               for name in READY}
    assert {name: told[name] for name in READY} == scripts
    assert set(told) - set(READY) == OF_ITS_OWN


def test_every_exit_status_is_in_the_manual_and_in_the_script():
    told = {int(status): int(seen) for status, seen, _ in
            PAGE.table("status")}
    used = {0}
    for name in READY:
        text = (ACTIONS / name).read_text()
        head = text[text.index("# exit status:"):text.index("\n\n")]
        listed = set(map(int, re.findall(r"^#   (\d+) ", head, re.MULTILINE)))
        ends = set(map(int, re.findall(r"\bfail (\d+)\b", text))) | {0, 64}
        if re.search(r"^ *need ", text, re.MULTILINE):
            ends.add(69)
        assert (name, listed) == (name, ends)
        used |= listed
    assert set(told) == used
    assert all(seen == (status and status + 127)
               for status, seen in told.items())


# --- the document -------------------------------------------------------------


def test_the_example_of_an_action_of_one_s_own(host):
    text = (ROOT / "docs" / "actions.md").read_text()
    script = text[text.index("    #!/bin/sh\n"):]
    action = host.dir / "stop-backup"
    action.write_text(textwrap.dedent(script).replace(
        "/usr/share/tolva/action.sh", f"{host.dir}/lib/action.sh"))
    action.chmod(0o755)
    host.group("pkill", "-", "*", ["backup"])
    host.tool("pgrep", f'[ -e "{host.dir}/pkill.things/backup" ]')
    assert "Stops the night's backup." in host.run(action, "--help").out
    dry = host.run(action, "--dry-run")
    assert (dry.status, dry.out) == (0, "would run: pkill -x backup\n")
    assert host.things("pkill") == ["backup"]
    assert host.run(action, "now").status == 64
    assert host.run(action).status == 0
    assert host.things("pkill") == []
    host.tool("pkill")
    (host.dir / "pkill.things" / "backup").touch()
    again = host.run(action)
    assert (again.status, again.err) == (1, "it still runs\n")


def test_the_document_has_a_row_for_every_action():
    text = (ROOT / "docs" / "actions.md").read_text()
    assert re.findall(r"^\| `([a-z-]+)` \|", text, re.MULTILINE) == READY
