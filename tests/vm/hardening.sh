#!/bin/sh
# Proves that the unit's confinement breaks nothing that the daemon does, and that it is there. Run as root in the
# virtual machine while the unit runs; prints "ok NAME" or "not ok NAME: why" for each proof and ends with status 1 if
# one failed. What the daemon's programs do is done in a service of its own with the unit's directives.
directives=$(systemctl show voltariad -p CapabilityBoundingSet -p SystemCallFilter -p SystemCallErrorNumber \
    -p RestrictAddressFamilies -p RestrictRealtime -p LockPersonality | sed 's/^/--property=/')
work=$(mktemp -d /run/hardening.XXXXXX)
failed=0

finish() {
    [ -z "${session:-}" ] || kill $session 2>/dev/null # two processes
    rm -rf "$work"
    exit "$failed"
}
trap finish EXIT

# confined COMMAND: as a child of the daemon would run it.
confined() {
    (
        IFS='
'
        # One directive a line; they have blanks.
        # shellcheck disable=SC2086
        exec systemd-run --quiet --wait --pipe --collect $directives /bin/sh -c "$1"
    )
}

# proof NAME COMMAND...
proof() {
    name=$1
    shift
    if "$@" >"$work/said" 2>&1; then
        echo "ok $name"
    else
        echo "not ok $name: $(tr '\n' ' ' <"$work/said")"
        failed=1
    fi
}

refused() {
    if "$@"; then return 1; fi
}

# Until COMMAND succeeds, at most 30 s.
soon() {
    tries=300
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.1
    done
}

# ---- the daemon itself

agent() {
    systemctl show -p MainPID --value voltariad
}

holds() {
    readlink /proc/"$1"/fd/* | grep -q "^$2"
}

ups_process() {
    pgrep -P "$(agent)" -x voltariad 2>/dev/null || cat "/proc/$(agent)/task/$(agent)/children"
}

serial_port_open() {
    for process in $(ups_process); do
        holds "$process" /dev/ttyS && return 0
    done
    return 1
}

filtered() {
    grep -q '^Seccomp:[[:space:]]*2' "/proc/$(agent)/status"
}

# A request passes the shared block and the file lock.
request_taken() {
    voltariactl reload
}

# ---- what it runs

# Somebody is logged in on a terminal; what that terminal shows is in the file.
log_in() {
    # Kept open: at its end the session would end.
    mkfifo "$work/keys"
    sleep 300 >"$work/keys" &
    session=$!
    setsid script -q -f -c 'login -f root' "$work/terminal" <"$work/keys" >/dev/null 2>&1 &
    session="$session $!"
    soon terminal_of_root
}

terminal_of_root() {
    who | grep -q '^root  *pts/'
}

shown() {
    soon grep -q "$1" "$work/terminal"
}

wall_reaches() {
    confined 'echo wall-of-the-proof | SHELL=/bin/false /usr/bin/wall' && shown wall-of-the-proof
}

write_reaches() {
    tty=$(who | sed -n 's/^root  *\(pts[^ ]*\).*/\1/p' | head -n 1)
    confined "echo write-of-the-proof | /usr/bin/write root $tty" && shown write-of-the-proof
}

# A mailer that runs under its own group and drops the mail where only that group may.
mailer_drops() {
    mkdir -p /run/hardening.mail && chown root:mail /run/hardening.mail && chmod 2770 /run/hardening.mail
    install -o root -g mail -m 2755 "$(readlink -f /usr/bin/touch)" "$work/drop"
    # /run is mounted without the right to change identity.
    cp -p "$work/drop" /usr/local/bin/hardening-drop && chown root:mail /usr/local/bin/hardening-drop &&
        chmod 2755 /usr/local/bin/hardening-drop
    confined 'setpriv --reuid nobody --clear-groups --regid nogroup /usr/local/bin/hardening-drop /run/hardening.mail/one'
    status=$?
    [ -e /run/hardening.mail/one ] || status=1
    rm -rf /run/hardening.mail /usr/local/bin/hardening-drop
    return "$status"
}

shutdown_is_taken() {
    confined '/sbin/shutdown -h -t0 600' || return 1
    test -e /run/systemd/shutdown/scheduled
    status=$?
    shutdown -c
    return "$status"
}

# What a command does to the machine's mounts is done for all.
unmounts_for_all() {
    mkdir "$work/disk" && mount -t tmpfs disk "$work/disk" || return 1
    confined "umount $work/disk"
    if mountpoint -q "$work/disk"; then
        umount "$work/disk"
        return 1
    fi
}

writes_anywhere() {
    confined 'for d in / /etc /usr /root /tmp /var /boot; do f=$d/hardening.proof; : >$f && rm $f || exit 1; done'
}

stops_a_service() {
    systemd-run --quiet --unit=hardening-proof sleep 300 && confined 'systemctl stop hardening-proof' &&
        refused systemctl -q is-active hardening-proof
}

# One that can be loaded outside.
module_is_refused() {
    modprobe dummy && modprobe -r dummy && refused confined 'modprobe dummy'
}

proof "the unit runs" systemctl -q is-active voltariad
proof "the daemon is confined" filtered
proof "serial port is open" serial_port_open
proof "console is open" holds "$(agent)" /dev/console
proof "debug output is written" test -s /.erra
proof "request through the shared block" request_taken
proof "TCP inside" confined 'voltaria status --host 127.0.0.1'
proof "password file" confined 'getent shadow root'
if log_in; then
    proof "wall reaches a terminal" wall_reaches
    proof "write reaches a terminal" write_reaches
else
    echo "not ok log in on a terminal: $(tr '\n' ' ' <"$work/terminal")"
    failed=1
fi
proof "mailer with a group of its own" mailer_drops
proof "shutdown is taken by the login manager" shutdown_is_taken
proof "a command writes anywhere" writes_anywhere
proof "a command unmounts for all" unmounts_for_all
proof "a command becomes another user" confined 'su nobody -s /bin/sh -c true'
proof "a command stops a service" stops_a_service
proof "a command uses namespaces" confined 'unshare --mount --net --pid --fork true'
proof "setting the clock is refused" refused confined 'date -s @$(date +%s)'
proof "kernel modules are refused" module_is_refused
proof "what is taken is to be had from systemd-run" confined 'systemd-run --quiet --wait date -s @$(date +%s)'
