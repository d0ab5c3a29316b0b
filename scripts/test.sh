#!/usr/bin/env bash
# Everything that must hold before a change is taken in: installs what is needed, builds in build/, checks
# the sources, runs every test. Ends with the summary of the tests; the exit status is 0 only when every
# one of them ran and passed.
. "$(dirname "$0")/lib/common.sh"

scripts/install-deps.sh
scripts/build.sh build
scripts/lint.sh build

say "running the tests"
summary=build/Testing/summary.log
mkdir -p build/Testing
ctest --test-dir build --output-on-failure --no-tests=error --parallel "$(nproc)" | tee "$summary"

# ctest counts a test that skipped itself, or that is disabled, as no failure.
if grep -Eq '\*\*\*(Skipped|Not Run)|The following tests did not run' "$summary"; then
    fail "tests were left out: this machine lacks something that they need, see the list above"
fi
