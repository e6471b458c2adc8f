"""What the process is handed by whoever starts it, and what comes of it."""

import errno
import os
import resource
import signal
import subprocess
import sys

import pytest

from harness import TOLVA, message, reason
from namespaces import private_network
from peers import read_to_end
from ports import free_port
from wire import HEADER, LOGGED, NOT_LOGGED, STATUS


def prefix(code):
    """Runs the Python code, then what is started, in the same process."""
    return (sys.executable, "-c",
            f"import os, signal, resource, sys\n{code}\n"
            "os.execv(sys.argv[1], sys.argv[1:])")


HELD_BACK = prefix("signal.pthread_sigmask(signal.SIG_BLOCK, signal."
                   "valid_signals() - {signal.SIGKILL, signal.SIGSTOP})")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGQUIT,
                                    signal.SIGINT])
def test_a_stop_signal_held_back_by_the_parent_still_stops_it(home, number):
    listener = home.listener(prefix=HELD_BACK)
    listener.stop(number)


def test_scripts_start_with_only_sigchld_blocked_whatever_the_parent_held_back(
        home):
    # The shell's own mask: what it starts otherwise, it starts with another.
    home.write("mask.py", "import signal\nblocked = signal.pthread_sigmask("
               "signal.SIG_BLOCK, [])\nraise SystemExit(blocked != "
               "{signal.SIGCHLD})")
    listener = home.listener(prefix=HELD_BACK, config={
        "ExecProg": f"exec {sys.executable} {home.path('mask.py')}"})
    assert listener.request(STATUS + b"EXECUTE").endswith(b"EXITSTATUS=0")
    listener.stop()


def test_a_limit_on_file_sizes_loses_log_lines_and_nothing_else(home):
    home.script("tolva_execute.sh", "exit 7")
    listener = home.listener(prefix=("prlimit", "--fsize=2048", "--"))
    text = b"LOG_TEXT " + b"x" * 400
    replies = [listener.request(STATUS + text) for _ in range(8)]
    assert replies[0] == LOGGED
    assert replies[-1] == NOT_LOGGED
    assert listener.request(STATUS + b"EXECUTE").endswith(b"EXITSTATUS=7")
    listener.stop()
    assert os.path.getsize(home.path("tolva.log")) <= 2048


@pytest.mark.parametrize("level", ["", "7"])
def test_a_command_is_sent_although_nobody_reads_what_is_said(home, level):
    home.script("tolva_execute.sh", f"echo run >>{home.path('ran')}\nexit 3")
    listener = home.listener()
    read_end, write_end = os.pipe()
    os.close(read_end)
    environment = home.environment({"TOLVADEBUG": level} if level else None)
    done = subprocess.run(
        [str(TOLVA), "-sr", "EXECUTE", "-a", listener.where],
        env=environment, cwd=home.dir, stdout=write_end,
        stderr=subprocess.DEVNULL, timeout=60)
    os.close(write_end)
    assert done.returncode == 130
    assert home.read("ran") in ("run\n", b"run\n")
    listener.stop()


def test_a_client_that_could_not_be_watched_waits_in_the_backlog(home):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < 1100:
        pytest.skip("needs more than 1,100 descriptors")
    listener = home.listener(prefix=prefix(
        "hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]\n"
        "resource.setrlimit(resource.RLIMIT_NOFILE, (1100, hard))\n"
        "for fd in range(3, 1021):\n"
        "    os.dup2(0, fd)"))
    silent = [listener.connect() for _ in range(2)]
    listener.wait_sessions(2)
    waiting = listener.connect()
    waiting.sendall(STATUS + b"LOG_TEXT later")
    listener.wait_message("system: " + reason(errno.EMFILE))
    for conn in silent:
        conn.close()
    assert read_to_end(waiting) == LOGGED
    waiting.close()
    listener.stop()


# A packet with headers of its own making, from 0.0.0.0 to everybody.
FORGED = r"""
import socket, struct, sys
port = int(sys.argv[1])
data = HEADER
udp = struct.pack("!4H", 4711, port, 8 + len(data), 0) + data
ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0,
                 bytes(4), b"\xff" * 4)
total = sum(struct.unpack("!10H", ip))
total = (total & 0xffff) + (total >> 16)
ip = ip[:10] + struct.pack("!H", ~total & 0xffff) + ip[12:]
frame = b"\xff" * 6 + bytes(6) + b"\x08\x00" + ip + udp
with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as raw:
    raw.bind((sys.argv[2], 0))
    raw.send(frame)
""".replace("HEADER", repr(HEADER))

# Two ends of a wire in one network: what is sent on one is received on the
# other.
WIRED = r"""
ip link add name near type veth peer name far
ip link set near up
ip link set far up
echo 0 >/proc/sys/net/ipv4/conf/all/rp_filter
echo 0 >/proc/sys/net/ipv4/conf/far/rp_filter
"$@" & pid=$!
while ! grep -qF "[835]" "$LOG" 2>/dev/null; do
    [ -d /proc/$pid ] || break
    "$PYTHON" "$FORGED" "$PORT" near
    sleep 0.1
    tries=$((tries + 1)); [ "$tries" -lt 100 ] || break
done
kill -TERM $pid
wait $pid
"""


def test_a_datagram_from_nowhere_is_refused_and_ends_nothing(home):
    port = free_port()
    home.configure({"ListenPort": port, "AllowedAddresses": "127.0.0.1"})
    home.messages()
    forged = home.dir / "forged.py"
    forged.write_text(FORGED)
    run = home.start(
        "-l", "-d", "0",
        env={"LOG": str(home.path("tolva.log")), "PYTHON": sys.executable,
             "FORGED": str(forged), "PORT": str(port)},
        prefix=[*private_network(), "sh", "-c", WIRED, "sh"])
    assert run.wait().status == 0
    refused = message(835, "0.0.0.0")
    assert refused in home.log_messages()
    home.check_reports()
