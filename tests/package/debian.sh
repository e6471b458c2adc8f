# Sourced by tools/package-test: Debian's package, in its own releases.
# shellcheck shell=bash disable=SC2154 # out and options are the caller's

# A root of the release with what builds and examines the package, kept.
builder_of() {
    local root=$out/builder-$1
    if [ ! -e "$root/ready" ]; then
        root_of "$1" "$root" && apt_in "$root" update &&
            apt_in "$root" install build-essential fakeroot faketime lintian \
                devscripts apparmor systemd &&
            in_root "$root" useradd builder || return
    fi
    # faketime has semaphores there.
    chmod 1777 "$root/dev/shm" || return
    # What the package says it is built with, which may have become more.
    mkdir -p "$root/tmp/depends/debian" &&
        cp debian/control "$root/tmp/depends/debian" &&
        apt_in "$root" build-dep /tmp/depends && touch "$root/ready"
}

# built_in <release> <directory there> <user> <umask> <word of env>...: the
# packages of the source in that directory.
built_in() {
    local root=$out/builder-$1 dir=$2 user=$3 mask=$4
    shift 4
    in_root "$root" chown -R "$user" "${dir%/*}" &&
        in_root "$root" runuser -u "$user" -- env HOME=/tmp "$@" sh -c "
            umask $mask && cd '$dir' && exec dpkg-buildpackage -us -uc -b" \
            >"$out/$release-build.log" 2>&1
    local status=$?
    [ "$status" -eq 0 ] || tail -n 30 "$out/$release-build.log"
    return "$status"
}

# Once as anybody would, with the unit tests.
built_plainly() {
    copy_source "$root/build/a/tolva" &&
        built_in "$release" /build/a/tolva root 022 LC_ALL=C.UTF-8 \
            DEB_BUILD_OPTIONS="$options"
}

# And once with all that should make no difference: another directory, user,
# umask, time, language and time zone, files of another age, no tests.
built_otherwise() {
    local dir=/build/another/long/place/tolva-src
    copy_source "$root$dir" && chmod -R go-rwx "$root$dir" &&
        find "$root$dir" -exec touch -h -d '2019-03-02 01:02:03' {} + &&
        built_in "$release" "$dir" builder 077 TZ=Pacific/Kiritimati \
            LC_ALL=C DEB_BUILD_OPTIONS="nocheck parallel=1" \
            NO_FAKE_STAT=1 faketime -f +411d
}

built_later() {
    copy_source "$root/build/later/tolva" &&
        later_version "$root/build/later/tolva" &&
        built_in "$release" /build/later/tolva root 022 \
            DEB_BUILD_OPTIONS=nocheck
}

# The same bytes; diffoscope says what is different, where there is one.
same_bytes() {
    cmp "$1" "$2" && return
    if command -v diffoscope >/dev/null; then
        timeout 120 diffoscope --max-report-size 4000 "$1" "$2"
    fi
    return 1
}

lint() {
    in_root "$root" lintian --pedantic -I --fail-on error,warning \
        --allow-root "/build/a/$(basename "$changes")" \
        >"$out/$release-lintian.log"
    local status=$?
    cat "$out/$release-lintian.log"
    return "$status"
}

