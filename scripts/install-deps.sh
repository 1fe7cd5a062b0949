#!/bin/bash
# Installs the Debian packages that building and testing need, when missing:
# the host toolchain and GoogleTest, -m32 support, and for the armhf preset the
# ARM hard-float cross compiler and qemu-user to run its test programs, and for
# the ARM system stage (tests/arm-system/run.sh) qemu-system-arm and the armhf
# packages its guest is made of.
#
# -m32 support comes from the versioned multilib packages of the host's GCC
# (12 on Debian 12): the unversioned gcc-multilib conflicts with every Debian
# cross compiler, and all it adds is the /usr/include/asm link, which the m32
# preset replaces with -idirafter /usr/include/x86_64-linux-gnu.
set -euo pipefail
packages=(cmake ninja-build g++ gcc pkg-config googletest libgtest-dev util-linux binutils file
          gcc-12-multilib g++-12-multilib
          gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user
          qemu-system-arm cpio
          libcli11-dev nlohmann-json3-dev scdoc
          clang-14 libclang-rt-14-dev valgrind abigail-tools
          debhelper dpkg-dev fakeroot lintian
          strace libbenchmark-dev python3 python3-pytest python3-pip dh-python man-db systemd)
# An index that fails to update (a mirror in mid-sync) leaves the old lists in
# use; only a package that cannot be had fails.
update() { $sudo apt-get update -qq || echo "install-deps: apt-get update reported errors, going on" >&2; }
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The ARM system stage boots Debian's armhf kernel with an initramfs made of
# these armhf packages (not installed: fetched with apt-get download and
# unpacked by tests/arm-system/run.sh). They are kept in SHM_ARM_CACHE
# (default ~/.cache/libshm/arm-system/debs), so a second run downloads nothing.
# libtinfo6 is bash's one library beyond the C runtime; util-linux brings the
# unshare that tests/sandbox.sh needs (busybox's has no --kill-child).
arm_cache=${SHM_ARM_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/libshm/arm-system}/debs
arm_packages=(busybox-static bash libtinfo6 util-linux)
arm_missing=()
for package in "${arm_packages[@]}"; do
    compgen -G "$arm_cache/${package}_*_armhf.deb" >/dev/null || arm_missing+=("$package:armhf")
done
compgen -G "$arm_cache/linux-image-*-armmp_*_armhf.deb" >/dev/null || arm_missing+=(kernel)
if [ ${#arm_missing[@]} -gt 0 ]; then
    if ! dpkg --print-foreign-architectures | grep -qx armhf; then
        $sudo dpkg --add-architecture armhf
        update
    fi
    # The kernel's own package, by the name the armmp meta-package depends on.
    armmp_kernel() {
        apt-cache depends linux-image-armmp:armhf 2>/dev/null |
            sed -n 's/^ *Depends: \(linux-image-[^ :]*-armmp\).*/\1/p' | head -1
    }
    kernel=$(armmp_kernel)
    [ -n "$kernel" ] || { update; kernel=$(armmp_kernel); }
    [ -n "$kernel" ] || { echo "install-deps: no armhf armmp kernel package found" >&2; exit 1; }
    arm_missing=("${arm_missing[@]/#kernel/$kernel:armhf}")
    echo "downloading to $arm_cache: ${arm_missing[*]}"
    mkdir -p "$arm_cache"
    # apt-get download writes into the current directory, as the invoking user.
    (cd "$arm_cache" && apt-get download -qq "${arm_missing[@]}")
fi
