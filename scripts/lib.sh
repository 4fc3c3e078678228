# Sourced by the scripts beside it: what each of them needs before it can start.
# shellcheck shell=bash

# Packages for the build itself; scripts add their own.
# shellcheck disable=SC2034 # used by the scripts that source this
readonly BUILD_PACKAGES=(
    g++ cmake ninja-build android-libbase-dev libcli11-dev libfmt-dev libssl-dev nlohmann-json3-dev)

# What a cross build for 64-bit Arm needs besides.
# shellcheck disable=SC2034
readonly ARM64_PACKAGES=(
    g++-aarch64-linux-gnu android-libbase-dev:arm64 libfmt-dev:arm64 libssl-dev:arm64)

as_root() {
    if ((EUID == 0)); then "$@"; else sudo "$@"; fi
}

# install_packages NAME...: installs those that are missing, and says so. A name may end in the
# architecture (NAME:arm64), which is made known to the package system if need be.
install_packages() {
    local missing=() package native
    native=$(dpkg --print-architecture)
    for package in "$@"; do
        [[ $package == *:* ]] || package+=:$native
        dpkg-query -W -f '${Package}:${Architecture} ${db:Status-Status}\n' "${package%:*}" 2>/dev/null |
            grep -Eq ":(${package#*:}|all) installed$" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    echo "Installing: ${missing[*]}"
    [[ ${missing[*]} != *:arm64* ]] || as_root dpkg --add-architecture arm64
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
