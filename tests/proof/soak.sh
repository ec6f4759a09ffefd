#!/usr/bin/env bash
# The soak: weeks of a random life of the real daemon in virtual time, every line of its event log explained.
#   tests/proof/soak.sh [SEED [DAYS]]     30 days and a random seed unless given (`./check --soak` does this)
#   VOLTARIA_SOAK_STORY=FILE              everything that was done and seen is left in FILE: the same seed is the same
#                                         run, byte for byte
#   VOLTARIA_SOAK_BUILD=DIR               a build directory to use instead of build/dev
# What a run that failed printed is kept in build/soak-logs/.
# Status 0 only if everything held: every transition explained and none missing, memory and logs bounded, descriptors constant.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$tree/tests/support/steps.sh"
log=$tree/build/soak-logs

usage() {
    sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

build() {
    [ "$build" != "$tree/build/dev" ] || cmake --preset dev -S "$tree" -B "$build"
    cmake --build "$build" --target system_soak
}

case "$#:${1:-}" in
1:-h | 1:--help) usage && exit 0 ;;
[0-2]:*) ;;
*) usage >&2 && exit 2 ;;
esac
seed=${1:-$(od -An -N3 -tu4 /dev/urandom | tr -d ' ')}
days=${2:-30}
[[ $seed =~ ^[0-9]{1,9}$ && $days =~ ^[1-9][0-9]{0,5}$ ]] || { usage >&2 && exit 2; }
build=${VOLTARIA_SOAK_BUILD:-$tree/build/dev}
mkdir -p "$log"
step "build" build
story=${VOLTARIA_SOAK_STORY:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
output=$log/seed-$seed.log
began=$SECONDS
echo "seed $seed, $days days"
status=0
VOLTARIA_SOAK_SEED=$seed VOLTARIA_SOAK_DAYS=$days VOLTARIA_SOAK_STORY=$scratch/story \
    "$build/bin/sandbox" --share "$scratch" -- "$build/bin/system_soak" --gtest_brief=1 |
    tee "$output" | grep -a --line-buffered '^day\|^soak:\|Failure\|^seed\|^[0-9.]* ' || true
grep -aq '\[  PASSED  \] 1 test' "$output" || status=1
[ -z "$story" ] || cp "$scratch/story" "$story" || status=1
if [ "$status" -eq 0 ]; then
    echo "soak: held; seed $seed, $days days, $(grep -ac '  event ' "$scratch/story") events, $((SECONDS - began)) s," \
        "story $(sha256sum <"$scratch/story" | cut -c1-16)"
    rm -f "$output"
else
    echo "soak: FAILED; seed $seed, $((SECONDS - began)) s, all of it in $output; again: tests/proof/soak.sh $seed $days"
fi
exit "$status"
