# Error handling, clean-up and building for the scripts. Sourced, in the checkout's directory.
# shellcheck shell=bash

shopt -s lastpipe

fail() {
    echo "${0##*/}: $*" >&2
    exit 1
}

# The shell itself uses descriptors from 10 on.
if [[ $(ulimit -n) != unlimited ]] && (($(ulimit -n) < 256)); then
    ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
    (($(ulimit -n) >= 256)) || fail "only $(ulimit -n) open files are allowed (ulimit -n), 256 are needed"
fi

# Exits with 77: the script cannot run on this machine.
not_run() {
    {
        echo
        echo "########################################################################"
        echo "## ${0##*/}: NOT RUN: $*"
        echo "########################################################################"
    } >&2
    exit 77
}

leftovers=()  # paths to remove when the script ends, for whatever reason
privileged=() # the command that runs another as root
at_exit() {
    local status=$?
    ((${#leftovers[@]} == 0)) || "${privileged[@]}" rm -rf --one-file-system "${leftovers[@]}"
    ! declare -F last_words >/dev/null || last_words "$status"
}
trap at_exit EXIT

# Ctrl-C does not reach background jobs.
interrupted() {
    local running
    trap '' INT TERM HUP
    running=$(jobs -p)
    # shellcheck disable=SC2086  # one word for each process
    [[ -z $running ]] || kill $running 2>/dev/null || true
    wait
    echo "${0##*/}: interrupted" >&2
    exit "$1"
}
trap 'interrupted 129' HUP
trap 'interrupted 130' INT
trap 'interrupted 143' TERM

# Makes a temporary directory for this script in TMPDIR.
private_tmp() {
    local place=${TMPDIR:-/tmp}
    TMPDIR=$(mktemp -d "$place/rvd.XXXXXX" 2>/dev/null) ||
        fail "cannot write to $place: set TMPDIR to a writable directory"
    export TMPDIR
    leftovers+=("$TMPDIR")
}

# The same in memory, if /dev/shm is writable.
private_tmp_in_memory() {
    if [[ -w /dev/shm ]]; then TMPDIR=/dev/shm; fi
    private_tmp
}

# Ends the script unless the directory can be written.
writable() {
    if ! mkdir -p "$1" 2>/dev/null || [[ ! -w $1 ]]; then
        fail "cannot write to $1: ${2:-make a clone of your own (git clone \"$PWD\" DIRECTORY)}"
    fi
}

# one_at_a_time DIRECTORY COMMAND...: runs the command with a lock on the directory.
one_at_a_time() {
    local lock status=0
    exec {lock}<"$1"
    if ! flock -n "$lock"; then
        echo "${0##*/}: waiting for another script that uses $1" >&2
        flock "$lock"
    fi
    "${@:2}" || status=$?
    exec {lock}<&-
    return "$status"
}

# Whether a build directory was moved, or configured for another checkout.
moved() {
    [[ -e $1/CMakeCache.txt ]] &&
        (($(grep -cxF -e "CMAKE_CACHEFILE_DIR:INTERNAL=$(realpath "$1")" \
            -e "CMAKE_HOME_DIRECTORY:INTERNAL=$(realpath .)" "$1/CMakeCache.txt") != 2))
}

# configure PRESET DIRECTORY [OPTION]...
configure() {
    local anew=()
    if moved "$2"; then anew=(--fresh); fi
    cmake --preset "$1" -B "$2" "${anew[@]}" "${@:3}"
}

# configure_programs DIRECTORY: a release without tests, fuzz targets and benchmarks. A directory that is
# already configured with them keeps them.
configure_programs() {
    if [[ ! -e $1/build.ninja ]] || moved "$1"; then
        configure release "$1" -DRVD_TESTS=OFF -DRVD_FUZZ=OFF -DRVD_BENCH=OFF
    fi
}

# with_progress LABEL COMMAND...: runs ninja or apt-get (with its status on standard output) and shows the
# progress: on a terminal in one line that is overwritten, otherwise every 30 s. Prints the other output of
# the command only if it fails.
with_progress() {
    local label=$1 begin=$SECONDS next=$SECONDS line output='' percent='' step status=0
    shift
    "$@" 2>&1 | while IFS= read -r line; do
        if [[ $line == '[0/'* ]]; then
            continue  # ninja checks the globs of the sources
        elif [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
            step='' percent=$((100 * BASH_REMATCH[1] / BASH_REMATCH[2]))
        elif [[ $line =~ ^dlstatus:[0-9]+:([0-9]+) ]]; then
            step=' (download)' percent=${BASH_REMATCH[1]}
        elif [[ $line =~ ^pmstatus:[^:]*:([0-9]+) ]]; then
            step=' (installation)' percent=${BASH_REMATCH[1]}
        else
            output+=$line$'\n'
            continue
        fi
        show_progress
    done || status=$?
    if [[ -t 2 ]]; then printf '\r%78s\r' '' >&2; fi
    if ((status != 0)); then
        printf '%s' "$output" >&2
    elif [[ $percent ]]; then
        echo "$label: done in $((SECONDS - begin)) s" >&2
    fi
    return "$status"
}

show_progress() {
    local left='' passed=$((SECONDS - begin))
    if ((percent >= 5 && passed >= 3)); then
        left=", about $((passed * (100 - percent) / percent)) s left"
    fi
    if [[ -t 2 ]]; then
        printf '\r%-78s' "$label$step: $percent %$left" >&2
    elif ((SECONDS >= next)); then
        next=$((SECONDS + 30))
        echo "$label$step: $percent %$left" >&2
    fi
}
