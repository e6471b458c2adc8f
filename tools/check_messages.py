#!/usr/bin/python3
"""Checks the program's events against share/messages.dat.

Every event of src/tolva2/files/events.h must have a text there, every text an
event, each text exactly as many placeholders as the event has arguments, and
each event a place that reports it. What is logged without a number must have
as many placeholders as are counted.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1
                    else pathlib.Path(__file__).resolve().parents[1])
DATABASE = ROOT / "share" / "messages.dat"
SOURCE = ROOT / "src"
EVENTS = SOURCE / "tolva2" / "files" / "events.h"
# What log_message fills: "%s" with no letter or digit behind it.
PLACEHOLDER = re.compile(r"%s(?![0-9A-Za-z])")
EVENT = re.compile(r"(?:event_message|added_event)<(\d+)> (\w+)\{(\d+)\};")
LITERAL = re.compile(r'log_message\(\s*(\w+)\s*,\s*"((?:[^"\\]|\\.)*)"')
# The program's buffer for a line of the file, with its end.
LONGEST = 1022


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


def read_events(complain):
    """{number: (name, count of arguments)}"""
    events = {}
    for count, name, number in EVENT.findall(EVENTS.read_text()):
        if int(number) in events:
            complain(f"{EVENTS.name}: message {number} stands there twice")
        events[int(number)] = (name, int(count))
    listed = re.findall(r"(\w+)\.number[,}]", EVENTS.read_text())
    if listed != [name for name, _ in events.values()]:
        complain(f"{EVENTS.name}: NUMBERS does not list the events in order")
    return events


def check_source(events, complain):
    reported = set()
    for file in sorted(SOURCE.rglob("*.cpp")):
        text = file.read_text()
        name = file.relative_to(ROOT)
        reported.update(re.findall(r"\bevent::(\w+)", text))
        for match in LITERAL.finditer(text):
            filled = len(PLACEHOLDER.findall(match[2]))
            line = text.count("\n", 0, match.start()) + 1
            if match[1].isdigit() and filled != int(match[1]):
                complain(f"{name}:{line}: {filled} placeholders, "
                         f"{match[1]} arguments are counted")
        for match in re.finditer(r"\bmsgdb_get\(\s*\d", text):
            line = text.count("\n", 0, match.start()) + 1
            complain(f"{name}:{line}: a bare number, not an event")
    for name, _ in events.values():
        if name not in reported:
            complain(f"{EVENTS.name}: nothing reports {name}")


def main():
    problems = []
    texts = read_database(problems.append)
    events = read_events(problems.append)
    if not events:
        problems.append(f"{EVENTS.name}: no events")
    check_source(events, problems.append)
    for number, (name, count) in sorted(events.items()):
        if number not in texts:
            problems.append(f"{EVENTS.name}: {name} has no text in "
                            f"{DATABASE.name}")
            continue
        filled = len(PLACEHOLDER.findall(texts[number]))
        if filled != count:
            problems.append(f"{DATABASE.name}: message {number} has {filled} "
                            f"placeholders, {name} has {count} arguments")
    for number in sorted(set(texts) - set(events)):
        problems.append(f"{DATABASE.name}: nothing logs message {number}")
    for problem in problems:
        print(problem, file=sys.stderr)
    if not problems:
        print(f"{len(texts)} messages agree with the program's events")
    return 1 if problems else 0


sys.exit(main())
