# What the actions of share/actions have in common; each of them sources it.
# shellcheck shell=sh
#
# It takes --dry-run, and a rehearsal, to mean that "run" only says what it
# would do, and "fail" ends with 0. It sets
#   me     the action's name
#   home   the listener's home
#   dry    what "run" says in front of its command, or nothing

# What is opened next would take the place of a descriptor that is closed.
true 3>&2 || exec 2>/dev/null
{ true 3>&1; } 2>/dev/null || exec >/dev/null
exec </dev/null
PATH=${PATH:+$PATH:}/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
LC_ALL=C
export PATH LC_ALL
set -f
me=${0##*/}
home=${TOLVAHOME:-/etc/tolva}
dry=
# A link to nowhere counts too: in doubt it is a rehearsal.
if [ -e "$home/rehearsal" ] || [ -L "$home/rehearsal" ]; then
    dry='rehearsal, would'
fi

# in_journal: standard output is the journal, which then needs no logger.
in_journal() {
    [ -n "${JOURNAL_STREAM-}" ] &&
        [ "$(stat -Lc %d:%i "/proc/$$/fd/1" 2>/dev/null)" = "$JOURNAL_STREAM" ]
}

# tell <priority> <text>: to who has started it, and to the system log.
tell() {
    text=$(printf '%s' "$2" | tr '[:cntrl:]' '?')
    printf '%s\n' "$text"
    if [ -z "$dry" ] && ! in_journal && command -v logger >/dev/null; then
        within 10 logger -t tolva -p "daemon.$1" -- "$me: $text"
    fi
}

say() {
    tell notice "$1"
}

# fail <status> <text>
fail() {
    if [ -n "$dry" ]; then
        tell err "$dry end with status $1: $2"
        exit 0
    fi
    tell err "$2" >&2
    exit "$1"
}

usage() {
    dry=
    fail 64 "$1 (--help tells more)"
}

help() {
    sed -n '2,/^$/s/^# \{0,1\}//p' "$0"
    exit 0
}

need() {
    command -v "$1" >/dev/null || fail 69 "this host has no $1 command"
}

# seconds <option> <value>
seconds() {
    case $2 in
    '' | 0?* | *[!0-9]* | ??????*) usage "$1 takes seconds, 0 to 99999" ;;
    esac
}

# within <seconds> <command>...: what is stuck is ended.
within() {
    if command -v timeout >/dev/null; then
        timeout -k 5 "$@"
    else
        shift
        "$@"
    fi
}

# run <command>...: runs it, or says that it would.
run() {
    if [ -n "$dry" ]; then
        printf '%s run: %s\n' "$dry" "$*"
    else
        "$@"
    fi
}

# has_systemd: as init, not just as a package.
has_systemd() {
    [ -d "${TOLVA_SYSTEMD:-/run/systemd/system}" ]
}

# outside <parameter>...: starts the action again as a unit of its own, which
# does not have the walls of the listener's service; not twice.
outside() {
    if [ -z "${TOLVA_OUTSIDE-}" ] && has_systemd && [ "$(id -u)" -eq 0 ] &&
        command -v systemd-run >/dev/null; then
        exec systemd-run --quiet --wait --collect --pipe \
            --setenv=TOLVA_OUTSIDE=1 --setenv="TOLVAHOME=$home" \
            ${JOURNAL_STREAM:+--setenv="JOURNAL_STREAM=$JOURNAL_STREAM"} -- \
            "$(readlink -f -- "$0")" "$@"
    fi
}
