#!/usr/bin/env bash
# bench/preset_build.sh [BUILD_DIR] [ROUNDS]: how long `corvalentctl preset build` takes for everything that
# this machine's package database lists, beside what it cannot be faster than, measured in the same rounds:
#
#     cat          the same files read, nothing else
#     openssl      the same files read and digested by the library that the agent uses, too
#     sha256sum    the same by coreutils, which may lack the processor's own instructions for it
#
# These run one process a core, 32 files a process, and take as much of a file as the agent does (10 MiB at
# most). Rounds alternate; all files are in the page cache after the first look. Prints least, median and
# greatest time of each, and the ratios of the medians.
. "$(dirname "$0")/../scripts/lib/common.sh"

build_dir=${1:-build}
rounds=${2:-5}
ctl=$PWD/$build_dir/root/bin/corvalentctl
command -v openssl >/dev/null || fail "openssl, the program, is missing: apt-get install openssl"
[[ -x $ctl ]] || fail "$ctl is missing: run scripts/build.sh first"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The files that the list is made of: those of one digest once, so a little less is read than for the list.
"$ctl" preset build --json -o "$work/preset.json" >"$work/summary.json"
jq -j '.process_info[] | .filename + "\u0000"' "$work/preset.json" >"$work/files"
# What is larger than the agent reads is read by head.
limit=10485760
declare -a small=() large=()
while IFS= read -r -d '' file; do
    if (($(stat -c %s "$file") > limit)); then large+=("$file"); else small+=("$file"); fi
done <"$work/files"
printf '%s\0' "${small[@]}" >"$work/small"

read_all() {
    xargs -0 -a "$work/small" -P "$(nproc)" -n 32 cat >/dev/null
    ((${#large[@]} == 0)) || head -q -c "$limit" "${large[@]}" >/dev/null
}

# digest_all COMMAND…: of each file.
digest_all() {
    xargs -0 -a "$work/small" -P "$(nproc)" -n 32 "$@" >/dev/null
    local file
    for file in "${large[@]}"; do head -c "$limit" "$file" | "$@"; done >/dev/null
}

build_all() {
    "$ctl" preset build -o "$work/preset.json" >/dev/null
}

# measure NAME COMMAND…: one run in milliseconds, added to the times of that name.
measure() {
    local name=$1 begin end
    shift
    begin=$(date +%s%N)
    "$@"
    end=$(date +%s%N)
    echo "$(((end - begin) / 1000000))" >>"$work/$name.times"
}

# show NAME: "least median greatest" of its times.
show() {
    sort -n "$work/$1.times" | awk -v name="$1" '
        { times[NR] = $1 }
        END { printf "%-14s %8d %8d %8d\n", name, times[1], times[int((NR + 1) / 2)], times[NR] }'
}

median() {
    sort -n "$work/$1.times" | awk '{ times[NR] = $1 } END { print times[int((NR + 1) / 2)] }'
}

jq -r '"== \(.looked) files looked at, \(.executables) executables, \(.digested_bytes / 1048576 | floor) MiB"' \
    "$work/summary.json"
say "$(nproc) cores, $(uname -sr), ${#large[@]} files larger than the limit, $rounds rounds"
for ((round = 0; round < rounds; ++round)); do
    measure cat read_all
    measure openssl digest_all openssl dgst -sha256
    measure sha256sum digest_all sha256sum
    measure preset_build build_all
done

printf '%-14s %8s %8s %8s\n' "ms" least median greatest
for name in cat openssl sha256sum preset_build; do
    show "$name"
done
for name in cat openssl sha256sum; do
    awk -v build="$(median preset_build)" -v floor="$(median "$name")" -v name="$name" \
        'BEGIN { printf "medians: preset build / %s = %.2f\n", name, build / floor }'
done
