# Sourced by the trials: one line for each thing that is looked at.
# shellcheck shell=sh

passed=0
failed=0
trial_output=${TMPDIR:-/tmp}/trial.output.$$

# check <what> <command>...: the command must succeed.
check() {
    what=$1
    shift
    if "$@" >"$trial_output" 2>&1; then
        passed=$((passed + 1))
        echo "ok      $what"
    else
        failed=$((failed + 1))
        echo "FAILED  $what: $*"
        tail -n 40 "$trial_output" | sed 's/^/        /'
    fi
}

# within <seconds> <command>...: true as soon as the command is.
within() {
    deadline=$(($(date +%s) + $1))
    shift
    until "$@"; do
        [ "$(date +%s)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

not() {
    ! "$@"
}

# status <number> <command>...: the command ends with that status.
status() {
    wanted=$1
    shift
    "$@"
    got=$?
    [ "$got" -eq "$wanted" ] || {
        echo "status $got"
        return 1
    }
}

# same <text> <command>...: the command prints that.
same() {
    wanted=$1
    shift
    got=$("$@")
    [ "$got" = "$wanted" ] || {
        echo "printed: $got"
        return 1
    }
}

# quiet <command>...: it succeeds and has nothing to say.
quiet() {
    if ! got=$("$@" 2>&1) || [ -n "$got" ]; then
        echo "$got"
        return 1
    fi
}

# The last thing a trial does.
verdict() {
    rm -f "$trial_output"
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
