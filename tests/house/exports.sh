#!/bin/sh
# exports.sh LIBRARY LIST: the library exports exactly the symbols of the list, one a line; a line that ends in * stands
# for all symbols that begin so, at least one. Symbols of the C++ runtime (_Z...) are never exported, whatever the list
# says. Lines that open with # are comments.
set -eu

# Defined dynamic symbols without their version; the version nodes themselves are absolute symbols.
exported() {
    nm --dynamic --defined-only "$1" | awk '$(NF - 1) != "A" { sub(/@.*/, "", $NF); print $NF }' | LC_ALL=C sort -u
}

check() {
    work=$(mktemp -d)
    exported "$1" >"$work/exported"
    grep -v '^#' "$2" | grep '\*$' | sed 's/\*$//' >"$work/prefixes" || true
    grep -v '^#' "$2" | grep -v '\*$' | grep . | LC_ALL=C sort -u >"$work/names" || true

    bad=0
    cp "$work/exported" "$work/rest"
    while read -r prefix; do
        grep -q "^$prefix" "$work/rest" || { echo "exports nothing that begins with: $prefix"; bad=1; }
        grep -v "^$prefix" "$work/rest" >"$work/rest.new" || true
        mv "$work/rest.new" "$work/rest"
    done <"$work/prefixes"
    LC_ALL=C comm -23 "$work/names" "$work/rest" | sed 's/^/listed, but not exported: /' >"$work/findings"
    LC_ALL=C comm -13 "$work/names" "$work/rest" | sed 's/^/exported, but not listed: /' >>"$work/findings"
    grep '^_Z' "$work/exported" | sed 's/^/a C++ symbol is exported: /' >>"$work/findings" || true
    if [ -s "$work/findings" ]; then
        cat "$work/findings"
        bad=1
    fi
    rm -rf "$work"
    return $bad
}

# toy SOURCE: a library of that C++ source in $tmp.
toy() {
    printf '%s\n' "$1" | ${CXX:-c++} -std=c++20 -O0 -shared -fPIC -x c++ -o "$tmp/libtoy.so" -
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    printf '# toys\nrec__*\ntoy_call\ntoy_data\n' >"$tmp/list"
    good='extern "C" { void toy_call() {} int toy_data = 1; void rec__a() {} void rec__b() {} }'
    toy "$good"
    accepts 'what the list says' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good extern \"C\" void toy_more() {}"
    refuses 'one symbol more' 'not listed: toy_more' check "$tmp/libtoy.so" "$tmp/list"
    toy 'extern "C" { void toy_call() {} void rec__a() {} }'
    refuses 'one symbol less' 'not exported: toy_data' check "$tmp/libtoy.so" "$tmp/list"
    toy 'extern "C" { void toy_call() {} int toy_data = 1; }'
    refuses 'a pattern without symbols' 'begins with: rec__' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good void leaked() {}"
    printf '_Z*\n' >>"$tmp/list"
    refuses 'a C++ symbol, even when listed' 'C++ symbol' check "$tmp/libtoy.so" "$tmp/list"
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
