#!/usr/bin/env bash
# The soak: weeks of a random life of the real daemon in virtual time, every line of its event log explained.
#   tests/proof/soak.sh [SEED] [DAYS]     30 days and a random seed unless given (`./check --soak` does this)
# The same seed is the same run: with VOLTARIA_SOAK_STORY=FILE everything that was done and seen is left in FILE, byte for
# byte the same each time. VOLTARIA_SOAK_BUILD names a build directory to use instead of build/dev.
# Status 0 only if everything held: every transition explained and none missing, memory and logs bounded, descriptors constant.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

usage() {
    sed -n '2,6s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 2
}

[ $# -le 2 ] || usage
seed=${1:-$(od -An -N3 -tu4 /dev/urandom | tr -d ' ')}
days=${2:-30}
case $seed$days in *[!0-9]*) usage ;; esac
[ "$days" -gt 0 ] || usage

build=${VOLTARIA_SOAK_BUILD:-}
if [ -z "$build" ]; then
    build=$tree/build/dev
    (cd "$tree" && cmake --preset dev >/dev/null)
fi
ninja -C "$build" system_soak >/dev/null || ninja -C "$build" system_soak

story=${VOLTARIA_SOAK_STORY:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
began=$SECONDS
echo "seed $seed, $days days"
status=0
VOLTARIA_SOAK_SEED=$seed VOLTARIA_SOAK_DAYS=$days VOLTARIA_SOAK_STORY=$scratch/story \
    "$build/bin/sandbox" --share "$scratch" -- "$build/bin/system_soak" --gtest_brief=1 |
    tee "$scratch/output" | grep -a --line-buffered '^day\|^soak:\|Failure\|^seed\|^[0-9.]* ' || true
grep -aq '\[  PASSED  \] 1 test' "$scratch/output" || status=1
[ -z "$story" ] || cp "$scratch/story" "$story"
if [ "$status" -eq 0 ]; then
    echo "soak: held; seed $seed, $days days, $(grep -ac '  event ' "$scratch/story") events, $((SECONDS - began)) s," \
        "story $(sha256sum <"$scratch/story" | cut -c1-16)"
else
    echo "soak: FAILED; seed $seed, $((SECONDS - began)) s; again: tests/proof/soak.sh $seed $days"
fi
exit "$status"
