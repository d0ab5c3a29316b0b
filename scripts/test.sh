#!/usr/bin/env bash
# Everything that must hold before a change is taken in: installs what is needed, builds in build/, checks
# the sources, runs the tests under the sanitizers (in build-address/ and build-thread/), the fuzzers (in
# build-fuzz/, for FUZZ_SECONDS each, a minute unless told otherwise, and from FUZZ_SEED on, so that a change is
# not refused for what another one brought in and nobody has met yet) and then every test as shipped. Ends with
# the summary of the tests; the exit status is 0 only when every one of them ran and passed.
. "$(dirname "$0")/lib/common.sh"
. scripts/lib/suite.sh

scripts/install-deps.sh
scripts/build.sh build
scripts/lint.sh build
scripts/sanitize.sh address
scripts/sanitize.sh thread
FUZZ_SEED=${FUZZ_SEED:-1} scripts/fuzz.sh "${FUZZ_SECONDS:-60}"
say "running the tests"
run_suite build
