#!/usr/bin/python3
"""Breaks the program line by line, and sees whether a test turns red.

usage: tools/mutate.py [--work <directory>] [--quick] [<file of src> ...]

Each mutant (mutants.py) is built in a copy of the tree, and meets the tests
that know its file: the unit test programs of its name, for the listener some
days of the simulation, then the files of system tests in SYSTEM or PROGRAMS
below. The first red one ends it. What survives is listed, and has to stand in
tests/mutation-survivors.txt with a reason, or counts as a gap; below 95 % of
the others killed the run fails.

What is known already stands in a journal in the work directory, so that a run
that was interrupted goes on: a survivor is tried again when the tests have
changed, a killed one when its file has.

The tests run in process ids, a network and a /proc of their own, with limits
of size and time: whatever a mutant kills, fills or forks stays in there.
"""

import argparse
import collections
import contextlib
import fcntl
import hashlib
import json
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import sys
import threading
import time

import mutants

ROOT = pathlib.Path(__file__).resolve().parents[1]
SURVIVORS = ROOT / "tests" / "mutation-survivors.txt"
PYTHON = "/usr/bin/python3"
WANTED = 95  # percent
JOBS = min(2, os.cpu_count() or 1)
BUILD_SECONDS = 600
UNIT_SECONDS = 60
SYSTEM_SECONDS = 180
SIMULATED = "src/tolva2/listen/"
SIMULATED_DAYS = 40

# Unit test programs that know a file beside those of its own name.
UNIT = {
    "command_params": ["test_command_words"],
    "process_state": ["test_trace"],
    "reply": ["test_command_end"],
    "signals": ["test_daemon"],
    "ux_owned": ["test_ux_owned", "test_ux_list"],
    "ux_cfgmodule": ["test_ux_cfgmodule"],
    "mode_init": ["test_mode_init", "test_cmdline"],
    "codes": ["test_wire", "test_options"],
    "events": ["test_events"],
}

# Files of system tests, by the file of src that they know.
SYSTEM = {
    "address": "addresses options_refused",
    "alive": "alive_cycles alive_exchange scripts_dead_server",
    "bounded_file": "log",
    "child": "commands commands_surroundings",
    "client": "sessions sessions_timeouts shortage troubles listener",
    "cmdline": "options_refused options_taken",
    "codes": "options_taken check",
    "command": "commands commands_replies commands_surroundings lost_signals",
    "command_params": "commands protocol",
    "connection": "sessions check redundancy_descriptors",
    "daemon": "listener_process startup_process",
    "descriptors": "sessions redundancy_descriptors listener",
    "events": "log listener sessions commands send",
    "help": "options_taken completion",
    "kesdal": "alive_exchange check",
    "logfile": "log",
    "main": "startup startup_process options_refused",
    "mode_init": "startup startup_settings config options_taken",
    "msgdb": "log commands",
    "options": "options_refused options_taken",
    "program_dir": "startup",
    "redundancy": "redundancy redundancy_batch redundancy_table",
    "reply": "commands_replies protocol sessions",
    "request": "protocol commands",
    "reserve": "shortage log troubles",
    "settings": "config startup_settings",
    "signals": "listener_process lost_signals",
    "sockets": "listener sessions send addresses",
    "tolva_receive": "listener listener_process lost_signals sessions "
                     "alive_cycles surroundings events leftovers log "
                     "commands_surroundings",
    "tolva_send": "send send_replies send_time send_broadcast check",
    "trace": "options_taken",
    "ux_configfile": "config",
    "wire": "protocol send_replies alive_exchange check",
}

# Of the other programs: which is to be built, and its files of system tests.
PROGRAMS = {
    "checkconf": ("tolva-checkconf", "checkconf checkconf_run"),
    "fleet": ("tolva-fleet", "fleet"),
}

# The quick slice: what must not survive, a place in each of some modules.
QUICK = (
    ("src/tolva2/files/request.cpp", "return REQUEST_NONE;",
     "return REQUEST_V1;"),
    ("src/tolva2/files/reserve.cpp", "return any;", "return {};"),
    ("src/tolva2/listen/client.cpp", "cn->deadline = deadline;", ";"),
    ("src/tolva2/listen/client.cpp", "return accepting::no;",
     "return accepting::paused;"),
    ("src/tolva2/listen/command.cpp", "cn->child_owed = false;",
     "cn->child_owed = true;"),
    ("src/tolva2/listen/command.cpp", "cn->want_reply = true;", ";"),
    ("src/tolva2/listen/reply.cpp", "cn->exitstatus = exitstatus;", ";"),
    ("src/tolva2/net/descriptors.cpp", "state.nfds--;", ";"),
    ("src/tolva2/net/descriptors.cpp", "return state.nfds < max_fds;",
     "return state.nfds <= max_fds;"),
    ("src/tolva2/net/wire.cpp", "status += 127;", "status += 128;"),
    ("src/tolva2/net/wire.cpp", "out[0] = '\\0';", ";"),
    ("src/unixtools/ux_number.cpp", "return INT32_MIN;", "return {};"),
)


