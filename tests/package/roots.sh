# Sourced by tools/package-test: Debian roots, and what runs in them.
# shellcheck shell=bash disable=SC2154 # out and mirror are the caller's

# base_of <release>: its archive is made once.
base_of() {
    [ -s "$out/$1.tar" ] && return
    mmdebstrap --variant=minbase "$1" "$out/$1.part" "$mirror" --format=tar &&
        mv "$out/$1.part" "$out/$1.tar"
}

# root_of <release> <directory>: a fresh root.
root_of() {
    base_of "$1" && rm -rf --one-file-system "$2" && mkdir -p "$2" &&
        tar -x --numeric-owner -f "$out/$1.tar" -C "$2" &&
        cp -L /etc/resolv.conf "$2/etc/resolv.conf"
}

# in_root <directory> <command>...: with /proc, and no process left behind.
in_root() {
    unshare --mount --pid --fork --kill-child --mount-proc="$1/proc" \
        chroot "$1" /usr/bin/env -i HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive \
        PATH=/usr/sbin:/usr/bin:/sbin:/bin "${@:2}" </dev/null
}
export -f in_root

# alone_in_root <directory> <command>...: without a network, which also leaves
# this host's ports alone.
alone_in_root() {
    unshare --net bash -c 'ip link set lo up && in_root "$@"' bash "$@"
}

# apt_in <directory> <argument>...
apt_in() {
    in_root "$1" apt-get -q -y -o Dpkg::Use-Pty=0 \
        --no-install-recommends "${@:2}"
}

# The source as it stands here, without what was built from it.
copy_source() {
    rm -rf "$1" && mkdir -p "$1" &&
        tar -c --exclude=.git --exclude='./build*' --exclude='./obj-*' \
            --exclude='./debian/tolva' --exclude='./debian/.debhelper' \
            --exclude=__pycache__ . | tar -x --no-same-owner -C "$1"
}

# later_version <source>: as a later version, with other settings and texts.
later_version() {
    sed -i 's/^project(tolva VERSION [0-9.]*/project(tolva VERSION 99.0.0/' \
        "$1/CMakeLists.txt" &&
        sed -i '1s/(.*)/(99.0.0-1)/' "$1/debian/changelog" &&
        echo "# of the later version" >>"$1/share/tolva.cfg" &&
        echo "m999=of the later version" >>"$1/share/messages.dat"
}

# add <file>: takes the lines of a trial over, and counts them.
add() {
    local p=0 f=0
    [ -e "$1" ] && grep -v ' passed, ' "$1" &&
        read -r p _ f _ < <(grep ' passed, ' "$1")
    if ! grep -qs ' passed, ' "$1"; then
        echo "FAILED  $1 has no end"
        [ ! -e "$1" ] || tail -n 5 "$1"
        f=$((f + 1))
    fi
    passed=$((passed + p)) failed=$((failed + f))
}
