#!/usr/bin/env bash
# scripts/sanitize.sh thread|address [REGEX]: builds everything under the thread sanitizer, or the address
# and undefined-behaviour sanitizers, in build-thread or build-address, and runs the tests whose names
# match REGEX (all of them when there is none).
. "$(dirname "$0")/lib/common.sh"

case ${1:-} in
    thread) sanitizer=thread ;;
    address) sanitizer=address,undefined ;;
    *)
        printf 'usage: %s thread|address [REGEX]\n' "$0" >&2
        exit 2
        ;;
esac

# The first finding fails the test that met it.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

scripts/build.sh "build-$1" -DCORVALENT_SANITIZER="$sanitizer" -DCMAKE_BUILD_TYPE=Debug
say "running the tests under the $1 sanitizer"
ctest --test-dir "build-$1" --output-on-failure --no-tests=error --parallel "$(nproc)" --tests-regex "${2:-.}"
