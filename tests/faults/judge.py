"""What must hold whatever fails, and what came of a fault."""

import collections
import re

from scenes import COMPLAINT, Listener

# What came of a fault, in the order of the table.
OUTCOMES = {
    "unharmed": "all was done, and all lines are there",
    "told": "something was not done, and a line says so",
    "refused": "it did not start: a line, and status 1",
    "stopped": "the listener ended: a line, and status 1",
    "at the sender": "it got no answer, or one that says no, and reports that",
    "line lost": "all was done, but a line is not in the log",
    "mute": "something was not done, and the log could not be written",
    "documented": "the manual says that it is so, see judge.py",
    "not reached": "the call was not made this time",
    "violation": "",
}

# What is promised nowhere: the scene, what the call was about, the error. A
# settings file in the home that must not be read counts as a missing one.
DOCUMENTED = {("detached", "/tolva.cfg", "EACCES")}

# Without these no line gets into the log, or to the terminal.
WRITERS = {"fopen", "fwrite", "fclose", "fflush", "fputs", "fputc", "vfprintf",
           "vprintf", "fstat", "memory", "malloc", "write", "stat", "fdopen",
           "open", "fgets"}


def lost(lines, wanted):
    """What is wanted and not among the lines."""
    return list((collections.Counter(wanted) -
                 collections.Counter(lines)).elements())


def judge(scene, base, seen, fault):
    """(outcome, problems) of a run of the scene."""
    problems = list(seen.problems)
    extra = lost(base.lines, seen.lines)
    missing = lost(seen.lines, base.lines)
    # Where something fails anyway, the same line may say so.
    complaints = [line for line in (seen.lines if scene.standing else extra)
                  if COMPLAINT.search(line)]
    if issubclass(scene, Listener):
        outcome, different = judge_listener(scene, base, seen, fault,
                                            complaints, problems)
    else:
        outcome, different = judge_sender(scene, base, seen, problems)
    if outcome is None and different:
        if complaints:
            outcome = "told"
        elif is_seen_there(fault, different):
            outcome = "at the sender"
        elif fault.call in WRITERS and (fault.extent == "on" or
                                        "messages.dat" in seen.what or
                                        "tolva.log" in seen.what):
            outcome = "mute"
        else:
            problems.append(f"silent: {different}")
    elif outcome in ("refused", "stopped") and not complaints:
        if fault.call in WRITERS and fault.extent == "on":
            outcome = "mute"
        else:
            problems.append(f"silent, though {outcome}")
    if outcome is None:
        outcome = ("told" if complaints else "line lost" if missing
                   else "unharmed")
    if not seen.hits and not problems:
        outcome = "not reached"
    if any(name == scene.name and seen.what.endswith(what) and
           fault.kind == kind for name, what, kind in DOCUMENTED):
        return "documented", []
    return ("violation" if problems else outcome), problems


def judge_listener(scene, base, seen, fault, complaints, problems):
    acknowledged = {name for name, result, _ in seen.steps
                    if isinstance(result, tuple) and result[0] == "status 0"}
    tokens = seen.tokens
    for token, count in tokens.items():
        if token not in base.tokens and not token.startswith("notalive"):
            problems.append(f"ran what was never asked for: {token}")
        if count > scene.requests.get(token, 1) and \
                not token.startswith("notalive"):
            problems.append(f"ran {count} times: {token}")
    for name, token in (("status", "one"), ("probe", "probe"),
                        ("again", "again")):
        if name in acknowledged and tokens[token] != 1:
            problems.append(f"acknowledged, but did not run: {token}")
    if "log" in acknowledged and "noted" not in seen.lines:
        problems.append("acknowledged, but not logged")
    # Of what size the log is nobody knows without the one, and a torn line
    # cannot be taken back without either.
    if seen.log_size > scene.log_limit > 0 and fault.call != "stat":
        problems.append(f"a log of {seen.log_size} bytes")
    if not seen.up:
        if seen.tokens:
            problems.append("ran something and was never up")
        if seen.status != 1:
            problems.append(f"status {seen.status} without a start")
        return "refused", None
    steps = {name: result for name, result, _ in base.steps}
    different = []
    gone = any(result == "gone" for _, result, _ in seen.steps)
    for name, result, began in seen.steps:
        if result == steps[name]:
            continue
        different.append(f"{name} {result}, not {steps.get(name)}")
        if began and fault.extent == "once" and not gone:
            problems.append(f"not served: {different[-1]}")
        if result != "gone" and "cannot: Connection refused" in result:
            problems.append("not at its address and port")
        if name == "held back" and result != "gone" and \
                "shutdown" in result and \
                not any("not alive" in line for line in complaints):
            problems.append("shutdown that was to be held back")
    if gone or seen.status == 1:
        if seen.status != 1:
            problems.append(f"status {seen.status} of one that ended")
        return "stopped", None
    if seen.status != 0:
        problems.append(f"status {seen.status}, not 0")
    if seen.sockets is not None and seen.sockets > base.sockets:
        problems.append(f"{seen.sockets} sockets, not {base.sockets}")
    if seen.sockets is not None and seen.files > base.files:
        problems.append(f"{seen.files} other descriptors, not {base.files}")
    if seen.sockets is not None and seen.sockets < base.sockets:
        different.append(f"{seen.sockets} sockets, not {base.sockets}")
    if seen.detached != base.detached:
        different.append("detached" if seen.detached else "not detached")
    # Nor is there a line that could be taken back while the head is cut.
    excused = ("stat", "truncate", "fwrite") if scene.log_limit else \
        ("stat", "truncate")
    for line in seen.log_lines:
        if re.search(r"tolva\[\d+\]", line) and fault.call not in excused:
            problems.append(f"torn line: {line}")
    return None, different


def is_seen_there(fault, different):
    """The sender is the one who says so: the script ran, and the answer about
    it did not get through, or it was a line for the log, and the answer is
    that it is not there."""
    if any(text.startswith("log ('status 1'") for text in different):
        return True
    return fault.call in ("send", "getsockopt") and all(
        re.match(r"\w+ \(.closed.*, '\w+'\), not", text) or
        re.match(r"log \(.closed", text) for text in different)


def judge_sender(scene, base, seen, problems):
    whole = seen.received.count(scene.request)
    if seen.status not in (scene.good, 1):
        problems.append(f"status {seen.status}")
    if whole > 1:
        problems.append("sent twice")
    if seen.status == scene.good and whole != 1:
        problems.append(f"status {seen.status}, but {seen.received} arrived")
    different = []
    if seen.status != base.status:
        different.append(f"status {seen.status}")
    elif seen.left_open > base.left_open:
        problems.append(f"{seen.left_open} descriptors open at the end")
    return None, different
