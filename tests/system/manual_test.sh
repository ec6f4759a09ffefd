#!/usr/bin/env bash
# The manual pages and the completions of command lines, against the programs' help texts and the tables of the sources.
#   manual_test.sh SOURCE_DIR BUILD_DIR CHECK
# CHECK is one of the check_ functions below. Every fault is a line on standard output; the status is 1 if there is one.
set -euo pipefail # so no grep -q behind a pipe: it ends first, and whoever still writes fails
export LC_ALL=C.UTF-8

source_dir=$1 build_dir=$2
documents=$source_dir
pages=$source_dir/docs/man
completions=$source_dir/completions
faults=0
cd "$source_dir"

fault() {
    echo "$*"
    faults=$((faults + 1))
}

# expect COUNT WHAT LINES: so many at least were found in the sources; fewer means that they are written otherwise now.
expect() {
    local found
    found=$(grep -c . <<<"$3" || true)
    [ "$found" -ge "$1" ] || fault "found only $found $2 where at least $1 are expected"
}

# ---- what the programs take

# part HEADING HELP: the entries of a part of a help text.
part() {
    awk -v heading="$1:" '$0 == heading { inside = 1; next } /^[^ ]/ { inside = 0 } inside' <<<"$2"
}

# By "voltaria", "voltaria status", "voltaria config get": the help text, its long options, its subcommands.
declare -A helps options subcommands
all=() # the keys of these

# learn PROGRAM COMMAND...: these, of a command and of all below it.
learn() {
    local name="$*" child
    helps[$name]=$("$build_dir/bin/$1" "${@:2}" --help)
    options[$name]=$(sed -nE 's/^ +(-[a-z],)?(--[a-z-]+).*/\2/p' <<<"${helps[$name]}")
    subcommands[$name]=$(part Subcommands "${helps[$name]}" | sed -nE 's/^  ([a-z-]+) .*/\1/p')
    all+=("$name")
    [[ ${options[$name]} == *--help* ]] || fault "no options in the help of $name"
    for child in ${subcommands[$name]}; do learn "$@" "$child"; done
}

