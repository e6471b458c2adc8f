#!/usr/bin/python3
"""Checks the includes in src/ against the table in docs/source-tour.md.

Fails on an include that is not in the table, on a module or row without its
counterpart, on a row that stands above one that it includes, and on a circle.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1
                    else pathlib.Path(__file__).resolve().parents[1])
TABLE = ROOT / "docs" / "source-tour.md"
SOURCE = ROOT / "src"
ROW = re.compile(r"^\| `(\w+/\w+)` \|.*\| ([^|]*) \|$")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def read_table(complain):
    """Each module's full name with the full names that it may include."""
    rows = {}
    for line in TABLE.read_text().splitlines():
        match = ROW.match(line)
        if match:
            uses = re.findall(r"\w+", match[2])
            if match[1] in rows:
                complain(f"{TABLE.name}: {match[1]} stands there twice")
            rows[match[1]] = uses
    full = {name.split("/")[1]: name for name in rows}
    table = {}
    for name, uses in rows.items():
        for use in uses:
            if use not in full:
                complain(f"{TABLE.name}: {name}: no module {use}")
            elif full[use] not in table:
                complain(f"{TABLE.name}: {name} stands above {use}, "
                         "which it includes")
        table[name] = {full[use] for use in uses if use in full}
    return table


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
    table = read_table(problems.append)
    found = read_source(problems.append)
    if not table:
        problems.append(f"{TABLE.name}: no table of modules")
    for name, uses in found.items():
        if name not in table:
            problems.append(f"src/{name}: not in the table")
            continue
        for use, file in uses.items():
            if use not in table[name]:
                problems.append(f"{file}: may not include {use}")
    for name in table:
        if name not in found:
            problems.append(f"{TABLE.name}: {name} is not in src/")
        elif name.startswith("unixtools/"):
            for use in table[name]:
                if use.startswith("tolva2/") and use != "tolva2/trace":
                    problems.append(f"{TABLE.name}: {name} may have only "
                                    f"trace of tolva2, not {use}")
    circle = find_circle(found)
    if circle:
        problems.append("circle: " + " -> ".join(circle))
    for problem in problems:
        print(problem, file=sys.stderr)
    if not problems:
        print(f"{len(found)} modules include what the table allows")
    return 1 if problems else 0


sys.exit(main())
