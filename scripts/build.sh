#!/usr/bin/env bash
# scripts/build.sh [BUILD_DIR [CMAKE_OPTION…]]: configures and builds; "build" unless told otherwise.
# BUILD_TARGETS in the environment: what to build, everything unless told otherwise.
. "$(dirname "$0")/lib/common.sh"

build_dir=${1:-build}
options=(-G Ninja "${@:2}")
# A cache saves all of a compilation, but knows nothing of one that reads precompiled headers.
if command -v ccache >/dev/null; then
    options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
else
    options+=(-DCORVALENT_PRECOMPILE=ON)
fi

run_quietly "configuring $build_dir" cmake -S . -B "$build_dir" "${options[@]}"
read -ra targets <<<"${BUILD_TARGETS:-all}"
run_quietly "building $build_dir" cmake --build "$build_dir" --target "${targets[@]}"
