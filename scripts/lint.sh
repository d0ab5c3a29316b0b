#!/usr/bin/env bash
# scripts/lint.sh [BUILD_DIR]: what is wrong with the sources without running them: the format of all of
# them, and of what is shipped also what cppcheck, clang-tidy and clang's thread-safety analysis find
# (.clang-format and .clang-tidy say what that is); and whether documents that are made of what the benches
# measured are up to date. BUILD_DIR has been configured; "build" unless told otherwise.
. "$(dirname "$0")/lib/common.sh"

build_dir=${1:-build}
[[ -f $build_dir/compile_commands.json ]] || fail "$build_dir is not configured: run scripts/build.sh first"

say "checking the format"
git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format --dry-run -Werror

say "checking that figures in documents are those measured"
python3 bench/run.py --check

say "checking with cppcheck"
options=(
    --std=c++20 --language=c++ --enable=warning,performance,portability --inline-suppr
    # A text and where it was written: two pointers and a number.
    --suppress=passedByValue:sdk/sdk/ModuleLog.h
)
cppcheck --quiet --error-exitcode=1 -j "$(nproc)" "${options[@]}" -I . -I sdk -I module_whitelist/src \
    agent ctl module_whitelist

# One file a process; each says nothing unless it found something.
tidy() {
    local output
    if ! output=$(clang-tidy --quiet -p "$1" "$2" 2>&1); then
        printf '%s\n' "$output" >&2
        return 1
    fi
}
export -f tidy

say "checking with clang-tidy"
git ls-files -z 'agent/*.cpp' 'ctl/*.cpp' 'module_whitelist/*.cpp' |
    xargs -0 --max-procs="$(nproc)" --replace bash -c 'tidy "$1" "$2"' tidy "$build_dir" {}
