# For scripts that run a list of checks: prints each command, runs it, and counts the results. Sourced;
# the script ends with `verdict`.
# shellcheck shell=bash
. scripts/common.sh
writable build

checks_passed=0
checks_failed=0
checks_not_run=0
checks_jobs=$(nproc)

# Prints the counts as the last line, unless the script was interrupted or could not run.
last_words() {
    (($1 != 77)) || return 0
    echo
    if (($1 > 128)); then
        echo "interrupted after $checks_passed passed, $checks_failed failed"
        return
    fi
    if (($1 != 0 && checks_failed == 0)); then
        checks_failed=1
    fi
    local not_run=''
    if ((checks_not_run > 0)); then not_run=", $checks_not_run not run"; fi
    echo "$checks_passed passed, $checks_failed failed$not_run"
}

verdict() {
    ((checks_failed == 0 && checks_passed > 0))
}

# A command that the rest depends on: its failure ends the script.
must() {
    echo
    echo "==> $*"
    if ! "$@"; then
        echo "==> failed: $*"
        exit 1
    fi
}

# An independent check: its failure is counted and the script continues. One that cannot run on this
# machine exits with 77 and is counted apart.
check() {
    local status=0
    echo
    echo "==> $*"
    "$@" || status=$?
    case $status in
        0) checks_passed=$((checks_passed + 1)) ;;
        77)
            echo "==> NOT RUN: $*"
            checks_not_run=$((checks_not_run + 1))
            ;;
        *)
            echo "==> failed: $*"
            checks_failed=$((checks_failed + 1))
            ;;
    esac
}

# Configures and builds a preset.
build() {
    writable "build/$1"
    must configure "$1" "build/$1"
    must one_at_a_time "build/$1" cmake --build --preset "$1"
}

# Runs a preset's tests and counts each. Having no tests is a failure.
tests() {
    local output status=0 line
    output=build/$1/ctest.log
    echo
    echo "==> ctest --preset $*"
    ctest --preset "$@" --no-tests=error -j "$checks_jobs" 2>&1 | tee "$output" || status=$?
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$output" || true)
    if [[ $line =~ \ ([0-9]+)\ tests?\ failed\ out\ of\ ([0-9]+) ]]; then
        checks_failed=$((checks_failed + BASH_REMATCH[1]))
        checks_passed=$((checks_passed + BASH_REMATCH[2] - BASH_REMATCH[1]))
    elif ((status == 0)); then
        status=1
    fi
    if ((status != 0 && checks_failed == 0)); then
        checks_failed=1
    fi
}
