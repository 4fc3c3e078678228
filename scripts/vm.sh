# Sourced, after lib.sh, by what runs the test machine: a kernel of Debian's and the project's
# programs under emulation. Nothing of it is installed; its parts are kept in the user's cache.
# shellcheck shell=bash

# Makes apt-get and apt-cache speak of another release and architecture, from the archive that
# this machine uses. The lists lie in the cache folder; nothing of the machine's own set-up changes.
use_release() {
    local site lists=$cache/lists-$debian-$1
    # shellcheck disable=SC2016 # apt's own variable
    site=$(apt-get indextargets --format '$(REPO_URI)' \
        'Origin: Debian' 'Label: Debian' 'Created-By: Packages' | sed -n 1p)
    mkdir -p "$lists"/{lists,cache/archives}/partial
    : >"$lists/status"
    echo "deb $site $1 main" >"$lists/sources.list"
    cat >"$lists/apt.conf" <<END
Dir::State "$lists"; Dir::State::status "$lists/status"; Dir::Cache "$lists/cache";
Dir::Etc::sourcelist "$lists/sources.list"; Dir::Etc::sourceparts "/dev/null";
APT::Architecture "$debian"; APT::Architectures { "$debian"; }; APT::Sandbox::User "root";
END
    export APT_CONFIG=$lists/apt.conf
    apt-get update -qq
}

# take_apart PACKAGE...: puts their files into the folder parts.
take_apart() {
    local package
    mkdir parts
    (cd parts && apt-get download -qq "$@")
    for package in parts/*.deb; do dpkg -x "$package" parts; done
}

# cached FOLDER FUNCTION WORD...: calls the function in that folder, unless it was made with the
# same words before.
cached() {
    [[ $(cat "$1/made" 2>&1) != "${*:2}" ]] || return 0
    echo "Taking packages apart in $1"
    rm -rf "$1" && mkdir -p "$1"
    (
        cd "$1" || exit
        "${@:2}"
        rm -r parts
        echo "${*:2}" >made
    )
}

# What the guest is made of besides the worker: packages of this machine's release.
make_userland() {
    local triplet=$1
    use_release "$(source /etc/os-release && echo "$VERSION_CODENAME")"
    take_apart "${@:2}"
    mkdir -p root/{bin,dev,lib,proc,sys}
    cp parts/{bin/busybox,bin/keyctl,usr/bin/chattr,usr/bin/ecryptfs-add-passphrase} root/bin
    cp parts/usr/bin/{get,set}fattr root/bin
    cp -a parts/{,usr/}lib/"$triplet"/*.so* parts/usr/lib/"$triplet"/android/*.so* root/lib
    ln -s lib root/lib64 # where the loader of one of the two is looked for
}

# A kernel, and a list of what to load, in order, for each wanted module. Not every kernel has each
# of them: some are built in, some are gone.
make_kernel() {
    local packages version
    if ! use_release "$release" || ! packages=$(
        apt-cache depends --recurse --important "linux-image-$debian" 2>/dev/null |
            grep -E '^linux-(image|binary|modules)-[0-9]'
    ); then
        echo "ecryptfs $architecture $release: SKIPPED, the archive offers no such kernel now"
        exit 77
    fi
    mapfile -t packages <<<"$packages"
    take_apart "${packages[@]}"
    find parts -name 'vmlinuz*' -type f -exec cp {} vmlinuz \;
    [[ -d parts/lib ]] || ln -s usr/lib parts/lib
    version=$(ls parts/lib/modules)
    depmod -b parts "$version" 2>/dev/null # it misses lists that not every package has
    mkdir lib
    for module in "$@"; do
        modprobe -d parts -S "$version" --show-depends "$module" 2>/dev/null |
            awk '$1 == "insmod" { print $2 }' >paths || true
        xargs -r cp -t lib <paths
        sed "s|.*/|$module /lib/|; s/[.]xz$//" paths
    done >modules
    find lib -name '*.xz' -exec unxz {} +
    echo "$version" >version
}

# build_machine ARCHITECTURE RELEASE INIT: builds the worker and its host, and a machine that runs
# the script INIT with them. Its kernel is then "$kernel/vmlinuz", its memory disk "$work/initrd".
# Ends the shell with status 77 if the archive offers no such kernel.
build_machine() {
    architecture=$1 release=$2
    local preset triplet userland
    local packages=("${BUILD_PACKAGES[@]}" cpio dosfstools kmod libgmock-dev xz-utils)
    case $architecture in
        x86_64)
            debian=amd64 preset=release triplet=x86_64-linux-gnu
            packages+=(qemu-system-x86)
            ;;
        arm64)
            debian=arm64 preset=arm64 triplet=aarch64-linux-gnu
            packages+=(qemu-system-arm qemu-user-static "${ARM64_PACKAGES[@]}" libgmock-dev:arm64)
            ;;
    esac
    install_packages "${packages[@]}"
    PATH=$PATH:/usr/sbin:/sbin

    echo "Building the worker and its host (preset $preset)"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target VaultMover vaultctl >/dev/null

    cache=${XDG_CACHE_HOME:-$HOME/.cache}/vaultmover
    userland=$cache/$debian kernel=$cache/$debian-$release
    cached "$userland" make_userland "$triplet" busybox-static keyutils ecryptfs-utils \
        libecryptfs1 libkeyutils1 libnss3 libnspr4 libsqlite3-0 libc6 libgcc-s1 libstdc++6 \
        libfmt9 libssl3 android-libbase android-liblog e2fsprogs libext2fs2 libcom-err2 \
        attr libattr1
    cached "$kernel" make_kernel virtio_pci virtio_blk ext4 crc32c f2fs xfs btrfs ecb cbc \
        aes_generic ecryptfs loop vfat nls_cp437 nls_ascii

    work=build/$preset/${3##*/}-$release
    rm -rf "$work" && mkdir -p "$work"
    cp -a "$userland/root" "$work"
    cp "$kernel"/lib/* "$work/root/lib" && cp "$kernel/modules" "$work/root"
    cp "build/$preset/bin/"{VaultMover,vaultctl} "$work/root/bin"
    cp "$3" "$work/root/init"
    truncate -s 16M "$work/root/fat.img" && mkfs.vfat "$work/root/fat.img" >/dev/null
    (cd "$work/root" && find . | cpio --quiet -o -H newc) >"$work/initrd"
    echo "The machine's kernel is $(<"$kernel/version")"
}
