"""Completion files in the hands of a test: what bash offers, and no fault."""

import shutil
import subprocess

ASK = r"""
source "$1"; function=$2; shift 2
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"
cur=${COMP_WORDS[COMP_CWORD]}
$function "$1" "${cur#[\"\']}" "${COMP_WORDS[COMP_CWORD-1]}"
printf '%s\n' "${COMPREPLY[@]}"
"""


def offered(file, function, words, cwd=None, first=""):
    """What the function of that file offers for the last of the words, in a
    shell that has run the lines of "first"."""
    done = subprocess.run(
        ["bash", "--norc", "-c", first + ASK, "bash", file, function, *words],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=cwd, text=True,
        check=True)
    assert done.stderr == ""
    return sorted(done.stdout.split())


def has_no_fault(file):
    shellcheck = shutil.which("shellcheck")
    assert shellcheck, "shellcheck is missing (apt-get install shellcheck)"
    done = subprocess.run([shellcheck, file], stdout=subprocess.PIPE,
                          text=True, check=False)
    return (done.stdout, done.returncode) == ("", 0)
