"""The machine, and the versions of what was measured on it."""

import os
import platform
import re
import subprocess

# Debian's package of each competitor.
PACKAGES = {"tcpserver": "ucspi-tcp", "xinetd": "xinetd", "socat": "socat",
            "ncat": "ncat", "xargs": "findutils", "parallel": "parallel",
            "clush": "clustershell", "upsd": "nut-server", "/bin/sh": "dash",
            "C library": "libc6"}


def _first(path, pattern):
    try:
        with open(path) as file:
            found = re.search(pattern, file.read(), re.MULTILINE)
            return found[1].strip('" ') if found else "unknown"
    except OSError:
        return "unknown"


def _output(*command):
    done = subprocess.run(command, capture_output=True, text=True)
    return done.stdout.strip() if done.returncode == 0 else ""


def load():
    return os.getloadavg()[0]


def describe(bench):
    """What the figures stand for, name by name."""
    memory = int(_first("/proc/meminfo", r"^MemTotal:\s+(\d+)"))
    versions = {}
    for name, package in PACKAGES.items():
        version = _output("dpkg-query", "-W", "-f", "${Version}", package)
        if version:
            versions[name] = version
    return {
        "machine": {
            "Processor": f"{_first('/proc/cpuinfo', r'^model name.*: (.*)')}, "
                         f"{os.cpu_count()} of them",
            "Memory": f"{memory / 2**20:.0f} GiB",
            "Kernel": f"{platform.system()} {platform.release()}",
            "System": _first("/etc/os-release", r"^PRETTY_NAME=(.*)"),
            "Compiler": _output("cc", "--version").partition("\n")[0],
        },
        "versions": {"tolva": bench.version(), **versions},
    }


def stripped(bench, program):
    """Bytes of an executable without its symbols."""
    out = bench.work / "stripped"
    subprocess.run(["strip", "-o", out, program], check=True)
    return out.stat().st_size
