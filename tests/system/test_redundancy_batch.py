"""The batch file that runs when a redundant shutdown is held back."""

import pytest

from harness import message
from house import A, B, House, suppressed


def test_the_batch_file_runs_without_parameters(home):
    house = House(home, (A, B), 1)
    home.script("ShutdownSuppressed.sh",
                'echo "$#" > "$TOLVAHOME/batch"; exit 3')
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    path = home.path("ShutdownSuppressed.sh")
    house.listener.wait_message(message(793, path))
    assert home.read("batch") == b"0\n"
    house.stop()
    messages = house.listener.messages()
    at = messages.index(suppressed(1, 1))
    assert messages[at + 1] == message(792, path)
    assert house.shutdowns() == 0


def test_a_batch_file_that_is_missing(home):
    name = home.path("missing.sh")
    house = House(home, (A, B), 1, config={"RedundancyBatchFile": name})
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(message(793, name))
    house.stop()


@pytest.mark.parametrize("value, runs", [
    ("TRUE", False), ("true", False), ("false", True), ("1", True)])
def test_suppressing_the_batch_file(home, value, runs):
    house = House(home, (A, B), 1, config={"RedundancyBatchSuppress": value})
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(suppressed(1, 1))
    house.stop()
    assert house.batches() == (1 if runs else 0)
    assert house.shutdowns() == 0


@pytest.mark.parametrize("size", [510, 511])
def test_the_longest_name_of_a_batch_file(home, size):
    name = ": " + "x" * (size - 2)
    house = House(home, (A, B), 1, config={"RedundancyBatchFile": name})
    assert house.start_lines() == []
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    house.listener.wait_message(message(794, name))
    house.stop()


@pytest.mark.parametrize("size", [512, 513, 1024, 4000])
def test_too_long_a_name_of_a_batch_file(home, size):
    name = ": " + "x" * (size - 2)
    house = House(home, (A, B), 1, config={"RedundancyBatchFile": name})
    # The operator is told once, when it starts.
    [line] = house.start_lines()
    assert line.startswith("error: RedundancyBatchFile ")
    house.first_cycle()
    assert house.ask_and_wait(A) is False
    assert house.ask_and_wait(B) is True
    house.stop()
    messages = house.listener.messages()
    assert messages.count(line) == 1
    assert suppressed(1, 1) in messages
    # Whatever is made of it, never more than its bound is used.
    assert all(len(m) <= len(message(792, "")) + 511 for m in messages
               if m.startswith("[792]"))
