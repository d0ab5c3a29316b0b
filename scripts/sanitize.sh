#!/usr/bin/env bash
# scripts/sanitize.sh address|thread [REGEX]: builds everything with clang under the address and
# undefined-behaviour sanitizers, or the thread sanitizer, in build-address or build-thread, and runs the unit
# and system tests whose names match REGEX (all of them when there is none). Ends with ctest's summary; fails
# when a test failed or was left out, and when any process of a test, the agent's own included, had a finding.
#
# Clang compiles both, so that the same build checks the locks that the sources write down (-Wthread-safety).
. "$(dirname "$0")/lib/common.sh"
. scripts/lib/suite.sh

case ${1:-} in
    address) sanitizer=address,undefined ;;
    thread) sanitizer=thread ;;
    *)
        printf 'usage: %s address|thread [REGEX]\n' "$0" >&2
        exit 2
        ;;
esac
build_dir=build-$1

scripts/build.sh "$build_dir" -DCORVALENT_SANITIZER="$sanitizer" -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only"

# The first finding ends the process that it is found in, and is written to a file of its own: the test might
# not look at what a process of its says, nor at how it ends.
findings=$PWD/$build_dir/findings
rm -rf "$findings"
mkdir -p "$findings"
common=log_path=$findings/report:halt_on_error=1
export ASAN_OPTIONS=$common:detect_stack_use_after_return=1:strict_string_checks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}
export UBSAN_OPTIONS=$common:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}
export TSAN_OPTIONS=$common:second_deadlock_stack=1${TSAN_OPTIONS:+:$TSAN_OPTIONS}

# What goes wrong once in two hundred rounds the ordinary build finds.
export CORVALENT_FAULT_ROUNDS=${CORVALENT_FAULT_ROUNDS:-20}
# Most tests wait most of the time, and the limits of their time are wide here.
export SUITE_JOBS=${SUITE_JOBS:-$((2 * $(nproc)))}

say "running the tests under the $1 sanitizer"
status=0
run_suite "$build_dir" --tests-regex "${2:-.}" || status=$?
# A process that a test kills while it looks for leaks at its end may say this and no more; it is no finding.
killed='^==[0-9]+==Unable to get registers from thread [0-9]+\.$'
for report in "$findings"/*; do
    [[ -e $report ]] || continue
    cat "$report"
    ! grep -qvE "$killed" "$report" || status=1
done
exit "$status"
