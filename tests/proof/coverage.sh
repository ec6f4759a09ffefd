#!/usr/bin/env bash
# Which lines of the product the tests run: builds it with counters (preset `coverage`), runs every test and prints a
# table, a line a file. Holds when more than 95 % of the lines of agent/ and of ea/ each are run and every line that is
# not is explained in tests/proof/uncovered.txt, which must explain nothing else.
#   tests/proof/coverage.sh             build, tests, report (`./check --coverage` does this)
#   tests/proof/coverage.sh -R REGEX    only these tests, on top of what was counted before
#   tests/proof/coverage.sh --report    only the report on what was counted before
#   -B DIR                              builds there instead of in build/coverage
# The pages with every line are in build/coverage/report/index.html. Debian packages besides those of the build: gcovr.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$tree/tests/support/steps.sh"
out=$tree/build/coverage
selected=()
tests=all
step_errors='error:|\*\*\*(Failed|Timeout|Exception)|Failure|^CMake Error'

usage() {
    sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

while [ $# -gt 0 ]; do
    case "$1:$#" in
    -R:1 | -B:1) usage >&2 && exit 2 ;;
    -R:*) tests=some && selected=(-R "$2") && shift ;;
    -B:*) out=$(realpath -m "$2") && shift ;;
    --report:*) tests=none ;;
    -h:* | --help:*) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done
if ! command -v gcovr >/dev/null; then
    echo "gcovr is missing; it is in the package of that name" >&2
    exit 2
fi
if [ "$tests" = none ] && [ ! -e "$out/build.ninja" ]; then
    echo "nothing was counted in $out yet" >&2
    exit 2
fi
log=$out/logs
mkdir -p "$log"
started=$SECONDS
# One run at a time; descriptor 9 is the lock of ./check itself.
exec 8>"$out/lock"
flock 8

build() {
    cmake --preset coverage -S "$tree" -B "$out" && cmake --build "$out"
}

# What an earlier run counted, and what programs left that no longer are as they were counted.
forget() {
    find "$out" -name '*.gcda' -delete
}

# A test may start voltariactl as an ordinary user, who cannot make the files of its counters.
open_counters() {
    "$out/bin/voltariactl" --help >/dev/null
    chmod -R a+rwX "$out"/{agent,control,ea,monitor}
}

# The tests mostly wait; more than the processors can carry at once would make them late.
run_tests() {
    ctest --test-dir "$out" --output-on-failure --no-tests=error -j "${CHECK_JOBS:-6}" "${selected[@]}"
}

# The counters are read once, and the pages made of what was read.
read_counters() {
    local parts=()
    for part in agent ea control monitor sim; do
        parts+=("$out/$part")
    done
    (cd "$out" && gcovr -r "$tree" -f "$tree/(agent|ea|control|monitor|sim)/" --exclude-throw-branches \
        --exclude-unreachable-branches -j "$(nproc)" --json "$out/counted.json" "${parts[@]}")
}

make_pages() {
    rm -rf "$out/report"
    mkdir -p "$out/report"
    gcovr -r "$tree" -a "$out/counted.json" -f "$tree/(agent|ea)/" --html-details "$out/report/index.html" \
        --html-title "Lines of the daemon that the tests run"
}

cd "$tree"
failed=0
if [ "$tests" != none ]; then
    step "build with counters" build
    [ "$tests" != all ] || forget
    open_counters
    attempt "tests" run_tests
    [ "$step_status" -eq 0 ] || failed=1
fi
step "counters" read_counters
step "pages" make_pages
python3 "$tree/tests/proof/coverage.py" "$out/counted.json" "$tree" || failed=1
printf 'every line: %s\n' "$out/report/index.html"
if [ "$failed" -ne 0 ]; then
    printf 'coverage FAILED after %d s\n' $((SECONDS - started))
    exit 1
fi
printf 'coverage holds (%d s)\n' $((SECONDS - started))
