#!/bin/sh
# Runs one prepared action: the first parameter is its name, the others are
# handed to it, and its exit status comes back. An action is an executable
# file in the directory "actions.d" beside the settings
# (/etc/tolva/actions.d); nothing outside it is ever run, not through a link
# either. Exit status 2: there is no such action.

ACTIONS=${TOLVAHOME:-/etc/tolva}/actions.d
PATH=${PATH:+$PATH:}/usr/sbin:/usr/bin:/sbin:/bin
export PATH

is_action() {
    case $1 in
    '' | [.-]* | *[!0-9A-Za-z._-]*) return 1 ;;
    esac
    [ -f "$ACTIONS/$1" ] && [ -x "$ACTIONS/$1" ] && [ ! -L "$ACTIONS/$1" ]
}

# True when descriptor 2 is the journal, which then needs no logger.
in_journal() {
    [ -n "${JOURNAL_STREAM-}" ] &&
        [ "$(stat -Lc %d:%i "/proc/$$/fd/2" 2>/dev/null)" = "$JOURNAL_STREAM" ]
}

name=$1
if is_action "$name"; then
    shift
    exec "$ACTIONS/$name" "$@"
fi

known=
for file in "$ACTIONS"/*; do
    is_action "${file##*/}" && known="$known ${file##*/}"
done
shown=$(printf '%s' "$name" | LC_ALL=C tr '[:cntrl:]' '?')
text="no action \"$shown\" in $ACTIONS; there is:${known:- nothing}"
if in_journal; then
    echo "<3>$text" >&2
else
    echo "${0##*/}: $text" >&2
    if command -v logger >/dev/null; then
        logger -t tolva -p daemon.err -- "$text"
    fi
fi
exit 2
