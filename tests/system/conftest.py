"""Fixtures of the system tests, and what is shown when one fails."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent))

import harness  # noqa: E402


def pytest_sessionstart(session):
    if not harness.TOLVA.exists():
        pytest.exit(f"{harness.TOLVA} is missing: build it, or name the "
                    "executable in TOLVA", returncode=2)


@pytest.fixture
def make_home():
    """Makes any number of homes; all of them end with the test."""
    homes = []

    def make():
        homes.append(harness.Home())
        return homes[-1]

    make.homes = homes
    yield make
    problems = []
    for home in homes:
        try:
            home.close()
        except Exception as problem:
            problems.append(problem)
    if problems:
        raise problems[0]


@pytest.fixture
def home(make_home):
    return make_home()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.failed and call.when == "call":
        make = item.funcargs.get("make_home") if \
            hasattr(item, "funcargs") else None
        for home in make.homes if make else ():
            report.sections.extend(home.describe())


def pytest_terminal_summary(terminalreporter):
    """What could not run must be seen, in quiet runs too."""
    for report in terminalreporter.stats.get("skipped", []):
        terminalreporter.write_line(
            f"NOT RUN: {report.nodeid}: {report.longrepr[2]}", red=True)
