# Completion of upssim's command line in bash.

_upssim() {
    local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} offered=
    # "--model=ZQ500" comes as three words.
    if [ "$cur" = = ]; then
        cur=
    elif [ "$before" = = ]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $before in
    --link | --scenario | --control | --log)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    --model) offered='ZR401 ZR6020 ZR900PL ZR950PL ZM300LT ZQ500' ;;
    --ask) offered='status log help quit wake xoff xon' ;;
    --seed) ;;
    *) offered='--help --model --link --scenario --control --log --seed --no-pace --list-models --ask' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$cur")
}

complete -F _upssim upssim
