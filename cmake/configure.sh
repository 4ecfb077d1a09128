#!/bin/sh
# configure.sh [-DNAME=VALUE...]: configures build/ with the default preset, or build-NAME/ with the one that PRESET=NAME
# names.
#
# A new folder leaves the tests out unless they are asked for, so that a build or a demo needs no test packages. An
# existing one keeps what it was configured with and gets the given settings on top; with none there is nothing to do.
set -eu

preset=${PRESET:-gcc}
build=build
[ "$preset" = gcc ] || build=build-$preset
if [ ! -f "$build/build.ninja" ]; then
    set -- -DEBRIDGE_TESTS=OFF "$@"
elif [ $# -eq 0 ]; then
    exit 0
fi
mkdir -p "$build"
cmake --preset "$preset" "$@" >"$build/configure.log" 2>&1 || {
    cat "$build/configure.log" >&2
    exit 1
}
