#!/bin/sh
# Tells the administrator that a UPS server does not answer. It runs at each
# failed check with three parameters: the server's address, date and time.
#
# It never shuts anything down: when the network is lost every server is
# silent, and the host must stay up.

# Who gets the mail.
ADMIN=root

# Seconds in which a server that stays silent is not reported again.
QUIET=14400

# Where the time of the last report on each server is kept.
STATE=${TOLVA_STATE:-/run/tolva}

PATH=${PATH:+$PATH:}/usr/sbin:/usr/bin:/sbin:/bin
export PATH

# True when descriptor 1 is the journal, which then needs no logger.
in_journal() {
    [ -n "${JOURNAL_STREAM-}" ] &&
        [ "$(stat -Lc %d:%i "/proc/$$/fd/1" 2>/dev/null)" = "$JOURNAL_STREAM" ]
}

server=$1
case $server in
'' | *[!0-9A-Za-z.:-]*)
    echo "usage: ${0##*/} <address> <date> <time>" >&2
    exit 2
    ;;
esac
when=$(printf '%s' "$2 $3" | LC_ALL=C tr '[:cntrl:]' ' ')
text="The UPS server $server does not answer $(uname -n) ($when)."

say() {
    if in_journal; then
        echo "<4>$1"
        return
    fi
    echo "$1"
    if command -v logger >/dev/null; then
        logger -t tolva -p daemon.warning -- "$1"
    fi
}

stamp=$STATE/notalive.$server
now=$(date +%s)
last=
if [ -f "$stamp" ]; then
    read -r last <"$stamp"
fi
case $last in '' | 0* | *[!0-9]*) last=0 ;; esac
# A time in the future is of a clock that was wrong: report.
if [ "$last" -le "$now" ] && [ $((now - last)) -lt "$QUIET" ]; then
    exit 0
fi

# Without a memory every check would send a mail: then only the log is told.
umask 077
if ! mkdir -p "$STATE" || ! echo "$now" >"$stamp"; then
    say "$text"
    say "No mail is sent on that, since $stamp cannot be written."
    exit 1
fi

say "$text"
if command -v sendmail >/dev/null; then
    # A mail that could not be sent is tried again at the next check.
    sendmail -oi -- "$ADMIN" <<MAIL || { rm -f "$stamp" && exit 1; }
To: $ADMIN
Subject: UPS server $server does not answer
Auto-Submitted: auto-generated

$text

You are told again after $((QUIET / 60)) minutes if it stays silent. Nothing is
shut down for it, but a power failure may go unnoticed here meanwhile.
MAIL
elif command -v wall >/dev/null; then
    echo "$text" | wall
fi
