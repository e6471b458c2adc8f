"""Fixtures of the system tests, and what is shown when one fails."""

import pytest

from harness import need_tolva
from home import Home
from scripthost import Host


def pytest_sessionstart(session):
    need_tolva()


@pytest.fixture
def make_home():
    """Makes any number of homes; all of them end with the test."""
    homes = []

    def make():
        homes.append(Home())
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


@pytest.fixture
def notes(home):
    """A not-alive script that writes down its parameters."""
    home.script("tolva_notalive.sh",
                'echo "$#:$*" >> "$TOLVAHOME/notalive"')
    return home


@pytest.fixture
def host(tmp_path):
    """A host on which the shipped scripts are run."""
    return Host(tmp_path)


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
