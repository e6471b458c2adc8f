"""Hosts for the role, made from one image: booted in a container, or a chroot.

All of them share the network of the tests, which has nothing but a loopback
interface (tools/ansible-test sees to that).
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).parents[2]
EXAMPLE = ROOT / "examples" / "ansible"
ENTER = pathlib.Path(__file__).parent / "enter-container"
sys.path.insert(0, str(ROOT / "tests" / "system"))

from waiting import wait_for  # noqa: E402

# For a host that boots on a loaded machine.
LONG = 120


class Chroot:
    """A fresh root, in which nothing runs."""

    connection = {"ansible_connection": "community.general.chroot"}

    def __init__(self, directory, name):
        self.name = name
        self.root = directory / name
        self.root.mkdir()
        subprocess.run(["tar", "-x", "--numeric-owner", "-C", self.root,
                        "-f", os.environ["TOLVA_IMAGE"]], check=True)
        (self.root / "etc" / "hostname").write_text(f"{name}\n")

    def variables(self):
        return {"ansible_host": str(self.root), "ansible_become": False,
                "ansible_python_interpreter": "/usr/bin/python3",
                **self.connection}

    def argv(self, words):
        return ["chroot", self.root, *words]

    def run(self, *words, timeout=60):
        """A command there: its exit status, and what it has printed."""
        ran = subprocess.run(
            self.argv(words), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            timeout=timeout, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                                  "LC_ALL": "C.UTF-8", "HOME": "/root"})
        return ran.returncode, ran.stdout

    def says(self, *words):
        status, said = self.run(*words)
        assert status == 0, (words, status, said)
        return said.strip()

    def path(self, name):
        return self.root / name.lstrip("/")

    def text(self, name):
        return self.path(name).read_text()

    def close(self):
        shutil.rmtree(self.root)


class Container(Chroot):
    """The same, booted."""

    connection = {"ansible_connection": "community.general.chroot",
                  "ansible_chroot_exe": str(ENTER)}

    def __init__(self, directory, name):
        super().__init__(directory, name)
        self.console = open(directory / f"{name}.console", "wb")
        self.nspawn = subprocess.Popen(
            ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit",
             "--capability=CAP_NET_ADMIN", "--console=read-only", "-b",
             "-D", self.root], stdin=subprocess.DEVNULL,
            stdout=self.console, stderr=subprocess.STDOUT)
        try:
            wait_for(self.has_booted, LONG, f"{name} has booted")
        except BaseException:
            self.nspawn.kill()
            raise
        self.booted = self.boot()

    def has_booted(self):
        assert self.nspawn.poll() is None, "systemd-nspawn has ended"
        # Its first child is not the container's init yet.
        tasks = pathlib.Path(f"/proc/{self.nspawn.pid}/task")
        self.leader = next((int(child) for task in tasks.glob("*/children")
                            for child in task.read_text().split()), None)
        pathlib.Path(f"{self.root}.pid").write_text(str(self.leader))
        return self.leader and self.run(
            "systemctl", "is-system-running")[1].strip() in (
                "running", "degraded")

    def boot(self):
        """Another one after every boot."""
        return self.says("stat", "-c", "%i %Y", "/run/systemd/system"), \
            self.leader

    def argv(self, words):
        return [ENTER, self.root, *words]

    def is_up(self):
        return self.nspawn.poll() is None and self.boot() == self.booted

    def close(self):
        os.kill(self.leader, signal.SIGRTMIN + 4)  # systemd: power off
        try:
            self.nspawn.wait(LONG)
        except subprocess.TimeoutExpired:
            self.nspawn.kill()
            self.nspawn.wait()
        self.console.close()
        super().close()


class Played:
    """What a run of the playbook has come to."""

    def __init__(self, status, said):
        self.status = status
        self.said = said
        self.recap = {
            line.split()[0]: dict(
                (key, int(number)) for key, number in
                re.findall(r"(\w+)=(\d+)", line))
            for line in said.partition("PLAY RECAP")[2].splitlines()[1:]
            if "=" in line}

    def total(self, key):
        return sum(counts[key] for counts in self.recap.values())

    def failed_at(self):
        """The name of the task that has failed."""
        before = self.said.partition("fatal: ")[0]
        return re.findall(r"^(?:TASK|RUNNING HANDLER) \[tolva : (.*?)\]",
                          before, re.M)[-1]
