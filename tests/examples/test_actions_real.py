"""Actions with the real commands, where they can run here: libvirt's own test
hypervisor, Wake-on-LAN on loopback, and mounts in a namespace."""

import os
import shutil
import socket
import subprocess

import pytest

import namespaces
from conftest import ROOT, unpacked
from ports import free_port
from waiting import BOUND, wait_for

ACTIONS = ROOT / "share" / "actions"
# With the libraries that few others need.
LIBVIRT = ("libvirt-clients", "libvirt-daemon", "libvirt0", "libcap-ng0",
           "libcurl3-gnutls", "libdevmapper1.02.1", "libnl-3-200",
           "libnuma1", "libparted2", "libpcap0.8", "libpciaccess0",
           "libssh-4", "libssh2-1", "libtirpc3", "libyajl2")


def action(site, name, *params, env=None, **popen):
    return site.run(ACTIONS / name, *params, env={
        "TOLVA_LIB": str(ROOT / "share" / "lib"), "TOLVA_OUTSIDE": "1",
        "TOLVAHOME": str(site.home.home), **(env or {})}, **popen)


# --- libvirt ------------------------------------------------------------------


class Libvirt:
    """A libvirt daemon of the test's own, with the test hypervisor: one guest
    runs as long as somebody is connected."""

    def __init__(self, site):
        self.site = site
        root = unpacked(*LIBVIRT)
        self.dir = site.dir / "libvirt"
        self.dir.mkdir()
        libraries = ":".join(map(str, root.glob("**/*-linux-gnu")))
        self.env = {"LD_LIBRARY_PATH": libraries, **{
            name: str(self.dir) for name in (
                "HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME",
                "XDG_CACHE_HOME")}}
        site.stand_in("virsh", f'exec {root}/usr/bin/virsh "$@"')
        config = self.dir / "libvirtd.conf"
        config.write_text(
            f'listen_tls = 0\nlisten_tcp = 0\nunix_sock_dir = "{self.dir}"\n'
            'auth_unix_ro = "none"\nauth_unix_rw = "none"\nmdns_adv = 0\n')
        self.socket = self.dir / "libvirt-sock"
        self.daemon = site.start(root / "usr/sbin/libvirtd", "-f", config,
                                 "-p", self.dir / "pid", env=self.env)
        wait_for(lambda: self.socket.exists() or not self.daemon.running(),
                 what="libvirtd listens")
        assert self.daemon.running(), self.daemon.err
        self.env["LIBVIRT_DEFAULT_URI"] = \
            f"test+unix:///default?socket={self.socket}"
        # Keeps the hypervisor as it is between two commands.
        self.keeper = subprocess.Popen(
            [site.bin / "virsh", "-c", self.env["LIBVIRT_DEFAULT_URI"]],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env=site.home.environment(site.environment(self.env)))
        wait_for(lambda: self.running() == ["test"], what="a guest runs")

    def virsh(self, *args):
        done = self.site.run("virsh", "-q", *args, env=self.env)
        assert done.status == 0, done
        return done.out.split()

    def running(self):
        return self.virsh("list", "--name")

    def close(self):
        self.keeper.stdin.close()
        self.keeper.wait(BOUND)
        self.daemon.process.terminate()
        self.daemon.wait()


@pytest.fixture
def libvirt(site):
    libvirt = Libvirt(site)
    yield libvirt
    libvirt.close()


def test_guests_of_libvirt_are_shut_down(site, libvirt):
    dry = action(site, "guests-libvirt", "--dry-run", env=libvirt.env)
    assert dry.status == 0
    assert dry.out.startswith("would run: within 20 virsh -q shutdown ")
    assert libvirt.running() == ["test"]
    done = action(site, "guests-libvirt", env=libvirt.env)
    assert (done.status, done.err) == (0, "")
    assert done.out.startswith("the guests are off: ")
    assert libvirt.running() == []
    again = action(site, "guests-libvirt", env=libvirt.env)
    assert (again.status, again.out, again.err) == (0, "no guest runs\n", "")


