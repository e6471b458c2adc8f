#!/usr/bin/python3
"""Has every call of the C library fail that the program makes.

    sweep.py [--quick] [--scene NAME] [--jobs N] [--count FILE] <tolva>
    sweep.py --only SCENE:FUNCTION:CALL:once|on:ERROR [...] <tolva>

Each scene (scenes.py) runs without a fault first, and its calls are counted.
Then it runs once for each call, each error that the call can have, and with
that one call failing or every call from it on. judge.py says what must hold
each time. Each violation is printed with what replays it.

--quick takes for each function of a scene a few of its calls only. The home
of a run with --only stays, to look into.
"""

import argparse
import collections
import ctypes
import itertools
import multiprocessing
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

FOLDER = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(FOLDER), str(FOLDER.parent / "system")]

import judge
import ports
from scenes import SCENES
from tally import Fault

SHORTAGE = ("EMFILE", "ENFILE", "ENOMEM")
NETWORK = ("ENOBUFS", "ENOMEM")
BROKEN = ("ECONNRESET", "ETIMEDOUT", "ENOMEM", "EINTR", "EAGAIN", "short")
DISK = ("ENOSPC", "EIO")

# How each function can fail. What passes by itself (EINTR, EAGAIN) and what
# is short does so once, and so does what has a "!"; a "+" is for an EAGAIN
# that does not pass.
KINDS = {
    "accept": (*SHORTAGE, "ENOBUFS", "ECONNABORTED", "EPERM", "EINTR",
               "EAGAIN"),
    "access": ("EACCES",),
    "bind": ("EADDRINUSE", "EADDRNOTAVAIL", "EACCES"),
    "calloc": ("ENOMEM",),
    "chdir": ("EACCES",),
    "close": ("EIO", "EINTR"),
    "connect": ("ECONNREFUSED", "ENETUNREACH", "EADDRNOTAVAIL", "EPERM"),
    "dup2": ("EBUSY", "EMFILE"),
    "execl": ("ENOENT", "ENOMEM", "E2BIG"),
    "fclose": DISK,
    "fcntl": ("EMFILE", "ENOMEM"),
    "fdopen": ("ENOMEM",),
    "fflush": (*DISK, "EPIPE"),
    "fgets": ("EIO",),
    "fopen": ("EMFILE", "ENOMEM", "EACCES", "EIO"),
    "fork": ("EAGAIN+", "ENOMEM"),
    "fputc": DISK,
    "fputs": (*DISK, "EPIPE"),
    "fread": ("EIO", "short"),
    "fseeko": ("EIO",),
    "fstat": ("EIO",),
    "fwrite": DISK,
    "getcwd": ("ENOENT", "ENOMEM"),
    "gethostbyname": ("EIO",),
    "getrlimit": ("EPERM",),
    "getsockopt": ("ENOBUFS", "pending"),
    "kill": ("EPERM",),
    "listen": ("EADDRINUSE",),
    "localtime_r": ("EOVERFLOW",),
    "malloc": ("ENOMEM",),
    "memory": ("ENOMEM",),
    "mkostemp": ("EMFILE", "EACCES", "ENOSPC"),
    "open": (*SHORTAGE, "EACCES", "EIO"),
    "open_tmpfile": ("EMFILE", "ENOSPC", "EOPNOTSUPP"),
    "pipe": ("EMFILE", "ENFILE"),
    "poll": ("ENOMEM", "EINTR"),
    "ppoll": ("ENOMEM", "EINTR"),
    "pselect": ("ENOMEM", "EINTR"),
    "putenv": ("ENOMEM",),
    "read": ("EIO", "EINTR", "short"),
    "realloc": ("ENOMEM",),
    "realpath": ("ENOMEM", "EACCES"),
    "recv": BROKEN,
    "recvfrom": ("ENOMEM!", "EINTR", "EAGAIN", "short"),
    "send": ("EPIPE", "ECONNRESET", "ENOBUFS", "EINTR", "EAGAIN", "short"),
    "sendto": ("ENETUNREACH", "EPERM", "ENOBUFS", "EAGAIN", "short"),
    "setitimer": ("EPERM",),
    "setrlimit": ("EPERM",),
    "setsid": ("EPERM",),
    "setsockopt": (*NETWORK, "EPERM"),
    "shutdown": ("ENOTCONN",),
    "socket": (*SHORTAGE, "ENOBUFS", "EACCES"),
    "stat": ("EACCES", "EIO"),
    "strdup": ("ENOMEM",),
    "tmpfile": ("EMFILE", "ENOSPC"),
    "truncate": ("EIO", "EROFS"),
    "unlink": ("EACCES", "EROFS"),
    "vfprintf": (*DISK, "EPIPE"),
    "vprintf": (*DISK, "EPIPE"),
    "waitpid": ("EINTR",),
    "write": ("EPIPE", "EIO", "ENOSPC", "short"),
}
ONCE = {"EINTR", "EAGAIN", "short", "pending"}
PR_SET_CHILD_SUBREAPER = 36


