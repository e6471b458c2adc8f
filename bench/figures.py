"""The figures of a run: values by round for each competitor, and what becomes
of them.

Competitors take turns, so that whatever else the machine does hits all alike,
and a ratio is one of the same round. The order changes from round to round.
"""

import dataclasses
import statistics
import time

FLOOR = "C floor"


def quartiles(values):
    """Lower quartile, median, upper quartile."""
    if len(values) == 1:
        return values[0], values[0], values[0]
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, middle, high


@dataclasses.dataclass
class Table:
    """What a section has measured: name of a competitor or a level, and a value
    for each round."""
    section: str
    title: str
    unit: str
    values: dict = dataclasses.field(default_factory=dict)
    base: str = FLOOR
    notes: list = dataclasses.field(default_factory=list)
    # A column more: its heading, its unit, and a value or several for a name.
    also: str = ""
    also_unit: str = ""
    also_values: dict = dataclasses.field(default_factory=dict)

    def ratios(self, name):
        """To the base, round by round; empty without one."""
        base = self.values.get(self.base, [])
        return [value / other
                for value, other in zip(self.values[name], base) if other]

    def ratio(self, name):
        """The quartiles of the ratios, or none."""
        ratios = self.ratios(name)
        return quartiles(ratios) if ratios else None


class CannotMeasure(Exception):
    """A competitor that did not do what it was started for."""


def take_turns(bench, table, rivals, rounds):
    """Calls each of rivals, by name, once a round. One that fails is left out
    and said; one that has used up the bench's patience drops out, which tolva
    and what it is compared with never do."""
    alive = dict(rivals)
    spent = dict.fromkeys(rivals, 0)
    for number in range(rounds):
        names = list(alive)
        if not names:
            break
        shift = number % len(names)
        for name in names[shift:] + names[:shift]:
            bench.progress(table, number, rounds, name)
            begun = time.monotonic()
            try:
                value = alive[name]()
            except CannotMeasure as error:
                table.notes.append(f"{name} is left out: {error}")
                table.values.pop(name, None)
                del alive[name]
                continue
            table.values.setdefault(name, []).append(value)
            spent[name] += time.monotonic() - begun
            if spent[name] > bench.patience and name != table.base and \
                    not name.startswith("tolva"):
                del alive[name]
    # In the order in which they were given.
    table.values = {name: table.values[name] for name in rivals
                    if name in table.values}
