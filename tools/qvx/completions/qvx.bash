# bash completion for qvx
_qvx() {
    local current=${COMP_WORDS[COMP_CWORD]}
    local common="-h --help -o --output -f --force"
    COMPREPLY=()
    if [[ $COMP_CWORD -eq 1 ]]; then
        COMPREPLY=($(compgen -W "info dump convert export kinds --help --version" -- "$current") $(compgen -f -- "$current"))
    elif [[ ${COMP_WORDS[COMP_CWORD - 1]} == --format ]]; then
        COMPREPLY=($(compgen -W "plain html latex verbose json" -- "$current"))
    elif [[ ${COMP_WORDS[COMP_CWORD - 1]} == --to ]]; then
        COMPREPLY=($(compgen -W "vcd btf" -- "$current"))
    elif [[ $current == -* ]]; then
        case ${COMP_WORDS[1]} in
        dump) COMPREPLY=($(compgen -W "$common --format --bytes --parsable --hex-tick --limit" -- "$current")) ;;
        convert) COMPREPLY=($(compgen -W "$common --plain --paged --absolute --relative" -- "$current")) ;;
        export) COMPREPLY=($(compgen -W "$common --to --strict --save" -- "$current")) ;;
        kinds) COMPREPLY=($(compgen -W "$common --format" -- "$current")) ;;
        *) COMPREPLY=($(compgen -W "$common" -- "$current")) ;;
        esac
    else
        COMPREPLY=($(compgen -f -- "$current"))
    fi
}
complete -o filenames -F _qvx qvx
