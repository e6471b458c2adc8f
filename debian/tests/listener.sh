# Sourced by the tests: the service, with or without systemd, and what it says.
# shellcheck shell=sh

config=/etc/tolva/tolva.cfg
log=/var/log/tolva/tolva.log

# Nothing here shuts the testbed down.
touch /etc/tolva/rehearsal

fail() {
    echo "FAILED: $*"
    tail -n 20 "$log" /run/tolva.errors 2>/dev/null
    exit 1
}

# expect <status> <command>...: the command ends with that status.
expect() {
    wanted=$1
    shift
    got=0
    "$@" || got=$?
    [ "$got" -eq "$wanted" ] || fail "status $got instead of $wanted: $*"
    echo "ok: $*: status $got"
}

# within <seconds> <command>...: true as soon as the command is.
within() {
    deadline=$(($(date +%s) + $1))
    shift
    until "$@"; do
        [ "$(date +%s)" -lt "$deadline" ] || return 1
        sleep 0.1
    done
}

# The service, as the host at hand has it.
service_tolva() {
    if [ -d /run/systemd/system ]; then
        systemctl "$1" tolva
    else
        /etc/init.d/tolva "$1"
    fi
}

listens() {
    tolva -se "LOG_TEXT are you there" -a 127.0.0.1 >/dev/null 2>&1
}

# name <address>...: the senders, and the listener with them.
name_senders() {
    sed -i '/^AllowedAddresses=/d; /^ListenAddress=/d' "$config"
    printf "%s\n" "AllowedAddresses=$*" ListenAddress=127.0.0.1 >>"$config"
    service_tolva restart
}

# As shipped, for the next test.
as_shipped() {
    service_tolva stop
    cp /usr/share/tolva/tolva.cfg "$config"
}
