# shellcheck shell=bash source=/dev/null
# What bash offers behind "rvd-lab r" and "rvd-lab run --st".
. /usr/share/bash-completion/bash_completion
cd empty || exit 1
_completion_loader rvd-lab
offered() {
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _rvd
    echo "$*: ${COMPREPLY[*]}"
}
[[ $(offered rvd-lab r) == "rvd-lab r: run" && $(offered rvd-lab run --st) == *": --story" &&
    $(offered rvd-report sc) == *": scenario" ]]
