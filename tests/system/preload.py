"""Small libraries of C that a test puts under the listener."""

import atexit
import functools
import os
import pathlib
import shlex
import shutil
import subprocess
import tempfile

import pytest


@functools.lru_cache(maxsize=None)
def _folder():
    folder = tempfile.mkdtemp(prefix="tolva-preload-")
    owner = os.getpid()
    atexit.register(lambda: os.getpid() == owner and shutil.rmtree(folder))
    return pathlib.Path(folder)


def _compile(compiler, source, library):
    subprocess.run([*compiler, "-x", "c", "-O1", "-shared", "-fPIC", "-o",
                    library, source], check=True)


def _for_both(compilers, source):
    """The executable is for one machine or C library and the scripts are for
    another: a library for each, where their loaders look for "$LIB".  To that
    of musl this is a name like any other."""
    for compiler in compilers:
        if "musl" in compiler[0]:
            place = _folder() / "$LIB"
        else:
            triplet = subprocess.run(
                [*compiler, "-print-multiarch"], text=True, check=True,
                capture_output=True).stdout
            place = _folder() / "lib" / triplet.strip()
        place.mkdir(parents=True, exist_ok=True)
        _compile(compiler, source, place / f"{source.stem}.so")
    return _folder() / "$LIB" / f"{source.stem}.so"


@functools.lru_cache(maxsize=None)
def build(name, source):
    """Compiles the C source; the path of the library."""
    if os.environ.get("TOLVA_STATIC"):
        pytest.skip("no library can be put under a static executable")
    compiler = [next(filter(None, map(shutil.which, (
        "cc", "gcc", "clang", "c++", "g++", "clang++"))))]
    path = _folder() / f"{name}.c"
    path.write_text(source)
    if os.environ.get("TOLVA_CC"):
        return _for_both([compiler, shlex.split(os.environ["TOLVA_CC"])],
                         path)
    library = path.with_suffix(".so")
    _compile(compiler, path, library)
    return library


def environment(home, *libraries, **more):
    """What a process needs to run with the libraries."""
    return {
        "LD_PRELOAD": ":".join(map(str, libraries)),
        # They come before the sanitizer's own.
        "ASAN_OPTIONS": home.environment()["ASAN_OPTIONS"] +
        ":verify_asan_link_order=0",
        **more,
    }
