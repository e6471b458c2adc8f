#!/bin/sh
# Sends a mail: the first parameter is the recipient, the others are the text.
# It needs a mail system with the usual sendmail command.

PATH=${PATH:+$PATH:}/usr/sbin:/usr/bin:/sbin:/bin:/usr/lib

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

recipient=$1
# A line break would begin a header of the sender's own, a dash an option.
case $recipient in
'' | -* | *[[:cntrl:]]*)
    echo "usage: ${0##*/} <recipient> [<text>]" >&2
    exit 2
    ;;
esac
shift

if ! command -v sendmail >/dev/null; then
    text="this host has no sendmail command"
    complain "${0##*/}: $text"
    exit 69
fi

# The recipient is named here, not read from the headers, so nothing in the
# text can add another.
{
    printf 'To: %s\n' "$recipient"
    printf 'Subject: Message from %s\n' "$(uname -n)"
    printf 'Auto-Submitted: auto-generated\n'
    printf 'MIME-Version: 1.0\n'
    printf 'Content-Type: text/plain; charset=utf-8\n'
    printf 'Content-Transfer-Encoding: 8bit\n'
    printf '\n%s\n' "$*"
} | sendmail -oi -- "$recipient"
