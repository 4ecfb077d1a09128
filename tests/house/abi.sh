#!/bin/sh
# abi.sh LIBRARY BASELINE: programs that were built against the interface recorded in BASELINE run with the library.
# Symbols may have come since; one that is gone, and a call, a record or a constant that is another now, is printed.
#
# abi.sh renew LIBRARY BASELINE: records the interface of the library as the new baseline (docs/abi.md says when that is
# right). What a file libsw_bridge.abignore beside the baseline names is left out of both.
set -eu

# recorded LIBRARY FOLDER OUT: the interface as text: what is exported, and every type that can be reached from it. Ids come
# from the types' names and places are left out, so that a new baseline differs in what has changed alone.
recorded() {
    if ! readelf --wide --section-headers "$1" | grep -qF ' .debug_info '; then
        echo "has no debug information to read its types from: $1"
        return 1
    fi
    library=$1
    out=$3
    if [ -f "$2/libsw_bridge.abignore" ]; then set -- --suppressions "$2/libsw_bridge.abignore"; else set --; fi
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --no-parameter-names --type-id-style hash \
        --exported-interfaces-only "$@" --out-file "$out" "$library"
}

check() {
    [ -f "$2" ] || { echo "there is no baseline: $2"; return 1; }
    work=$(mktemp -d)
    status=0
    recorded "$1" "$(dirname "$2")" "$work/now" || status=1
    if [ $status -eq 0 ] && ! abidiff --no-added-syms "$2" "$work/now" >"$work/changes"; then
        echo "the interface differs from $(basename "$2"):"
        cat "$work/changes"
        status=1
    fi
    rm -rf "$work"
    return $status
}

renew() {
    recorded "$1" "$(dirname "$2")" "$2.new"
    sed "s,\(<abi-instr .*\)path='[^']*/\(proto/[^']*\),\1path='\2," "$2.new" >"$2" # not the build's folder
    rm "$2.new"
}

# toy TYPES CALLS: a library of that C source in $tmp.
toy() {
    printf '%s\n' "$@" | ${CC:-cc} -g -shared -fPIC -x c -o "$tmp/libtoy.so" -
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    set -- "$tmp/libtoy.so" "$tmp/toy.xml"
    record='struct toy { int key; char *name; };'
    colours='enum colour { RED = 0, BLUE = 1 };'
    calls='int wind(struct toy *toy, enum colour colour) { return toy->key + (int)colour; }'
    toy "$record $colours" "$calls"
    refuses 'no baseline' 'no baseline' check "$@"
    renew "$@"
    accepts 'the same' check "$@"
    toy "$record $colours" "$calls int stop(void) { return 0; }"
    accepts 'one call more' check "$@"
    toy "$record enum colour { RED = 0, BLUE = 1, GREEN = 2 };" "$calls"
    accepts 'one constant more' check "$@"
    toy "$record $colours" 'int unwind(struct toy *toy) { return toy->key; }'
    refuses 'one call less' 'wind' check "$@"
    toy "$record $colours" 'int wind(struct toy *toy, enum colour colour, int n) { return toy->key + (int)colour + n; }'
    refuses 'one argument more' 'wind' check "$@"
    toy "struct toy { char *name; int key; }; $colours" "$calls"
    refuses 'fields in another order' 'offset changed' check "$@"
    toy "struct toy { int key; char *name; int more; }; $colours" "$calls"
    refuses 'one field more' 'size changed' check "$@"
    toy "struct toy { int key; const char *name; }; $colours" "$calls"
    accepts 'a field that may no longer be written through' check "$@"
    toy "$record enum colour { RED = 1, BLUE = 0 };" "$calls"
    refuses 'other values of constants' 'RED' check "$@"
    printf '%s\n' "int wind(void) { return 1; }" | ${CC:-cc} -shared -fPIC -x c -o "$tmp/libtoy.so" -
    refuses 'a library without debug information' 'no debug information' check "$@"
    exit $wrong
}

case $1 in
selftest) selftest ;;
renew) shift && renew "$@" ;;
*) check "$@" ;;
esac
