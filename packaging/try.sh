#!/bin/sh
# try.sh packages FOLDER [TREE]: installs the packages of FOLDER into an empty root, for each architecture that there is,
# looks at what came, builds and runs the examples from there and nowhere else, and takes the packages out again. Libraries
# of several architectures are also installed together.
# try.sh installed BUILD ARCHITECTURE: the same programs from what `cmake --install BUILD` puts below an empty prefix.
# try.sh folders SOURCE: the files that name folders name those that a packager chose, also outside of the prefix.
#
# The root begins without a file, but its dpkg knows what is installed on this machine, so that dependencies that cannot
# be met are refused as they would be here. What the examples need of the distribution they take from this machine. A root
# of that kind can be made by root, or with fakeroot; where there is neither, the status is 77 and nothing was tried.
#
# TREE is the source tree: no file or folder of it may be named in what is installed.
set -eu

PATH=$PATH:/usr/sbin:/sbin
LC_ALL=C
export LC_ALL
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

say() { echo "try: $*"; }
fail() {
    say "$*" >&2
    exit 1
}

# for_architecture NAME: the compiler, the folder of libraries and, for another one than this machine's, the emulator.
for_architecture() {
    architecture=$1
    triplet=$(dpkg-architecture -A "$architecture" -q DEB_TARGET_MULTIARCH)
    cc=cc emulator='' toolchain=''
    if [ "$architecture" != "$(dpkg --print-architecture)" ]; then
        cc=$triplet-gcc emulator="qemu-${triplet%%-*}-static"
        toolchain=$(cd "$(dirname "$0")/../cmake" && pwd)/$triplet.cmake
    fi
}

# run PROGRAM...: with the installed libraries, under the emulator if it needs one, and without fakeroot.
run() {
    # shellcheck disable=SC2086
    env -u LD_PRELOAD LD_LIBRARY_PATH="$prefix/lib/$triplet" timeout 120 $emulator "$@"
}

# grants PROGRAM: the first example runs as its source promises.
grants() {
    run "$1" >"$work/output"
    if ! { grep -q '^VNI 5010 has evlan 0x20' "$work/output" && grep -qx released "$work/output"; }; then
        fail "$1 says: $(cat "$work/output")"
    fi
}

