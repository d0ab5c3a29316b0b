# What every script here begins with; sourced, not run. Puts the caller at the root of the tree.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

# One line of progress.
say() {
    printf '== %s\n' "$*"
}

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# run_quietly WHAT COMMAND…: says what is done, and shows the command's output only when it fails.
run_quietly() {
    local what=$1 output status=0
    shift
    say "$what"
    output=$(mktemp)
    "$@" >"$output" 2>&1 || status=$?
    if ((status != 0)); then
        cat "$output" >&2
    fi
    rm -f "$output"
    return "$status"
}
