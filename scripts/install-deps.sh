#!/bin/bash
# Installs the Debian packages that building and testing need, when missing:
# the host toolchain and GoogleTest, -m32 support, and for the armhf preset the
# ARM hard-float cross compiler and qemu-user to run its test programs.
#
# -m32 support comes from the versioned multilib packages of the host's GCC
# (12 on Debian 12): the unversioned gcc-multilib conflicts with every Debian
# cross compiler, and all it adds is the /usr/include/asm link, which the m32
# preset replaces with -idirafter /usr/include/x86_64-linux-gnu.
set -euo pipefail
packages=(cmake ninja-build g++ gcc pkg-config googletest libgtest-dev util-linux binutils file
          gcc-12-multilib g++-12-multilib
          gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user
          libcli11-dev nlohmann-json3-dev scdoc
          clang-14 libclang-rt-14-dev valgrind abigail-tools
          debhelper dpkg-dev fakeroot lintian
          strace libbenchmark-dev python3 python3-pytest dh-python man-db)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
