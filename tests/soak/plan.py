"""What the load is made of: requests, each with a token of its own.

All of it comes out of a seed, so that the same seed makes the same requests
in the same order. What became of each is noted in its record.
"""

import dataclasses
import itertools

from wire import EXECUTE, HEADER, STATUS

HOSTS = ["127.0.0.1", "127.0.0.5", "127.0.0.6", "127.0.0.7"]
STRANGER = "127.0.0.9"
FILLED = 9001  # the message that holds a token, a status and a way
WORDS = {"EXECUTE": "execute", "SHUTDOWN": "shutdown", "MSG_TEXT": "message",
         "MSG_ID": "message", "MAIL_TEXT": "mail", "LOG_TEXT": None}
STATUSES = [0, 0, 0, 1, 3, 127, 128, 200, 255]

# Kind of client, and how many of a hundred.
KINDS = {"tcp": 64, "datagram": 8, "bare": 4, "garbage": 7, "leaver": 4,
         "reset": 3, "silent": 3, "stranger": 3, "forger": 1, "sender": 1,
         "splitter": 1, "crowd": 0.05}
# How a script goes about it, and how many of a hundred.
WAYS = {"quick": 93, "slow": 4, "killed": 3}


@dataclasses.dataclass
class Request:
    """One request, and what became of it."""

    token: str
    kind: str
    host: str
    payload: bytes
    word: str = ""     # the command word; none in a bare request
    way: str = "quick"
    status: int = 0    # with which its script ends
    wanted: bool = False
    sent: bool = False      # it may have been carried out
    delivered: bool = False  # it must have been carried out
    reply: bytes = b""
    fault: str = ""

    @property
    def logged(self):
        """Its token is written by the listener, not by a script."""
        return self.word == "LOG_TEXT"


def text_of(word, token, status, way):
    """The command text that brings the token to its script."""
    told = f"{token} {status} {way}"
    return {"MAIL_TEXT": f"MAIL_TEXT root {told}",
            "MSG_ID": f"MSG_ID {FILLED} {told}",
            "LOG_TEXT": f"LOG_TEXT {token}"}.get(word, f"{word} {told}")


def garbage(random):
    """Bytes that are no request, however near they come to one."""
    noise = random.randbytes(random.choice([1, 22, 200, 4095, 9000]))
    return random.choice([
        noise, HEADER[:22], HEADER + b"\r\n", HEADER + b" " + noise,
        EXECUTE + b"EXECUTION t", EXECUTE, STATUS, EXECUTE + b"LOG_TEXT",
        HEADER.replace(b"SEND", b"REPLY"), b"\0" + HEADER])


class Plan:
    """Makes the requests, one after the other."""

    def __init__(self, random, prefix):
        self.random = random
        self.prefix = prefix
        self.numbers = itertools.count(1)

    def next(self):
        draw = self.random
        kind = draw.choices(list(KINDS), KINDS.values())[0]
        return self.make(kind, draw.choice(list(WORDS)),
                         draw.random() < 0.6)

    def make(self, kind, word="EXECUTE", wanted=True):
        draw = self.random
        token = f"{self.prefix}{next(self.numbers):07d}"
        host = STRANGER if kind in ("stranger", "forger") else \
            draw.choice(HOSTS)
        if kind in ("bare", "garbage", "silent", "crowd"):
            payload = garbage(draw) if kind == "garbage" else HEADER
            return Request(token, kind, host, payload)
        way = draw.choices(list(WAYS), WAYS.values())[0]
        status = draw.choice(STATUSES)
        if word == "LOG_TEXT":
            way, status = "quick", 0
        text = text_of(word, token, status, way)
        payload = (STATUS if wanted else EXECUTE) + text.encode()
        return Request(token, kind, host, payload, word, way, status,
                       wanted and kind in ("tcp", "sender", "leaver",
                                           "splitter"))
