# Looked at by ./demo and ./check before they begin: a system that they cannot work on is told in one sentence, with the
# command that helps. Sourced; `packages` is the list of what is needed. Every need_ function ends the run with status 1
# when it is not met.

program=./$(basename "$0")
user=$(id -un 2>/dev/null || id -u)

stop_here() {
    printf '%s\n' "$@" >&2
    exit 1
}

missing_packages() {
    local installed package
    installed=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "${packages[@]}" 2>/dev/null) || true
    for package in "${packages[@]}"; do
        [[ $'\n'$installed$'\n' == *$'\n'"$package installed"$'\n'* ]] || printf '%s ' "$package"
    done
}

# need_packages: what is missing is there, or can be installed by this user.
need_packages() {
    local missing
    command -v dpkg-query >/dev/null ||
        stop_here "$program is made for Debian 12, and this system has no dpkg; it needs: ${packages[*]}"
    missing=$(missing_packages)
    if [ -n "$missing" ] && [ "$(id -u)" -ne 0 ]; then
        stop_here "Packages are missing; install them and start $program again:" \
            "    sudo apt-get install -y --no-install-recommends ${missing% }"
    fi
}

# install_packages LOG: as root, whatever is missing; what apt-get prints goes into the file.
install_packages() {
    local log=$1 missing
    read -ra missing <<<"$(missing_packages)"
    [ ${#missing[@]} -gt 0 ] || return 0
    echo "packages    installing ${missing[*]}"
    if ! { apt-get update -q && DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        stop_here "apt-get could not install them: $(grep -m 1 '^E: ' "$log" || tail -n 1 "$log")" \
            "Is there a network, and are package sources named in /etc/apt? All it printed is in $log."
    fi
}

# need_directory DIRECTORY: it can be made and written, with everything in it.
need_directory() {
    local foreign
    if ! mkdir -p "$1" 2>/dev/null && [ ! -d "$1" ] || { [ -d "$1" ] && [ -O "$1" ] && [ ! -w "$1" ]; }; then
        stop_here "$program builds in $PWD/$1, and $user cannot write there; use a copy of your own:" \
            "    cp -r $PWD ~/voltaria && cd ~/voltaria && $program"
    fi
    # What is not the user's own and not to be written either: somebody else has built here. The roots of other
    # systems that the longer checks make have owners of their own.
    foreign=$(find "$1" \( -path "$1/vm" -o -path "$1/package" \) -prune -o ! -type l ! -user "$(id -u)" ! -writable -print -quit 2>/dev/null) || true
    [ -z "$foreign" ] || stop_here "$PWD/$foreign belongs to $(stat -c %U "$foreign"), who has built here before;" \
        "remove what was built, or use a copy of your own:" "    sudo rm -rf $PWD/$1"
}

# fresh_if_moved DIRECTORY: a copy of the tree may have come with what was built elsewhere.
fresh_if_moved() {
    [ -e "$1/CMakeCache.txt" ] || return 0
    grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$1/CMakeCache.txt" || rm -rf "$1/CMakeCache.txt" "$1/CMakeFiles"
}

# need_space DIRECTORY MEGABYTES
need_space() {
    local free
    free=$(df --output=avail -B 1M "$1" | tail -n 1)
    [ "$free" -ge "$2" ] || stop_here "$program needs about $2 MB in $PWD/$1, and ${free// /} MB are free there;" \
        "make room, or start it from a copy on another disk."
}

# one_at_a_time DIRECTORY: whoever else works in it has ended. Let go by closing descriptor 9.
one_at_a_time() {
    exec 9<"$1"
    flock -n 9 && return 0
    echo "another $program is building in this tree; waiting for it"
    flock 9
}

setting() {
    cat "/proc/sys/${1//.//}" 2>/dev/null || true
}

# May this user have private namespaces, in which nothing of the machine is touched?
need_namespaces() {
    local spaces=(--mount --net --ipc --pid --uts --fork) help
    if [ "$(id -u)" -eq 0 ]; then
        unshare "${spaces[@]}" true 2>/dev/null || stop_here \
            "$program works in private namespaces, and here even root may not open any; in a container," \
            "start that with all rights (--privileged), or use the machine itself."
        return 0
    fi
    if ! unshare --user --map-root-user "${spaces[@]}" true 2>/dev/null; then
        help="start it as root"
        if [ "$(setting kernel.unprivileged_userns_clone)" = 0 ]; then
            help="sudo sysctl kernel.unprivileged_userns_clone=1"
        elif [ "$(setting user.max_user_namespaces)" = 0 ]; then
            help="sudo sysctl user.max_user_namespaces=10000"
        elif [ "$(setting kernel.apparmor_restrict_unprivileged_userns)" = 1 ]; then
            help="sudo sysctl kernel.apparmor_restrict_unprivileged_userns=0"
        fi
        stop_here "$program works in private namespaces, and this system gives $user none; allow them," \
            "or start it as root:" "    $help" "    sudo $program"
    fi
    grep -q "^\($user\|$(id -u)\):" /etc/subuid && grep -q "^\($user\|$(id -u)\):" /etc/subgid || stop_here \
        "$program needs ids for the accounts of its sandbox, and /etc/subuid and /etc/subgid lend $user none:" \
        "    sudo usermod --add-subuids 100000-165535 --add-subgids 100000-165535 $user"
}

# need_sandbox PROGRAM: the built launcher can do all its work.
need_sandbox() {
    local said
    said=$("$1" -- true 2>&1) || stop_here \
        "$program works in a private sandbox, and none can be made here (${said##*$'\n'});" \
        "in a container, start that with all rights (--privileged), or use the machine itself."
}
