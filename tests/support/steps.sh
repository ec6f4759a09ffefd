# What a long script tells: one line a step. Sourced by scripts that run with `set -euo pipefail`; `log` is the directory
# of their logs, which is there. `step_errors`, when it is set, is a regular expression of the lines that tell what failed.
# shellcheck shell=bash disable=SC2154

# step_log NAME: the file with all that a step printed.
step_log() {
    printf '%s/%s.log' "$log" "${1// /-}"
}

# step NAME COMMAND...: one line, and when the command fails the end of what it printed; then the script ends, with
# status 1. The command runs in a subshell and ends where something in it fails; what it sets is not seen behind it.
step() {
    attempt "$@"
    [ "$step_status" -eq 0 ] || exit 1
}

# attempt NAME COMMAND...: the same, but the script goes on; the command's status is in step_status. In a condition (`if
# attempt`, `attempt ... ||`) the command would run on behind what fails in it.
attempt() {
    local name=$1 from=$SECONDS file
    file=$(step_log "$name")
    shift
    printf '%-34s ' "$name"
    set +e
    (set -e; "$@") >"$file" 2>&1
    step_status=$?
    set -e
    if [ "$step_status" -eq 0 ]; then
        printf 'ok (%d s)\n' $((SECONDS - from))
    else
        printf 'FAILED (%d s), all of it in %s\n' $((SECONDS - from)) "$file"
        { [ -n "${step_errors:-}" ] && grep -aE "$step_errors" "$file" | tail -n 40; } || tail -n 60 "$file"
    fi
}
