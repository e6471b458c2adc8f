#!/bin/sh
# Tells the users and the system log that a shutdown request was held back,
# because not enough of the redundant UPS servers have asked for it.

PATH=${PATH:+$PATH:}/usr/sbin:/usr/bin:/sbin:/bin
export PATH

# True when descriptor 1 is the journal, which then needs no logger.
in_journal() {
    [ -n "${JOURNAL_STREAM-}" ] &&
        [ "$(stat -Lc %d:%i "/proc/$$/fd/1" 2>/dev/null)" = "$JOURNAL_STREAM" ]
}

text="A UPS server asks for a shutdown of $(uname -n). It is held back until more of them ask or fall silent."
if in_journal; then
    echo "<4>$text"
else
    echo "$text"
    if command -v logger >/dev/null; then
        logger -t tolva -p daemon.warning -- "$text"
    fi
fi
if command -v wall >/dev/null; then
    echo "$text" | wall
fi
exit 0
