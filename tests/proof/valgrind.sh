#!/usr/bin/env bash
# The daemon under valgrind's memcheck, both processes, in virtual time: its start, a life of an hour and one of two
# (mains failures that return, monitors that come and go, changes of settings, self-tests, schedules, the data log, a line
# lost and found) and its end on request; and once a mains failure that stays, through to /sbin/shutdown. No error, nothing
# lost, and what is still reached at the end is after two hours no more than after one.
#   tests/proof/valgrind.sh          everything; about ten minutes
#   tests/proof/valgrind.sh 1 8      the same with one and eight hours
#   VOLTARIA_PROGRAMS=DIR tests/proof/valgrind.sh   the daemon and the simulator of another build
# Needs the package valgrind. Builds in build/valgrind/ with -O1 -g; logs are in build/valgrind/logs/. No suppression is
# in use. Valgrind does not know pidfd_open and says so: the daemon then waits for its programs without it.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
out=$tree/build/valgrind
logs=$out/logs
short=${1:-1}
long=${2:-2}
started=$SECONDS
memcheck=$(ls /usr/libexec/valgrind/memcheck-*-linux /usr/lib/valgrind/memcheck-*-linux 2>/dev/null | head -n 1) || true
if [ -z "$memcheck" ] || [ $# -gt 2 ] || ! [[ $short$long =~ ^[0-9]+$ ]]; then
    sed -n '2,/^set/s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi
allowed_bytes=4096 # by which what is still reached may differ: buffers that happen to be in use
allowed_blocks=16

build() {
    cmake --preset plain -S "$tree" -B "$out" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" &&
        cmake --build "$out" --target voltariad upssim sandbox system_life
}

# live NAME FILTER HOURS: one life in a sandbox; the daemon's processes leave their logs in logs/NAME/.
live() {
    rm -rf "${logs:?}/$1"
    mkdir -p "$logs/$1"
    VOLTARIA_LIFE_HOURS=$3 VOLTARIA_RUNNER_PROGRAM=$memcheck VOLTARIA_RUNNER="$(command -v valgrind) \
        --log-file=$logs/$1/%p.log --leak-check=full --show-leak-kinds=all --num-callers=20" \
        "$out/bin/sandbox" --share "$logs/$1" -- "$out/bin/system_life" --gtest_filter="Life.$2"
}

# step NAME COMMAND...: one line; what the command printed is shown when it fails.
step() {
    local name=$1 from=$SECONDS log="$logs/${1// /-}.log"
    shift
    printf '%-34s ' "$name"
    if ! "$@" >"$log" 2>&1; then
        printf 'FAILED (%d s)\n' $((SECONDS - from))
        tail -n 60 "$log"
        exit 1
    fi
    printf 'ok (%d s)\n' $((SECONDS - from))
}

# process NAME WHICH: the log of the launched process, the agent process or the UPS process. Others were children about to
# become a program.
process() {
    local launched agent
    launched=$(grep -l 'Parent PID: 2$' "$logs/$1"/*.log | head -n 1)
    agent=$(grep -l "Parent PID: $(basename "$launched" .log)\$" "$logs/$1"/*.log | head -n 1)
    case $2 in
    agent) echo "$agent" ;;
    UPS) grep -l 'HEAP SUMMARY' $(grep -l "Parent PID: $(basename "$agent" .log)\$" "$logs/$1"/*.log) | head -n 1 ;;
    esac
}

# kept LOG WORDS: "BYTES BLOCKS" of a line of the leak summary; nothing was in use when there is none.
kept() {
    local line
    line=$(grep "$2: [0-9,]* bytes" "$1" || true)
    line=$(sed -E 's/.*: ([0-9,]+) bytes in ([0-9,]+) blocks.*/\1 \2/; s/,//g' <<<"$line")
    echo "${line:-0 0}"
}

# What memcheck found in any process of a life, children about to become a program included: of those that end there, too,
# an error is told when it is met.
found_in() {
    grep -hE '^==[0-9]+== (Invalid|Conditional jump|Use of uninit|Syscall param|Mismatched|Source and dest|Argument .* of|Jump to|Process terminating|.* (definitely|indirectly|possibly) lost in loss record|ERROR SUMMARY: [1-9])' \
        "$logs/$1"/*.log
}

bad=0
fail() {
    printf '  FAILED: %s\n' "$*"
    bad=1
}

mkdir -p "$logs"
step "build" build
step "through to the shutdown" live down EndsInAShutdownWhenMainsStaysAway 0
step "$short h" live short AnHourLeavesTheDescriptorsAsTheyWere "$short"
step "$long h" live long AnHourLeavesTheDescriptorsAsTheyWere "$long"
for name in down short long; do
    if found_in "$name"; then fail "memcheck found this, in $logs/$name"; fi
done
declare -A reached
for name in short long; do
    hours=${!name}
    for which in agent UPS; do
        log=$(process "$name" "$which")
        if [ -z "$log" ] || ! grep -q 'ERROR SUMMARY' "$log"; then
            fail "the $which process left no summary after $hours h"
            continue
        fi
        reached[$name-$which]=$(kept "$log" 'still reachable')
        printf '%s process after %s h: %s errors, %s bytes lost, %s bytes in %s blocks still reached\n' "$which" "$hours" \
            "$(sed -nE 's/.*ERROR SUMMARY: ([0-9]+) .*/\1/p' "$log")" \
            $(($(kept "$log" 'definitely lost' | cut -d' ' -f1) + $(kept "$log" 'possibly lost' | cut -d' ' -f1))) \
            ${reached[$name-$which]}
    done
    grep ' h: .* descriptors' "$logs/${hours}-h.log" || fail "no descriptors were counted"
done
for which in agent UPS; do
    read -r bytes blocks <<<"${reached[short-$which]:-0 0}"
    read -r more_bytes more_blocks <<<"${reached[long-$which]:-0 0}"
    if [ $((more_bytes - bytes)) -gt $allowed_bytes ] || [ $((more_blocks - blocks)) -gt $allowed_blocks ]; then
        fail "what the $which process reaches at its end grows: $bytes bytes after $short h, $more_bytes after $long h"
    fi
done
if [ $bad -ne 0 ]; then
    printf 'FAILED after %d s, logs in build/valgrind/logs\n' $((SECONDS - started))
    exit 1
fi
printf 'no error and no leak, %d s\n' $((SECONDS - started))
