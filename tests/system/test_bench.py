"""tools/bench: that it runs, and that its figures are what they are called."""

import re
import shlex
import subprocess
import sys

import pytest

from harness import ROOT, TOLVA, wrapper

sys.path.insert(0, str(ROOT / "bench"))
import figures  # noqa: E402
import report  # noqa: E402


class StillBench:
    """A bench that shows nothing."""

    patience = 60

    @staticmethod
    def progress(*_):
        pass


def bench(tmp_path, *args):
    """Runs it on the executable under test, under whatever that runs."""
    program = tmp_path / "tolva"
    command = shlex.join([*wrapper(), str(TOLVA.resolve())])
    program.write_text(f'#!/bin/sh\nexec {command} "$@"\n')
    program.chmod(0o755)
    return subprocess.run(
        ["/usr/bin/python3", ROOT / "bench/run.py", "--build", tmp_path,
         *args], capture_output=True, text=True, timeout=300)


def test_latency_is_measured_beside_the_floor(tmp_path):
    done = bench(tmp_path, "--quick", "--only", "latency")
    assert done.returncode == 0, done.stderr
    for name in ("C floor", "tolva"):
        row = re.search(rf"^  {name}  +([\d.,]+) µs +\S+ to \S+ +x [\d.]+",
                        done.stdout, re.MULTILINE)
        assert row, done.stdout
        assert float(row[1].replace(",", "")) > 100
    assert re.search(r"first instruction: tolva: [\d.]+, at most 1.05",
                     done.stdout)


def test_a_section_that_there_is_not_is_refused(tmp_path):
    done = bench(tmp_path, "--only", "speed")
    assert done.returncode == 2
    assert "latency" in done.stderr


def test_competitors_take_turns():
    calls = []
    table = figures.Table("x", "x", "s")
    figures.take_turns(StillBench, table, {
        name: lambda n=name: calls.append(n) or len(calls)
        for name in (figures.FLOOR, "tolva", "other")}, 3)
    assert calls == ["C floor", "tolva", "other", "tolva", "other", "C floor",
                     "other", "C floor", "tolva"]
    assert table.values["tolva"] == [2, 4, 9]


def test_one_that_fails_is_left_out_and_said():
    def fail():
        raise figures.CannotMeasure("it told 3 of 4 hosts")

    table = figures.Table("x", "x", "s")
    figures.take_turns(StillBench, table,
                       {figures.FLOOR: lambda: 1, "other": fail}, 2)
    assert table.values == {"C floor": [1, 1]}
    assert table.notes == ["other is left out: it told 3 of 4 hosts"]


def test_a_ratio_is_one_of_the_same_round():
    table = figures.Table("x", "x", "s", {"C floor": [1, 2, 4],
                                          "tolva": [2, 2, 2]})
    assert table.ratios("tolva") == [2, 1, 0.5]
    assert table.ratio("tolva") == (0.75, 1, 1.5)


@pytest.mark.parametrize("values, good", [([1.05], True), ([1.06], False)])
def test_a_goal_that_is_not_met_is_called_so(values, good):
    table = figures.Table("latency", report.GOALS[0][0], "µs",
                          {"C floor": [1], "tolva": values})
    (found,) = report.goals([table])
    assert found[3] is good
    assert ("NOT MET" in report.goals_as_text([table])) is not good
