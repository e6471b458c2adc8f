#!/usr/bin/python3
"""Checks the operator messages in src/ against share/messages.dat.

Every number that the program logs must have a text, every text a place that
logs it, and each text exactly as many placeholders as the call counts. The
calls must read log_message(count, msgdb_get(number or condition), ...).
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1
                    else pathlib.Path(__file__).resolve().parents[1])
DATABASE = ROOT / "share" / "messages.dat"
SOURCE = ROOT / "src"
# What log_message fills: "%s" with no letter or digit behind it.
PLACEHOLDER = re.compile(r"%s(?![0-9A-Za-z])")
NUMBERED = re.compile(r"log_message\(\s*(\w+)\s*,\s*msgdb_get\(")
LITERAL = re.compile(r'log_message\(\s*(\w+)\s*,\s*"((?:[^"\\]|\\.)*)"')
# The program's buffer for a line of the file, with its end.
LONGEST = 1022


def closing(text, start):
    """Where the parenthesis ends that was opened before start."""
    depth = 1
    for position in range(start, len(text)):
        depth += {"(": 1, ")": -1}.get(text[position], 0)
        if depth == 0:
            return position
    return len(text)


def read_database(complain):
    texts = {}
    for number, line in enumerate(DATABASE.read_text().splitlines(), 1):
        where = f"{DATABASE.name}:{number}"
        match = re.match(r"m(\d+)=(.*)$", line)
        if not match:
            complain(f"{where}: not m<number>=<text>")
            continue
        key, text = int(match[1]), match[2]
        if key in texts:
            complain(f"{where}: message {key} stands there twice")
        if not text.strip():
            complain(f"{where}: message {key} has no text")
        if re.search(r"m\d+=", text):
            complain(f"{where}: the text is found as another message too")
        if re.match(r"\s*(tolva\s|ERROR: )", text, re.IGNORECASE):
            complain(f"{where}: the log changes how this text begins")
        if text.count("%") != len(PLACEHOLDER.findall(text)):
            complain(f"{where}: a % that is never filled")
        if not line.isascii() or not line.isprintable():
            complain(f"{where}: a character that is not plain text")
        if len(line) > LONGEST:
            complain(f"{where}: longer than {LONGEST} characters")
        texts[key] = text
    return texts


def read_source(complain):
    """Each number with the places that log it and the counts there."""
    calls = {}
    for file in sorted(SOURCE.rglob("*.cpp")):
        text = file.read_text()
        name = file.relative_to(ROOT)

        def where(position):
            return f"{name}:{text.count(chr(10), 0, position) + 1}"

        understood = set()
        for match in NUMBERED.finditer(text):
            understood.add(match.end())
            argument = text[match.end():closing(text, match.end())]
            # "kind == 4 ? 814 : 787": only what is chosen is a message.
            chosen = argument.rsplit("?", 1)[-1]
            numbers = re.findall(r"\b\d{1,4}\b", chosen)
            if not numbers or not match[1].isdigit():
                complain(f"{where(match.start())}: no number to be seen")
                continue
            for number in numbers:
                calls.setdefault(int(number), []).append(
                    (where(match.start()), int(match[1])))
        for match in LITERAL.finditer(text):
            filled = len(PLACEHOLDER.findall(match[2]))
            if match[1].isdigit() and filled != int(match[1]):
                complain(f"{where(match.start())}: {filled} placeholders, "
                         f"{match[1]} arguments are counted")
        for match in re.finditer(r"\bmsgdb_get\(", text):
            line = text[text.rfind("\n", 0, match.start()) + 1:match.start()]
            defined = line.strip() == "const char *"
            if match.end() not in understood and not defined:
                complain(f"{where(match.start())}: msgdb_get outside "
                         "log_message(count, msgdb_get(number), ...)")
    return calls


def main():
    problems = []
    texts = read_database(problems.append)
    calls = read_source(problems.append)
    for number, places in sorted(calls.items()):
        if number not in texts:
            problems.append(f"{places[0][0]}: message {number} has no text "
                            f"in {DATABASE.name}")
            continue
        filled = len(PLACEHOLDER.findall(texts[number]))
        for where, count in places:
            if filled != count:
                problems.append(f"{where}: message {number} has {filled} "
                                f"placeholders, {count} are counted")
    for number in sorted(set(texts) - set(calls)):
        problems.append(f"{DATABASE.name}: nothing logs message {number}")
    for problem in problems:
        print(problem, file=sys.stderr)
    if not problems:
        print(f"{len(texts)} messages agree with the source")
    return 1 if problems else 0


sys.exit(main())
