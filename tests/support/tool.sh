# Sourced by the command-line tests with their arguments BUILD-DIRECTORY SOURCE-DIRECTORY: makes a
# temporary working directory, and checks the exit status and output of commands.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the sourcing script uses these
build=$(realpath "$1") source=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# expect STATUS PATTERN COMMAND...: standard error must match the pattern, or standard output for
# "out:PATTERN". A function `always`, if defined, checks the files `out` and `err` of every command.
expect() {
    local status=$1 pattern=$2 where=err
    shift 2
    "$@" >out 2>err </dev/null
    local got=$?
    [[ $pattern == out:* ]] && where=out && pattern=${pattern#out:}
    ((got == status)) || fail "status $got, not $status: $*: $(tail -n 3 err)"
    grep -qE -- "$pattern" "$where" || fail "no \"$pattern\" in $where of: $*: $(head -n 3 $where)"
    if declare -F always >/dev/null; then always "$@"; fi
}

verdict() {
    ((failures == 0)) && echo "$1"
}
