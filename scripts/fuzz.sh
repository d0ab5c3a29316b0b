#!/usr/bin/env bash
# scripts/fuzz.sh [SECONDS [NAME…]]: builds the fuzzers with clang in build-fuzz and runs each, or those that are
# named, for SECONDS (60 unless told otherwise), as many at a time as there are processors. Each begins with what
# is committed in tests/fuzz/corpus/NAME and with what earlier runs have left in build-fuzz/corpus/NAME. Ends
# with a table; the exit status is 0 only when no fuzzer found anything. What it found is shown and kept in
# build-fuzz/findings. docs/architecture.md says what to do with it. FUZZ_SEED, when it is set, is where the random
# numbers begin: the same build from the same corpus then tries the same inputs.
. "$(dirname "$0")/lib/common.sh"

seconds=${1:-60}
shift || true
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    printf 'usage: scripts/fuzz.sh [SECONDS [NAME…]]\n' >&2
    exit 2
fi

CXX=clang++ BUILD_TARGETS=fuzzers scripts/build.sh build-fuzz -DCORVALENT_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1"

if (($# == 0)); then
    for program in build-fuzz/fuzzers/*; do
        set -- "$@" "$(basename "$program")"
    done
fi
for name in "$@"; do
    [[ -x build-fuzz/fuzzers/$name ]] || fail "there is no fuzzer $name"
    [[ -n $(ls -A "tests/fuzz/corpus/$name" 2>/dev/null) ]] || fail "tests/fuzz/corpus/$name is empty"
done

export BUILD=$PWD/build-fuzz SOURCE=$PWD/tests/fuzz
mkdir -p "$BUILD/logs" "$BUILD/findings"
# The files that targets work on, in memory where that is possible.
TMPDIR=$(mktemp -d -p "$([[ -d /dev/shm ]] && echo /dev/shm || echo /tmp)" corvalent-fuzz-XXXXXX)
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

# Larger inputs find nothing that smaller ones do not, and cost time.
max_bytes() {
    case $1 in
    fanotify_events | proc_events) echo 1024 ;;
    *) echo 8192 ;;
    esac
}

# fuzz NAME SECONDS: everything that the fuzzer says goes to its log, its exit status to a file for the table.
fuzz() {
    local name=$1 options=()
    [[ ! -f $SOURCE/$name.dict ]] || options+=("-dict=$SOURCE/$name.dict")
    mkdir -p "$BUILD/corpus/$name"
    "$BUILD/fuzzers/$name" -max_total_time="$2" -max_len="$(max_bytes "$name")" -timeout=25 -rss_limit_mb=2048 \
        -malloc_limit_mb=1024 -seed="${FUZZ_SEED:-0}" -print_final_stats=1 -artifact_prefix="$BUILD/findings/$name-" "${options[@]}" \
        "$BUILD/corpus/$name" "$SOURCE/corpus/$name" >"$BUILD/logs/$name.log" 2>&1
    echo $? >"$BUILD/logs/$name.status"
}
export -f fuzz max_bytes

say "fuzzing for $seconds s each: $*"
rm -f "$BUILD"/logs/*.status
printf '%s\n' "$@" | xargs --max-procs="$(nproc)" --replace bash -c 'fuzz "$1" "$2"' fuzz {} "$seconds"

# figure WORD NAME: the number behind WORD in the last line of progress, "#N DONE cov: N ft: N …".
figure() {
    sed -nE "s/^#[0-9]+.* $1: ([0-9]+).*/\1/p" "$BUILD/logs/$2.log" | tail -1
}

# final WORD NAME: one of the statistics at the end.
final() {
    sed -n "s/^stat::$1: *//p" "$BUILD/logs/$2.log"
}

found=()
row='%-18s %10s %8s %8s %9s %6s\n'
# shellcheck disable=SC2059
printf "$row" fuzzer runs 1/s edges features MiB
for name in "$@"; do
    # shellcheck disable=SC2059
    printf "$row" "$name" "$(final number_of_executed_units "$name")" "$(final average_exec_per_sec "$name")" \
        "$(figure cov "$name")" "$(figure ft "$name")" "$(final peak_rss_mb "$name")"
    [[ $(cat "$BUILD/logs/$name.status") == 0 ]] || found+=("$name")
done
for name in "${found[@]}"; do
    say "$name has found something; the end of build-fuzz/logs/$name.log:"
    grep -vE '^#[0-9]|^stat::|NEW_FUNC' "$BUILD/logs/$name.log" | tail -60 >&2
done
if ((${#found[@]})); then
    fail "findings of ${found[*]}, kept in build-fuzz/findings"
fi
say "nothing was found"
