# Sourced by the scripts beside it: what each of them needs before it can start.
# shellcheck shell=bash

# Packages for the build itself; scripts add their own.
# shellcheck disable=SC2034 # used by the scripts that source this
readonly BUILD_PACKAGES=(g++ cmake ninja-build android-libbase-dev)

# install_packages NAME...: installs those that are missing, and says so.
install_packages() {
    local missing=() package
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed* ]] ||
            missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    local as_root=()
    ((EUID == 0)) || as_root=(sudo)
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
