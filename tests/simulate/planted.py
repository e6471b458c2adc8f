#!/usr/bin/python3
"""Plants each of the faults in planted/ into a copy of the source, one at a
time, and shows that the simulation finds it.

    tests/simulate/planted.py                     all of them
    tests/simulate/planted.py lost-wake-up ...    these
    tests/simulate/planted.py --days 200
    tests/simulate/planted.py --fits              only the last sentence below

A fault is a paragraph of planted/*.faults: its name, what it breaks, the file,
the lines that go ("-") and those that come instead ("+"). The lines that go
stand in the file exactly once. Fails when a fault is not found, or does not
fit the source any more.
"""

import argparse
import concurrent.futures
import os
import pathlib
import queue
import re
import shutil
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
LEFT_OUT = shutil.ignore_patterns(".git", "build*", "__pycache__")


class Fault:
    """One paragraph of a file of faults."""

    def __init__(self, paragraph):
        fields = dict(re.findall(r"^(name|breaks|file): (.*)$", paragraph,
                                 re.MULTILINE))
        self.name, self.breaks, self.file = (
            fields[key] for key in ("name", "breaks", "file"))
        lines = paragraph.split("\n")
        self.old = "\n".join(l[1:] for l in lines if l.startswith("-"))
        self.new = "\n".join(l[1:] for l in lines if l.startswith("+"))

    def fits(self, text):
        return text.count(self.old) == 1


def read_faults():
    faults = []
    for path in sorted((HERE / "planted").glob("*.faults")):
        text = path.read_text().rstrip("\n")
        faults += [Fault(paragraph) for paragraph in
                   re.split(r"\n\n(?=name: )", text)]
    return faults


def check_fits(faults):
    """The exit status; names those that do not fit the source any more."""
    lost = [fault for fault in faults
            if not fault.fits((ROOT / fault.file).read_text())]
    for fault in lost:
        print(f"{fault.name} does not fit {fault.file} any more")
    print(f"{len(faults) - len(lost)} of {len(faults)} planted faults fit")
    return 1 if lost or not faults else 0


class Copy:
    """A copy of the source, built once, with one fault at a time in it."""

    def __init__(self, place):
        self.source = place / "source"
        self.build = place / "build"
        shutil.rmtree(self.source, ignore_errors=True)
        # With new times: what was built last time may have had a fault in it.
        shutil.copytree(ROOT, self.source, ignore=LEFT_OUT,
                        copy_function=shutil.copyfile)
        self.call("cmake", "-S", self.source, "-B", self.build, "-G", "Ninja",
                  "-DCMAKE_BUILD_TYPE=Release")
        self.call("cmake", "--build", self.build, "--target", "simulate")
        # Without a fault nothing may be found.
        self.call(self.build / "tests/simulate/simulate", "--days", "50")

    @staticmethod
    def call(*words):
        done = subprocess.run(words, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False,
                              errors="replace")
        if done.returncode != 0:
            raise RuntimeError(done.stdout[-2000:])

    def try_fault(self, fault, days):
        """Whether it is found, and how."""
        path = self.source / fault.file
        whole = path.read_text()
        if not fault.fits(whole):
            return False, "does not fit the source any more"
        path.write_text(whole.replace(fault.old, fault.new))
        try:
            self.call("cmake", "--build", self.build, "--target", "simulate")
        except RuntimeError as error:
            return False, f"does not build: {error}"
        finally:
            path.write_text(whole)
        done = subprocess.run(
            [self.build / "tests/simulate/simulate", "--jobs", "1",
             "--no-shrink", "--days", str(days)],
            stdout=subprocess.PIPE, text=True, check=False, errors="replace")
        match = re.search(r"^error: seed (\d+): (.*)$", done.stdout,
                          re.MULTILINE)
        if not match:
            return False, f"lived {days} days"
        return True, f"day {match[1]}: {match[2][:90]}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("names", nargs="*")
    parser.add_argument("--days", type=int, default=1000)
    parser.add_argument("--place", type=pathlib.Path,
                        default=ROOT / "build-check/planted")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--fits", action="store_true")
    asked = parser.parse_args()
    faults = [fault for fault in read_faults()
              if not asked.names or fault.name in asked.names]
    if asked.fits:
        return check_fits(faults)
    os.environ.pop("SIMULATE_DAYS", None)
    copies = queue.Queue()
    for number in range(asked.jobs):
        copies.put(Copy(asked.place / str(number)))

    def try_one(fault):
        copy = copies.get()
        try:
            return fault, copy.try_fault(fault, asked.days)
        finally:
            copies.put(copy)

    found = 0
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(asked.jobs) as pool:
        for fault, (good, how) in pool.map(try_one, faults):
            found += good
            print(f"{'found ' if good else 'MISSED'} {fault.name}: "
                  f"{fault.breaks} ({how})", flush=True)
    print(f"{found} of {len(faults)} planted faults found "
          f"in {time.monotonic() - start:.0f} s")
    return 0 if found == len(faults) and faults else 1


sys.exit(main())
