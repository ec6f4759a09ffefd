#!/usr/bin/env bash
# The package from its making to its purge: built from a copy of the tree, looked at by lintian, compared with what
# `cmake --install` gives, and in a minimal Debian 12 installed, upgraded, removed, installed again and purged.
#   tests/package/run.sh           everything (`./check --package` does this)
#   tests/package/run.sh build     only leaves the package in build/package/, where tests/vm/ looks for it too
# What has not changed since the last run (the package, the minimal Debian) is kept in build/package/.
set -euo pipefail
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$tree/tests/support/steps.sh"
here=$tree/tests/package
out=$tree/build/package
log=$out/logs

usage() {
    sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

case "$#:${1:-}" in
0: | 1:build) ;;
1:-h | 1:--help) usage && exit 0 ;;
*) usage >&2 && exit 2 ;;
esac
mkdir -p "$log"
started=$SECONDS
# One run at a time: ./check --vm calls this too. Descriptor 9 is the lock of ./check itself.
exec 8>"$out/lock"
flock 8

# The tree as a fresh clone has it, or nearly so: no build directories, no version control.
tree_files() {
    (cd "$tree" && find . \( -path './build*' -o -path './.git' \) -prune -o -type f -print0 | LC_ALL=C sort -z)
}

fingerprint() {
    (cd "$tree" && tree_files | xargs -0 stat -c '%a %n' && tree_files | xargs -0 sha256sum) | sha256sum
}

built() {
    [ "$(cat "$out/made-of" 2>/dev/null)" = "$(fingerprint)" ] && ls "$out"/voltaria_*.deb >/dev/null 2>&1
}

make_package() {
    local made_of
    made_of=$(fingerprint)
    rm -rf "$out/source" "$out/made-of" "$out"/voltaria*_*.{deb,changes,buildinfo}
    mkdir -p "$out/source"
    (cd "$tree" && tree_files | tar cf - --null -T -) | tar xf - -C "$out/source"
    (cd "$out/source" && DEB_BUILD_OPTIONS="parallel=$(nproc) noautodbgsym" dpkg-buildpackage -us -uc -b)
    echo "$made_of" >"$out/made-of"
}

check_lintian() {
    lintian --allow-root --fail-on error,warning "$changes"
}

# Every hardening flag reached the linker: position-independent, bound at start, read-only relocations, checked strings.
check_hardening() {
    local root=$out/unpacked program
    rm -rf "$root"
    dpkg-deb -x "$package" "$root"
    for program in usr/lib/voltaria/voltariad usr/bin/voltaria usr/bin/voltariactl usr/bin/upssim; do
        readelf -hW "$root/$program" | grep 'Type:.*DYN (Position-Independent' >/dev/null
        readelf -lW "$root/$program" | grep GNU_RELRO >/dev/null
        readelf -dW "$root/$program" | grep -E 'FLAGS_1.*NOW' >/dev/null
        readelf -sW --dyn-syms "$root/$program" | grep '__stack_chk_fail' >/dev/null
        readelf -sW --dyn-syms "$root/$program" | grep '_chk@' >/dev/null
    done
    rm -rf "$root"
}

# "MODE PATH" for all but directories and what only a Debian package has.
package_files() {
    dpkg-deb -c "$package" | awk '$1 !~ /^d/ { print $1, $6 }' | sed 's|\./||; s|\.gz$||' |
        grep -v ' usr/share/\(doc\|lintian\)/' | LC_ALL=C sort -k 2
}

installed_files() {
    (cd "$1" && find . ! -type d -printf '%M %P\n' | LC_ALL=C sort -k 2)
}

check_files() {
    diff "$here/files" <(package_files)
    diff <(echo root/root) <(dpkg-deb -c "$package" | awk '{ print $2 }' | sort -u)
}