def digest(*paths):
    """One number for the contents of files."""
    found = hashlib.sha256()
    for path in paths:
        found.update(path.name.encode() + b"\0" + path.read_bytes() + b"\0")
    return found.hexdigest()[:16]


def unit_programs(path):
    """Names of the unit test programs that know a file of src."""
    stem = pathlib.Path(path).stem
    names = {p.stem for p in (ROOT / "tests/unit").glob("test_*.cpp")
             if p.stem == f"test_{stem}" or
             p.stem.startswith(f"test_{stem}_")}
    known = {p.stem for p in (ROOT / "tests/unit").glob("test_*.cpp")}
    names |= set(UNIT.get(stem, [])) & known
    # The one of its very name turns red the soonest.
    return sorted(names, key=lambda name: (len(name), name))


def system_files(path):
    """Paths of the system test files that know a file of src."""
    path = pathlib.Path(path)
    _, of_program = PROGRAMS.get(path.parent.name, ("", ""))
    names = SYSTEM.get(path.stem, of_program).split()
    return [ROOT / "tests/system" / f"test_{name}.py" for name in names]


def is_simulated(path):
    """Whether the simulation lives through what the file does."""
    return str(path).startswith(SIMULATED) and str(path).endswith(".cpp")


def tests_of(path):
    """All that a mutant of the file meets, as files."""
    units = [ROOT / "tests/unit" / f"{name}.cpp"
             for name in unit_programs(path)]
    days = sorted((ROOT / "tests/simulate").glob("*.[ch]*")) \
        if is_simulated(path) else []
    return units + days + system_files(path)


class Cage:
    """A place where a mutant can do no harm."""

    def __init__(self, work):
        own = [] if os.getuid() == 0 else ["-r"]
        self.command = [
            "unshare", *own, "--mount", "--pid", "--net", "--fork",
            "--mount-proc", "--kill-child", "--",
            "prlimit", f"--fsize={256 << 20}", f"--as={8 << 30}", "--",
            # The shell is process 1 and takes in what loses its parent.
            "sh", "-c", 'ip link set lo up && "$@"; exit $?', "sh"]
        self.work = work

    def run(self, words, seconds, env=None):
        """The exit status; None when it was too slow. What it has left in
        its directory for temporary files goes too."""
        tmp = self.work / "tmp"
        shutil.rmtree(tmp, ignore_errors=True)
        tmp.mkdir(parents=True)
        with open(self.work / "last.log", "wb") as log:
            process = subprocess.Popen(
                [*self.command, *map(str, words)], stdin=subprocess.DEVNULL,
                stdout=log, stderr=subprocess.STDOUT, cwd=self.work,
                env={**os.environ, **(env or {}), "TMPDIR": str(tmp)})
            try:
                return process.wait(seconds)
            except subprocess.TimeoutExpired:
                return None
            finally:
                # Takes everything in the cage along; it may be gone.
                with contextlib.suppress(ProcessLookupError):
                    process.send_signal(signal.SIGKILL)
                process.wait()

    def holds(self):
        """Whether this machine allows it at all."""
        return self.run(["true"], 30) == 0