# Every executable of the package is as closed as Debian's flags make it. The
# marks for control flow are given only where the C library has them too, so on
# amd64 the code is looked at: functions are called through pointers.
hardened() {
    local file machine known options=(--nocfprotection) number=0
    machine=$(dpkg --print-architecture)
    known=$(in_root "$root" hardening-check --help)
    case $machine:$known in
    arm64:*) ;;
    *--nobranchprotection*) options+=(--nobranchprotection) ;;
    esac
    rm -rf "$root/tree" && dpkg-deb -x "$deb" "$root/tree" || return
    for file in "$root"/tree/usr/bin/*; do
        if [ -L "$file" ] || ! head -c 4 "$file" | grep -q ELF; then
            continue
        fi
        number=$((number + 1))
        file=${file#"$root"}
        in_root "$root" hardening-check "${options[@]}" "$file" || return
        if [ "$machine" = amd64 ]; then
            in_root "$root" objdump -d "$file" | grep -q endbr64 || return
        fi
    done
    [ "$number" -gt 0 ]
}

is_stripped() {
    [ -z "$(nm "$root/tree/usr/bin/tolva" 2>/dev/null)" ]
}

# A root with the packages of both versions in /trial.
trial_root() {
    root_of "$release" "$1" && mkdir "$1/trial" &&
        cp tests/package/* "$1/trial" && cp "$deb" "$1/trial/old.deb" &&
        cp "$later" "$1/trial/new.deb" && apt_in "$1" update
}

# The tests of debian/tests, on the package as it was installed before.
autopkgtests() {
    local log=$out/$release-autopkgtest.log
    copy_source "$1/trial/source" &&
        apt_in "$1" install autopkgtest dpkg-dev dpkg-repack fakeroot \
            nut-server nut-client /trial/old.deb >"$log" 2>&1 &&
        alone_in_root "$1" autopkgtest --no-built-binaries \
            /trial/source -- null >"$log" 2>&1
    local status=$?
    grep -aE '^[a-z-]+ +(PASS|FAIL|SKIP)' "$log"
    [ "$status" -eq 0 ] || tail -n 40 "$log"
    return "$status"
}

# The host of the service's trial: an init, a mail system, a user, a root that
# is logged in at the console, one service that stops early and one late.
furnish() {
    apt_in "$1" install systemd-sysv dbus libpam-systemd cron \
        exim4-daemon-light &&
        in_root "$1" useradd -m admin || return
    echo trial >"$1/etc/hostname"
    echo "127.0.0.1 localhost trial" >"$1/etc/hosts"
    mkdir -p "$1/etc/systemd/system/console-getty.service.d"
    cat >"$1/etc/systemd/system/console-getty.service.d/root.conf" <<'UNIT'
[Service]
ExecStart=
ExecStart=-/sbin/agetty --autologin root --keep-baud console 115200 vt220
UNIT
    cat >"$1/etc/systemd/system/trial-late.service" <<'UNIT'
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/bin/true
ExecStop=/trial/while-going-down
StandardOutput=append:/trial/late.log
UNIT
    cat >"$1/etc/systemd/system/trial-early.service" <<'UNIT'
[Unit]
Requires=trial-late.service
After=trial-late.service
[Service]
ExecStart=/bin/sleep infinity
UNIT
    cat >"$1/etc/systemd/system/trial.service" <<'UNIT'
[Unit]
DefaultDependencies=no
Wants=trial-early.service
After=trial-early.service exim4.service console-getty.service
[Service]
ExecStart=/trial/service-trial
StandardOutput=append:/trial/service.log
[Install]
WantedBy=multi-user.target
UNIT
    ln -s ../trial.service \
        "$1/etc/systemd/system/multi-user.target.wants/trial.service"
}

# boot <directory>: until it has shut itself down.
boot() {
    timeout 400 systemd-nspawn --quiet --register=no --keep-unit \
        --private-network --console=read-only -b -D "$1" </dev/null \
        >"$out/$release-console.log" 2>&1
}

# run_debian <release>
run_debian() {
    local release=$1 root=$out/builder-$1 deb changes later
    check "a root of $release that builds" builder_of "$release"
    rm -rf "$root/build"
    check "the package is built${options:+ ($options)}" built_plainly
    deb=$(ls "$root"/build/a/tolva_*.deb)
    changes=$(ls "$root"/build/a/tolva_*.changes)
    check "and another time, by somebody else, elsewhere" built_otherwise
    check "which makes the same bytes" same_bytes "$deb" \
        "$root/build/another/long/place/$(basename "$deb")"
    check "a later version is built" built_later
    later=$(ls "$root"/build/later/tolva_*.deb)

    check "lintian of $release finds neither error nor warning" lint
    check "what is built is hardened" hardened
    check "and stripped" is_stripped
    check "the AppArmor profile can be read" in_root "$root" \
        apparmor_parser -QTK /tree/etc/apparmor.d/tolva

    check "a fresh root" trial_root "$out/root"
    alone_in_root "$out/root" /trial/install-trial \
        >"$out/$release-install.log" 2>&1
    add "$out/$release-install.log"

    check "another one" trial_root "$out/root"
    check "passes the package's own tests" autopkgtests "$out/root"

    check "a third" trial_root "$out/host"
    check "becomes a host" furnish "$out/host"
    check "which starts and shuts itself down" boot "$out/host"
    add "$out/host/trial/service.log"
    add "$out/host/trial/late.log"
    check "the message was on the console" \
        grep -qa "trial of the terminals" "$out/$release-console.log"

    # What failed can be looked into there.
    if [ "$failed" -eq 0 ]; then
        rm -rf --one-file-system "$out/root" "$out/host"
    fi
}
