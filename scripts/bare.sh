# Makes minimal Debian 12 root directories, copies them, and runs commands in them under namespaces of their own,
# so that nothing of this machine changes. Sourced after checks.sh, with the working directory in `work`.
# shellcheck shell=bash

bare=$PWD/build/fresh/bare
# shellcheck disable=SC2154  # the sourcing script has set it
trial=$work/trial
leftovers+=("$trial")

need_bare_roots() {
    if ((EUID != 0)) || ! apart true; then
        not_run "making a bare Debian root takes root and namespaces"
    fi
    scripts/setup fresh || not_run "scripts/setup fresh failed"
}

# Runs a command in its own mount and PID namespaces; its child processes end with it.
apart() {
    unshare --mount --pid --fork --kill-child "$@"
}

# The root is kept, and made again after a week or a change in /etc/apt.
make_bare() {
    local log=$work/bare.log
    mkdir -p "${bare%/*}"
    if [[ -e $bare/etc/os-release && -z $(find /etc/apt -newer "$bare.made") &&
        -z $(find "$bare.made" -mtime +7) ]]; then
        return
    fi
    remove_trial
    rm -rf "$bare"
    # shellcheck disable=SC2016  # the hooks' $1 is the root
    apart mmdebstrap --mode=root --variant=minbase --include=git,ca-certificates \
        --setup-hook='mkdir -p "$1/etc/apt" "$1/usr/share/keyrings"' \
        --setup-hook='cp -a /etc/apt/. "$1/etc/apt" && cp -a /usr/share/keyrings/. "$1/usr/share/keyrings"' \
        --customize-hook='cp /etc/ssl/certs/ca-certificates.crt "$1/etc/ssl/certs"' \
        '' "$trial" '' &>"$log" || {
        tail -n 20 "$log"
        not_run "mmdebstrap could not make a root from this machine's apt sources"
    }
    grep -q '^VERSION_ID="12"' "$trial/etc/os-release" ||
        not_run "this machine's apt sources are not those of Debian 12"
    mv "$trial" "$bare"
    touch "$bare.made"
}

# PID 1 of a trial: mounts /proc, /sys and a minimal /dev in the root, and runs the command there. On Ctrl-C it
# waits for the command and then exits, which ends all other processes.
enter() {
    local root=$1 node
    trap 'exit 130' INT TERM
    mount --bind "$root" "$root"
    cd "$root" || exit
    mount -t proc proc proc
    mount -t sysfs -o ro sysfs sys
    mount -t tmpfs -o mode=755 tmpfs dev
    for node in null zero full random urandom tty; do
        : >"dev/$node"
        mount --bind "/dev/$node" "dev/$node"
    done
    ln -s /proc/self/fd dev/fd
    mkdir dev/shm dev/pts dev/old
    mount -t tmpfs -o mode=1777 tmpfs dev/shm
    mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
    ln -s pts/ptmx dev/ptmx
    # Under chroot the kernel would refuse to create a user namespace.
    pivot_root . dev/old
    cd / || exit
    umount -l dev/old
    rmdir dev/old
    "${@:2}"
}

TIMEFORMAT='    %0R s, %0U s + %0S s of a processor'

# run_in_trial USER COMMAND: runs it with a minimal environment.
run_in_trial() {
    local user=$1 home variable environment=() status=0 log=$work/trial.log
    home=$(awk -F: -v user="$user" '$1 == user { print $6 }' "$trial/etc/passwd")
    for variable in http_proxy https_proxy ftp_proxy no_proxy; do
        environment+=(${!variable+"$variable=${!variable}"})
    done
    # A separate shell keeps this one's messages on Ctrl-C out of the log.
    time (apart bash -c "set -e; $(declare -f enter); enter \"\$@\"" enter "$trial" \
        setpriv --reuid "$user" --regid "$user" --init-groups \
        env -i HOME="$home" PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        "${environment[@]}" bash -c "$2") </dev/null &>"$log" || status=$?
    if ((status != 0)); then
        tail -n 40 "$log"
        local kept
        kept=$(mktemp "$work/failed-XXXX.log")
        mv "$log" "$kept"
        echo "    full log: $kept"
    else
        tail -n 1 "$log"
        echo "    $(du -sh "$trial" | cut -f 1) on the disk"
    fi
    return "$status"
}

remove_trial() {
    rm -rf --one-file-system "$trial"
}

copy_bare() {
    remove_trial &&
        cp -a "$bare" "$trial" &&
        cp /etc/resolv.conf /etc/hosts "$trial/etc"
}
