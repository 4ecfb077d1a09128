#!/bin/sh
# opening_comment.sh ROOT: every source, script, schema and build file of ours opens with a comment that gives its role.
set -eu

# A comment of at least a few words on the first line, or on the second behind #!.
opens_with_comment() {
    head -n 2 "$1" | sed '1{/^#!/d;}' | head -n 1 | grep -qE '^(//|/\*|#) ?.*[A-Za-z]+[^A-Za-z]+[A-Za-z]+'
}

check() {
    bad=0
    seen=0
    for kind in c shell build; do
        for file in $(sh "$(dirname "$0")/../../cmake/sources.sh" "$kind" "$1"); do
            seen=$((seen + 1))
            if ! opens_with_comment "$1/$file" || head -n 1 "$1/$file" | grep -qE '^# *(include|pragma|if|define)'; then
                echo "does not open with a comment: $file"
                bad=1
            fi
        done
    done
    [ "$seen" -gt 0 ] || { echo "no sources found under $1"; return 1; }
    return $bad
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    mkdir -p "$tmp/app" "$tmp/cmake"
    refuses 'no sources at all' 'no sources' check "$tmp"
    printf '// Toys and how they are wound up.\nint toy;\n' >"$tmp/app/toy.cpp"
    printf '/* toy.h - what a toy can do.\n */\n' >"$tmp/app/toy.h"
    printf '#!/bin/sh\n# Winds a toy up.\n' >"$tmp/cmake/toy.sh"
    accepts 'a source, a header and a script' check "$tmp"
    printf '#!/bin/sh\nset -eu\n' >"$tmp/cmake/toy.sh"
    refuses 'a script without' 'comment: cmake/toy.sh' check "$tmp"
    printf '# Winds a toy up.\n' >"$tmp/cmake/toy.sh"
    printf '#include "toy.h"\n// Too late.\n' >"$tmp/app/toy.cpp"
    refuses 'a comment below the includes' 'comment: app/toy.cpp' check "$tmp"
    printf '//\nint toy;\n' >"$tmp/app/toy.cpp"
    refuses 'an empty comment' 'comment: app/toy.cpp' check "$tmp"
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
