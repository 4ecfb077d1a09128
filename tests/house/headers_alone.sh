#!/bin/sh
# headers_alone.sh ROOT RECORDS: every public header compiles by itself, included twice, as C11, C++17 and C++20, without
# a warning, and so do the generated record headers in the folder RECORDS. CC and CXX name the compilers.
set -eu

warnings='-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wundef -Werror'

# compile LANGUAGE STANDARD HEADER FLAGS...
compile() {
    language=$1
    standard=$2
    header=$3
    shift 3
    if [ "$language" = c ]; then
        compiler=${CC:-cc}
        set -- -Wstrict-prototypes -Wc++-compat "$@"
    else
        compiler=${CXX:-c++}
    fi
    # shellcheck disable=SC2086
    printf '#include "%s"\n#include "%s"\n' "$header" "$header" |
        $compiler -x "$language" "-std=$standard" $warnings -fsyntax-only "$@" -
}

check() {
    root=$1
    records=$2
    flags="-isystem $records $(pkg-config --cflags libprotobuf-c)"
    for folder in "$root"/platform/*/include "$root"/sw_bridge/ebridge "$root"/ebridged; do
        [ ! -d "$folder" ] || flags="$flags -I$folder"
    done

    bad=0
    seen=0
    for header in "$root"/sw_bridge/ebridge/*.h "$root"/platform/*/include/*.h "$root"/ebridged/*.h \
        "$records"/*.pb-c.h; do
        [ -f "$header" ] || continue
        seen=$((seen + 1))
        for mode in 'c c11' 'c++ c++17' 'c++ c++20'; do
            # shellcheck disable=SC2086
            if ! compile $mode "$header" $flags; then
                echo "does not compile alone as ${mode#* }: ${header#"$root"/}"
                bad=1
            fi
        done
    done
    [ "$seen" -gt 0 ] || { echo "no public header found under $root"; return 1; }
    return $bad
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    mkdir -p "$tmp/sw_bridge/ebridge" "$tmp/records"
    header=$tmp/sw_bridge/ebridge/toy.h
    refuses 'no header at all' 'no public header' check "$tmp" "$tmp/records"
    printf '#ifndef TOY_H\n#define TOY_H\n#include <stddef.h>\nsize_t toy(void);\n#endif\n' >"$header"
    accepts 'a self-contained header' check "$tmp" "$tmp/records"
    printf '#ifndef TOY_H\n#define TOY_H\nint toy();\n#endif\n' >"$header"
    refuses 'a call of unknown arguments' 'alone as c11' check "$tmp" "$tmp/records"
    printf '#ifndef TOY_H\n#define TOY_H\nuint32_t toy(void);\n#endif\n' >"$header"
    refuses 'a header that needs another' 'alone as c11' check "$tmp" "$tmp/records"
    printf '#ifndef TOY_H\n#define TOY_H\nint toy(int class);\n#endif\n' >"$header"
    refuses 'a header that is not C++' 'alone as c++17' check "$tmp" "$tmp/records"
    printf '#ifndef TOY_H\n#define TOY_H\nstatic inline int toy(int *p) { if (p != nullptr) return 1; return 0; }\n#endif\n' \
        >"$header"
    refuses 'a header that is not C' 'alone as c11' check "$tmp" "$tmp/records"
    printf '#ifndef TOY_H\n#define TOY_H\nint toy(void);\n#endif\n' >"$header"
    printf '#ifndef REC_H\n#define REC_H\ntoy_word rec(void);\n#endif\n' >"$tmp/records/rec.pb-c.h"
    refuses 'a record header that needs another' 'rec.pb-c.h' check "$tmp" "$tmp/records"
    rm "$tmp/records/rec.pb-c.h"
    printf 'struct toy { int x; };\n' >"$header"
    refuses 'a header without a guard' 'alone as c11' check "$tmp" "$tmp/records"
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
