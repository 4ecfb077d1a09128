#!/bin/sh
# sources.sh KIND [ROOT]: lists our own files of a kind, one a line: c (C and C++), shell, or build (CMake, make, schemas,
# tables). Generated files live in build folders and are never listed.
set -eu

cd "${2:-$(dirname "$0")/..}"
rooms=
for room in app sw_bridge common platform ebridged tools examples tests bench cmake proto packaging .ci; do
    [ ! -d "$room" ] || rooms="$rooms $room"
done

# shellcheck disable=SC2086
case $1 in
c) find $rooms -type f \( -name '*.c' -o -name '*.h' -o -name '*.cpp' -o -name '*.hpp' \) ;;
shell) find $rooms -type f \( -name '*.sh' -o -path '.ci/*' -o -path 'packaging/debian/*' \) ;;
build)
    find $rooms -type f \( -name CMakeLists.txt -o -name '*.cmake' -o -name '*.proto' -o -name '*.inc' \)
    find . -maxdepth 1 \( -name CMakeLists.txt -o -name Makefile \) | sed 's,^\./,,'
    ;;
*) echo "sources.sh: no kind '$1'" >&2; exit 2 ;;
esac | LC_ALL=C sort
