# Bash completion for korux. Source it, or copy it to
# /usr/share/bash-completion/completions/korux (or ~/.local/share/bash-completion/completions/korux).
# The commands and each command's options come from korux's own help, so they
# follow whatever korux binary is on the PATH.

_korux_commands() {
    korux help 2>/dev/null | sed -n '/^commands:/,/^options:/s/^  \([a-z][a-z-]*\).*/\1/p'
}

_korux_command_options() {
    korux help "$1" 2>/dev/null | grep -o -- '--[a-z][a-z-]*' | sort -u
}

_korux() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local globals="--bridge --scenario --plugin --dir --serial --transcript --color --time-scale
                   -v --verbose -q --quiet --json -h --help --version"
    case $prev in
    --bridge)
        mapfile -t COMPREPLY < <(compgen -W "virtual vendor" -f -- "$cur")
        return ;;
    --color)
        mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$cur")
        return ;;
    --scenario | --plugin | --transcript)
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return ;;
    --dir | --out)
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        return ;;
    --serial | --time-scale | --count | --timeout | --set)
        return ;;
    esac
    # The command is the first word that is neither an option nor its value.
    local i command=
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --bridge | --scenario | --plugin | --dir | --serial | --transcript | --color | --time-scale) ((i++)) ;;
        -*) ;;
        *) command=${COMP_WORDS[i]}; break ;;
        esac
    done
    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$globals" -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "$(_korux_commands)" -- "$cur")
        fi
        return
    fi
    case $command in
    help)
        mapfile -t COMPREPLY < <(compgen -W "$(_korux_commands) exit-codes" -- "$cur") ;;
    run)
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "--keep-going" -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        fi ;;
    *)
        mapfile -t COMPREPLY < <(compgen -W "$(_korux_command_options "$command") $globals" -- "$cur") ;;
    esac
}

complete -F _korux korux
