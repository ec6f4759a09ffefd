#!/usr/bin/env bash
# The fuzz targets for longer than ./check runs them, with AddressSanitizer and UndefinedBehaviorSanitizer.
#   tests/proof/fuzz.sh [MINUTES] [TARGET...]     fuzzes that long (10), by default all targets, as many beside each
#                                                 other as there are processors; status 1 when something was found
#   tests/proof/fuzz.sh --minimise [TARGET...]    takes into tests/fuzz/corpus what of the inputs found adds coverage
#   tests/proof/fuzz.sh --coverage [TARGET...]    how much of each parser the inputs in tests/fuzz/corpus reach; status 1
#                                                 below 95 % of a parser's lines; -v behind it shows the lines left out
#   FUZZ_CORPUS=DIR    the inputs found are kept there, not in build/fuzz-corpus
# Findings are kept in build/fuzz-finds/TARGET, logs in build/fuzz-logs. Packages: clang, libclang-rt-14-dev, llvm-14
# (for --coverage), and what the project is built with.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
tree=$PWD
. tests/support/steps.sh
grown=${FUZZ_CORPUS:-$tree/build/fuzz-corpus}
kept=$tree/tests/fuzz/corpus
finds=$tree/build/fuzz-finds
log=$tree/build/fuzz-logs
patience=20         # s for one input
memory=2048         # MB for one target
most_findings=5     # of one target in one run
longest_input=4096  # bytes of an input that is kept
demanded=95         # per cent of a parser's lines

# The sources that take something apart, and the targets that must reach them, all together.
parsers='
agent/agent_net.cpp                       packet_tcp packet_udp session
agent/agent_net_inquiry.cpp               packet_udp session
agent/agent_net_records.cpp               packet_udp session
agent/agent_daemon_buffer.cpp             packet_tcp session
agent/agent_daemon_dispatch.cpp           packet_tcp packet_udp session
agent/agent_daemon_clients.cpp            packet_tcp session
agent/agent_daemon_logins.cpp             session
agent/agent_daemon_password.cpp           session
agent/agent_daemon_requests.cpp           session
agent/agent_daemon_requests_orders.cpp    session
agent/agent_daemon_requests_queries.cpp   session
agent/agent_daemon_requests_settings.cpp  session
agent/agent_wire.cpp                      session
agent/agent_wire_records.cpp              session
agent/agent_ups_reply.cpp                 ups_reply
agent/agent_ups_model.cpp                 ups_pass
agent/agent_ups_status.cpp                ups_pass
agent/agent_ups_status_q1.cpp             ups_pass
agent/agent_ups_status_query.cpp          ups_pass
agent/agent_ups_status_v.cpp              ups_pass
agent/agent_daemon_text.cpp               text
ea/filehandle.cpp                         filehandle
ea/filehandle_battdate.cpp                session
ea/filehandle_items.cpp                   filehandle
ea/filehandle_lines.cpp                   filehandle
ea/auto.cpp                               time
ea/auto_field.cpp                         time
ea/e_a_command.cpp                        session
ea/e_a_config.cpp                         events session
ea/e_a_event.cpp                          events session
ea/e_a_log.cpp                            log session
ea/e_a_log_page.cpp                       log session
ea/e_a_log_parse.cpp                      log
ea/e_a_notice.cpp                         notice session
ea/e_a_notify.cpp                         who
ea/e_a_notify_list.cpp                    who
ea/e_a_schedule.cpp                       schedule session
ea/e_a_time.cpp                           schedule log session
control/control_notify_plan.cpp           control
control/control_settings.cpp              control
control/control_settings_keys.cpp         control
monitor/monitor_charset.cpp               monitor monitor_words
monitor/monitor_codec.cpp                 monitor monitor_session
monitor/monitor_discover.cpp              monitor
monitor/monitor_eventset.cpp              monitor_words
monitor/monitor_log.cpp                   monitor monitor_session
monitor/monitor_page.cpp                  monitor
monitor/monitor_page_watch.cpp            monitor
monitor/monitor_records.cpp               monitor monitor_session
monitor/monitor_requests.cpp              monitor_session
monitor/monitor_schedule_text.cpp         monitor_words
monitor/monitor_settings.cpp              monitor_words
monitor/monitor_stream.cpp                monitor monitor_session
monitor/monitor_text.cpp                  monitor
monitor/monitor_words.cpp                 monitor
sim/sim_line.cpp                          sim_line
sim/sim_protocol.cpp                      sim_line sim_script
sim/sim_script.cpp                        sim_script
sim/sim_text.cpp                          sim_script
'

