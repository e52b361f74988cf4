# Completion of rvd-lab and rvd-report for fish: the programs' own help says what there is.

function __rvd_commands
    $argv[1] --help 2>/dev/null | sed -n '/^[Ss]ubcommands:/,$s/^  \([a-z][a-z-]*\) .*/\1/p'
end

function __rvd_options
    set -l words (commandline -opc)
    set -l command
    for word in $words[2..-1]
        if contains -- $word (__rvd_commands $argv[1])
            set command $word
        end
    end
    $argv[1] $command --help 2>/dev/null |
        sed -n 's/^ *\(-[a-zA-Z],\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p'
end

for program in rvd-lab rvd-report
    complete -c $program -n __fish_use_subcommand -a "(__rvd_commands $program)"
    complete -c $program -n 'string match -q -- "-*" (commandline -ct)' -a "(__rvd_options $program)"
end
