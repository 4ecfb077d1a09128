#!/bin/sh
# static_init.sh LIBRARY OBJECT...: nothing of the library runs before its first call. No object has a constructor of a
# namespace-scope object, and the linked library's .init_array holds the compiler's own frame_dummy and no more.
set -eu

pointer_size() {
    case $(readelf --file-header "$1" | awk '/Class:/ { print $2 }') in
    ELF64) echo 8 ;;
    *) echo 4 ;;
    esac
}

# Bytes of a section, 0 without it.
section_size() {
    size=$(readelf --wide --section-headers "$1" | sed 's/^ *\[ *[0-9]*\] *//' | awk -v name="$2" '$1 == name { print $5 }')
    printf '%d\n' "0x${size:-0}"
}

check() {
    library=$1
    shift
    bad=0
    for object in "$@"; do
        if nm "$object" | grep -q '_GLOBAL__sub_I\|__static_initialization_and_destruction\|__cxx_global_var_init' ||
            [ "$(section_size "$object" .init_array)" -gt 0 ]; then
            echo "has a static initialiser: $object"
            bad=1
        fi
    done
    if [ "$(section_size "$library" .init_array)" -gt "$(pointer_size "$library")" ]; then
        echo "has more than the compiler's entry in .init_array: $library"
        bad=1
    fi
    return $bad
}

# toy SOURCE: an object and a library of that C++ source in $tmp.
toy() {
    printf '%s\n' "$1" | ${CXX:-c++} -std=c++20 -O2 -fPIC -c -x c++ -o "$tmp/toy.o" -
    ${CXX:-c++} -shared -o "$tmp/libtoy.so" "$tmp/toy.o"
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    toy 'constinit int table[4] = {1, 2, 3, 4}; int call(int i) { return table[i]; }'
    accepts 'constants' check "$tmp/libtoy.so" "$tmp/toy.o"
    toy 'int now(); static int started = now(); int call() { return started; }'
    refuses 'a variable that is computed at start' 'static initialiser' check "$tmp/libtoy.so" "$tmp/toy.o"
    toy 'void wind(); __attribute__((constructor)) void start() { wind(); }'
    refuses 'a constructor function' 'static initialiser' check "$tmp/libtoy.so" "$tmp/toy.o"
    refuses 'the same, seen in the library' '.init_array' check "$tmp/libtoy.so"
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