class Workshop:
    """A copy of the tree with a build of its own, for one worker."""

    def __init__(self, work, jobs=1, units_only=False):
        self.work = work
        self.jobs = jobs
        self.units_only = units_only
        self.tree = work / "tree"
        self.build = work / "build"
        self.cage = Cage(work)
        work.mkdir(parents=True, exist_ok=True)

    def copy_tree(self):
        """The sources as they are now; times stay, so little is rebuilt."""
        for name in ("CMakeLists.txt", "cmake", "man", "packaging", "share",
                     "src", "tests", "examples", "docs", "tools", "README.md",
                     "CONTRIBUTING.md", "CHANGELOG.md", "LICENSE"):
            self._copy(ROOT / name, self.tree / name)

    def _copy(self, source, target):
        if source.is_dir():
            target.mkdir(parents=True, exist_ok=True)
            wanted = {p.name for p in source.iterdir()} - {"__pycache__"}
            for name in {p.name for p in target.iterdir()} - wanted:
                old = target / name
                shutil.rmtree(old) if old.is_dir() else old.unlink()
            for name in wanted:
                self._copy(source / name, target / name)
        elif source.exists() and not (
                target.exists() and
                target.read_bytes() == source.read_bytes()):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)

    def command(self, words, log):
        """Runs a command of the build: true when it has worked."""
        with open(self.work / log, "wb") as out:
            return subprocess.run(
                words, stdin=subprocess.DEVNULL, stdout=out,
                stderr=subprocess.STDOUT, check=False,
                timeout=BUILD_SECONDS).returncode == 0

    def configure(self):
        """Without the optimiser: compiled often, run once."""
        return self.command(
            ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=Debug", "-DTOLVA_HARDENING=OFF",
             f"-DPython3_EXECUTABLE={PYTHON}"], "configure.log")

    def make(self, targets):
        """Builds the targets and what they stand on."""
        return self.command(["ninja", "-C", self.build, "-j",
                             str(self.jobs), *targets], "build.log")

    def first_red(self, path):
        """The name of the first test that fails; None when none does."""
        for name in unit_programs(path):
            if self.cage.run([self.build / "tests" / name,
                              "--gtest_brief=1", "--gtest_fail_fast"],
                             UNIT_SECONDS) != 0:
                return name
        if self.units_only:
            return None
        if is_simulated(path) and self.cage.run(
                [self.build / "tests/simulate/simulate", "--no-shrink",
                 "--days", SIMULATED_DAYS, "--jobs", 1],
                UNIT_SECONDS) != 0:
            return "simulate"
        for file in system_files(path):
            own = self.tree / "tests/system" / file.name
            if self.cage.run(
                    [PYTHON, "-m", "pytest", "-x", "-q", "-p",
                     "no:cacheprovider", own], SYSTEM_SECONDS,
                    {"TOLVA": str(self.build / "tolva"),
                     "PYTHONDONTWRITEBYTECODE": "1"}) != 0:
                return file.stem
        return None

    def targets(self, path):
        days = is_simulated(path) and not self.units_only
        program, _ = PROGRAMS.get(pathlib.Path(path).parent.name,
                                  ("tolva", ""))
        # The others' tests speak to a listener.
        return list(dict.fromkeys(
            ["tolva", program, *unit_programs(path)])) + ["simulate"] * days

    def baseline(self, path):
        """The tests of a file, without a mutant: None, or what is red."""
        if not self.make(self.targets(path)):
            return "the build"
        return self.first_red(path)

    def try_mutant(self, mutant):
        """(verdict, by whom): killed, survived, or not built."""
        file = self.tree / mutant.path
        source = file.read_text()
        try:
            file.write_text(mutants.mutate(source, mutant))
            if not self.make(self.targets(mutant.path)):
                return "not built", None
            red = self.first_red(mutant.path)
            return ("killed", red) if red else ("survived", None)
        finally:
            file.write_text(source)


class Journal:
    """What is known of each mutant, one line each."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.known = {}
        if path and path.exists():
            for line in path.read_text().splitlines():
                with contextlib.suppress(ValueError):
                    one = json.loads(line)
                    self.known[one["file"], one["at"]] = one

    @staticmethod
    def place(mutant):
        """A mutant's place in its file, and what is done there."""
        return f"{mutant.start} {mutant.end} {mutant.text}"

    def verdict(self, mutant, file, tests):
        """What holds still, or None."""
        one = self.known.get((file, self.place(mutant)))
        if one and (one["verdict"] != "survived" or one["tests"] == tests):
            return one["verdict"], one["by"]
        return None

    def add(self, mutant, file, tests, verdict, by):
        one = {"file": file, "at": self.place(mutant), "tests": tests,
               "verdict": verdict, "by": by, "what": mutant.key}
        with self.lock:
            self.known[file, one["at"]] = one
            if not self.path:
                return
            with open(self.path, "a") as journal:
                journal.write(json.dumps(one) + "\n")


def excused():
    """{a mutant's key: how many such may survive}; a line may come again."""
    reasons = collections.Counter()
    block = []
    text = SURVIVORS.read_text() if SURVIVORS.exists() else ""
    for line in text.splitlines():
        if line.startswith("= ") and len(block) == 3:
            reasons["\n".join(block)] += 1
            block = []
        elif line.startswith("src/"):
            block = [line]
        elif line[:2] in ("- ", "+ ") and block:
            block.append(line)
    return reasons