# --- what is to be swept -----------------------------------------------------


def symbols(path, *options):
    """Names as nm shows them, without versions."""
    lines = subprocess.run(["nm", "-D", *options, path], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    return {line.split()[-1].partition("@")[0] for line in lines}


def unknown_imports(tolva, library):
    """What the executable imports that is neither failed nor excused."""
    excused = set()
    for line in (FOLDER / "cannot_fail.txt").read_text().splitlines():
        if not line.startswith("#"):
            excused.update(line.split())
    wrapped = symbols(library, "--defined-only")
    return sorted(symbols(tolva, "--undefined-only") - wrapped - excused)


def build(folder):
    """Compiles the library."""
    library = folder / "faults.so"
    subprocess.run(["cc", "-O1", "-Wall", "-Werror", "-shared", "-fPIC", "-o",
                    library, FOLDER / "faults.c", "-ldl"], check=True)
    return library


def faults_of(counts):
    """Every fault of a scene with so many calls of each function."""
    for call in sorted(counts):
        for which in range(1, counts[call] + 1):
            for kind in KINDS[call]:
                extents = ("once", "on")
                if kind in ONCE or kind.endswith("!"):
                    extents = ("once",)
                elif call == "memory":
                    extents = ("on",)
                for extent in extents:
                    yield Fault(call, which, extent, kind.rstrip("!+"))


def sample(faults):
    """A fixed few of each function: the first, the last, one between them;
    their errors and extents take turns."""
    groups = collections.defaultdict(lambda: collections.defaultdict(list))
    for fault in faults:
        groups[fault.call][fault.which].append(fault)
    turn = itertools.count()
    for calls in groups.values():
        numbers = sorted(calls)
        for which in sorted({numbers[0], numbers[len(numbers) // 2],
                             numbers[-1]}):
            yield calls[which][next(turn) % len(calls[which])]


# --- running it --------------------------------------------------------------


class Worker:
    """What each process has of its own."""

    def __init__(self, tolva, library, bases=None):
        self.tolva = tolva
        self.library = library
        self.bases = bases or {}
        self.ports = itertools.cycle([ports.free_port() for _ in range(60)])

    def run(self, name, fault=None, keep=False):
        return SCENES[name](self.tolva, self.library, self.ports, fault,
                            keep).run()

    def judged(self, job, keep=False):
        name, fault = job
        start = time.monotonic()
        try:
            seen = self.run(name, fault, keep)
            outcome, problems = judge.judge(SCENES[name], self.bases[name],
                                            seen, fault)
        except Exception as error:
            return job, "violation", [f"the driver: {error!r}"], None, 0
        return job, outcome, problems, seen, time.monotonic() - start


worker = None


def begin(*arguments):
    global worker
    adopt_orphans()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    worker = Worker(*arguments)


def run_job(job):
    result = worker.judged(job)
    if result[1] == "violation":
        # A machine under load is no fault of the program, but is not hidden.
        again = worker.judged(job)
        if again[1] == "violation":
            return again
        print(f"once, and not again: {job[0]}:{job[1]}: {result[2]}",
              flush=True)
        return again
    return result


def adopt_orphans():
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def measure(tool):
    """Each scene without a fault: {name: what was seen}, or nothing."""
    bases = {}
    for name, scene in SCENES.items():
        again = tool.run(name)
        for _ in range(5):
            start = time.monotonic()
            seen, again = again, tool.run(name)
            if (seen.steps, seen.lines, seen.counts) == (
                    again.steps, again.lines, again.counts):
                break
        seconds = time.monotonic() - start
        bases[name] = seen
        print(f"{name:10} {sum(seen.counts.values()):5} calls of "
              f"{len(seen.counts):2} functions, {seconds:.2f} s", flush=True)
        if seen.problems or seen.status not in (0, 130) or \
                seen.steps != again.steps:
            print(f"  does not run without a fault: {seen.problems} "
                  f"status {seen.status}\n  {seen.steps}\n  {again.steps}\n  "
                  + "\n  ".join(seen.lines))
            return None
    return bases


def function_at(tolva, site):
    """The function of the executable around an address, if it says so."""
    try:
        found = subprocess.run(
            ["addr2line", "-Cfs", "-e", tolva, hex(site)],
            capture_output=True, text=True).stdout.split("\n")[0]
    except OSError:
        return ""
    return "" if found in ("", "??") else found


def show(tolva, job, problems, seen):
    name, fault = job
    print(f"FAILED {name}: {fault.call} call {fault.which} {fault.extent}, "
          f"{fault.kind}")
    for problem in problems:
        print(f"    {problem}")
    if seen:
        where = function_at(tolva, seen.site)
        print(f"    at {hex(seen.site)} {where} {seen.what}")
    print(f"    TOLVA_FAULT='{fault.environment}'  replay:\n"
          f"    /usr/bin/python3 tests/faults/sweep.py --only "
          f"{name}:{fault} {tolva}", flush=True)


def table(results):
    """Function by outcome, with totals."""
    outcomes = list(judge.OUTCOMES)
    width = max(len(call) for call in results) + 1
    print(f"\n{'':{width}}" + "".join(f"{o:>12}" for o in outcomes) +
          f"{'all':>8}")
    total = collections.Counter()
    for call in sorted(results):
        row = results[call]
        total.update(row)
        print(f"{call:{width}}" + "".join(
            f"{row[o] or '':>12}" for o in outcomes) +
            f"{sum(row.values()):>8}")
    print(f"{'all':{width}}" + "".join(
        f"{total[o] or '':>12}" for o in outcomes) +
        f"{sum(total.values()):>8}")
    return total


def sweep(options, tool):
    jobs = []
    for name, seen in tool.bases.items():
        if options.scene not in (None, name):
            continue
        wanted = SCENES[name].calls
        faults = faults_of({call: count for call, count in seen.counts.items()
                            if not wanted or call in wanted})
        jobs += [(name, fault) for fault in
                 (sample(faults) if options.quick else faults)]
    called = set().union(*(seen.counts for seen in tool.bases.values()))
    idle = (symbols(tool.tolva, "--undefined-only") & set(KINDS)) - called
    print(f"imported, but in no scene: {', '.join(sorted(idle)) or 'none'}\n"
          f"{len(jobs)} faults, {options.jobs} at a time", flush=True)
    results = collections.defaultdict(collections.Counter)
    begun = shown = time.monotonic()
    slowest = (0, None)
    failed = []
    with multiprocessing.Pool(
            options.jobs, begin, (tool.tolva, tool.library, tool.bases),
            maxtasksperchild=500) as pool:
        for number, (job, outcome, problems, seen, seconds) in enumerate(
                pool.imap_unordered(run_job, jobs, chunksize=4), 1):
            results[job[1].call][outcome] += 1
            slowest = max(slowest, (seconds, f"{job[0]}:{job[1]}"))
            if outcome == "violation":
                failed.append((tool.tolva, job, problems, seen))
                show(*failed[-1])
            if time.monotonic() - shown > 10:
                shown = time.monotonic()
                print(f"{number} of {len(jobs)}, {shown - begun:.0f} s",
                      flush=True)
    total = table(results)
    print("\n" + "\n".join(f"{name}: {text}" for name, text in
                           judge.OUTCOMES.items() if text))
    print(f"\n{len(jobs)} faults in {time.monotonic() - begun:.0f} s; the "
          f"slowest: {slowest[1]}, {slowest[0]:.1f} s")
    for one in failed[:5]:
        show(*one)
    return total


def replay(options, tool):
    violations = 0
    for text in options.only:
        name, _, fault = text.partition(":")
        job = (name, Fault.parse(fault))
        _, outcome, problems, seen, seconds = tool.judged(job, keep=True)
        print(f"{text}: {outcome}, {seconds:.2f} s, {seen and seen.hits} "
              "calls failed")
        if seen:
            print(f"status {seen.status}, "
                  f"{function_at(tool.tolva, seen.site)} {seen.what}")
            print(*seen.steps, dict(seen.tokens), *seen.lines, sep="\n  ")
        if problems:
            violations += 1
            show(tool.tolva, job, problems, seen)
    return violations


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--scene", choices=SCENES)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--count", type=pathlib.Path)
    parser.add_argument("--only", nargs=1, action="extend")
    parser.add_argument("tolva", type=pathlib.Path)
    options = parser.parse_args()
    tolva = str(options.tolva.resolve())
    with tempfile.TemporaryDirectory(prefix="tolva-faults-") as folder:
        library = str(build(pathlib.Path(folder)))
        unknown = unknown_imports(tolva, library)
        if unknown:
            print(f"error: {', '.join(unknown)}: imported by {tolva}, but "
                  "neither in tests/faults/faults.c nor in cannot_fail.txt")
            return 1
        adopt_orphans()
        tool = Worker(tolva, library)
        tool.bases = measure(tool)
        if tool.bases is None:
            return 1
        if options.only:
            return 1 if replay(options, tool) else 0
        total = sweep(options, tool)
    failed = total["violation"]
    passed = sum(total.values()) - failed
    if options.count:
        options.count.write_text(f"{passed} {failed} 0\n")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
