#!/usr/bin/env bash
# A life of the package in a minimal Debian 12. tests/package/run.sh calls it.
#   chroot.sh PACKAGE.deb NEXT.deb DIRECTORY
# The minimal Debian, with what the package depends on, is kept in DIRECTORY. As an ordinary user it works in a user
# namespace, with the ids of /etc/subuid.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/../support/steps.sh"
package=$(realpath "$1")
next=$(realpath "$2")
out=$(cd "$3" && pwd)
log=$out/logs
suite=bookworm

# With mounts, processes and shared memory of its own, which are gone when it ends, however it ends.
if [ -z "${PACKAGE_INSIDE:-}" ]; then
    as=()
    [ "$(id -u)" -eq 0 ] || as=(--map-root-user --map-auto)
    exec env PACKAGE_INSIDE=1 PATH="$PATH:/usr/sbin:/sbin" \
        unshare "${as[@]}" --mount --pid --ipc --fork --kill-child --mount-proc "${BASH_SOURCE[0]}" "$@"
fi

root=$out/root
clean_up() {
    unmount_devices 2>/dev/null || true
    rm -rf --one-file-system "$root"
}
trap clean_up EXIT

# ---- the minimal Debian

# The machine's own mirror of Debian 12, as apt knows it.
mirror() {
    apt-get indextargets --format '$(RELEASE) $(COMPONENT) $(REPO_URI)' 'Identifier: Packages' |
        awk -v suite="$suite" '$1 == suite && $2 == "main" { print $3; exit }'
}

# A user namespace cannot make device nodes; there, debootstrap borrows the machine's own as it does in containers.
bootstrap() {
    if grep -q ' 0 *4294967295' /proc/self/uid_map; then
        debootstrap "$@"
    else
        env container=lxc debootstrap "$@"
    fi
}

in_root() {
    env -u DEBIAN_FRONTEND LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$root" "$@" </dev/null
}

devices=(null zero full random urandom console)

mount_devices() {
    local device
    mount -t proc proc "$root/proc"
    for device in "${devices[@]}"; do
        [ -e "$root/dev/$device" ] || : >"$root/dev/$device"
        mount --bind "/dev/${device/console/null}" "$root/dev/$device"
    done
}

unmount_devices() {
    umount "${devices[@]/#/$root/dev/}" "$root/proc"
}

