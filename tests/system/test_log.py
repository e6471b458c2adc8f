"""The log file: its lines, and how its size is bounded."""

import datetime
import os
import random

import pytest

from fakeclock import FakeClock
from harness import LOG_LINE, message, message_arguments
from processes import open_fds
from waiting import wait_for
from wire import LOGGED, STATUS

HOST = "127.0.0.1"
PREFIX = "11/16/2026,02:24:18, tolva[00000]: "
BLOCK = 8192
LINE_MAX = 1023


def quiet(home, texts=None, **config):
    """A listener with a clock that stands still, which logs nothing but the
    given texts and what it is told to log."""
    home.messages(texts or {}, without=[
        n for n in message_arguments() if n not in (texts or {})])
    clock = FakeClock(home)
    return home.listener(env=clock.env, config=config)


def log(listener, text):
    """Has the text logged; True when the listener says that it was."""
    reply = listener.request(STATUS + b"LOG_TEXT " + text.encode("latin-1"))
    assert reply[:-1] == LOGGED[:-1]
    return reply.endswith(b"0")


# --- lines ------------------------------------------------------------------


def test_a_line_byte_for_byte(home):
    listener = quiet(home, {756: "listening"})
    log(listener, "hello world")
    listener.stop()
    assert home.log_text() == (PREFIX + "listening\n" +
                               PREFIX + "hello world\n")


def test_a_line_of_the_daemon_byte_for_byte(home):
    home.messages(without=list(message_arguments()))
    clock = FakeClock(home)
    listener = home.listener(env=clock.env, daemon=True)
    log(listener, "hello")
    clock.advance(listener, 3600 * 24 * 46)
    log(listener, "next year")
    listener.stop()
    assert home.log_text() == (
        f"11/16/2026,02:24:18, tolva[{listener.pid:05d}]: hello\n"
        f"01/01/2027,02:24:18, tolva[{listener.pid:05d}]: next year\n")


def test_lines_show_local_time(home):
    listener = home.listener(env={"TZ": "XYZ-13:45"})
    log(listener, "now")
    listener.stop()
    date, time, _, _ = home.log_lines()[0]
    shown = datetime.datetime.strptime(f"{date} {time}",
                                       "%m/%d/%Y %H:%M:%S")
    local = datetime.datetime.utcnow() + datetime.timedelta(
        hours=13, minutes=45)
    assert abs((local - shown).total_seconds()) < 60


@pytest.mark.parametrize("text, logged", [
    ("TOLVA   ERROR: x", "error: x"), ("tolva x", "x"), ("TOLVA x", "x"),
    ("ERROR: x", "error: x"), ("Error: x", "Error: x"),
    ("error: x", "error: x"), ("TOLVAx", "TOLVAx"), ("ERROR:x", "ERROR:x"),
    ("TOLVA TOLVA x", "TOLVA x"), ("a TOLVA x", "a TOLVA x"),
    ("100%s %s", "100%s %s"), ("%", "%"), ("a\vb\f", "a\vb\f"),
    ("\v\f x", "x"), ("\xe4\xff", "\xe4\xff"), ("x" * 987, "x" * 987),
], ids=lambda t: ascii(t[:20]))
def test_what_becomes_of_a_text(home, text, logged):
    listener = quiet(home)
    assert log(listener, text)
    listener.stop()
    assert home.log_text() == PREFIX + logged + "\n"


@pytest.mark.parametrize("text", ["\v\f", "\v\n\r"], ids=ascii)
def test_a_text_of_white_space_is_not_logged(home, text):
    listener = quiet(home)
    assert not log(listener, text)
    listener.stop()
    assert home.log_text() == ""


@pytest.mark.parametrize("text, line", [
    ("%s", "{}"), ("run: %s.", "run: {}."), ("%s and %s", "{} and %s"),
    ("%sx %s", "%sx {}"), ("%d %5s %%s %", "%d %5s %{} %"),
    ("a%s1b", "a%s1b"), ("%S %s", "%S {}"), ("no argument", "no argument"),
    ("TOLVA ERROR: %s", "error: {}"), ("%s%s", "{}%s"),
    ("%s\xe4", "{}\xe4"),
])
def test_how_a_message_is_filled(home, text, line):
    listener = quiet(home, {792: text}, ExecProg=": x")
    listener.request(STATUS + b"EXECUTE")
    listener.stop()
    assert home.log_text() == PREFIX + line.format(": x") + "\n"