# The unit's first check before the start, with another file for the one in which systemd keeps what is scheduled.
going_down() {
    local check
    check=$(sed -n "/^ExecStartPre=\/bin\/sh -c '/,/'\$/p" "$out"/source/obj-*/packaging/voltariad.service |
        sed -e "1s/^[^']*'//" -e "\$s/'\$//" -e 's/\\$//; s/\$\$/$/g; s/%%/%/g')
    ! sh -c "${check//\/run\/systemd\/shutdown\/scheduled/$1}"
}

# refuses WHEN: a daemon that starts with that in the file stays away.
refuses() {
    local file=$out/scheduled
    printf 'USEC=%s\nWARN_WALL=1\nMODE=poweroff\n' "$(date -d "$1" +%s)000000" >"$file"
    going_down "$file"
}

# A new daemon stays away while the machine is going down, and only then.
check_staying_away() {
    if going_down "$out/no-such-file"; then return 1; fi
    if refuses "1 hour"; then return 1; fi
    refuses "1 second ago"
    if refuses "20 minutes ago"; then return 1; fi
    rm -f "$out/scheduled"
}

install_by_hand() {
    DESTDIR=$1 cmake --install "$out"/source/obj-* >/dev/null
}

# By hand it gives the same files, and besides them, once, what the package's scripts make.
check_install_by_hand() {
    local root=$out/by-hand
    rm -rf "$root"
    cmake -DVOLTARIA_FIRST_SETTINGS=ON "$out"/source/obj-* >/dev/null
    install_by_hand "$root"
    diff <({ cat "$here/files" && echo '-rw-r--r-- etc/.KAVEXUPS' && echo '-rw------- usr/lib/voltaria/config'; } |
        LC_ALL=C sort -k 2) <(installed_files "$root")
    cmp "$root/usr/share/voltaria/config" "$root/usr/lib/voltaria/config"
    grep -q '^ExecStart=/usr/sbin/voltariad$' "$root/lib/systemd/system/voltariad.service"
    local key
    key=$(stat -c %i "$root/etc/.KAVEXUPS")
    echo '; mine' >>"$root/usr/lib/voltaria/config"
    install_by_hand "$root"
    [ "$(stat -c %i "$root/etc/.KAVEXUPS")" = "$key" ]
    grep -q '^; mine$' "$root/usr/lib/voltaria/config"
    rm -rf "$root"
}

# The same package as the next version.
make_next() {
    rm -rf "$out/next" "$out/next.deb"
    dpkg-deb -R "$package" "$out/next"
    sed -i 's/^Version: .*/&+next/' "$out/next/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$out/next" "$out/next.deb"
    rm -rf "$out/next"
}

figures() {
    printf 'package                            %s bytes, installed %s KiB\n' "$(stat -c %s "$package")" \
        "$(dpkg-deb -f "$package" Installed-Size)"
    printf 'confinement of the unit            %s, without the directives %s\n' \
        "$(security "$out/source"/obj-*/packaging/voltariad.service)" "$(security <(unconfined))"
}

unconfined() {
    grep -vE '^(Capability|SystemCall|Restrict[AR]|LockPersonality)' "$out"/source/obj-*/packaging/voltariad.service
}

# systemd's figure: 0 is shut up in a box, 10 open.
security() {
    local unit=$out/unit/voltariad.service
    mkdir -p "$out/unit"
    cat "$1" >"$unit"
    systemd-analyze security --offline=true --no-pager "$unit" 2>/dev/null |
        sed -n 's/.*exposure level for [^:]*: \([0-9.]*\).*/\1/p'
}

# ---- the run
if built; then
    printf '%-34s kept\n' "build"
else
    step "build" make_package
fi
package=$(ls "$out"/voltaria_*.deb)
changes=$(ls "$out"/voltaria_*.changes)
[ "${1:-}" != build ] || exit 0
step "lintian" check_lintian
step "hardening" check_hardening
step "files" check_files
step "stays away from a shutdown" check_staying_away
step "install by hand" check_install_by_hand
step "next version" make_next
"$here/chroot.sh" "$package" "$out/next.deb" "$out"
figures
printf 'package checks passed in %d s\n' $((SECONDS - started))