learn_all() {
    [ ${#all[@]} -eq 0 ] || return 0
    learn voltaria
    learn voltariactl
    learn upssim
    [ ${#all[@]} -ge 25 ] || fault "only ${#all[@]} commands found"
    models=$("$build_dir/bin/upssim" --list-models)
}

# has TEXT OPTION: the option is in the text, as a whole word.
has() {
    [[ $1 =~ (^|[^a-z-])$2([^a-z-]|$) ]]
}

# ---- the pages

rendered() {
    mandoc -T ascii -O width=400 "$1" | sed 's/.\x08//g'
}

check_clean() {
    local page said
    for page in "$pages"/*.[1-9]; do
        for said in "$(mandoc -T lint -W style "$page" 2>&1)" "$(groff -t -man -ww -z -Tutf8 "$page" 2>&1)"; do
            [ -z "$said" ] || fault "$said"
        done
    done
    for page in voltaria.1 upssim.1 voltaria-config.5 voltariactl.8 voltariad.8; do
        [ -s "$pages/$page" ] || fault "$page is missing"
    done
}

# Each page has an example, and names all others at its end.
check_related() {
    local page other text end
    for page in "$pages"/*.[1-9]; do
        text=$(rendered "$page")
        end=$(sed -n '/^SEE ALSO/,$p' <<<"$text")
        grep -q '^EXAMPLES' <<<"$text" || fault "$(basename "$page") has no example"
        for other in "$pages"/*.[1-9]; do
            [ "$page" = "$other" ] && continue
            other=$(basename "$other" | sed -E 's/\.([1-9])$/(\1)/')
            grep -qF " $other" <<<"$end" || fault "$(basename "$page") does not name $other"
        done
    done
}

# described PAGE COMMAND: what a page says of a command: from its heading to the next one of the same depth.
described() {
    awk -v command="$2" '
        /^       [^ ]/ { if (!heading) inside = 0; heading = 1
                         if (index($0 " ", "       " command " ") == 1) inside = 1 }
        /^        / { heading = 0 }
        /^[^ ]/ { inside = 0; heading = 0 }
        inside' <<<"$1"
}

check_voltaria() {
    local page general name command text option
    page=$(rendered "$pages/voltaria.1")
    general=$(sed -n '/^OPTIONS/,/^COMMANDS/p' <<<"$page")
    for name in "${all[@]}"; do
        [[ $name == voltaria || $name == "voltaria "* ]] || continue
        command=${name#voltaria} text=$general
        if [ -n "$command" ] && [ -z "${subcommands[$name]}" ]; then
            text+=$'\n'$(described "$page" "${command# }")
            [ "$text" != "$general"$'\n' ] || fault "voltaria.1 does not describe: $name"
        fi
        for option in ${options[$name]}; do
            has "$text" "$option" || fault "voltaria.1 does not name: $name $option"
        done
    done
}

# A command has its options in its line of the synopsis; each option, check and name of a document has a description.
check_voltariactl() {
    local page name command option checks
    page=$(rendered "$pages/voltariactl.8")
    for name in "${all[@]}"; do
        [[ $name == "voltariactl "* ]] || continue
        command=${name#voltariactl }
        [ -n "$(described "$page" "$command")" ] || fault "voltariactl.8 does not describe: $name"
        for option in ${options[$name]}; do
            [ "$option" = --help ] || has "$(grep "^ *$name\( \|$\)" <<<"$page")" "$option" ||
                fault "the synopsis of voltariactl.8 does not name: $name $option"
            has "$(sed -n '/^OPTIONS/,/^CHECKS/p' <<<"$page")" "$option" || fault "voltariactl.8 does not name: $name $option"
        done
        grep -q "^ *$name\( \|$\)" <<<"$page" || fault "the synopsis of voltariactl.8 does not name: $name"
    done
    checks=$(found '\{"[A-Za-z ]+", check_\w+\}' control/control_doctor.cpp | sed -nE 's/^\{"([A-Za-z ]+)".*/\1/p')
    expect 20 "checks of doctor" "$checks"
    while read -r name; do
        sed -n '/^CHECKS/,/^EXIT/p' <<<"$page" | grep -E "^ {7}(.*, )?$name(,| |$)" >/dev/null ||
            fault "voltariactl.8 does not name the check: $name"
    done <<<"$checks"
    # The daemon need not run: the names are there whatever happens.
    checks=$({ "$build_dir/bin/voltariactl" status --json || true; } | sed -nE 's/^  "([a-z_]+)":.*/\1/p')
    expect 15 "names in the status document" "$checks"
    for name in $checks; do
        has "$(sed -n '/^JSON/,/^EXIT/p' <<<"$page" | cut -c1-28)" "$name" || fault "voltariactl.8 does not name in JSON: $name"
    done
}

check_upssim() {
    local page word
    page=$(rendered "$pages/upssim.1")
    for word in ${options[upssim]} $models; do
        has "$page" "$word" || fault "upssim.1 does not name: $word"
    done
}

# ---- the settings

# row PATTERN: the page has this row in a table; what stands between tabs, as in its source.
row() {
    grep -qP "^$1\$" "$pages/voltaria-config.5" || fault "voltaria-config.5 has no row: $1"
}

# found PATTERN FILE...: what the pattern finds in the sources, over line ends; nothing is no failure.
found() {
    local pattern=$1
    shift
    { grep -hzoP "$pattern" "$@" || true; } | tr '\0\n' '\n ' | sed 's/  */ /g'
}

# "KEY FRIENDLIER-NAME", a line each.
setting_names() {
    found '(number<[^>]*>|text<[^>]*>)\(\s*"\w+", "[a-z-]+"' monitor/monitor_settings.cpp |
        sed -nE 's/.*\( ?"(\w+)", "([a-z-]+)"/\1 \2/p'
}

check_settings() {
    local settings keys names section key value name
    settings=$(found '\{"\w+", "\w+", \d+, offsetof' ea/e_a_config.cpp | sed -nE 's/^\{"(\w+)", "(\w+)", ([0-9]+),.*/\1 \2 \3/p')
    expect 13 "settings with a default" "$settings"
    while read -r section key value; do
        row "($section\\t)?$key\\t$value\\t.*"
        grep -qP "^\.SH SECTIONS? .*$section" "$pages/voltaria-config.5" || fault "voltaria-config.5 has no section $section"
    done <<<"$settings"

    keys=$(found '(readparam|writeparam|store)\("\w+",\s*"\K\w+' ea/*.cpp agent/*.cpp | sort -u)
    expect 10 "single settings" "$keys"
    for key in $keys; do row "(\\w+\\t)?$key\\t.*"; done

    names=$(setting_names)
    expect 18 "settings with a friendlier name" "$names"
    while read -r key name; do row "(\\w+\\t)?$key\\t.*\\t$name"; done <<<"$names"
}

# "ID TEXT", a line each, in the order of the table.
event_texts() {
    found '\{\d+, "[^"]+"\}' ea/e_a_event_table.h | sed -E 's/^\{([0-9]+), "(.*)"\}/\1 \2/'
}

check_events() {
    local events defaults keys key id text row shutdown kind
    events=$(event_texts)
    expect 54 events "$events"
    defaults=$(found '\{\d+, [01], BROADCAST_\w+\}' ea/e_a_event_table.h |
        sed -E 's/^\{([0-9]+), ([01]), BROADCAST_WALL\}/\1 \2 0/; s/^\{([0-9]+), ([01]), BROADCAST_NONE\}/\1 \2 3/')
    expect 54 "defaults of events" "$defaults"
    while read -r id text <&3 && read -r row shutdown kind <&4; do
        [ "$id" = "$row" ] || fault "event $id has the defaults of $row"
        row "$id\\t$shutdown\\t$kind\\t$text"
    done 3<<<"$events" 4<<<"$defaults"

    keys=$(found '(readparam|store|store_field)\(section(\.c_str\(\))?, "\K\w+|\{"\K\w+(?=", offsetof\(UPS_EVENTINFO)' \
        ea/e_a_event.cpp | sort -u)
    expect 9 "keys of events and users" "$keys"
    for key in $keys; do row "(0 to 254\\t)?$key\\t.*"; done
}

check_schedules() {
    local keys key
    keys=$(found '\{(SPECIAL|WEEKLY|MONTHLY), ("[A-Za-z]+", ){4}("[A-Za-z]+"|nullptr)\}' ea/e_a_schedule.cpp |
        sed 's/[^A-Za-z ]//g; s/^[A-Z]* //; s/nullptr//' | tr ' ' '\n' | sort -u)
    expect 13 "keys of schedules" "$keys"
    for key in $keys; do row "$key(\\\\fIN\\\\fR)?\\t.*"; done
}

# ---- the handbook

# Every event has its row: number, text, cause, what to do.
check_handbook() {
    local id text
    while read -r id text; do
        grep -qE "^\| $id \| $text \| [^|]+ \| [^|]+ \|\$" "$documents/docs/events.md" ||
            fault "docs/events.md has no row: $id, $text"
    done < <(event_texts)
}

# Files and headings that documents point to are there.
check_links() {
    local page target file heading
    for page in "$documents"/README.md "$documents"/docs/*.md "$documents"/sim/README.md; do
        while read -r target; do
            file=${target%%#*} heading=
            [[ $target != *'#'* ]] || heading=${target#*#}
            if [ -n "$file" ]; then file=$(dirname "$page")/$file; else file=$page; fi
            if [ ! -e "$file" ]; then
                fault "${page#"$documents/"} points to $target, which is not there"
            elif [ -n "$heading" ]; then
                sed -nE 's/^#+ //p' "$file" | tr 'A-Z ' 'a-z-' | sed 's/[^a-z0-9_-]//g' | grep -x -- "$heading" >/dev/null ||
                    fault "${page#"$documents/"} points to $target: no such heading"
            fi
        done < <({ grep -ohE '\]\([^)]+\)|(src|href)="[^"]+"' "$page" || true; } | sed -E 's/^\]\(|\)$|^.*="|"$//g' | grep -v '://')
    done
}

# ---- the completions

# offered PROGRAM WORD...: what bash offers for the last word.
offered() (
    # shellcheck disable=SC1090
    source "$completions/$1.bash"
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    "_$1"
    echo "${COMPREPLY[@]}"
)

# same WHAT WANTED OFFERED: both are words, in whatever order.
same() {
    local word
    for word in $2; do [[ " ${3//$'\n'/ } " == *" $word "* ]] || fault "$1: bash does not offer $word"; done
    for word in $3; do [[ " ${2//$'\n'/ } " == *" $word "* ]] || fault "$1: bash offers what is not there: $word"; done
}

check_bash() {
    local name option values names
    for name in "${all[@]}"; do
        # shellcheck disable=SC2086 # a command is several words
        {
            same "$name" "${options[$name]}" "$(offered $name --)"
            [ -z "${subcommands[$name]}" ] || same "$name" "${subcommands[$name]}" "$(offered $name "")"
            while read -r option values; do
                same "$name $option" "${values//,/ }" "$(offered $name $option "")"
            done < <(sed -nE 's/^ +(--[a-z-]+) TEXT:\{([^}]*)\}.*/\1 \2/p' <<<"${helps[$name]}")
            values=$(sed -nE 's/^  [A-Z]+ TEXT:\{([^}]*)\}.*/\1/p' <<<"${helps[$name]}")
            [ -z "$values" ] || same "$name" "${values//,/ }" "$(offered $name "")"
        }
    done
    same "upssim --model" "$models" "$(offered upssim --model "")"
    names=$(setting_names)
    same "voltaria config set" "$names" "$(offered voltaria config set "")"
    same "voltaria config set role" 'low normal high protector' "$(offered voltaria config set --host server1 role "")"
    same "voltaria watch --lang=j" ja "$(offered voltaria watch --lang = j)"
}

# The functions and lists of a program's file for zsh, by name. An empty line ends each.
declare -A zsh_parts

# read_zsh PROGRAM
read_zsh() {
    local line name=
    zsh_parts=()
    while IFS= read -r line; do
        if [[ $line =~ ^(typeset -ga? )?(_$1[a-z_]*)(\(\)|=) ]]; then name=${BASH_REMATCH[2]}; fi
        if [ -z "$line" ]; then name=; fi
        if [ -n "$name" ]; then zsh_parts[$name]+=$line$'\n'; fi
    done <"$completions/_$1"
}

# A command has a function of its name; the shared functions and lists that it names, one through another, count too.
check_zsh_commands() {
    local name part text word
    read_zsh "$1"
    for name in "${all[@]}"; do
        [[ $name == "$1" || $name == "$1 "* ]] || continue
        part=_${name//[ -]/_}
        text=${zsh_parts[$part]-}
        for part in "_$1"_{log,choose,agent,options,connection,json,yes,lang,timeout}; do
            if [[ $text =~ $part([^a-z_]|$) ]]; then text+=${zsh_parts[$part]-}; fi
        done
        for word in ${options[$name]}; do
            [[ $text =~ $word([}]\'|=)?\[ ]] || fault "zsh does not offer: $name $word"
        done
        for word in ${subcommands[$name]}; do
            [[ $text == *"'$word:"* ]] || fault "zsh does not offer: $name $word"
        done
    done
}

check_zsh() {
    local word
    check_zsh_commands voltaria
    check_zsh_commands voltariactl
    for word in ${options[upssim]} $models; do
        has "$(<"$completions/_upssim")" "$word" || fault "zsh does not offer: upssim $word"
    done
    command -v zsh >/dev/null || return 0
    for word in "$completions"/_*; do zsh -n "$word" || fault "zsh cannot read $word"; done
}

# ---- what is installed

check_installed() {
    local file part
    for part in docs completions; do
        DESTDIR=$scratch cmake -D CMAKE_INSTALL_PREFIX=/usr -P "$build_dir/$part/cmake_install.cmake" >/dev/null
    done
    for file in man/man1/voltaria.1 man/man1/upssim.1 man/man5/voltaria-config.5 man/man8/voltariad.8 \
        man/man8/voltariactl.8 bash-completion/completions/{voltaria,voltariactl,upssim} \
        zsh/vendor-completions/_{voltaria,voltariactl,upssim}; do
        [ -s "$scratch/usr/share/$file" ] || fault "not installed: share/$file"
    done
}

# ---- the checks themselves

# sees CHECK FILE EDIT WHAT: with this edit of the file the check fails and says what is wrong.
sees() {
    local said
    rm -rf "$scratch/docs" "$scratch/completions" "$scratch/sim"
    mkdir "$scratch/sim"
    cp -r docs completions README.md LICENSE "$scratch"
    cp sim/README.md "$scratch/sim"
    sed -i "$3" "$scratch/$2"
    if cmp -s "$scratch/$2" "$2"; then
        fault "nothing to edit in $2: $3"
        return
    fi
    # Of completions only those of the file's own program are looked at.
    local program kept=("${all[@]}")
    program=$(basename "${2#*/_}" .bash)
    if [[ $2 == completions/* ]]; then mapfile -t kept < <(printf '%s\n' "${all[@]}" | grep -E "^$program( |\$)"); fi
    said=$(all=("${kept[@]}") documents=$scratch pages=$scratch/docs/man completions=$scratch/completions && "$1")
    [ -n "$said" ] || fault "$1 does not see: $3"
    [[ $said == *"$4"* ]] || fault "$1 does not say \"$4\": $said"
}

check_sees_faults() {
    sees check_clean docs/man/upssim.1 's/^\.SH LOG$/.SG LOG/' upssim.1
    sees check_related docs/man/upssim.1 's/^\.BR voltariad (8)$/.BR voltaria (8)/' 'does not name voltariad(8)'
    sees check_voltaria docs/man/voltaria.1 's/until\\-low/until/' 'selftest --until-low'
    sees check_voltaria docs/man/voltaria.1 's/\.BI \\-\\-port/.BI \\-\\-ports/' 'status --port'
    sees check_voltaria docs/man/voltaria.1 's/users remove/users delete/' 'does not describe: voltaria users remove'
    sees check_voltariactl docs/man/voltariactl.8 's/^\.BI \\-\\-timeout/.BI \\-\\-time/' 'stop --timeout'
    sees check_voltariactl docs/man/voltariactl.8 's/^\.B notify\\-test/.B notify/' 'does not describe: voltariactl notify-test'
    sees check_voltariactl docs/man/voltariactl.8 's/^\.B port holders/.B holders/' 'port holders'
    sees check_upssim docs/man/upssim.1 's/no\\-pace/pace/' --no-pace
    sees check_settings docs/man/voltaria-config.5 's/^FIRSTWARN\t30/FIRSTWARN\t60/' FIRSTWARN
    sees check_settings docs/man/voltaria-config.5 's/\tdata-log-size$/\tdata-size/' DataLogMaxSize
    sees check_settings docs/man/voltaria-config.5 's/^OutputDetectionLevel\t/OutputLevel\t/' OutputDetectionLevel
    sees check_events docs/man/voltaria-config.5 's/^66\t0\t3/66\t0\t0/' 66
    sees check_schedules docs/man/voltaria-config.5 '/^MONTHLYDUR/d' MONTHLYDUR
    sees check_handbook docs/events.md 's/^| 66 | UPS Battery D/| 66 | UPS battery d/' 'no row: 66'
    sees check_links README.md 's|docs/events.md|docs/event.md|' 'docs/event.md, which is not there'
    sees check_links docs/operations.md 's/^## Groups of servers/## Servers/' 'no such heading'
    sees check_bash completions/voltaria.bash 's/ --until-low//' 'selftest: bash does not offer --until-low'
    sees check_bash completions/voltaria.bash 's/ --wall/ --walls/' 'what is not there: --walls'
    sees check_bash completions/voltariactl.bash 's/ --user --command/ --command/' 'notify-test: bash does not offer --user'
    sees check_bash completions/upssim.bash 's/ --seed / /' 'upssim: bash does not offer --seed'
    sees check_zsh completions/_voltaria 's/--until-low\[/--until[/' 'selftest --until-low'
    sees check_zsh completions/_voltaria "s/'--port=/'--ports=/" 'status --port'
    sees check_zsh completions/_voltariactl 's/--json\[/--jsons[/' 'voltariactl status --json'
    sees check_zsh completions/_upssim 's/--seed/--seeds/' --seed
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
case $3 in
check_voltaria | check_voltariactl | check_upssim | check_bash | check_zsh | check_sees_faults)
    learn_all
    "$3"
    ;;
check_*) "$3" ;;
*)
    echo "no such check: $3" >&2
    exit 2
    ;;
esac
[ "$faults" -eq 0 ]
