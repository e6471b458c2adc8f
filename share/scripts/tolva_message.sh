#!/bin/sh
# Shows the parameters as a message on every terminal of this host.

PATH=$PATH:/usr/sbin:/usr/bin:/sbin:/bin

text=$(printf '%s' "$*" | LC_ALL=C tr '[:cntrl:]' ' ')
if [ -z "$text" ]; then
    echo "usage: ${0##*/} <text>" >&2
    exit 2
fi

if ! command -v wall >/dev/null; then
    problem="this host has no wall command"
    echo "${0##*/}: $problem" >&2
    if command -v logger >/dev/null; then
        logger -t tolva -p daemon.err -- "${0##*/}: $problem"
    fi
    exit 69
fi

# Through a pipe: wall would take a lone word for the name of a file to show.
printf '%s\n' "$text" | wall
