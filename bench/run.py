#!/usr/bin/python3
"""The bench: tolva side by side with the least that can be done in C, and with
what a user would take instead. See "tools/bench -h"."""

import argparse
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

import machine
import report
from figures import Table
from listening import cost, latency, memory, rate, startup
from secondaries import secondaries
from sending import fleet

ROOT = pathlib.Path(__file__).resolve().parent.parent


def size(bench):
    table = Table("size", "Size of the stripped executable", "bytes", base="")
    for program in (bench.tolva, bench.fleet):
        table.values[program.name] = [machine.stripped(bench, program)]
    return [table]


SECTIONS = {"size": size, "startup": startup, "latency": latency, "rate": rate,
            "memory": memory, "fleet": fleet, "cost": cost,
            "nut": secondaries}


class Bench:
    """What the sections share: executables, a directory, how much is wanted,
    and what has to be ended."""

    root = ROOT

    def __init__(self, options, work):
        self.work = work
        self.build = pathlib.Path(options.build).resolve()
        self.tolva = self.build / "tolva"
        self.fleet = self.build / "tolva-fleet"
        self.quick = options.quick
        self.full = options.full
        self.patience = 5 if self.quick else 30     # seconds
        self.requests = options.requests
        self.tools = {}
        self.scopes = []
        self.shown = 0

    def pick(self, quick, default):
        return quick if self.quick else default

    def tool(self, name):
        """A program of floor/ or load/, compiled at its first use."""
        if name not in self.tools:
            source = next((ROOT / "bench").glob(f"*/{name}.c"))
            made = self.work / name
            subprocess.run(["cc", "-O2", "-Wall", "-o", made, source],
                           check=True)
            self.tools[name] = made
        return self.tools[name]

    @staticmethod
    def has(program):
        return shutil.which(program) is not None

    def version(self):
        done = subprocess.run([self.tolva, "-v"], capture_output=True,
                              text=True)
        found = re.search(r"V\d\S*", done.stdout + done.stderr)
        return found[0] if found else "unknown"

    @contextlib.contextmanager
    def scope(self):
        """What is started within it ends with it."""
        with contextlib.ExitStack() as stack:
            self.scopes.append(stack)
            try:
                yield
            finally:
                self.scopes.pop()

    def at_end(self, function):
        self.scopes[-1].callback(function)

    def progress(self, table, number, rounds, name):
        if sys.stderr.isatty() or time.monotonic() - self.shown > 10:
            self.shown = time.monotonic()
            text = (f"{table.section}: {table.title}, round {number + 1} of "
                    f"{rounds}: {name}")
            if sys.stderr.isatty():
                text = f"\r\033[K{text[:110]}"
            print(text, end="" if sys.stderr.isatty() else "\n",
                  file=sys.stderr, flush=True)

    def say(self, text):
        if sys.stderr.isatty():
            print("\r\033[K", end="", file=sys.stderr, flush=True)
        print(text, flush=True)


def parse():
    parser = argparse.ArgumentParser(
        prog="tools/bench", description="Measures the listener, the sender "
        "and tolva-fleet side by side with the least that can be done in C "
        "and with what a user would take instead, and writes "
        "docs/performance.md. About ten minutes on an idle machine.")
    parser.add_argument("-q", "--quick", action="store_true",
                        help="about a minute; writes nothing")
    parser.add_argument("-f", "--full", action="store_true",
                        help="also 40,000 addresses, and the slow ones with "
                        "10,000; some minutes more")
    parser.add_argument("-o", "--only", metavar="NAME", action="append",
                        choices=SECTIONS, help="only this section, several "
                        f"times for more; writes nothing: "
                        f"{', '.join(SECTIONS)}")
    parser.add_argument("-w", "--write", action="store_true",
                        help="write docs/performance.md all the same")
    parser.add_argument("-n", "--requests", type=int, default=0, metavar="N",
                        help="requests before memory is looked at again; "
                        "100000, or 1000 with --quick")
    parser.add_argument("-b", "--build", metavar="DIR", required=True,
                        help=argparse.SUPPRESS)
    return parser.parse_args()


def run(options):
    tables = []
    with tempfile.TemporaryDirectory(prefix="tolva-bench-") as work:
        bench = Bench(options, pathlib.Path(work))
        facts = machine.describe(bench)
        facts["date"] = time.strftime("%Y-%m-%d")
        facts["load"] = machine.load()
        facts["cpus"] = f"{os.cpu_count()} processors"
        facts["quick"] = options.quick
        for name, section in SECTIONS.items():
            if not options.only or name in options.only:
                with bench.scope():
                    made = section(bench)
                for table in made:
                    bench.say(report.as_text(table))
                tables += made
    bench.say(report.goals_as_text(tables))
    return facts, tables


def main():
    options = parse()
    sys.stdout.reconfigure(line_buffering=True)
    os.environ["LC_ALL"] = "C"
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    begun = time.monotonic()
    facts, tables = run(options)
    facts["minutes"] = (time.monotonic() - begun) / 60
    if options.write or not (options.quick or options.only):
        report.write(ROOT / "docs", facts, tables)
        print("written: docs/performance.md and docs/performance/*.svg")


if __name__ == "__main__":
    main()
