"""Says what was wrong with a run: requests against what scripts and log say.

Each function gives a list of faults in words; an empty one is what is wanted.
"""

import collections
import re

from harness import message
from plan import WORDS
from wire import LOGGED, reply_parts

NOT_ALIVE = "tolva_notalive.sh"
RAN = re.compile(r"(\S+) (\d+) (\d+)")


class Evidence:
    """What the scripts wrote down, and the texts of the log's lines."""

    def __init__(self, ran, messages, prefix):
        self.pids = collections.defaultdict(list)
        self.torn = []
        for line in ran:
            match = RAN.fullmatch(line)
            if match:
                self.pids[match[1]].append({int(match[2]), int(match[3])})
            else:
                self.torn.append(line)
        token = re.compile(rf"{prefix}\d{{7}}")
        self.logged = collections.Counter(filter(token.fullmatch, messages))

    def count(self, request):
        """How often the request was carried out."""
        if request.logged:
            return self.logged[request.token]
        return len(self.pids[request.token])


def own_status(status):
    """A script's status as the sender's own exit status."""
    return status if status == 0 or status > 127 else status + 127


def wrong_reply(request, evidence, home, killed):
    """What is wrong with a reply that came, or None."""
    status = killed if request.way == "killed" else request.status
    if request.kind == "sender":
        wanted = b"%d" % own_status(status)
        return None if request.reply == wanted else "status"
    if request.logged:
        return None if request.reply == LOGGED else "reply"
    try:
        command, pid, told = reply_parts(request.reply)
    except AssertionError:
        return "form"
    if told != status:
        return "status"
    if command != str(home.path(f"tolva_{WORDS[request.word]}.sh")):
        return "script"
    if not any(pid in pids for pids in evidence.pids[request.token]):
        return "client"
    return None


def judge_request(request, evidence, home, killed, steady):
    """What is wrong with a request, or None."""
    if request.word:
        count = evidence.count(request)
        refused = request.kind in ("stranger", "forger")
        if count > 1:
            return f"carried out {count} times"
        if count and (refused or not request.sent):
            return "carried out"
        if request.delivered and not count:
            return "acknowledged and lost"
    if request.reply:
        if not request.wanted:
            return f"a reply to nobody: {request.reply!r}"
        if request.delivered:
            wrong = wrong_reply(request, evidence, home, killed)
            if wrong:
                return f"wrong {wrong} in {request.reply!r}"
    if steady and request.fault:
        return request.fault
    return None


def judge_requests(requests, evidence, home, killed, steady):
    faults = [f"not in one piece: {line!r}" for line in evidence.torn]
    for one in requests:
        fault = judge_request(one, evidence, home, killed, steady)
        if fault:
            faults.append(f"{one.token} {one.kind} {one.word} {one.way} from "
                          f"{one.host}: {fault}")
    sent = {one.token for one in requests} | {"bare", "dead"}
    for token in (set(evidence.pids) | set(evidence.logged)) - sent:
        if evidence.pids[token] or evidence.logged[token]:
            faults.append(f"nobody sent {token}")
    return faults + judge_bare(requests, evidence)


def judge_bare(requests, evidence):
    """Bare requests have no token, but a number."""
    bare = [one for one in requests if one.kind == "bare"]
    low = sum(one.delivered for one in bare)
    high = sum(one.sent for one in bare)
    ran = len(evidence.pids["bare"])
    return [] if low <= ran <= high else [
        f"{low} bare requests acknowledged, {high} sent, {ran} carried out"]


def judge_log(evidence, messages):
    """Each script that ran was logged when it began, and when it ended."""
    def lines(*numbers):
        starts = tuple(message(number) for number in numbers)
        return sum(text.startswith(starts) and NOT_ALIVE not in text
                   for text in messages)

    # A server's next script takes the place of one that still runs.
    ran = sum(len(pids) for token, pids in evidence.pids.items()
              if token != "dead")
    started, ended = lines(792), lines(793, 794)
    return [] if ran == started == ended else [
        f"{ran} scripts ran, {started} were logged, {ended} with their end"]


def judge_datagrams(requests, evidence, dropped):
    """A datagram that the system did not drop was carried out."""
    sent = [one for one in requests if one.kind == "datagram" and one.sent]
    ran = sum(evidence.count(one) for one in sent)
    return [] if ran + dropped >= len(sent) else [
        f"{len(sent)} datagrams, {dropped} dropped by the system, "
        f"{ran} carried out"]


def judge_growth(before, after):
    """Nothing has piled up in the listener."""
    faults = []
    for what, room in (("descriptors", 0), ("zombies", 0), ("kilobytes", 96)):
        if after[what] > before[what] + room:
            faults.append(f"{what}: {before[what]} before, {after[what]} "
                          "after")
    return faults
