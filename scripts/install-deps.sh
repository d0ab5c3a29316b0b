#!/usr/bin/env bash
# Installs what building, checking and testing need on a bare Debian 12. Does nothing, and needs no
# network, when all of it is there.
. "$(dirname "$0")/lib/common.sh"
. scripts/lib/packages.sh

PACKAGES=(
    # Building
    g++ cmake ninja-build pkg-config
    libpoco-dev libjsoncpp-dev libboost-dev libssl-dev libcurl4-openssl-dev libsqlite3-dev libncurses-dev
    libcli11-dev libcpp-httplib-dev
    # Checking
    clang libclang-rt-dev llvm clang-format clang-tidy cppcheck git
    # Testing
    libgtest-dev libgmock-dev groff-base curl jq openssl sqlite3 procps python3 python3-prometheus-client
    libvterm-dev ncurses-base
    # Packaging, and testing the package (systemd only for systemd-analyze and systemctl)
    dpkg-dev file lintian man-db bash-completion zsh systemd strace
)

install_packages "${PACKAGES[@]}"
