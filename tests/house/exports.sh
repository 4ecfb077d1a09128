#!/bin/sh
# exports.sh LIBRARY LIST: the library exports exactly the symbols of the list, one a line, in the versions of the list: a
# line @VERSION holds for those below it. A * in a line stands for any part of a name, and the number behind it says how
# many symbols match. Symbols of the C++ runtime (_Z...) are never exported, whatever the list says. Lines that open with #
# are comments.
set -eu

# Defined dynamic symbols as name@version; the version nodes themselves are absolute symbols.
exported() {
    nm --dynamic --defined-only --with-symbol-versions "$1" |
        awk '$(NF - 1) != "A" { sub(/@@/, "@", $NF); print $NF }' | LC_ALL=C sort -u
}

# The list's lines in the same form.
listed() {
    awk '/^#/ || /^$/ { next } /^@/ { version = $0; next } { $1 = $1 version; print }' "$1" | LC_ALL=C sort -u
}

check() {
    work=$(mktemp -d)
    exported "$1" >"$work/exported"
    listed "$2" >"$work/listed"
    grep -F '*' "$work/listed" >"$work/patterns" || true
    grep -vF '*' "$work/listed" >"$work/names" || true

    bad=0
    cp "$work/exported" "$work/rest"
    while read -r pattern count; do
        expression=$(printf '%s\n' "$pattern" | sed 's/\*/[A-Za-z0-9_]*/')
        matching=$(grep -cx "$expression" "$work/rest" || true)
        [ "$matching" = "$count" ] || { echo "exports $matching like $pattern, not ${count:-a number that is listed}"; bad=1; }
        grep -vx "$expression" "$work/rest" >"$work/rest.new" || true
        mv "$work/rest.new" "$work/rest"
    done <"$work/patterns"
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

# toy SOURCE [VERSION]: a library of that C++ source in $tmp, its symbols of that version.
toy() {
    printf '%s { global: *; };\n' "${2:-TOY_1}" >"$tmp/toy.map"
    printf '%s\n' "$1" |
        ${CXX:-c++} -std=c++20 -O0 -shared -fPIC -Wl,--version-script="$tmp/toy.map" -x c++ -o "$tmp/libtoy.so" -
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    printf '# toys\n@TOY_1\nrec__* 2\nbox__*__lid 1\ntoy_call\ntoy_data\n' >"$tmp/list"
    boxes='void rec__a() {} void rec__b() {} void box__a__lid() {}'
    good="extern \"C\" { void toy_call() {} int toy_data = 1; $boxes }"
    toy "$good"
    accepts 'what the list says' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good extern \"C\" void toy_more() {}"
    refuses 'one symbol more' 'not listed: toy_more' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good extern \"C\" void box__a__floor() {}"
    refuses 'one more of which another part is listed' 'not listed: box__a__floor' check "$tmp/libtoy.so" "$tmp/list"
    toy "extern \"C\" { void toy_call() {} $boxes }"
    refuses 'one symbol less' 'not exported: toy_data' check "$tmp/libtoy.so" "$tmp/list"
    toy 'extern "C" { void toy_call() {} int toy_data = 1; void rec__a() {} void box__a__lid() {} }'
    refuses 'a pattern of one symbol less' 'exports 1 like rec__*@TOY_1, not 2' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good extern \"C\" void box__b__lid() {}"
    refuses 'a pattern of one symbol more' 'exports 2 like box__*__lid@TOY_1, not 1' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good" TOY_2
    refuses 'another version' 'not listed: toy_call@TOY_2' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good void leaked() {}"
    printf '_Z* 1\n' >>"$tmp/list"
    refuses 'a C++ symbol, even when listed' 'C++ symbol' check "$tmp/libtoy.so" "$tmp/list"
    toy "$good"
    printf '@TOY_1\nrec__*\nbox__*__lid 1\ntoy_call\ntoy_data\n' >"$tmp/list"
    refuses 'a pattern without a number' 'not a number that is listed' check "$tmp/libtoy.so" "$tmp/list"
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
