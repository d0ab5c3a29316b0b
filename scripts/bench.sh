#!/usr/bin/env bash
# scripts/bench.sh [NAME…]: measures the product beside its floors and its peers, every bench or those
# named, and writes bench/RESULTS.md, bench/results.json and bench/plots/. BENCH_ROUNDS is how often each
# is repeated, 7 unless told otherwise. Runs for minutes; the machine should do nothing else meanwhile.
. "$(dirname "$0")/lib/common.sh"
. scripts/lib/packages.sh

BUILD=${BUILD_DIR:-build-bench}
# What is measured against, and what draws. Neither building nor testing needs any of it.
PACKAGES=(libconcurrentqueue-dev libtbb-dev libboost-dev libdpdk-dev fapolicyd gnuplot-nox python3)

# fapolicyd is a peer that the bench starts on a mount of its own. As a service it would judge the whole
# machine, so it is masked before its package can start it.
mask_fapolicyd() {
    local unit=/etc/systemd/system/fapolicyd.service
    if ! is_installed fapolicyd && [[ ! -e $unit && ! -L $unit ]]; then
        mkdir -p "${unit%/*}"
        ln -s /dev/null "$unit"
    fi
}

names=("$@")
if ((${#names[@]} == 0)); then
    for list in bench/*/bench.cmake; do
        names+=("$(basename "$(dirname "$list")")")
    done
fi
for name in "${names[@]}"; do
    [[ -f bench/$name/bench.cmake ]] || fail "there is no bench named $name"
done

scripts/install-deps.sh
mask_fapolicyd
install_packages "${PACKAGES[@]}"
BUILD_TARGETS="${names[*]/#/bench_}" scripts/build.sh "$BUILD" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
    -DCORVALENT_TESTS=OFF -DCORVALENT_BENCH=ON
python3 bench/run.py --rounds "${BENCH_ROUNDS:-7}" --programs "$BUILD/bench" "${names[@]}"
