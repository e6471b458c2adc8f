"""Two alive cycles in real time, with nothing between the listener and the
clock: takes a good minute, and is run by "ctest -C realtime -L realtime"."""

import datetime
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))

from conftest import home, make_home  # noqa: E402, F401
from harness import message  # noqa: E402
from ports import free_port  # noqa: E402
from upsserver import UpsServer, good  # noqa: E402

A, B, C = "127.0.0.2", "127.0.0.3", "127.0.0.4"


def silent(talk):
    """Says nothing for longer than a cycle."""
    talk.conn.settimeout(300)
    talk.read_to_end()


def seconds_of(home, text):
    """When the lines with that text were logged."""
    return [datetime.datetime.strptime(f"{date} {time}", "%m/%d/%Y %H:%M:%S")
            for date, time, _, logged in home.log_lines() if logged == text]


def test_two_cycles(home):  # noqa: F811
    """One server is alive, one is silent, and one does not run."""
    home.script("tolva_notalive.sh",
                'echo "$1" >> "$TOLVAHOME/notalive"')
    port = free_port()
    UpsServer(home, A, port, good)
    UpsServer(home, B, port, silent)
    listener = home.listener(config={
        "AliveEnabled": "true", "AliveAddresses": f"{A} {B} {C}",
        "AlivePort": port, "AliveInterval": 60, "AliveRetries": 2})
    listener.wait_message(message(814, A), 1, 20)
    listener.wait_message(message(828, C), 1, 20)
    # The silent one fails when the second cycle begins.
    listener.wait_message(message(828, B), 1, 80)
    listener.wait_message(message(814, A), 2)
    listener.wait_message(message(832, C))
    listener.no_zombies()
    listener.stop()

    [start] = seconds_of(home, message(829))
    alive = [(when - start).total_seconds()
             for when in seconds_of(home, message(814, A))]
    assert 5 <= alive[0] <= 8
    assert 60 <= alive[1] - alive[0] <= 63
    [failed] = seconds_of(home, message(828, B))
    assert 65 <= (failed - start).total_seconds() <= 70
    assert sorted(home.read("notalive").decode().split()) == [B, C, C]
    assert message(832, B) not in listener.messages()
