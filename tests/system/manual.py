"""Reads the manual pages, so that what they say can be tried.

    page = Page("tolva.8")
    page.table("status")      the rows of a table, as lists of cells
    page.displays("run")      {name: text} of the examples marked "run: name"
    page.marks("key")         the texts of the comments "key: ..."

The pages mark what is read with comments, .\\" at the start of a line.
"""

import re

from harness import ROOT

DIRECTORY = ROOT / "man"
ESCAPES = {r"\(aq": "'", r"\(ga": "`", r"\(dq": '"', r"\e": "\\",
           r"\-": "-", r"\&": "", r"\ ": " "}


def plain(text):
    """The text without the escapes of the page's source."""
    return re.sub(r"\\(?:\((?:aq|ga|dq)|[e&\- ])",
                  lambda found: ESCAPES[found[0]], text)


class Page:
    def __init__(self, name):
        self.path = DIRECTORY / name
        self.lines = self.path.read_text(encoding="ascii").splitlines()

    def marks(self, kind):
        """What stands in each comment 'kind: text'."""
        start = f'.\\" {kind}: '
        return [line[len(start):] for line in self.lines
                if line.startswith(start)]

    def _behind(self, kind):
        """(name, number of the next line) of each mark of that kind."""
        start = f'.\\" {kind}: '
        return [(line[len(start):], number + 1)
                for number, line in enumerate(self.lines)
                if line.startswith(start)]

    def table(self, name):
        first = dict(self._behind("table"))[name]
        last = self.lines.index('.\\" end table', first)
        rows = [line.removeprefix(".It ").split(" Ta ")
                for line in self.lines[first:last]]
        assert rows
        return [[plain(cell.removesuffix(" Ta").strip()) for cell in row]
                for row in (self._with_empty(row) for row in rows)]

    @staticmethod
    def _with_empty(row):
        """An empty cell stands as "Ta Ta" in the source."""
        cells = []
        for cell in row:
            while cell.startswith("Ta "):
                cells.append("")
                cell = cell[3:]
            cells.append(cell)
        return cells

    def displays(self, kind):
        found = {}
        for name, first in self._behind(kind):
            assert self.lines[first].startswith(".Bd -literal"), name
            last = self.lines.index(".Ed", first)
            found[name] = plain("\n".join(self.lines[first + 1:last])) + "\n"
        return found

    def items(self, kind):
        """The item lines of the lists of a kind (".Bl -diag")."""
        found = []
        inside = False
        for line in self.lines:
            if line.startswith(".Bl"):
                inside = line.startswith(f".Bl -{kind}")
            elif line == ".El":
                inside = False
            elif inside and line.startswith(".It "):
                found.append(plain(line.removeprefix(".It ").strip('"')))
        return found

    def options(self, group):
        """The options (without "-") that are listed behind 'options: group'."""
        first = dict(self._behind("options"))[group]
        found = []
        for line in self.lines[first:]:
            if line == ".El":
                return found
            if line.startswith(".It"):
                found += [plain(o) for o in re.findall(r"Fl (\S+)", line)]
        raise AssertionError("the list has no end")