@pytest.mark.parametrize("size", [986, 987, 988, 989, 1023, 1024, 1025,
                                  3000])
def test_a_long_line_is_cut(home, size):
    listener = quiet(home)
    log(listener, "x" * size)
    log(listener, "next")
    listener.stop()
    line = (PREFIX + "x" * size + "\n")[:LINE_MAX]
    assert home.log_text() == line + PREFIX + "next\n"


@pytest.mark.parametrize("size", [900, 1000, 2000, 4000])
def test_a_message_filled_with_a_long_text_is_cut(home, size):
    listener = quiet(home, {792: "begin %s end"}, ExecProg=":")
    listener.request(STATUS + b"EXECUTE " + b"y" * size)
    listener.stop()
    filled = f"begin : {'y' * size} end"[:1023]
    assert home.log_text() == (PREFIX + filled + "\n")[:LINE_MAX]


# --- the file ---------------------------------------------------------------


def test_the_file_is_opened_for_each_line(home):
    listener = quiet(home)
    log(listener, "one")
    home.path("tolva.log").rename(home.path("old.log"))
    log(listener, "two")
    listener.stop()
    assert home.read("old.log").decode() == PREFIX + "one\n"
    assert home.log_text() == PREFIX + "two\n"
    assert str(home.path("tolva.log")) not in \
        open_fds(os.getpid()).values()


def test_no_descriptor_of_the_log_stays_open(home):
    listener = quiet(home)
    before = open_fds(listener.pid)
    log(listener, "one")
    wait_for(lambda: open_fds(listener.pid) == before)
    listener.stop()


def test_lines_are_added_to_an_old_file(home):
    home.write("tolva.log", "older\n")
    listener = quiet(home)
    log(listener, "newer")
    listener.stop()
    assert home.log_text() == "older\n" + PREFIX + "newer\n"


def test_another_name_of_the_file(home):
    other = home.dir / "other.log"
    listener = quiet(home, LogfileName=other)
    log(listener, "here")
    listener.stop()
    assert other.read_text() == PREFIX + "here\n"
    assert home.log_text() == ""


def test_without_a_file_lines_go_to_standard_output(home):
    listener = quiet(home, LogfileEnabled="false")
    assert log(listener, "here")
    listener.stop()
    assert listener.out == PREFIX + "here\n"
    assert home.log_text() == ""


def test_a_file_that_cannot_be_written_loses_its_lines(home):
    listener = quiet(home, LogfileName=home.path("no/such/folder.log"))
    assert not log(listener, "lost")
    home.path("no").mkdir()
    home.path("no/such").mkdir()
    assert log(listener, "found")
    listener.stop()
    assert home.log_text("no/such/folder.log") == PREFIX + "found\n"
    assert listener.out == ""


# --- its size ---------------------------------------------------------------


