#!/usr/bin/env bash
# The package on a machine that really goes down: makes the package and, below build/vm/, a minimal Debian with it,
# boots that in qemu on a simulated UPS and fails the mains. `./check --vm` does this; it takes minutes.
#   tests/vm/run.sh                 everything
#   tests/vm/run.sh --break mains   the mains never fails: must be reported as failed
#   tests/vm/run.sh --break bus     the guest has no system bus and cannot go down: the same
#   VOLTARIA_PACKAGE=FILE tests/vm/run.sh   with this package
# What was made of the same package and packages before is used again. Logs are in build/vm/logs/.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$tree/tests/support/steps.sh"
here=$tree/tests/vm
out=$tree/build/vm
log=$out/logs
started=$SECONDS

usage() {
    sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

case "$#:$*" in
0: | "2:--break mains" | "2:--break bus") ;;
1:-h | 1:--help) usage && exit 0 ;;
*) usage >&2 && exit 2 ;;
esac

# An emulator that does not even start leaves nothing to test, and that is a failure.
emulator() {
    qemu-system-x86_64 --version
    echo quit | timeout 60 qemu-system-x86_64 -accel tcg -nodefaults -display none -S -monitor stdio
}

newest_package() {
    ls -t "$tree"/build/package/voltaria_*_amd64.deb 2>/dev/null | head -n 1
}

# The monitor and the simulator are the package's own.
unpack() {
    rm -rf "$out/programs"
    mkdir -p "$out/programs"
    dpkg-deb -x "$1" "$out/programs"
}

if [ "$(dpkg --print-architecture)" != amd64 ]; then
    echo "the virtual machine is a PC: its package can be built on amd64 only"
    exit 1
fi
rm -rf "$log"
mkdir -p "$log"
step "emulator" emulator
if [ -n "${VOLTARIA_PACKAGE:-}" ]; then
    package=$VOLTARIA_PACKAGE
else
    "$tree/tests/package/run.sh" build
    package=$(newest_package)
fi
step "unpack" unpack "$package"
step "disk" "$here/image.sh" "$package" "$out"
echo
# In the foreground, so that an interrupt from the keyboard reaches it; it leaves nothing running behind.
status=0
PYTHONDONTWRITEBYTECODE=1 python3 "$here/story.py" --image "$out" --programs "$out/programs/usr/bin" \
    --logs "$log" "$@" || status=$?
echo
if [ "$status" -ne 0 ]; then
    printf 'FAILED after %d s, logs in build/vm/logs\n' $((SECONDS - started))
    exit 1
fi
printf 'the machine went down as it should, %d s\n' $((SECONDS - started))
