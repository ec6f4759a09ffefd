# Completion of voltariactl's command line in bash.

_voltariactl() {
    local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} at=$COMP_CWORD
    # "--user=ann" comes as three words.
    if [ "$cur" = = ]; then
        cur=
    elif [ "$before" = = ]; then
        before=${COMP_WORDS[COMP_CWORD - 2]} at=$((COMP_CWORD - 1))
    fi
    local command='' word i offered=
    for ((i = 1; i < at; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word != -* && $word =~ ^[a-z] ]]; then command=${command:-$word}; fi
    done
    case $before in
    --user) offered=$(compgen -u) ;;
    --timeout | --command) ;;
    *)
        case $command/$cur in
        /-*) offered='--help --version' ;;
        /*) offered='status stop reload doctor notify-test before-start' ;;
        status/-* | doctor/-*) offered='--help --json' ;;
        stop/-* | reload/-*) offered='--help --timeout' ;;
        notify-test/-*) offered='--help --user --command' ;;
        before-start/-*) offered='--help' ;;
        esac
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$cur")
}

complete -F _voltariactl voltariactl
