"""Numbers that 32 bits do not hold: logs past 2 GiB, times past 2038."""

import os

from fakeclock import FakeClock
from harness import message_arguments
from wire import LOGGED, STATUS

GIB = 1 << 30


def log(listener, text):
    """Has the text logged; True when the listener says that it was."""
    reply = listener.request(STATUS + b"LOG_TEXT " + text)
    assert reply[:-1] == LOGGED[:-1]
    return reply.endswith(b"0")


def listener_with_log(home, hole, tail, size):
    """A listener that says nothing of its own, and whose log begins with a
    hole."""
    with open(home.path("tolva.log"), "wb") as file:
        file.truncate(hole)
        file.seek(hole)
        file.write(tail)
    home.messages(without=list(message_arguments()))
    return home.listener(config={"LogfileSize": size})


def test_a_log_past_2_gib_is_written_on(home):
    for size in (2 * GIB - 10, 3 * GIB, 5 * GIB):
        listener = listener_with_log(home, size, b"\nlast\n", 0)
        assert log(listener, b"behind it")
        listener.stop()
        with open(home.path("tolva.log"), "rb") as file:
            file.seek(size)
            end = file.read()
        assert end.startswith(b"\nlast\n")
        assert end.endswith(b": behind it\n")
        assert len(end.splitlines()) == 3


def test_a_log_past_2_gib_is_cut(home):
    lines = b"".join(b"%0199d\n" % n for n in range(20))
    listener = listener_with_log(home, 3 * GIB, b"\n" + lines, 1)
    assert log(listener, b"behind it")
    listener.stop()
    kept = home.read("tolva.log").splitlines(keepends=True)
    assert os.path.getsize(home.path("tolva.log")) <= 1024
    assert kept[:-1] == lines.splitlines(keepends=True)[-len(kept) + 1:]
    assert len(kept) > 3
    assert kept[-1].endswith(b": behind it\n")


def test_a_line_after_2038_has_its_date(home):
    home.messages(without=list(message_arguments()))
    clock = FakeClock(home)
    clock.set(20 * 365 * 86400)
    listener = home.listener(env=clock.env)
    log(listener, b"later")
    listener.stop()
    [line] = home.log_lines()
    assert line[0] == clock.date
    assert line[0].endswith("/2046")
    assert line[3] == "later"