def test_a_libvirt_is_named(site, libvirt):
    uri = libvirt.env.pop("LIBVIRT_DEFAULT_URI")
    assert action(site, "guests-libvirt", "--connect", uri,
                  env=libvirt.env).status == 0
    libvirt.env["LIBVIRT_DEFAULT_URI"] = uri
    assert libvirt.running() == []


def test_a_libvirt_that_is_not_there_is_no_success(site):
    root = unpacked(*LIBVIRT)
    site.stand_in("virsh", f'exec {root}/usr/bin/virsh "$@"')
    libraries = ":".join(map(str, root.glob("**/*-linux-gnu")))
    done = action(site, "guests-libvirt", "--connect",
                  f"test+unix:///default?socket={site.dir}/nowhere",
                  env={"LD_LIBRARY_PATH": libraries})
    assert done.status == 1
    assert done.err.endswith("libvirt does not answer\n")


# --- Wake-on-LAN --------------------------------------------------------------


def test_a_host_is_called_with_the_packet_that_wakes_it(site):
    root = unpacked("wakeonlan")
    site.stand_in("wakeonlan",
                  f'exec /usr/bin/perl {root}/usr/bin/wakeonlan "$@"')
    site.home.write("wake-hosts.list", "00:11:22:aa:BB:cc 127.0.0.1  # one\n")
    with socket.socket(type=socket.SOCK_DGRAM) as udp:
        udp.bind(("127.0.0.1", free_port()))
        udp.settimeout(BOUND)
        done = action(site, "wake-hosts", "--port",
                      str(udp.getsockname()[1]))
        assert (done.status, done.err) == (0, "")
        packet = udp.recv(1024)
    assert packet == b"\xff" * 6 + bytes.fromhex("001122aabbcc") * 16


# --- mounts -------------------------------------------------------------------

MOUNTS = """
set -e
mkdir outer "with blank"
mount -t tmpfs outer outer
mkdir outer/inner
mount -t tmpfs inner outer/inner
mount -t tmpfs blank "with blank"
"$LIST"
exec 3>"with blank/used"
status=0
"$ACTION" --wait 5 $LAZY || status=$?
echo "status $status"
sed 's/ nfs4 .*//; s|.*/|left |' "$TOLVA_MOUNTS"
"""

# The kernel's own list, with another type for these file systems.
LIST = """sed -n "\\|$WHERE|s/ tmpfs / nfs4 /p" /proc/self/mounts >"$TOLVA_MOUNTS"
"""


@pytest.mark.parametrize("lazy", [False, True])
def test_mounts_are_really_unmounted(site, lazy):
    """File systems in memory, which a list made after each unmount calls
    those of a network."""
    where = site.dir / "mounts"
    where.mkdir()
    relist = site.stand_in("relist", LIST)
    site.stand_in("umount", f'{shutil.which("umount")} "$@"\nstatus=$?\n'
                  f'"{relist}"\nexit "$status"')
    done = subprocess.run(
        [*namespaces.private_network(), "sh", "-c", MOUNTS], cwd=where,
        env={"PATH": f"{site.bin}:{os.environ['PATH']}",
             "ACTION": str(ACTIONS / "unmount-network"), "WHERE": str(where),
             "LAZY": "--lazy" if lazy else "", "LIST": str(relist),
             "TOLVA_OUTSIDE": "1", "TOLVA_MOUNTS": str(site.dir / "list"),
             "TOLVA_LIB": str(ROOT / "share" / "lib"),
             "TOLVAHOME": str(site.home.home)},
        capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    told = [line for line in done.stdout.splitlines()
            if line.startswith(("left ", "status "))]
    assert told == (["status 0"] if lazy else
                    ["status 1", "left with\\040blank"])
    assert ("still in use, taken out of sight" in done.stdout) == lazy
