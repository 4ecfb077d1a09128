#!/bin/sh
# build.sh BUILD FOLDER: makes the Debian packages of what BUILD has built, for its architecture, and puts them into
# FOLDER, in the place of earlier ones of that architecture. What is said goes into BUILD/packages.log, and to standard error when it fails.
set -eu

build=$1
folder=$2
[ -f "$build/CPackConfig.cmake" ] || {
    echo "$build makes no packages: not on Debian, without dpkg-dev, or not a plain build of everything" >&2
    exit 1
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cpack --config "$build/CPackConfig.cmake" -B "$work" >"$build/packages.log" 2>&1 || {
    cat "$build/packages.log" >&2
    exit 1
}
mkdir -p "$folder"
for package in "$work"/*.deb; do
    architecture=${package##*_}
done
rm -f "$folder"/*_"$architecture"
mv "$work"/*.deb "$folder"
