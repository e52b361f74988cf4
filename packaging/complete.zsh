# What zsh's completion is given for "rvd-lab r" and "rvd-lab run --st".
autoload -Uz compinit && compinit -D -u || exit
[[ $_comps[rvd-lab] == _rvd && $_comps[rvd-report] == _rvd ]] || exit
compadd() { print -r -- "$@" }
_files() { }
offered() {
    local -a words=("$@")
    local CURRENT=$# PREFIX=$words[-1]
    source $^fpath/_rvd(N)
}
offered rvd-lab r | grep -w run && offered rvd-lab run --st | grep -e --story &&
    offered rvd-report sc | grep -w scenario
