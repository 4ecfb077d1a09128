#!/bin/sh
# lint.sh BUILD JOBS: formatting of all our sources, clang-tidy over what BUILD compiles, and the shell scripts. Every
# check runs; the status is 1 when one of them found something.
set -eu

here=$(dirname "$0")
build=$1
jobs=$2
failed=

report() {
    echo "lint: $1: $2"
    [ "$2" = ok ] || failed=1
}

# What the build compiles, as names from the root; generated code is under the build folder and not ours to mend.
compiled_sources() {
    sed -n 's/^ *"file": "\(.*\)",*$/\1/p' "$build/compile_commands.json" | sed "s,^$PWD/,," | grep -v "^$build/" |
        grep -v '^/' | LC_ALL=C sort -u
}

format=ok
sh "$here/sources.sh" c | xargs clang-format --dry-run -Werror || format=FAILED
report clang-format $format

# Findings go to stdout; stderr counts what was suppressed in other people's headers and is only of use with a failure.
tidy=ok
compiled_sources | xargs -P "$jobs" -n 1 clang-tidy --quiet -p "$build" 2>"$build/tidy.log" || tidy=FAILED
[ $tidy = ok ] || grep -v 'warnings* generated\.$' "$build/tidy.log" || true
report clang-tidy $tidy

shell=ok
for script in $(sh "$here/sources.sh" shell); do
    case $(head -n 1 "$script") in
    *bash*) bash -n "$script" || shell=FAILED ;;
    *) sh -n "$script" || shell=FAILED ;;
    esac
    if command -v shellcheck >/dev/null; then
        shellcheck "$script" || shell=FAILED
    fi
done
report 'shell scripts' $shell

[ -z "$failed" ]
