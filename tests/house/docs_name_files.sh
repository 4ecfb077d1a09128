#!/bin/sh
# docs_name_files.sh ROOT: the Markdown documents name no file that does not exist. Looked at are relative links and what
# stands in backticks and looks like a file of ours: a path below one of our folders, or the end of one with the ending of
# a source. Patterns (*) must match something. Build folders and web addresses are somebody else's.
set -eu

endings='c|h|cpp|hpp|md|proto|cmake|sh|map|inc'

# Link targets of a document, without anchors.
links() {
    grep -oE '\]\([^)[:space:]]+\)' "$1" | sed 's/^](//; s/)$//; s/#.*$//' | grep -vE '^$|^[a-z]+:' || true
}

# Words in backticks outside of code blocks, if they are one word.
quoted() {
    awk '/^ *```/ { code = !code; next } !code' "$1" | grep -oE '`[^` ]+`' | tr -d '`' || true
}

# exists ROOT FOLDER NAME: as a path from the root or from the document's folder.
exists() {
    for base in "$1" "$2"; do
        # shellcheck disable=SC2086
        for path in "$base"/$3; do
            [ ! -e "$path" ] || return 0
        done
    done
    return 1
}

# ends_a_path ROOT NAME: a file of ours whose path ends so; generated record code counts by its schema.
ends_a_path() {
    case $2 in *.pb-c.h | *.pb-c.c) set -- "$1" "${2%.pb-c.?}.proto" ;; esac
    [ -n "$(find "$1" \( -name .git -o -name 'build*' \) -prune -o -path "*/$2" -print | head -n 1)" ]
}

# looks_like_ours ROOT NAME
looks_like_ours() {
    case $2 in
    /* | -* | *:* | *..* | build/* | build-*/* | *[\(\)\{\}\<\>\$\|,]*) return 1 ;;
    */*) [ -d "$1/${2%%/*}" ] || printf '%s\n' "$2" | grep -qE "\.($endings)$" ;;
    *) printf '%s\n' "$2" | grep -qE "^[A-Za-z0-9_*-][A-Za-z0-9_.*-]*\.($endings)$" ;;
    esac
}

documents() {
    find "$1" -maxdepth 1 -name '*.md'
    [ ! -d "$1/docs" ] || find "$1/docs" -name '*.md'
}

check() {
    root=$1
    bad=0
    for document in $(documents "$root" | LC_ALL=C sort); do
        folder=$(dirname "$document")
        for name in $(set -f; links "$document"); do
            if ! (cd "$folder" && [ -e "$name" ]) && ! { [ "${name#/}" != "$name" ] && [ -e "$root$name" ]; }; then
                echo "${document#"$root"/}: link to a missing file: $name"
                bad=1
            fi
        done
        set -f
        for name in $(quoted "$document"); do
            looks_like_ours "$root" "$name" || continue
            set +f
            if ! exists "$root" "$folder" "$name" && ! ends_a_path "$root" "$name"; then
                echo "${document#"$root"/}: names a missing file: $name"
                bad=1
            fi
            set -f
        done
        set +f
    done
    return $bad
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    mkdir -p "$tmp/docs" "$tmp/app/lib"
    touch "$tmp/app/lib/toy.cpp"
    printf 'See [the toy](app/lib/toy.cpp), [web](https://example.org/x.md), `app/lib`, `app/*/toy.cpp`, `lib/toy.cpp`,\n' \
        >"$tmp/README.md"
    printf '`build/bin/toy`, `toy_wind()`, `and/or`, `-DTOY=ON`, `config.json`.\n\n```\n`app/gone.cpp`\n```\n' >>"$tmp/README.md"
    printf '[back](../README.md#top) and [down](toys.md)\n' >"$tmp/docs/toys.md"
    accepts 'files that exist, and what are no files' check "$tmp"
    for text in '[gone](docs/gone.md)' '`app/lib/gone.cpp`' '`gone.hpp`' '`elsewhere/gone.cpp`' '`app/*/gone.cpp`' '`app/gone`'; do
        printf '%s\n' "$text" >"$tmp/docs/more.md"
        refuses "$text" 'docs/more.md' check "$tmp"
    done
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
