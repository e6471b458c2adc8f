#!/bin/sh
# Shuts this host down: tells the users and the system log, then starts
# /sbin/shutdown. The parameters, if any, are the sender's reason.
#
# To rehearse, create a file "rehearsal" beside the settings
# (/etc/tolva/rehearsal): then this only says what it would do.
#
# Exit status: 42 when it was a rehearsal; 126 or 127 when what shuts the host
# down cannot be run or is missing, also in a rehearsal; else that of shutdown.

# Minutes that the users have to save their work; 0 is at once.
DELAY=2

# What shuts the host down; -h, a time and a text are put behind it.
SHUTDOWN=${TOLVA_SHUTDOWN:-/sbin/shutdown}

# Where systemd keeps the time of a shutdown that is already under way, and
# where init keeps the process id of one.
SCHEDULED=${TOLVA_SCHEDULED:-/run/systemd/shutdown/scheduled}
PIDFILE=${TOLVA_SHUTDOWN_PID:-/run/shutdown.pid}

# Where it is noted that a shutdown was ordered here, for cancel-shutdown.
STATE=${TOLVA_STATE:-/run/tolva}

REHEARSAL=${TOLVAHOME:-/etc/tolva}/rehearsal
PATH=${PATH:+$PATH:}/usr/sbin:/usr/bin:/sbin:/bin
export PATH

# A stuck terminal or log service must not hold the shutdown up.
briefly() {
    if command -v timeout >/dev/null; then
        timeout -s KILL 10 "$@"
        return
    fi
    { "$@" <&3 3<&- & } 3<&0
    job=$!
    {
        left=10
        while [ "$left" -gt 0 ] && kill -0 "$job"; do
            sleep 1 || exit
            left=$((left - 1))
        done
        kill -s KILL "$job"
    } >/dev/null 2>&1 &
    guard=$!
    wait "$job"
    kill -s KILL "$guard" 2>/dev/null
}

# True when standard output is the journal, which then needs no logger.
in_journal() {
    [ -n "${JOURNAL_STREAM-}" ] &&
        [ "$(stat -Lc %d:%i "/proc/$$/fd/1" 2>/dev/null)" = "$JOURNAL_STREAM" ]
}

say() {
    # shellcheck disable=SC2016 # for the other shell
    briefly sh -c 'printf "%s\n" "$1"' sh "$mark$1" 2>/dev/null
    if [ -z "$mark" ] && command -v logger >/dev/null; then
        briefly logger -t tolva -p daemon.crit -- "$1"
    fi
}

# True when the host goes down anyway, and no later than we would have it.
# Ordering it again would begin the delay anew: senders that repeat their
# request would keep the host up until its battery is empty.
under_way() {
    if [ -r "$PIDFILE" ] && [ -r "$STATE/shutdown" ]; then
        read -r ours _ <"$STATE/shutdown"
        read -r pid _ <"$PIDFILE"
        [ "$ours" != "$pid" ] || ! kill -0 "$pid" || return 0
    fi 2>/dev/null
    [ -r "$SCHEDULED" ] || return 1
    due='' mode=''
    while IFS='=' read -r key value; do
        case $key in
        USEC) due=${value%??????} ;;
        MODE) mode=$value ;;
        esac
    done <"$SCHEDULED"
    case $due in '' | *[!0-9]*) return 1 ;; esac
    case $mode in poweroff | halt) ;; *) return 1 ;; esac
    [ "$due" -le $(($(date +%s) + DELAY * 60)) ]
}

# What the shell will say of SHUTDOWN: 0, 126 or 127.
status_of_shutdown() {
    if ! command -v "$SHUTDOWN" >/dev/null && ! [ -e "$SHUTDOWN" ]; then
        return 127
    fi
    case $SHUTDOWN in
    */*) [ -x "$SHUTDOWN" ] && ! [ -d "$SHUTDOWN" ] || return 126 ;;
    esac
}

mark=''
! in_journal || mark='<2>'

# It stands in a file that is edited, and is needed when nobody looks on.
given=$DELAY
DELAY=${DELAY#+}
case $DELAY in
[Nn][Oo][Ww]) DELAY=0 ;;
'' | *[!0-9]* | ?????*)
    DELAY=2
    say "DELAY=$given in $0 is no number of minutes; $DELAY is taken"
    ;;
esac
# What begins with 0 would be read as octal.
while [ "$DELAY" != "${DELAY#0?}" ]; do
    DELAY=${DELAY#0}
done

reason=$(printf '%s' "$*" | LC_ALL=C tr '[:cntrl:]' ' ')
text="The UPS asks for a shutdown: $(uname -n) goes down in $DELAY minutes."
[ -z "$reason" ] || text="$text ($reason)"

status_of_shutdown
status=$?

# A link to nowhere counts too: in doubt the host stays up in a rehearsal.
if [ -e "$REHEARSAL" ] || [ -L "$REHEARSAL" ]; then
    say "rehearsal, nothing is shut down: $text"
    if [ "$status" -ne 0 ]; then
        say "rehearsal, it would FAIL: $SHUTDOWN cannot be run"
        exit "$status"
    fi
    say "rehearsal, would run: $SHUTDOWN -h +$DELAY"
    exit 42
fi

if under_way; then
    say "The UPS asks for a shutdown, which is already under way."
    exit 0
fi

if [ "$status" -ne 0 ]; then
    say "The UPS asks for a shutdown, but $SHUTDOWN CANNOT BE RUN."
    exit "$status"
fi

say "$text"
if command -v wall >/dev/null; then
    echo "$text" | briefly wall
fi
# The process id is that of shutdown too, where it waits until it is time.
{
    mkdir -p "$STATE" &&
        echo "$$ $(($(date +%s) + DELAY * 60))" >"$STATE/shutdown"
} 2>/dev/null
exec "$SHUTDOWN" -h "+$DELAY" "$text"