def after_line(content, line, limit):
    """The file after a line, and whether the line was written."""
    excess = len(content) - (limit - len(line))
    if limit == 0 or excess < 0:
        return content + line, True
    kept = content[limit // 10 + excess:]
    end = kept.find(b"\n") + 1
    kept = kept[end:] if end else b""
    blocks = (len(kept) + BLOCK - 1) // BLOCK
    if blocks % 2 == 0:
        return kept, False
    return kept + line, True


def line_of(text):
    return (PREFIX + text + "\n").encode()


def check_line(home, listener, text, limit):
    """Logs the text and compares the file; whether it was written."""
    before = home.read("tolva.log")
    expected, written = after_line(before, line_of(text), limit)
    assert log(listener, text) == written
    assert home.read("tolva.log") == expected
    return written


def lines(size, width=10):
    """That many bytes in numbered lines."""
    text = b"".join(b"%0*d\n" % (width - 1, n)
                    for n in range(size // width + 1))
    return text[:size]


def test_the_first_254_of_1100_bytes_are_cut(home):
    """... for a line of 76 bytes in 1 KiB, and the line they end in."""
    home.write("tolva.log", lines(1100))
    listener = quiet(home, LogfileSize=1)
    assert log(listener, "x" * (76 - len(PREFIX) - 1))
    assert home.read("tolva.log") == lines(1100)[260:] + line_of("x" * 40)
    listener.stop()


@pytest.mark.parametrize("room, cut", [(1, False), (0, True), (-1, True)])
def test_a_line_that_just_fits(home, room, cut):
    content = lines(1024 - 50 - room)
    home.write("tolva.log", content)
    listener = quiet(home, LogfileSize=1)
    text = "x" * (50 - len(PREFIX) - 1)
    assert check_line(home, listener, text, 1024)
    assert (len(home.read("tolva.log")) < len(content)) == cut
    listener.stop()


@pytest.mark.parametrize("kib, kept, written", [
    (1, 800, True), (9, 8000, True), (10, 8192, True), (10, 8200, False),
    (12, 10000, False), (18, 16384, False), (18, 16392, True),
    (23, 20000, True), (28, 24576, True), (28, 24584, False)])
def test_the_line_at_a_cut_is_lost_after_an_even_number_of_blocks(
        home, kib, kept, written):
    limit = kib * 1024
    # The cut falls into one long line in front of what is kept.
    tail = lines(kept, 8)
    content = b"x" * (limit - kept - 2) + b"\n" + tail
    assert after_line(content, line_of("z" * 40), limit) == (
        tail + (line_of("z" * 40) if written else b""), written)
    home.write("tolva.log", content)
    listener = quiet(home, LogfileSize=kib)
    assert check_line(home, listener, "z" * 40, limit) == written
    # The next line finds room in any case.
    assert check_line(home, listener, "next", limit)
    listener.stop()


def test_a_file_without_a_line_end_is_emptied(home):
    home.write("tolva.log", b"x" * 1024)
    listener = quiet(home, LogfileSize=1)
    assert not check_line(home, listener, "lost", 1024)
    assert home.read("tolva.log") == b""
    assert check_line(home, listener, "kept", 1024)
    listener.stop()


@pytest.mark.parametrize("size", [5000, 100000])
def test_a_file_far_above_its_limit_is_cut_to_it(home, size):
    home.write("tolva.log", lines(size))
    listener = quiet(home, LogfileSize=1)
    assert check_line(home, listener, "text", 1024)
    assert 800 < len(home.read("tolva.log")) < 1024
    listener.stop()


@pytest.mark.parametrize("size", [0, "0", "abc"])
def test_without_a_limit_nothing_is_cut(home, size):
    content = lines(2 << 20)
    home.write("tolva.log", content)
    listener = quiet(home, LogfileSize=size)
    assert log(listener, "text")
    assert home.read("tolva.log") == content + line_of("text")
    listener.stop()


def test_the_limit_is_a_mebibyte_by_default(home):
    limit = 1 << 20
    home.write("tolva.log", lines(limit - 60))
    listener = quiet(home)
    check_line(home, listener, "x" * 20, limit)
    assert len(home.read("tolva.log")) > limit - 60
    check_line(home, listener, "x" * 20, limit)
    assert len(home.read("tolva.log")) < limit * 91 // 100
    listener.stop()


@pytest.mark.parametrize("kib", [1, 2, 9, 10, 20, 40])
def test_any_lines_at_all(home, kib):
    limit = kib * 1024
    chosen = random.Random(kib)
    home.write("tolva.log", lines(limit - 300, 30))
    listener = quiet(home, LogfileSize=kib)
    cuts = 0
    for number in range(120 if kib < 9 else 250):
        before = len(home.read("tolva.log"))
        text = f"{number} " + "y" * chosen.choice((1, 30, 200, 700, 900))
        check_line(home, listener, text, limit)
        after = len(home.read("tolva.log"))
        assert after < limit
        cuts += after < before
    listener.stop()
    assert cuts > 3


def test_messages_are_bounded_like_texts(home):
    home.script("tolva_execute.sh")
    listener = home.listener(config={"LogfileSize": 1})
    for number in range(100):
        listener.request(STATUS + b"EXECUTE %d" % number)
        assert len(home.read("tolva.log")) < 1024
    path = home.path("tolva_execute.sh")
    assert home.log_messages()[-1] == message(794, f"{path} 99")
    # It begins with a whole line.
    assert LOG_LINE.match(home.log_text().splitlines()[0])
    listener.stop()
