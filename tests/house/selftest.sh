# selftest.sh: for the checks' own tests, read by each of them with `.`. Gives a private folder in $tmp, removed at the
# end, and two sentences about commands, accepts and refuses; $wrong is 1 once one of them was untrue.
# shellcheck shell=sh disable=SC2034
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
wrong=0

# accepts WHAT COMMAND...: the command must succeed.
accepts() {
    what=$1
    shift
    if ! ("$@") >"$tmp/output" 2>&1; then
        echo "refused, but it is good: $what"
        cat "$tmp/output"
        wrong=1
    fi
}

# refuses WHAT TEXT COMMAND...: the command must fail and print a line with TEXT, so that it fails for the right reason.
refuses() {
    what=$1
    text=$2
    shift 2
    if ("$@") >"$tmp/output" 2>&1; then
        echo "accepted, but it is bad: $what"
        wrong=1
    elif ! grep -qF -e "$text" "$tmp/output"; then
        echo "refused, but without '$text': $what"
        cat "$tmp/output"
        wrong=1
    fi
}
