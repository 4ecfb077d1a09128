#!/bin/sh
# try.sh SOURCE [TOOLCHAIN [EMULATOR]]: the library builds, installs and runs on a platform that is not ours.
#
# The platform is the one of this folder: six libraries of another SONAME that do nothing, installed with the headers
# into an empty prefix. CC and CXX name the compilers.
set -eu

source=$(cd "$1" && pwd)
toolchain=${2:-}
emulator=${3:-}
here=$source/tests/external_platform
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
platform=$work/platform
libraries="qz_mom_impl qz_thread ddm qz_zlog ssat cgstctrl"

fail() {
    echo "$*" >&2
    exit 1
}

# quietly COMMAND...: what it says is of interest only when it fails.
quietly() { "$@" >"$work/output" 2>&1 || fail "$(cat "$work/output")"; }

make_platform() {
    mkdir -p "$platform/include" "$platform/lib"
    for room in mom thread ddm zlog shell congest; do
        cp "$source/platform/$room/include"/*.h "$platform/include"
    done
    for name in $libraries; do
        # shellcheck disable=SC2046
        ${CC:-cc} -Wall -Wextra -Werror -shared -fPIC -I"$platform/include" $(pkg-config --cflags libprotobuf-c) \
            -Wl,-soname,"lib$name.so.9" "$here/$name.c" -o "$platform/lib/lib$name.so.9"
        ln -s "lib$name.so.9" "$platform/lib/lib$name.so"
    done
}

# configure BUILD PREFIX [OPTION...]
configure() {
    build=$1
    prefix=$2
    shift 2
    cmake -G Ninja -S "$source" -B "$build" -DCMAKE_BUILD_TYPE=None -DEBRIDGE_PLATFORM=external \
        -DEBRIDGE_PLATFORM_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib \
        -DCMAKE_C_COMPILER="${CC:-cc}" -DCMAKE_CXX_COMPILER="${CXX:-c++}" \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} "$@"
}

# What is missing below the prefix is not taken from elsewhere.
look_nowhere_else() {
    cp -R "$platform" "$work/partial"
    rm "$work/partial/lib/libssat.so"
    ! configure "$work/build.partial" "$work/partial" -DCMAKE_PREFIX_PATH="$platform" >"$work/output" 2>&1 ||
        fail 'configures with libssat of another prefix'
    grep -q 'EBRIDGE_PLATFORM_ssat' "$work/output" || fail "$(cat "$work/output")"
}

# A build folder that is given another prefix looks there: it is not the first one's platform that is built on.
begin_elsewhere() {
    cp -R "$platform" "$work/other"
    quietly configure "$work/build" "$work/other"
    grep -qF "$work/other/lib/libssat.so" "$work/build/CMakeCache.txt" || fail 'does not find the platform below its prefix'
    rm -r "$work/other"
}

build() {
    quietly configure "$work/build" "$platform"
    ! grep -F "$work/other/" "$work/build/CMakeCache.txt" || fail 'keeps what it found below another prefix, see above'
    quietly cmake --build "$work/build" --parallel 2
    quietly cmake --install "$work/build" --prefix "$work/usr"
}

# The library names the platform that it was given. Nothing of ours was built or installed, and nothing that ours is
# built on was looked for.
look() {
    ! grep -iE 'libuv|spdlog|hiredis|nlohmann|CLI11' "$work/build/CMakeCache.txt" || fail 'looked for, see above'
    readelf -d "$work/usr/lib/libsw_bridge.so.1" | grep NEEDED >"$work/needed"
    for name in $libraries; do
        grep -qF "[lib$name.so.9]" "$work/needed" || fail "does not use lib$name.so.9: $(cat "$work/needed")"
    done
    built=$(cd "$work/build/lib" && echo ./*)
    case $built in
    *qz_* | *ssat* | *cgst*) fail "built all the same: $built" ;;
    esac
    [ ! -e "$work/usr/include/sw_bridge/qz_mom.h" ] || fail 'headers of our own platform are installed'
}

run_user() {
    PKG_CONFIG_PATH=$work/usr/lib/pkgconfig
    export PKG_CONFIG_PATH
    # shellcheck disable=SC2046
    ${CC:-cc} -Wall -Wextra -Werror "$here/user.c" -o "$work/user" $(pkg-config --cflags --libs sw_bridge)
    # shellcheck disable=SC2086
    said=$(LD_LIBRARY_PATH=$work/usr/lib:$platform/lib timeout 60 $emulator "$work/user")
    [ "$said" = 'registered: 0, requested: 0' ] || fail "the program says: $said"
}

make_platform
look_nowhere_else
begin_elsewhere
build
look
run_user