# How this machine reaches its mirror (a proxy, for instance) holds in there too. Nothing is started by an installation.
make_base() {
    local url
    url=$(mirror)
    if [ -z "$url" ]; then
        echo "apt on this machine knows no mirror of Debian 12 ($suite, main): the package cannot be tried here"
        return 1
    fi
    bootstrap --variant=minbase "$suite" "$root" "$url"
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    apt-config dump Acquire >"$root/etc/apt/apt.conf.d/00machine"
    cp -L /etc/resolv.conf "$root/etc/resolv.conf"
    mount_devices
    in_root apt-get update -q
    in_root apt-get install -y -q --no-install-recommends "${depends[@]}"
    unmount_devices
    rm -rf "$root"/var/cache/apt/archives/*.deb "$root"/var/cache/apt/*.bin
    tar cf "$base.part" -C "$root" .
    mv "$base.part" "$base"
}

# The first of each choice, which is what apt takes.
mapfile -t depends < <(dpkg-deb -f "$package" Depends | tr ',' '\n' | sed 's/|.*//; s/(.*//; s/ //g')
base=$out/base-$(echo "$suite ${depends[*]} $(mirror)" | sha256sum | cut -c1-16).tar

fresh_root() {
    rm -rf --one-file-system "$root"
    mkdir -p "$root"
    if [ ! -e "$base" ]; then
        rm -f "$out"/base-*.tar
        make_base
    else
        tar xf "$base" -C "$root"
    fi
    mount_devices
    cp "$package" "$root/root/voltaria.deb"
    cp "$next" "$root/root/next.deb"
    everything >"$out/before"
}

# ---- what is looked at

# Whatever a package can leave behind; not what apt and dpkg keep for themselves.
everything() {
    (cd "$root" && find . -xdev \( -path ./proc -o -path ./dev -o -path ./root -o -path ./var/lib/dpkg -o \
        -path ./var/lib/apt -o -path ./var/cache/apt -o -path ./var/log -o -path ./run \) -prune -o \
        ! -type d -print -o -type d -name 'voltaria*' -print | LC_ALL=C sort)
}

# same WHAT EXPECTED FOUND
same() {
    [ "$2" = "$3" ] && return 0
    echo "$1: expected \"$2\", found \"$3\""
    return 1
}

# is "MODE UID:GID" FILE
is() {
    same "$2" "$1" "$(stat -c '%a %u:%g' "$root/$2")"
}

home=usr/lib/voltaria

check_install() {
    in_root apt-get install -y -q --no-install-recommends /root/voltaria.deb
    is "644 0:0" etc/.KAVEXUPS
    is "600 0:1" $home/config
    is "755 0:0" $home
    is "755 0:0" $home/voltariad
    is "755 0:0" etc/init.d/voltariad
    is "644 0:0" lib/systemd/system/voltariad.service
    cmp "$root/$home/config" "$root/usr/share/voltaria/config"
    same "link to the daemon" ../lib/voltaria/voltariad "$(readlink "$root/usr/sbin/voltariad")"
    same "unit" enabled "$(in_root systemctl is-enabled voltariad 2>/dev/null)"
    in_root voltaria --version
    in_root voltariactl --version
    in_root upssim --help >/dev/null
    [ -s "$root/$home/locale/ja/LC_MESSAGES/voltariad.mo" ]
}

# Everything that the daemon is to run is there, and what "/sbin/shutdown -h -t0 0" takes.
check_programs() {
    local program
    for program in usr/bin/wall usr/bin/write usr/bin/mesg usr/bin/who sbin/shutdown bin/sh lib/systemd/systemd-logind; do
        in_root test -x "/$program" || { echo "/$program is missing"; return 1; }
    done
    in_root test -e /lib/systemd/system/dbus.service
    in_root test -e /usr/share/dbus-1/system-services/org.freedesktop.login1.service
}

live_a_while() {
    echo '; mine' >>"$root/$home/config"
    touch "$root/$home/"{events.log,data.log,.LCK,.pipelock} "$root/.erra" "$root/tmp/PROG_NAME.list"
    echo "an event" >"$root/$home/events.log"
}

kept() {
    same "inode of the key file" "$key" "$(stat -c %i "$root/etc/.KAVEXUPS")"
    grep -q '^; mine$' "$root/$home/config"
    is "600 0:1" $home/config
    same "event log" "an event" "$(cat "$root/$home/events.log")"
}

check_upgrade() {
    live_a_while
    in_root apt-get install -y -q --no-install-recommends /root/next.deb
    in_root dpkg-query -W -f '${Version}\n' voltaria | grep 'next$'
    kept
    in_root apt-get install -y -q --no-install-recommends --reinstall /root/next.deb
    kept
}

check_remove() {
    in_root apt-get remove -y -q voltaria
    kept
    local left
    left=$(in_root dpkg-query -L voltaria | sort)
    same "package's files left" /etc/init.d/voltariad "$(for f in $left; do [ -d "$root$f" ] || echo "$f"; done)"
    [ ! -e "$root/usr/bin/voltariactl" ]
    in_root apt-get install -y -q --no-install-recommends /root/voltaria.deb
    kept
}

# The segment of a daemon that was killed, made on its key, and another program's.
leave_segments() {
    perl -e 'use IPC::SysV qw(ftok); shmget(ftok($ARGV[0], 1029), 1660, 01666) // die "$!"' "$root/etc/.KAVEXUPS"
    perl -e 'shmget(4711, 1660, 01666) // die "$!"'
    same "segments" 2 "$(($(wc -l </proc/sysvipc/shm) - 1))"
}

check_purge() {
    leave_segments
    in_root apt-get purge -y -q voltaria
    diff "$out/before" <(everything)
    same "segments left" 4711 "$(awk 'NR > 1 { print $1 }' /proc/sysvipc/shm)"
    if in_root dpkg-query -W voltaria; then return 1; fi
}

check_install_again() {
    in_root apt-get install -y -q --no-install-recommends /root/voltaria.deb
    cmp "$root/$home/config" "$root/usr/share/voltaria/config"
    same "directory" "config locale voltariad" "$(ls -A "$root/$home" | paste -sd ' ')"
}

# The init script starts the daemon by hand, where no address but loopback is there, and stops it.
check_init_script() {
    unshare --net bash -ec '
        ip link set lo up
        run() { LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$1" /etc/init.d/voltariad "$2" </dev/null; }
        run "$1" start
        for try in $(seq 300); do run "$1" status && break; sleep 0.1; done
        run "$1" status
        run "$1" start
        run "$1" stop
        if run "$1" status; then exit 1; fi
    ' - "$root"
}

# Where systemd runs, the script hands the request over and waits; the unit's check before the start must not take it for
# a daemon by its name then. The one asked tells who waits for it.
check_init_script_handing_over() {
    local said
    mkdir -p "$root/run/systemd/system"
    cat >"$root/root/systemctl" <<'EOF'
#!/bin/sh
case "$*" in
*"start voltariad"*) echo "asked by: $(cat /proc/$PPID/comm)" ;;
esac
EOF
    chmod 755 "$root/root/systemctl"
    said=$(in_root env PATH=/root:/usr/sbin:/usr/bin:/sbin:/bin /etc/init.d/voltariad start)
    rm -rf "$root/run/systemd/system" "$root/root/systemctl"
    echo "$said"
    grep -q 'asked by: voltariad-init$' <<<"$said"
}

step "minimal Debian 12" fresh_root
step "install" check_install
step "programs it runs" check_programs
key=$(stat -c %i "$root/etc/.KAVEXUPS")
step "upgrade" check_upgrade
step "remove and install" check_remove
step "init script" check_init_script
step "init script under systemd" check_init_script_handing_over
step "purge" check_purge
step "install again" check_install_again
