#!/usr/bin/env bash
# Installs what building, checking and testing need on a bare Debian 12. Does nothing, and needs no
# network, when all of it is there.
. "$(dirname "$0")/lib/common.sh"

PACKAGES=(
    # Building
    g++ cmake ninja-build pkg-config
    libpoco-dev libjsoncpp-dev libboost-dev libssl-dev libcurl4-openssl-dev libsqlite3-dev libncurses-dev
    libcli11-dev libcpp-httplib-dev
    # Checking
    clang clang-format clang-tidy git
    # Testing
    libgtest-dev libgmock-dev groff-base curl jq openssl sqlite3 procps python3 python3-prometheus-client
    libvterm-dev ncurses-base
    # Measuring
    libbenchmark-dev
    # Packaging, and testing the package (systemd only for systemd-analyze and systemctl)
    dpkg-dev file lintian man-db bash-completion zsh systemd strace
)

is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

missing=()
for package in "${PACKAGES[@]}"; do
    is_installed "$package" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    command -v sudo >/dev/null || fail "not root, and no sudo, to install: ${missing[*]}"
    as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
run_quietly "fetching the lists of packages" "${as_root[@]}" apt-get -q update
run_quietly "installing ${missing[*]}" \
    "${as_root[@]}" apt-get -q install --yes --no-install-recommends "${missing[@]}"
