#!/bin/sh
# Tells the users and the system log that a shutdown request was held back,
# because not enough of the redundant UPS servers have asked for it.

PATH=$PATH:/usr/sbin:/usr/bin:/sbin:/bin

text="A UPS server asks for a shutdown of $(uname -n). It is held back until more of them ask or fall silent."
echo "$text"
if command -v logger >/dev/null; then
    logger -t tolva -p daemon.warning -- "$text"
fi
if command -v wall >/dev/null; then
    echo "$text" | wall
fi
exit 0
