# Completion of rvd-lab and rvd-report for bash: the programs' own help says what there is.

_rvd() {
    local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} candidate commands command=''
    commands=$("$program" --help 2>/dev/null |
        sed -n '/^[Ss]ubcommands:/,$s/^  \([a-z][a-z-]*\) .*/\1/p')
    for candidate in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if grep -qFx -- "$candidate" <<<"$commands"; then command=$candidate; fi
    done
    local words=''
    if [[ $word == -* ]]; then
        words=$("$program" ${command:+"$command"} --help 2>/dev/null |
            sed -n 's/^ *\(-[a-zA-Z],\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p')
    elif [[ -z $command ]]; then
        words=$commands
    fi
    mapfile -t COMPREPLY < <(
        compgen -W "$words" -- "$word"
        if [[ $word != -* ]]; then compgen -f -- "$word"; fi
    )
}
complete -o filenames -F _rvd rvd-lab rvd-report
