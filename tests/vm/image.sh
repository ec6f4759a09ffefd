#!/usr/bin/env bash
# Makes the disk of the virtual machine: a minimal Debian 12 with a kernel, and in it the package, installed as a user
# would, with whatever it depends on and nothing else. tests/vm/run.sh calls it.
#   image.sh PACKAGE.deb DIRECTORY
# leaves DIRECTORY/{disk.img,vmlinuz,initrd.img,installed}; what is there already and was made of the same is kept.
# As an ordinary user it works in a user namespace, with the ids of /etc/subuid.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
package=$(realpath "$1")
mkdir -p "$2"
out=$(cd "$2" && pwd)

suite=bookworm
base_packages=systemd-sysv,linux-image-cloud-amd64
# The account that the test logs in with; both are known to story.py.
account=keeper password=fourteen-volts

# With mounts of its own, which are gone when it ends, however it ends.
if [ -z "${VM_IMAGE_INSIDE:-}" ]; then
    as=()
    [ "$(id -u)" -eq 0 ] || as=(--map-root-user --map-auto)
    exec env VM_IMAGE_INSIDE=1 PATH="$PATH:/usr/sbin:/sbin" \
        unshare "${as[@]}" --mount --pid --fork --kill-child --mount-proc "${BASH_SOURCE[0]}" "$package" "$out"
fi

# The machine's own mirror of Debian 12, as apt knows it.
mirror() {
    apt-get indextargets --format '$(RELEASE) $(COMPONENT) $(REPO_URI)' 'Identifier: Packages' |
        awk -v suite="$suite" '$1 == suite && $2 == "main" { print $3; exit }'
}

# The name under which is kept what was made of these files, or of standard input.
fingerprint() {
    cat "$@" | sha256sum | cut -c1-16
}

# A user namespace cannot make device nodes; there, debootstrap borrows the machine's own as it does in containers.
bootstrap() {
    if grep -q ' 0 *4294967295' /proc/self/uid_map; then
        debootstrap "$@"
    else
        env container=lxc debootstrap "$@"
    fi
}

# The package's own start belongs to the boot, not to the installation into a directory.
nothing_starts() {
    printf '#!/bin/sh\nexit 101\n' >"$1/usr/sbin/policy-rc.d"
    chmod 755 "$1/usr/sbin/policy-rc.d"
}

make_base() {
    local root=$1 url
    url=$(mirror)
    if [ -z "$url" ]; then
        echo "apt on this machine knows no mirror of Debian 12 ($suite, main): the guest cannot be built here"
        exit 1
    fi
    bootstrap --variant=minbase --include="$base_packages" "$suite" "$root" "$url"
    rm -f "$root"/var/cache/apt/archives/*.deb
}

# inside ROOT COMMAND...
inside() {
    local root=$1
    shift
    DEBIAN_FRONTEND=noninteractive LC_ALL=C chroot "$root" "$@"
}

names() {
    inside "$1" dpkg-query -W -f '${Package}\n' | sort
}

# How this machine reaches its mirror (a proxy, for instance) holds for the installation, and not for the guest.
install_package() {
    local root=$1 before
    before=$(names "$root")
    nothing_starts "$root"
    mount -t proc proc "$root/proc"
    for device in null zero full random urandom; do
        [ -c "$root/dev/$device" ] && continue
        touch "$root/dev/$device" && mount --bind "/dev/$device" "$root/dev/$device"
    done
    apt-config dump Acquire >"$root/etc/apt/apt.conf.d/00machine"
    cp -L /etc/resolv.conf "$root/etc/resolv.conf"
    cp "$package" "$root/tmp/voltaria.deb"
    inside "$root" apt-get update -q
    inside "$root" apt-get install -y -q --no-install-recommends /tmp/voltaria.deb
    rm -f "$root/usr/sbin/policy-rc.d" "$root/etc/apt/apt.conf.d/00machine" "$root/tmp/voltaria.deb"
    rm -rf "$root"/var/cache/apt/archives/*.deb "$root"/var/lib/apt/lists/*
    umount "$root"/dev/* 2>/dev/null || true
    umount "$root/proc"
    comm -13 <(echo "$before") <(names "$root") | paste -sd ' '
}

# What only the test needs: an address, an account, a journal that outlives the boot, and a way to run commands.
furnish() {
    local root=$1
    echo voltaria-vm >"$root/etc/hostname"
    printf '127.0.0.1 localhost\n127.0.1.1 voltaria-vm\n' >"$root/etc/hosts"
    echo '/dev/vda / ext4 defaults 0 1' >"$root/etc/fstab"
    install -D -m 644 "$here/guest/ethernet.network" "$root/etc/systemd/network/ethernet.network"
    install -D -m 755 "$here/guest/vm-shell" "$root/usr/local/sbin/vm-shell"
    install -D -m 644 "$here/guest/vm-shell.service" "$root/etc/systemd/system/vm-shell.service"
    install -D -m 755 "$here/hardening.sh" "$root/usr/local/sbin/hardening.sh"
    mkdir -p "$root/var/log/journal"
    inside "$root" systemctl -q enable systemd-networkd vm-shell
    inside "$root" systemctl -q mask serial-getty@hvc0 apt-daily.timer apt-daily-upgrade.timer e2scrub_reap
    inside "$root" useradd -m -s /bin/bash "$account"
    printf '%s:%s\n' "$account" "$password" | inside "$root" chpasswd
}

make_disk() {
    local root=$1
    furnish "$root"
    cp -L "$root"/boot/vmlinuz-* "$out/vmlinuz"
    cp -L "$root"/boot/initrd.img-* "$out/initrd.img"
    # Whoever runs the test, not only root, has to read them.
    chmod 644 "$out/vmlinuz" "$out/initrd.img"
    rm -rf "$root"/dev/*
    rm -f "$out/disk.new"
    truncate -s 1500M "$out/disk.new"
    mke2fs -q -t ext4 -L voltaria-vm -d "$root" "$out/disk.new"
    mv "$out/disk.new" "$out/disk.img"
}

work=$out/work
trap 'rm -rf --one-file-system "$work"' EXIT
rm -rf --one-file-system "$work"
mkdir "$work"
chmod 755 "$work"

base=$out/base-$(echo "$suite $base_packages $(dpkg --print-architecture)" | fingerprint).tar
made_of=$(fingerprint "$package" "$here"/image.sh "$here"/hardening.sh "$here"/guest/*)
if [ -s "$base" ] && [ -s "$out/disk.img" ] && [ "$(cat "$out/made-of" 2>/dev/null)" = "$made_of" ]; then
    echo "the disk made of this package before is still good"
    exit 0
fi

rm -f "$out/made-of"
if [ ! -s "$base" ]; then
    make_base "$work"
    tar -C "$work" --numeric-owner --exclude='./dev/*' -cf "$base.new" .
    mv "$base.new" "$base"
else
    tar -C "$work" --numeric-owner -xpf "$base"
fi
install_package "$work" | tee "$out/install.log"
tail -n 1 "$out/install.log" >"$out/installed"
make_disk "$work"
echo "$made_of" >"$out/made-of"