# As somebody does who has read no more than the README.
builds_with_pkg_config() {
    mkdir "$work/flags"
    (
        cd "$work/flags"
        PKG_CONFIG_LIBDIR=$prefix/lib/$triplet/pkgconfig:/usr/lib/$triplet/pkgconfig
        export PKG_CONFIG_LIBDIR
        flags=$(pkg-config --cflags --libs ebridged)
        for source in "$examples"/*.c; do
            # shellcheck disable=SC2086
            $cc -Wall -Wextra -Werror "$source" -o "$(basename "$source" .c)" $flags
        done
    )
    grants "$work/flags/request_one_evlan"
    say "$architecture: the examples build with pkg-config and run"
}

builds_with_cmake() {
    mkdir "$work/cmake"
    cat >"$work/cmake/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.18)
project(first LANGUAGES C)
find_package(sw_bridge 0.1 REQUIRED)
add_executable(first "$examples/request_one_evlan.c")
target_link_libraries(first PRIVATE sw_bridge::sw_bridge sw_bridge::ebridged)
END
    cmake -S "$work/cmake" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} >"$work/output" 2>&1 || fail "$(cat "$work/output")"
    cmake --build "$work/cmake" >"$work/output" 2>&1 || fail "$(cat "$work/output")"
    grants "$work/cmake/first"
    say "$architecture: an example builds with the CMake package and runs"
}

# options PROGRAM ARGUMENTS...: the long ones that its help names.
options() { run "$@" --help | grep -oE '^ +(-[a-z],)?--[a-z0-9-]+' | grep -oE -e '--[a-z0-9-]+'; }

# manual_names PAGE OPTION...
manual_names() {
    page=$1
    shift
    [ $# -gt 1 ] || fail "no options for $page"
    [ -f "$page" ] || page=$page.gz
    for option in "$@"; do
        zcat -f "$page" | sed 's/\\-/-/g' | grep -qF -e "$option" || fail "$(basename "$page") does not name $option"
    done
}

programs_run() {
    run "$prefix/bin/ebridge" run "$examples/leaf.json" >"$work/output" || fail "$(cat "$work/output")"
    # shellcheck disable=SC2046
    manual_names "$prefix/share/man/man1/ebridge.1" $(options "$prefix/bin/ebridge" run)
    # shellcheck disable=SC2046
    manual_names "$prefix/share/man/man8/ebridged.8" $(options "$prefix/bin/ebridged")
    program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$prefix/lib/systemd/system/ebridged.service")
    [ -x "${root:-}$program" ] || fail "the unit starts $program, which is not there"
    say "$architecture: ebridge brings up the sample switch, the manual pages name all options"
}

try_prefix() {
    examples=$prefix/share/doc/ebridge/examples
    builds_with_pkg_config
    builds_with_cmake
    programs_run
    rm -rf "$work/flags" "$work/cmake"
}

# into_root dpkg's arguments: no script of a package runs in the root, which has no shell.
into_root() { dpkg --root="$root" --force-script-chrootless --log="$work/dpkg.log" --path-include='/usr/*' "$@"; }

# An empty root whose dpkg knows the packages of this machine by their names, and none of ours.
make_root() {
    root=$work/root
    info=$root/var/lib/dpkg/info
    mkdir -p "$info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
    dpkg --print-architecture | cat - /var/lib/dpkg/arch 2>/dev/null | LC_ALL=C sort -u >"$root/var/lib/dpkg/arch"
    awk -v ours=" $names " 'BEGIN { RS = ""; ORS = "\n\n" } index(ours, " " $2 " ") == 0' /var/lib/dpkg/status \
        >"$root/var/lib/dpkg/status"
    # Without a list of its files a package is complained about.
    dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${binary:Package}\n' 2>/dev/null | while read -r package; do
        : >"$info/$package.list"
    done
}

refuses_library_alone() {
    if into_root -i "$folder"/libsw-bridge1_*_"$architecture".deb >"$work/output" 2>&1; then
        fail 'libsw-bridge1 installs without a platform'
    fi
    grep -q 'depends on ebridge-platform' "$work/output" || fail "$(cat "$work/output")"
    into_root --purge "libsw-bridge1:$architecture" >"$work/output" 2>&1 || fail "$(cat "$work/output")"
}

# needs_what_it_says FILE PACKAGE: the package depends on the owner of each library that the program or library names, by
# its name or by what it provides.
needs_what_it_says() {
    depends=$(query "$2:$architecture" '${Depends}' --admindir="$root/var/lib/dpkg")
    for library in $(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        owner=$(sed -n "s,:.*/lib/$triplet/$library\$,,p" "$work/owners" | head -n 1)
        found=
        for provided in "${owner:-nobody}" $(query "$owner:$architecture" '${Provides}'); do
            case " $2 $depends " in
            *" $provided "*) found=yes ;;
            esac
        done
        [ -n "$found" ] || fail "$2 needs $library of '$owner', and does not depend on it"
    done
}

# query PACKAGE FIELD [OPTION]: the names in a field of packages.
query() { dpkg-query ${3:+"$3"} -W -f "$2" "$1" 2>/dev/null | sed 's/([^)]*)//g; s/,/ /g'; }

# Programs and libraries: no debug information, no search path, nothing of the place where they were built.
look_at_what_came() {
    seen=0
    : >"$work/owners"
    for ours in $names; do
        into_root -L "$ours:$architecture" | sed "s/^/$ours: /" >>"$work/owners"
    done
    dpkg-query -S "*/lib/$triplet/*.so*" >>"$work/owners"
    for ours in $names; do
        for file in $(into_root -L "$ours:$architecture"); do
            file=$root$file
            if [ -h "$file" ] || ! [ -f "$file" ] || ! readelf -h "$file" >"$work/output" 2>/dev/null; then
                continue
            fi
            seen=$((seen + 1))
            if readelf -WSd "$file" | grep -E '\.debug_|\.symtab|\((RPATH|RUNPATH)\)'; then
                fail "$file is not stripped, or has a search path"
            fi
            needs_what_it_says "$file" "$ours"
        done
    done
    [ "$seen" -eq 10 ] || fail "$seen programs and libraries came, not two and eight"
    [ -z "$tree" ] || names_nothing_of_tree
}

# Something in the tree, that is: the name of a tree like /src stands in other paths, too.
names_nothing_of_tree() {
    find "$tree" -mindepth 1 -maxdepth 1 >"$work/in_tree"
    ! grep -rlFf "$work/in_tree" "$prefix" || fail "named above: files that name something in $tree"
}

