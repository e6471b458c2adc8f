#!/usr/bin/python3
"""Counts the tests in CTest's results: prints "<passed> <failed>".

A file of system tests is one test to CTest, many to pytest; its own count is
taken from the last line of its output. Names the failed ones on stderr, and
those that this machine could not run, with the reason.
"""

import os
import re
import sys
import xml.etree.ElementTree as ElementTree

WRAPPED = bool(os.environ.get("TOLVA_WRAPPER"))
SUMMARY = re.compile(
    r"^(?=.*\d (?:passed|failed|error))[^\n]* in [0-9.]+s[^\n]*$", re.M)


def count(case):
    """Passed and failed tests of one of CTest's test cases."""
    good = case.get("status") == "run"
    output = case.findtext("system-out") or ""
    summaries = SUMMARY.findall(output)
    if not summaries:
        return (1, 0) if good else (0, 1)
    numbers = {word: int(number) for number, word in re.findall(
        r"(\d+) (passed|failed|error|skipped)", summaries[-1])}
    passed = numbers.get("passed", 0)
    # A skipped test proves nothing: it counts as failed. Under valgrind those
    # that look at the process itself have to be left out.
    bad = ("failed", "error") if WRAPPED else ("failed", "error", "skipped")
    failed = sum(numbers.get(x, 0) for x in bad)
    return passed, failed if good else max(failed, 1)


def not_run(case):
    """The lines of the tests that could not run here."""
    output = case.findtext("system-out") or ""
    return re.findall(r"NOT RUN: [^\r\n\x1b]*", output)


def main():
    passed = failed = 0
    for case in ElementTree.parse(sys.argv[1]).getroot().iter("testcase"):
        good, bad = count(case)
        passed += good
        failed += bad
        if bad:
            print(f"failed: {case.get('name')}", file=sys.stderr)
            for line in not_run(case):
                print(line, file=sys.stderr)
    print(passed, failed)


main()
