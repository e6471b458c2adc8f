#!/usr/bin/python3
"""Checks the includes in src/ against the floors in docs/source-tour.md.

The table there has a row for each floor, from the roof down, with its folders
and headers. A file may include its own folder and the floors below, never
sideways or up, and modules may not include each other in a circle. Fails on
an include that does not keep to it, on a folder without a floor and on a
floor without files.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
TABLE = ROOT / "docs" / "source-tour.md"
SOURCE = ROOT / "src"
ROW = re.compile(r"^\| (\d+) \| ([^|]*) \|")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)
# The library is of use elsewhere too, so it must be able to stand alone.
LIBRARY = "unixtools"
LIBRARY_SEES = {"tolva2/base/trace"}


def read_floors(complain):
    """The floor of each folder and of each header that has one of its own."""
    floors = {}
    above = None
    for line in TABLE.read_text().splitlines():
        match = ROW.match(line)
        if not match:
            continue
        floor = int(match[1])
        if above is not None and floor != above - 1:
            complain(f"{TABLE.name}: floor {floor} stands below {above}")
        above = floor
        for place in re.findall(r"`src/([\w/.]+)`", match[2]):
            name = place.removesuffix(".h")
            if name in floors:
                complain(f"{TABLE.name}: {place} stands there twice")
            floors[name] = floor
    return floors


def read_source(complain):
    """Each module's full name with those that it includes, and from where."""
    found = {}
    for file in sorted(SOURCE.rglob("*")):
        if file.suffix not in (".cpp", ".h"):
            continue
        name = str(file.relative_to(SOURCE).with_suffix(""))
        uses = found.setdefault(name, {})
        for include in INCLUDE.findall(file.read_text()):
            if not (SOURCE / include).is_file():
                complain(f"{file.relative_to(ROOT)}: \"{include}\" is not "
                         "named from src/")
                continue
            use = str(pathlib.Path(include).with_suffix(""))
            if use != name:
                uses.setdefault(use, file.relative_to(ROOT))
    return found


def place_of(name, floors):
    """What the table calls the place of a module: itself or its folder."""
    return name if name in floors else str(pathlib.Path(name).parent)


def may_include(name, use, floors):
    here, there = place_of(name, floors), place_of(use, floors)
    if name.startswith(LIBRARY) and use.startswith("tolva2") \
            and use not in LIBRARY_SEES:
        return False
    return here == there or floors[there] < floors[here]


def find_circle(uses):
    """The modules of a circle of includes, or None."""
    done = set()

    def visit(name, path):
        if name in path:
            return path[path.index(name):] + [name]
        if name in done:
            return None
        for use in uses.get(name, ()):
            circle = visit(use, path + [name])
            if circle:
                return circle
        done.add(name)
        return None

    for name in uses:
        circle = visit(name, [])
        if circle:
            return circle
    return None


def main():
    problems = []
    floors = read_floors(problems.append)
    found = read_source(problems.append)
    if not floors:
        problems.append(f"{TABLE.name}: no table of floors")
    homeless = {name for name in found if place_of(name, floors) not in floors}
    for name in sorted(homeless):
        problems.append(f"src/{name}: its folder has no floor")
    for name, uses in found.items():
        for use, file in uses.items():
            if not {name, use} & homeless and \
                    not may_include(name, use, floors):
                problems.append(f"{file}: may not include {use}")
    for place in floors:
        if not any(place_of(name, floors) == place for name in found):
            problems.append(f"{TABLE.name}: nothing is in src/{place}")
    circle = find_circle(found)
    if circle:
        problems.append("circle: " + " -> ".join(circle))
    for problem in problems:
        print(problem, file=sys.stderr)
    if not problems:
        print(f"{len(found)} modules on {len(set(floors.values()))} floors "
              "include nothing but what is beside or below them")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
