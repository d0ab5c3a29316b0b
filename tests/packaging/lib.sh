# What the scripts of this folder begin with; sourced, not run.
# shellcheck shell=bash disable=SC2034

set -euo pipefail

# ctest's SKIP_RETURN_CODE.
SKIPPED=77

skip() {
    echo "SKIPPED: $*"
    exit $SKIPPED
}

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect WHAT WANTED FOUND
expect() {
    [[ $2 == "$3" ]] || fail "$1: wanted [$2], found [$3]"
}

# find_package FOLDER: the path of the one package there, in PACKAGE.
find_package() {
    local packages=("$1"/corvalent_*.deb)
    [[ -f ${packages[0]} && ${#packages[@]} == 1 ]] || fail "not one package in $1: run cpack there"
    PACKAGE=${packages[0]}
}

# until_true COMMAND…: waits for the command to succeed; fails at the deadline.
until_true() {
    local end=$((SECONDS + 30))
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.05
    done
}
