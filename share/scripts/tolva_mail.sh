#!/bin/sh
# Sends a mail: the first parameter is the recipient, the others are the text.
# It needs a mail system with the usual sendmail command.

PATH=$PATH:/usr/sbin:/usr/bin:/sbin:/bin:/usr/lib

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
    echo "${0##*/}: $text" >&2
    if command -v logger >/dev/null; then
        logger -t tolva -p daemon.err -- "${0##*/}: $text"
    fi
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
