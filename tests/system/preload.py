"""Small libraries of C that a test puts under the listener."""

import atexit
import functools
import os
import pathlib
import shutil
import subprocess
import tempfile


@functools.lru_cache(maxsize=None)
def _folder():
    folder = tempfile.mkdtemp(prefix="tolva-preload-")
    owner = os.getpid()
    atexit.register(lambda: os.getpid() == owner and shutil.rmtree(folder))
    return pathlib.Path(folder)


@functools.lru_cache(maxsize=None)
def build(name, source):
    """Compiles the C source; the path of the library."""
    compiler = next(filter(None, map(shutil.which, (
        "cc", "gcc", "clang", "c++", "g++", "clang++"))))
    path = _folder() / f"{name}.c"
    path.write_text(source)
    library = path.with_suffix(".so")
    subprocess.run([compiler, "-x", "c", "-O1", "-shared", "-fPIC", "-o",
                    library, path], check=True)
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
