"""The memory that is shared with the library under the program, and which
fault the library is to make; faults.c has the other side of both."""

import errno
import mmap
import pathlib
import struct
import typing

SIZE = 8192
HEADER = struct.Struct("8IqQ2I96s")
CALL = struct.Struct("24sI")
WISH = 8
GRANTED = 12


class Fault(typing.NamedTuple):
    """One call that fails: the function, or "memory"; which call of it;
    "once" or "on", from that one on; an errno by name, "short" or "pending".
    """

    call: str
    which: int
    extent: str
    kind: str

    @classmethod
    def parse(cls, text):
        call, which, extent, kind = text.split(":")
        return cls(call, int(which), extent, kind)

    def __str__(self):
        return f"{self.call}:{self.which}:{self.extent}:{self.kind}"

    @property
    def environment(self):
        number = getattr(errno, self.kind, self.kind)
        return f"{self.call} {self.which} {self.extent} {number}"


class Tally:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.path.write_bytes(bytes(SIZE))
        with open(self.path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), SIZE)

    def close(self):
        self.memory.close()

    def _field(number):
        return property(lambda self: HEADER.unpack_from(self.memory)[number])

    ready = _field(0)
    hits = _field(1)
    wish = _field(2)
    granted = _field(3)
    waits = _field(4)
    waiting = _field(5)
    pid = _field(6)
    hit_pid = _field(7)
    ahead = _field(8)
    site = _field(9)
    left_open = _field(10)
    allocations = _field(11)

    @property
    def what(self):
        """What the first call that failed was about, a path mostly."""
        return HEADER.unpack_from(self.memory)[12].partition(b"\0")[0].decode(
            "latin-1")

    def pass_time(self):
        """Has the wait that is under way end, as if its time were up."""
        struct.pack_into("I", self.memory, WISH, self.wish + 1)

    def counts(self):
        """{function: how often it was called}, those that were."""
        found = {}
        for number in range(self.ready):
            name, count = CALL.unpack_from(
                self.memory, HEADER.size + number * CALL.size)
            if count:
                found[name.partition(b"\0")[0].decode()] = count
        found["memory"] = self.allocations
        return found
