"""What is tried elsewhere, with the harness of the system tests."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))

from harness import need_tolva  # noqa: E402
from home import Home  # noqa: E402


def pytest_sessionstart(session):
    need_tolva()


@pytest.fixture
def home():
    made = Home()
    yield made
    made.close()
