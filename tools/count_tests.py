#!/usr/bin/python3
"""Counts the tests in CTest's results: prints "<passed> <failed>
<not run>".

A file of system tests is one test to CTest, many to pytest; its own count is
taken from the last line of its output. Names the failed ones on stderr, and
those that this machine could not run, with the reason.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

SUMMARY = re.compile(
    r"^(?=.*\d (?:passed|failed|error))[^\n]* in [0-9.]+s[^\n]*$", re.M)


def count(case):
    """Passed, failed and not run tests of one of CTest's test cases."""
    good = case.get("status") == "run"
    output = case.findtext("system-out") or ""
    summaries = SUMMARY.findall(output)
    if not summaries:
        return (1, 0, 0) if good else (0, 1, 0)
    numbers = {word: int(number) for number, word in re.findall(
        r"(\d+) (passed|failed|error|skipped)", summaries[-1])}
    passed = numbers.get("passed", 0)
    failed = numbers.get("failed", 0) + numbers.get("error", 0)
    # A test that could not run proves nothing and breaks nothing.
    return passed, failed if good else max(failed, 1), numbers.get("skipped", 0)


def not_run(case):
    """The lines of the tests that could not run here."""
    output = case.findtext("system-out") or ""
    return re.findall(r"NOT RUN: [^\r\n\x1b]*", output)


def main():
    passed = failed = skipped = 0
    for case in ElementTree.parse(sys.argv[1]).getroot().iter("testcase"):
        good, bad, left = count(case)
        passed += good
        failed += bad
        skipped += left
        if bad:
            print(f"failed: {case.get('name')}", file=sys.stderr)
        for line in not_run(case):
            print(line, file=sys.stderr)
    print(passed, failed, skipped)


main()
