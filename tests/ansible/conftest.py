"""Two hosts that are set up by the example's playbook: "web1" is shut down,
"ups1" has the UPS."""

import json
import os
import subprocess
import time

import pytest

from hosts import EXAMPLE, Chroot, Container, Played


class Site:
    def __init__(self, directory, kind, sender):
        self.directory = directory
        self.sender_variables = sender
        self.hosts = []
        try:
            for name in ("web1", "ups1"):
                self.hosts.append(kind(directory, name))
        except BaseException:
            self.close()
            raise
        self.listener, self.sender = self.hosts

    def inventory(self):
        return {
            "all": {
                "vars": {
                    "tolva_package_file": os.environ["TOLVA_DEB"],
                    # Nothing is fetched: there is no network.
                    "tolva_apt_cache_valid_time": 1000000000,
                    "tolva_rehearsal": "present",
                    "tolva_tls_directory": str(self.directory / "tls"),
                },
                "children": {
                    "tolva_listeners": {"hosts": {"web1": {
                        **self.listener.variables(),
                        "tolva_address": "127.7.0.1",
                        "tolva_listener": True,
                        "tolva_allowed_addresses": ["127.0.0.1"],
                        "tolva_listen_address": "127.7.0.1",
                        "tolva_listen_port": 16103,
                        "tolva_firewall": True,
                        "tolva_settings": {"LogfileSize": 4096},
                        "tolva_actions": ["stop-services"],
                        "tolva_actions_off": ["wake-hosts"],
                    }}},
                    "tolva_senders": {"hosts": {"ups1": {
                        **self.sender.variables(),
                        "tolva_sender": True,
                        **self.sender_variables,
                    }}},
                },
            },
        }

    def play(self, *options, **variables):
        """One run; the variables take the place of all others."""
        inventory = self.directory / "inventory.json"
        inventory.write_text(json.dumps(self.inventory()))
        empty = self.directory / "ansible.cfg"
        empty.touch()
        began = time.monotonic()
        ran = subprocess.run(
            ["ansible-playbook", "-i", inventory, EXAMPLE / "site.yml",
             "-e", json.dumps(variables), *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, timeout=900,
            env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8",
                 "HOME": str(self.directory), "ANSIBLE_NOCOLOR": "1",
                 "ANSIBLE_PIPELINING": "1",
                 "ANSIBLE_CONFIG": str(empty)})
        played = Played(ran.returncode, ran.stdout)
        print(f"{time.monotonic() - began:.0f} s, status {played.status}: "
              f"{options} {variables} {played.recap}")
        return played

    def set_up(self, *options, **variables):
        played = self.play(*options, **variables)
        assert played.status == 0, played.said
        return played

    def close(self):
        for host in self.hosts:
            host.close()


def made(tmp_path_factory, kind, sender):
    # Below --basetemp: roots are big, and /tmp may be memory.
    directory = tmp_path_factory.mktemp(kind.__name__.lower())
    return Site(directory, kind, sender)


@pytest.fixture(scope="session")
def site(tmp_path_factory):
    """Booted hosts. They are set up when a test gets them, and each test
    leaves them so."""
    site = made(tmp_path_factory, Container, {"tolva_ups": "nut"})
    try:
        site.dry = site.play("--check")
        site.was_there = [host.path("/etc/tolva").exists()
                          for host in site.hosts]
        site.first = site.set_up()
        site.second = site.set_up()
        yield site
    finally:
        site.close()


@pytest.fixture(scope="session")
def chroots(tmp_path_factory):
    """The same in roots in which nothing runs, such as images."""
    site = made(tmp_path_factory, Chroot, {"tolva_ups": "apcupsd"})
    try:
        site.first = site.set_up()
        site.second = site.set_up()
        yield site
    finally:
        site.close()
