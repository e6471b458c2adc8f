# Sourced by tools/package-test: "cmake --install", .rpm and .tar.gz.
# shellcheck shell=bash disable=SC2154 # out is the caller's

# build <source> <directory> <umask>: both packages of that source.
build() {
    (
        umask "$3" && cmake -S "$1" -B "$2" -DBUILD_TESTING=OFF \
            -DTOLVA_WERROR=ON -DCMAKE_BUILD_TYPE=Release \
            -DTOLVA_HOME=/etc/tolva &&
            cmake --build "$2" -j "$(nproc)" &&
            cd "$2" && rm -f ./*.rpm ./*.tar.gz && cpack
    )
}

others_later() {
    copy_source "$out/later" && later_version "$out/later"
}

# The files of each package, as the installed host has them.
rpm_files() {
    rpm -qplv "$1" | awk '!/^d/ { print $9 }' | sort
}
tar_files() {
    tar -tf "$1" | grep -v '/$' | sed 's|^[^/]*||' |
        grep -v '^/etc/init.d/' | sort
}
same_files() {
    diff <(rpm_files "$1"/*.rpm) <(tar_files "$1"/*.tar.gz)
}
files_below_etc() {
    rpm_files "$1" | grep ^/etc/
}
rpm_kept() {
    rpm -qp --qf '[%{FILEFLAGS:fflags} %{FILENAMES}\n]' "$1" |
        awk '$1 == "cn" { print $2 }' | sort
}
# Directories and files that not everybody can read, but for the log's.
closed_in_tar() {
    tar -tvf "$1" | grep -v '^l' | grep -vE '^.r..r..r.. |^dr.xr.xr.x ' |
        awk '{ print $1, $6 }' | sed 's| [^/]*| |'
}

# What "cmake --install" puts into a prefix works from there.
prefix_answers() {
    "$prefix/bin/tolva" -sr "LOG_TEXT trial of the prefix" \
        -a "127.0.0.1:6604" && grep -q "trial of the prefix" \
        "$prefix/var/log/tolva/tolva.log"
}
prefix_script_works() {
    local result
    printf '%s\n' ListenPort=6604 ListenAddress=127.0.0.1 \
        AllowedAddresses=127.0.0.1 >>"$prefix/etc/tolva/tolva.cfg"
    export TOLVA_PIDFILE=$out/prefix.pid TOLVA_ERRORS=$out/prefix.errors
    "$prefix/etc/init.d/tolva" start && within 20 prefix_answers
    result=$?
    "$prefix/etc/init.d/tolva" stop
    return "$result"
}
install_prefix() {
    cmake --install "$first" --prefix "$prefix"
}

# The .rpm on a host of its own kind, as far as rpm itself goes.
rpm_there() {
    rpm --root "$out/rpm" --nodeps --nosignature "$@"
}
rpm_upgrade_keeps() {
    local home=$out/rpm/etc/tolva
    rpm_there -i "$first"/*.rpm &&
        echo "AllowedAddresses=192.0.2.1" >>"$home/tolva.cfg" &&
        rpm_there -U "$second"/*.rpm &&
        grep -qx "AllowedAddresses=192.0.2.1" "$home/tolva.cfg" &&
        grep -qx "# of the later version" "$home/tolva.cfg.rpmnew" &&
        grep -qx "m999=of the later version" "$home/messages.dat"
}
rpm_erase_saves() {
    rpm_there -e tolva && [ -e "$out/rpm/etc/tolva/tolva.cfg.rpmsave" ] &&
        [ ! -e "$out/rpm/usr/bin/tolva" ] &&
        [ ! -e "$out/rpm/etc/tolva/messages.dat" ]
}

run_others() {
    local first=$out/first second=$out/second prefix=$out/prefix
    rm -rf "$first" "$second" "$prefix"
    check "the .rpm and the .tar.gz are built" build . "$first" 022
    check "in another directory" copy_source "$out/elsewhere"
    check "under another umask" build "$out/elsewhere" "$out/elsewhere/b" 077
    check "the .tar.gz is the same" cmp "$first"/tolva-*.tar.gz \
        "$out/elsewhere"/b/tolva-*.tar.gz
    check "and everybody can read what it holds" \
        same "drwxr-x--- /var/log/tolva/" closed_in_tar "$first"/*.tar.gz
    check "a later version" others_later
    check "is built" build "$out/later" "$second" 022
    check "both packages have the same files" same_files "$first"
    check "the .rpm keeps what is below /etc" \
        same "$(files_below_etc "$first"/*.rpm)" rpm_kept "$first"/*.rpm

    check "cmake --install fills a prefix" install_prefix
    check "it works from there" prefix_script_works
    check "cmake --install once more" install_prefix
    check "leaves the settings as they are" \
        grep -qx ListenPort=6604 "$prefix/etc/tolva/tolva.cfg"
    check "and puts the new ones beside them" \
        grep -qx "#ListenPort=6003" "$prefix/etc/tolva/tolva.cfg.new"

    check "a root for rpm" root_of bookworm "$out/rpm"
    check "the .rpm keeps edited settings in an upgrade" rpm_upgrade_keeps
    check "and saves them when it is erased" rpm_erase_saves
    rm -rf --one-file-system "$out/elsewhere" "$out/later" "$out/rpm"
}
