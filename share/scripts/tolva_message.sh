#!/bin/sh
# Shows the parameters as a message on every terminal of this host.

PATH=${PATH:+$PATH:}/usr/sbin:/usr/bin:/sbin:/bin
export PATH

# True when descriptor 2 is the journal, which then needs no logger.
in_journal() {
    [ -n "${JOURNAL_STREAM-}" ] &&
        [ "$(stat -Lc %d:%i "/proc/$$/fd/2" 2>/dev/null)" = "$JOURNAL_STREAM" ]
}

complain() {
    if in_journal; then
        echo "<3>$1" >&2
        return
    fi
    echo "$1" >&2
    if command -v logger >/dev/null; then
        logger -t tolva -p daemon.err -- "$1"
    fi
}

text=$(printf '%s' "$*" | LC_ALL=C tr '[:cntrl:]' ' ')
if [ -z "$text" ]; then
    echo "usage: ${0##*/} <text>" >&2
    exit 2
fi

if ! command -v wall >/dev/null; then
    problem="this host has no wall command"
    complain "${0##*/}: $problem"
    exit 69
fi

# Through a pipe: wall would take a lone word for the name of a file to show.
printf '%s\n' "$text" | wall
