#!/bin/sh
# needs.sh LIBRARY NAME...: the library needs, at run time, no libraries but those (NAME is libNAME.so or begins so), and
# nothing of a C++ runtime from any of them: no symbol of C++, no exceptions, no guards. The one call of that kind that a C
# library makes is __cxa_finalize, from the compiler's own start files.
set -eu

needed() {
    readelf --wide --dynamic "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p'
}

check() {
    library=$1
    shift
    bad=0
    for soname in $(needed "$library"); do
        known=
        for name in "$@"; do
            case $soname in "lib$name.so" | "lib$name.so."*) known=1 ;; esac
        done
        [ -n "$known" ] || { echo "needs another library: $soname"; bad=1; }
    done
    if nm --dynamic --undefined-only "$library" | awk '{ print $NF }' | sed 's/@.*//' | grep -vx __cxa_finalize |
        grep -E '^(_Z|__cxa_|__gxx_|_Unwind_|__aeabi_unwind|__dynamic_cast)'; then
        echo "needs a C++ runtime: $library"
        bad=1
    fi
    return $bad
}

# toy SOURCE FLAG...: a library of that C++ source in $tmp.
toy() {
    source=$1
    shift
    printf '%s\n' "$source" | ${CXX:-c++} -std=c++20 -O2 -shared -fPIC -x c++ -o "$tmp/libtoy.so" - "$@"
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    toy 'extern "C" int puts(const char *); extern "C" int call() { return puts("toy"); }' -nodefaultlibs -lc
    accepts 'the C library' check "$tmp/libtoy.so" c
    refuses 'a library that is not named' 'needs another library: libc.so' check "$tmp/libtoy.so" cc
    toy 'extern "C" void call() { throw 1; }'
    refuses 'an exception' 'C++ runtime' check "$tmp/libtoy.so" c stdc++ m gcc_s
    toy 'int now(); extern "C" int *call() { static int *made = new int(now()); return made; }'
    refuses 'new, and a guard' '__cxa_guard_acquire' check "$tmp/libtoy.so" c stdc++ m gcc_s
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
