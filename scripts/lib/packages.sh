# For scripts that install what they need; sourced after common.sh.

is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# install_packages PACKAGE…: installs those that are missing. Does nothing, and needs no network, when all
# of them are there.
install_packages() {
    local package missing=() as_root=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    if ((EUID != 0)); then
        command -v sudo >/dev/null || fail "not root, and no sudo, to install: ${missing[*]}"
        as_root=(sudo)
    fi
    export DEBIAN_FRONTEND=noninteractive
    run_quietly "fetching the lists of packages" "${as_root[@]}" apt-get -q update
    run_quietly "installing ${missing[*]}" \
        "${as_root[@]}" apt-get -q install --yes --no-install-recommends "${missing[@]}"
}