class Run:
    """All the mutants of some files, shared by the workers."""

    def __init__(self, work, files, only=None):
        self.work = work
        self.files = files
        # The slice is short: it is run whole each time, in one workshop.
        self.slice = only is not None
        self.journal = Journal(None if self.slice else
                               work / "journal.jsonl")
        self.results = {}
        self.faults = []
        self.todo = queue.Queue()
        self.total = 0
        self.started = time.monotonic()
        missing = set(only or ())
        for path in files:
            ids = digest(ROOT / path), digest(*tests_of(path))
            for one in mutants.mutants_of(ROOT, path):
                name = one.path, one.old, one.new
                if only is None or name in only:
                    self.total += 1
                    self._sort(one, ids)
                missing.discard(name)
        self.faults += [f"{path}: no longer there: {old}"
                        for path, old, _ in missing]

    def _sort(self, mutant, ids):
        known = self.journal.verdict(mutant, *ids)
        if known:
            self.results[mutant] = known
        else:
            self.todo.put((mutant, ids))

    def worker(self, number):
        shop = Workshop(self.work / str(number),
                        JOBS if self.slice else 1, self.slice)
        try:
            shop.copy_tree()
            if not shop.cage.holds():
                raise RuntimeError("no namespaces to run a mutant in (root or "
                                   "user namespaces, iproute2)")
            if not shop.configure():
                raise RuntimeError(f"see {shop.work}/configure.log")
            self._work(shop)
        except Exception as fault:  # of the workshop: said at the end
            self.faults.append(f"worker {number}: {fault}")

    def _work(self, shop):
        green = {}
        while not self.faults:
            try:
                mutant, ids = self.todo.get_nowait()
            except queue.Empty:
                return
            if mutant.path not in green:
                green[mutant.path] = red = shop.baseline(mutant.path)
                if red:
                    raise RuntimeError(f"{mutant.path} as it is: {red} is "
                                       f"red, see {shop.work}")
            verdict, by = shop.try_mutant(mutant)
            self.journal.add(mutant, *ids, verdict, by)
            self.results[mutant] = verdict, by
            self._say(mutant, verdict, by)

    def _say(self, mutant, verdict, by):
        print(f"[{len(self.results)}/{self.total} "
              f"{time.monotonic() - self.started:.0f} s] {verdict}"
              f"{f' by {by}' if by else ''}: {mutant.path}:{mutant.line}: "
              f"{mutant.old}  ->  {mutant.new}", flush=True)

    def work_off(self):
        """Tries what is not known yet."""
        jobs = 1 if self.slice else min(JOBS, self.todo.qsize())
        threads = [threading.Thread(target=self.worker, args=(n,))
                   for n in range(jobs)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def of(self, path, *verdicts):
        return sorted((m for m, (verdict, _) in self.results.items()
                       if m.path == path and verdict in verdicts),
                      key=lambda m: (m.start, m.text))

    def report(self):
        """Prints what each file came to: true when that is enough."""
        reasons = excused()
        good = not self.faults
        for path in self.files:
            gaps = []
            for one in self.of(path, "survived"):
                reasons[one.key] -= 1
                if reasons[one.key] < 0:
                    gaps.append(one)
            killed = len(self.of(path, "killed"))
            seen = killed + len(gaps)
            share = 100 * killed / seen if seen else 100
            print(f"{path}: {killed} of {seen} killed, {share:.1f} %; "
                  f"{len(self.of(path, 'survived')) - len(gaps)} excused, "
                  f"{len(self.of(path, 'not built'))} not built")
            for one in gaps:
                print(f"  survived: {one.path}:{one.line}\n"
                      f"    - {one.old}\n    + {one.new}")
            good = good and share >= WANTED
        for fault in self.faults:
            print(f"error: {fault}")
        if not good:
            print(f"error: below {WANTED} %, or not finished")
        return good


def all_files():
    return sorted(str(p.relative_to(ROOT)) for p in (ROOT / "src").rglob("*")
                  if p.suffix in (".cpp", ".h"))


def main():
    words = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    words.add_argument("--work", type=pathlib.Path,
                       default=ROOT / "build-check" / "mutate")
    words.add_argument("--quick", action="store_true")
    words.add_argument("files", nargs="*")
    asked = words.parse_args()
    work = asked.work.resolve()
    work.mkdir(parents=True, exist_ok=True)
    files = [str(pathlib.Path(f).resolve().relative_to(ROOT))
             for f in asked.files] or all_files()
    if asked.quick:
        files = sorted({path for path, _, _ in QUICK})
    lock = open(work / "lock", "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit(f"error: another run is at work in {work}")
    run = Run(work, files, QUICK if asked.quick else None)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler)
    try:
        run.work_off()
    except KeyboardInterrupt:
        run.faults.append("interrupted")
    sys.exit(0 if run.report() else 1)


if __name__ == "__main__":
    main()
