# For scripts that run the tests; sourced after common.sh.

# run_suite BUILD_DIR [CTEST_OPTION…]: runs the tests of a build, ends with ctest's summary, and fails when one
# of them failed or was left out. SUITE_JOBS: how many at a time, as many as there are processors unless told
# otherwise.
run_suite() {
    local build_dir=$1
    local summary=$build_dir/Testing/summary.log
    mkdir -p "$build_dir/Testing"
    ctest --test-dir "$build_dir" --output-on-failure --no-tests=error --parallel "${SUITE_JOBS:-$(nproc)}" "${@:2}" |
        tee "$summary" || return 1
    # ctest counts a test that skipped itself, or that is disabled, as no failure.
    if grep -Eq '\*\*\*(Skipped|Not Run)|The following tests did not run' "$summary"; then
        printf 'tests were left out: this machine lacks something that they need, see the list above\n' >&2
        return 1
    fi
}
