#!/usr/bin/env bash
# The daemon under valgrind's memcheck, both processes, in virtual time: its start, a life of an hour and one of two
# (mains failures that return, monitors that come and go, changes of settings, self-tests, schedules, the data log, a line
# lost and found) and its end on request; and once a mains failure that stays, through to /sbin/shutdown. No error, nothing
# lost, and what is still reached at the end is after two hours no more than after one.
#   tests/proof/valgrind.sh [SHORT LONG]   lives of that many hours (1 and 2: about ten minutes; `./check --valgrind` does
#                                          this)
#   VOLTARIA_PROGRAMS=DIR tests/proof/valgrind.sh   the daemon and the simulator of another build
# Needs the package valgrind. Builds in build/valgrind/ with -O1 -g; logs are in build/valgrind/logs/. No suppression is
# in use. Valgrind does not know pidfd_open and says so: the daemon then waits for its programs without it.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$tree/tests/support/steps.sh"
out=$tree/build/valgrind
log=$out/logs
started=$SECONDS
allowed_bytes=4096 # by which what is still reached may differ: buffers that happen to be in use
allowed_blocks=16

usage() {
    sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

case "$#:${1:-}" in
0:) short=1 long=2 ;;
1:-h | 1:--help) usage && exit 0 ;;
2:*) short=$1 long=$2 ;;
*) usage >&2 && exit 2 ;;
esac
for hours in "$short" "$long"; do
    [[ $hours =~ ^[1-9][0-9]{0,3}$ ]] || { usage >&2 && exit 2; }
done
if [ "$short" -ge "$long" ]; then
    echo "the second life must be longer than the first" >&2
    exit 2
fi
memcheck=$(ls /usr/libexec/valgrind/memcheck-*-linux /usr/lib/valgrind/memcheck-*-linux 2>/dev/null | head -n 1) || true
if [ -z "$memcheck" ] || ! command -v valgrind >/dev/null; then
    echo "valgrind is missing; it is in the package of that name" >&2
    exit 2
fi

build() {
    cmake --preset plain -S "$tree" -B "$out" -DVOLTARIA_SYSTEM_TESTS=ON -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" &&
        cmake --build "$out" --target voltariad upssim sandbox system_life
}

# live NAME FILTER HOURS: one life in a sandbox; the daemon's processes leave their logs in build/valgrind/logs/NAME/.
live() {
    rm -rf "${log:?}/$1"
    mkdir -p "$log/$1"
    VOLTARIA_LIFE_HOURS=$3 VOLTARIA_RUNNER_PROGRAM=$memcheck VOLTARIA_RUNNER="$(command -v valgrind) \
        --log-file=$log/$1/%p.log --leak-check=full --show-leak-kinds=all --num-callers=20" \
        "$out/bin/sandbox" --share "$log/$1" -- "$out/bin/system_life" --gtest_filter="Life.$2"
}

# process NAME WHICH: the log of the launched process, the agent process or the UPS process. Others were children about to
# become a program.
process() {
    local launched agent
    launched=$(grep -l 'Parent PID: 2$' "$log/$1"/*.log | head -n 1)
    agent=$(grep -l "Parent PID: $(basename "$launched" .log)\$" "$log/$1"/*.log | head -n 1)
    case $2 in
    agent) echo "$agent" ;;
    UPS) grep -l 'HEAP SUMMARY' $(grep -l "Parent PID: $(basename "$agent" .log)\$" "$log/$1"/*.log) | head -n 1 ;;
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
        "$log/$1"/*.log
}

bad=0
fail() {
    printf '  FAILED: %s\n' "$*"
    bad=1
}

mkdir -p "$log"
step "build" build
step "through to the shutdown" live down EndsInAShutdownWhenMainsStaysAway 0
step "$short h" live short AnHourLeavesTheDescriptorsAsTheyWere "$short"
step "$long h" live long AnHourLeavesTheDescriptorsAsTheyWere "$long"
for name in down short long; do
    if found_in "$name"; then fail "memcheck found this, in $log/$name"; fi
done
declare -A reached
for name in short long; do
    hours=${!name}
    for which in agent UPS; do
        its=$(process "$name" "$which" || true)
        if [ -z "$its" ] || ! grep -q 'ERROR SUMMARY' "$its"; then
            fail "the $which process left no summary after $hours h"
            continue
        fi
        reached[$name-$which]=$(kept "$its" 'still reachable')
        printf '%s process after %s h: %s errors, %s bytes lost, %s bytes in %s blocks still reached\n' "$which" "$hours" \
            "$(sed -nE 's/.*ERROR SUMMARY: ([0-9]+) .*/\1/p' "$its")" \
            $(($(kept "$its" 'definitely lost' | cut -d' ' -f1) + $(kept "$its" 'possibly lost' | cut -d' ' -f1))) \
            ${reached[$name-$which]}
    done
    grep ' h: .* descriptors' "$(step_log "$hours h")" || fail "no descriptors were counted"
done
for which in agent UPS; do
    read -r bytes blocks <<<"${reached[short-$which]:-0 0}"
    read -r more_bytes more_blocks <<<"${reached[long-$which]:-0 0}"
    if [ $((more_bytes - bytes)) -gt $allowed_bytes ] || [ $((more_blocks - blocks)) -gt $allowed_blocks ]; then
        fail "what the $which process reaches at its end grows: $bytes bytes after $short h, $more_bytes after $long h"
    fi
done
if [ $bad -ne 0 ]; then
    printf 'FAILED after %d s, logs in %s\n' $((SECONDS - started)) "$log"
    exit 1
fi
printf 'no error and no leak, %d s\n' $((SECONDS - started))