# Nothing of ours stays behind.
take_out() {
    # shellcheck disable=SC2046,SC2086
    into_root --purge $(printf "%s:$architecture " $names) >"$work/output" 2>&1 || fail "$(cat "$work/output")"
    left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o -type f -print -o -type l -print)
    [ -z "$left" ] || fail "left behind: $left"
}

try_packages() {
    if [ "$(id -u)" -ne 0 ]; then
        command -v fakeroot >/dev/null || { say 'not root, and no fakeroot: nothing was tried'; exit 77; }
        rm -rf "$work"
        exec fakeroot sh "$0" packages "$folder" "$tree"
    fi
    architectures=$(for package in "$folder"/libsw-bridge1_*.deb; do dpkg-deb -f "$package" Architecture; done)
    for name in $architectures; do
        for_architecture "$name"
        names=$(for package in "$folder"/*_"$architecture".deb; do dpkg-deb -f "$package" Package; done | tr '\n' ' ')
        make_root
        prefix=$root/usr
        refuses_library_alone
        into_root -i "$folder"/*_"$architecture".deb >"$work/output" 2>&1 || fail "$(cat "$work/output")"
        say "$architecture: installed: $names"
        look_at_what_came
        try_prefix
        take_out
        rm -rf "$root"
    done
    # shellcheck disable=SC2086
    set -- $architectures
    [ $# -lt 2 ] || stand_side_by_side
}

# Who builds for several architectures has the libraries of each.
stand_side_by_side() {
    names='libsw-bridge1 ebridge-platform libebridged0 libsw-bridge-dev'
    make_root
    set --
    for name in $names; do
        set -- "$@" "$folder/$name"_*.deb
    done
    into_root -i "$@" >"$work/output" 2>&1 || fail "$(cat "$work/output")"
    # shellcheck disable=SC2086
    dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${Package} ${Architecture} ${db:Status-Status}\n' $names >"$work/there"
    [ "$(grep -c ' installed$' "$work/there")" -eq $# ] || fail "not all stay: $(cat "$work/there")"
    say "libraries of all architectures stand side by side"
}

# chosen OPTION...: configures with these folders, and installs what names them, for the prefix /opt/ebridge.
chosen() {
    rm -rf "$work/root"
    cmake -G Ninja -S "$sources" -B "$work/build" "$@" >"$work/output" 2>&1 || fail "$(cat "$work/output")"
    DESTDIR=$work/root cmake -DCMAKE_INSTALL_PREFIX=/opt/ebridge -P "$work/build/packaging/cmake_install.cmake" \
        >"$work/output" 2>&1 || fail "$(cat "$work/output")"
}

# names PC VARIABLE FOLDER
names() {
    found=$(PKG_CONFIG_PATH=$(dirname "$work/root$1") pkg-config --variable="$2" "$(basename "$1" .pc)")
    [ "$found" = "$3" ] || fail "$1: $2 is '$found', not $3"
}

try_folders() {
    chosen -DCMAKE_INSTALL_LIBDIR=/opt/libs -DCMAKE_INSTALL_BINDIR=/opt/programs
    names /opt/libs/pkgconfig/sw_bridge.pc libdir /opt/libs
    names /opt/libs/pkgconfig/sw_bridge.pc includedir /opt/ebridge/include/sw_bridge
    names /opt/libs/pkgconfig/ebridged.pc libdir /opt/libs
    grep -q '^ExecStart=/opt/programs/ebridged ' "$work/root/opt/ebridge/lib/systemd/system/ebridged.service" ||
        fail 'the unit does not start /opt/programs/ebridged'
    chosen -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_INSTALL_BINDIR=bin -DCMAKE_INSTALL_INCLUDEDIR=/opt/headers
    names /opt/ebridge/lib/pkgconfig/sw_bridge.pc includedir /opt/headers/sw_bridge
    grep -q '^ExecStart=/opt/ebridge/bin/ebridged ' "$work/root/opt/ebridge/lib/systemd/system/ebridged.service" ||
        fail 'the unit does not start /opt/ebridge/bin/ebridged'
    say 'folders outside of the prefix are named as they are'
}

case $1 in
packages)
    folder=$(cd "$2" && pwd)
    tree=${3:-}
    try_packages
    ;;
installed)
    prefix=$work/prefix
    cmake --install "$2" --prefix "$prefix" >"$work/output" 2>&1 || fail "$(cat "$work/output")"
    for_architecture "$3"
    try_prefix
    ;;
folders)
    sources=$(cd "$2" && pwd)
    try_folders
    ;;
*) fail "no trial '$1'" ;;
esac
