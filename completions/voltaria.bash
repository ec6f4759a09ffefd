# Completion of voltaria's command lines in bash.

# _voltaria_words COMMAND WHAT: what may stand there. COMMAND is "status" or "config get", empty for none; WHAT is
# "commands", "options", an option, or a number: that argument, counted from 1.
_voltaria_words() {
    local to='--help --host --port --timeout'
    local keys='EXPECTBLIFE battery-time TurnOffDelay turn-off-delay FIRSTWARN first-warning INTERVAL warning-interval
        WARNBEFORESCHE schedule-warning CloseAppTime close-time AutoBoot auto-restart ComSet port BSUSPEND suspend
        EventLogEnabled event-log EventLogMaxSize event-log-size DataLogEnabled data-log DataLogMaxSize data-log-size
        DataLogInterval data-log-interval AgentType role IgnoreOtherAgentDown ignore-group Group group
        AgentName agent-name'
    case "$1/$2" in
    /commands) echo status watch discover notices log data config events users schedule selftest shutdown cancel \
        buzzer battery-date login ;;
    config/commands | battery-date/commands) echo get set ;;
    events/commands) echo list set ;;
    users/commands | schedule/commands) echo list add remove ;;

    /options) echo --help --version ;;
    config/options | events/options | users/options | schedule/options | battery-date/options) echo --help ;;
    status/options | 'config get/options' | 'events list/options' | 'users list/options' | 'schedule list/options')
        echo "$to" --json ;;
    watch/options | notices/options) echo "$to" --lang ;;
    discover/options) echo --help --address --timeout --follow --json ;;
    log/options | data/options) echo "$to" --first --count --all --json --csv ;;
    'config set/options' | shutdown/options | cancel/options)
        echo "$to" --yes
        if [ "$1" = shutdown ]; then echo --in; fi ;;
    'events set/options')
        echo "$to" --record --shutdown --wall --write --no-broadcast --mail --command --yes ;;
    'users add/options') echo "$to" --email ;;
    'schedule add/options') echo "$to" --date --weekly --monthly --from --until --off ;;
    selftest/options) echo "$to" --until-low --cancel --yes ;;
    login/options) echo "$to" --user ;;
    */options) echo "$to" ;;

    */--lang) echo ja en ;;
    */--record | */--shutdown) echo on off ;;
    */--weekly) echo monday tuesday wednesday thursday friday saturday sunday ;;
    */--host | */--address) compgen -A hostname ;;
    */--user) compgen -u ;;
    */--write | */--mail) echo none && compgen -u ;;

    'config get/1' | 'config set/1') echo "$keys" ;;
    'users add/1' | 'users remove/1') compgen -u ;;
    'schedule add/1') echo shutdown selftest ;;
    buzzer/1) echo on off test ;;
    esac
}

# _voltaria_values KEY: the values of a setting that are words.
_voltaria_values() {
    case $1 in
    AutoBoot | auto-restart | EventLogEnabled | event-log | DataLogEnabled | data-log | IgnoreOtherAgentDown | ignore-group)
        echo on off ;;
    AgentType | role) echo low normal high protector ;;
    ComSet | port) echo auto none 1 2 3 4 ;;
    esac
}

_voltaria() {
    local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} at=$COMP_CWORD
    # "--host=server1" comes as three words.
    if [ "$cur" = = ]; then
        cur=
    elif [ "$before" = = ]; then
        before=${COMP_WORDS[COMP_CWORD - 2]} at=$((COMP_CWORD - 1))
    fi
    local command='' word i values='--host|--port|--timeout|--address|--first|--count|--lang|--record|--shutdown|--write|--mail|--command|--email|--date|--weekly|--monthly|--from|--until|--in|--user'
    local -a arguments=()
    for ((i = 1; i < at; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == = || $word =~ ^($values)$ ]]; then
            i=$((i + 1))
            if [ "${COMP_WORDS[i]}" = = ]; then i=$((i + 1)); fi
        elif [[ $word == -* ]]; then
            continue
        elif [ -z "$command" ]; then
            command=$word
        elif [ -n "$(_voltaria_words "$command" commands)" ]; then
            command+=" $word"
        else
            arguments+=("$word")
        fi
    done

    local offered
    if [[ $before =~ ^($values)$ ]]; then
        offered=$(_voltaria_words "$command" "$before")
    elif [[ $cur == -* ]]; then
        offered=$(_voltaria_words "$command" options)
    else
        offered=$(_voltaria_words "$command" commands)
        if [ -z "$offered" ]; then offered=$(_voltaria_words "$command" $((${#arguments[@]} + 1))); fi
        if [ "$command ${#arguments[@]}" = 'config set 1' ]; then offered=$(_voltaria_values "${arguments[0]}"); fi
    fi
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$cur")
}

complete -F _voltaria voltaria
