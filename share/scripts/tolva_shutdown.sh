#!/bin/sh
# Shuts this host down: tells the users and the system log, then starts
# /sbin/shutdown. The parameters, if any, are the sender's reason.
#
# To rehearse, create a file "rehearsal" beside the settings
# (/etc/tolva/rehearsal): then this only says what it would do.

# Minutes that the users have to save their work; 0 is at once.
DELAY=2

# What shuts the host down; -h, a time and a text are put behind it.
SHUTDOWN=${TOLVA_SHUTDOWN:-/sbin/shutdown}

# Where systemd keeps the time of a shutdown that is already under way.
SCHEDULED=${TOLVA_SCHEDULED:-/run/systemd/shutdown/scheduled}

REHEARSAL=${TOLVAHOME:-/etc/tolva}/rehearsal
PATH=$PATH:/usr/sbin:/usr/bin:/sbin:/bin

# A stuck terminal or log service must not hold the shutdown up.
briefly() {
    if command -v timeout >/dev/null; then
        timeout 10 "$@"
    else
        "$@"
    fi
}

say() {
    echo "$1"
    if command -v logger >/dev/null; then
        briefly logger -t tolva -p daemon.crit -- "$1"
    fi
}

# True when the host goes down anyway, and no later than we would have it.
# Ordering it again would begin the delay anew: senders that repeat their
# request would keep the host up until its battery is empty.
under_way() {
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

reason=$(printf '%s' "$*" | LC_ALL=C tr '[:cntrl:]' ' ')
text="The UPS asks for a shutdown: $(uname -n) goes down in $DELAY minutes."
[ -z "$reason" ] || text="$text ($reason)"

# A link to nowhere counts too: in doubt the host stays up in a rehearsal.
if [ -e "$REHEARSAL" ] || [ -L "$REHEARSAL" ]; then
    say "rehearsal, nothing is shut down: $text"
    say "rehearsal, would run: $SHUTDOWN -h +$DELAY"
    exit 0
fi

if under_way; then
    say "The UPS asks for a shutdown, which is already under way."
    exit 0
fi

say "$text"
if command -v wall >/dev/null; then
    echo "$text" | briefly wall
fi
exec "$SHUTDOWN" -h "+$DELAY" "$text"