usage() {
    sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

give_up() {
    echo "$1" >&2
    exit 2
}

all_targets() {
    sed -n 's/.*voltaria_fuzz_target(\([a-z0-9_]*\).*/\1/p' tests/fuzz/*.cmake | sort
}

# choose TARGET...: checks the names; fuzz_ in front may be left out.
choose() {
    local name
    targets=()
    for name; do
        name=fuzz_${name#fuzz_}
        all_targets | grep -qx "$name" || give_up "no target $name; there are: $(all_targets | tr '\n' ' ')"
        targets+=("$name")
    done
    [ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(all_targets)
}

sandboxed() {
    grep -q "voltaria_fuzz_target($1 SANDBOX" tests/fuzz/*.cmake
}

# in_place TARGET DIRECTORY COMMAND...: in the sandbox where the target needs it; the directory can be written there.
in_place() {
    local target=$1 directory=$2
    shift 2
    if sandboxed "$target"; then set -- "$bin/sandbox" --share "$directory" --share "$finds" -- "$@"; fi
    "$@"
}

# build DIRECTORY PRESET [OPTION...]
build() {
    bin=$tree/$1/bin
    mkdir -p "$log" "$finds" "$grown"
    attempt "build" make_targets "$@"
    [ "$step_status" -eq 0 ] || exit 2
}

make_targets() {
    cmake --preset "$2" -B "$1" -DVOLTARIA_UNIT_TESTS=OFF "${@:3}" && cmake --build "$1" --target sandbox "${targets[@]}"
}

# ------------------------------------------------------------------------------------------------------------- fuzzing

# fuzz_for SECONDS TARGET: one line; again after each finding, until the time is over.
fuzz_for() {
    local target=$2 all=$log/$2.log until=$((SECONDS + $1)) from=$SECONDS executed=0 found=0 count status
    mkdir -p "$grown/$target" "$finds/$target"
    : >"$all"
    while [ $SECONDS -lt $until ] && [ $found -lt $most_findings ]; do
        status=0
        in_place "$target" "$grown" "$bin/$target" -max_total_time=$((until - SECONDS)) -print_final_stats=1 \
            -timeout=$patience -rss_limit_mb=$memory -close_fd_mask=3 -artifact_prefix="$finds/$target/" \
            "$grown/$target" "$kept/$target" >"$all.run" 2>&1 || status=$?
        count=$(sed -n 's/^stat::number_of_executed_units: *//p' "$all.run")
        executed=$((executed + ${count:-0}))
        cat "$all.run" >>"$all"
        [ $status -eq 0 ] && break
        found=$((found + 1))
    done
    rm -f "$all.run"
    printf '%-24s %12d executions %6d s  %d found\n' "$target" $executed $((SECONDS - from)) $found
    echo "$target $executed $((SECONDS - from)) $found" >>"$log/sums"
}

tell_findings() {
    local target input how
    for target in "${targets[@]}"; do
        for input in "$finds/$target"/*; do
            [ -e "$input" ] || continue
            how="$bin/$target $input"
            if sandboxed "$target"; then how="$bin/sandbox --share $finds -- $how"; fi
            echo "found: $how"
        done
    done
}

# Nothing is left running when this ends early.
end_all() {
    local group
    for group in $(jobs -p); do kill -- "-$group" 2>/dev/null || true; done
}

fuzz() {
    local minutes=$1 jobs share target
    build build/fuzz fuzz
    jobs=$(nproc)
    [ "$jobs" -le ${#targets[@]} ] || jobs=${#targets[@]}
    share=$((minutes * 60 * jobs / ${#targets[@]}))
    [ $share -gt 0 ] || share=1
    : >"$log/sums"
    trap end_all EXIT
    trap 'exit 130' INT TERM HUP
    for target in "${targets[@]}"; do
        while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
        set -m # with a process group of its own
        fuzz_for $share "$target" &
        set +m
    done
    wait
    tell_findings
    awk '{ executed += $2; seconds += $3; found += $4 }
         END { printf "%d targets, %d executions, %d s in all, %d found\n", NR, executed, seconds, found
               exit NR == wanted && !found ? 0 : 1 }' wanted=${#targets[@]} "$log/sums"
}

# ---------------------------------------------------------------------------------------------------- keeping of inputs

# Inputs that were written by hand have names and stay. Those that were found have the name of their hash, and are chosen
# anew: of all that are known the smallest that reach something that no other does.
minimise_one() {
    local target=$1 choice=$grown/choice.$1 merge=$log/$1.merge.log
    rm -rf "$choice"
    mkdir -p "$choice/old" "$choice/new" "$grown/$target"
    find "$kept/$target" -type f -regextype posix-extended -regex '.*/[0-9a-f]{40}' -exec mv -t "$choice/old" {} +
    find "$kept/$target" -type f -exec cp -t "$choice/new" {} +
    if in_place "$target" "$grown" "$bin/$target" -merge=1 -use_counters=0 -max_len=$longest_input \
        -timeout=$patience -rss_limit_mb=$memory -close_fd_mask=3 \
        "$choice/new" "$choice/old" "$grown/$target" >"$merge" 2>&1; then
        cp -n "$choice/new"/* "$kept/$target/"
    else
        mv -t "$kept/$target" "$choice/old"/* 2>/dev/null || true
        tail -n 20 "$merge"
    fi
    rm -rf "$choice"
    printf '%-24s %4d inputs %8d bytes\n' "$target" "$(find "$kept/$target" -type f | wc -l)" \
        "$(find "$kept/$target" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }')"
}

minimise() {
    build build/fuzz fuzz
    local target
    for target in "${targets[@]}"; do minimise_one "$target"; done
    find "$kept" -type f -printf '%s\n' | awk '{ sum += $1 } END { printf "%d inputs, %d bytes in all\n", NR, sum }'
}

# ------------------------------------------------------------------------------------------------------------- coverage

# reached TARGET: "FILE LINE COUNT" of every line with code.
reached() {
    local target=$1 profile=$log/profile
    rm -rf "$profile"
    mkdir -p "$profile"
    LLVM_PROFILE_FILE=$profile/raw in_place "$target" "$profile" "$bin/$target" "$kept/$target" \
        >"$log/$target.log" 2>&1 || give_up "$target fails: $log/$target.log"
    llvm-profdata-14 merge -sparse "$profile/raw" -o "$profile/all"
    llvm-cov-14 export -format=lcov -instr-profile "$profile/all" "$bin/$target" "${@:2}" |
        awk -F '[:,]' -v tree="$tree/" '/^SF:/ { file = substr($0, 4); sub(tree, "", file) }
                                        /^DA:/ { print file, $2, $3 }'
}

# judge FILE: one line of the table; status 1 when too few of its lines are reached.
judge() {
    awk -v file="$1" -v demanded=$demanded -v show="${verbose:-0}" '
        FILENAME == ARGV[1] { if (index($0, file ": ") == 1) excused[substr($0, length(file) + 3)] = 1; next }
        FILENAME == ARGV[2] { gsub(/^ +| +$/, ""); text[FNR] = $0; next }
        $1 == file { if (!($2 in count)) order[lines++] = $2
                     count[$2] += $3 }
        END { for (i = 0; i < lines; i++) {
                  at = order[i]
                  line = text[at - 1] " >> " text[at]
                  if (count[at] > 0) hit++
                  else if (line in excused) excuses++
                  else if (show) left = left sprintf("    %s:%d: %s\n", file, at, line)
              }
              if (!lines) { print file ": no line of it is in its targets"; exit 1 }
              bad = 100 * (hit + excuses) < demanded * lines
              printf "%-42s %5d of %5d lines  %5.1f %%%s%s\n%s", file, hit, lines, 100 * hit / lines,
                  excuses ? sprintf("  %d cannot be reached", excuses) : "", bad ? "  TOO FEW" : "", left
              exit bad }' tests/fuzz/unreached.txt "$1" "$log/reached"
}

# The entries of unreached.txt that name no place in the sources; status 1 if there is one.
stale_entries() {
    local list=tests/fuzz/unreached.txt
    local -a sources
    mapfile -t sources < <(sed -n 's/^\([a-z_/]*\.[a-z]*\): .*/\1/p' "$list" | sort -u)
    awk '{ gsub(/^ +| +$/, "") }
         FILENAME == ARGV[1] { if ($0 != "" && $0 !~ /^#/) named[$0] = 1; next }
         { delete named[FILENAME ": " above " >> " $0]; above = $0 }
         END { for (entry in named) { print "no longer there: " entry; bad = 1 }
               exit bad }' "$list" "${sources[@]}"
}

coverage() {
    local target file its bad=0
    local -a files
    command -v llvm-cov-14 >/dev/null || give_up "llvm-cov-14 is missing; it is in the package llvm-14"
    build build/fuzz-coverage asan "-DCMAKE_CXX_FLAGS=-fprofile-instr-generate -fcoverage-mapping"
    : >"$log/reached"
    for target in "${targets[@]}"; do
        mapfile -t files < <(awk -v target="${target#fuzz_}" -v tree="$tree/" \
            '{ for (i = 2; i <= NF; i++) if ($i == target) print tree $1 }' <<<"$parsers")
        [ ${#files[@]} -gt 0 ] || give_up "whose parser is $target? It is not in the table of this script"
        reached "$target" "${files[@]}" >>"$log/reached"
    done
    while read -r file its; do
        if [ -n "$its" ] && grep -q "^$file " "$log/reached"; then judge "$file" || bad=1; fi
    done <<<"$parsers"
    stale_entries || bad=1
    echo "What cannot be reached, and why: tests/fuzz/unreached.txt"
    return $bad
}

case "${1:-}" in
-h | --help)
    usage
    ;;
--minimise)
    choose "${@:2}"
    minimise
    ;;
--coverage)
    shift
    if [ "${1:-}" = -v ]; then
        verbose=1
        shift
    fi
    choose "$@"
    coverage
    ;;
-*)
    usage >&2
    exit 2
    ;;
*)
    minutes=10
    if [[ ${1:-} =~ ^[0-9]+$ ]]; then
        minutes=$((10#$1))
        shift
    fi
    choose "$@"
    fuzz "$minutes"
    ;;
esac
