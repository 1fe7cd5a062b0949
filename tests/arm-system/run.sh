#!/bin/bash
# Runs the armhf build's test cases on a 32-bit ARM kernel: Debian's armhf
# kernel under qemu-system-arm (full-system emulation, virt board, Cortex-A15,
# 2 CPUs, 512 MiB), booted with an initramfs made here of busybox, bash,
# util-linux's unshare, the cross toolchain's C runtime and what the armhf
# preset built. Under qemu-arm (user-mode) the system calls are the x86-64
# host's; here System V IPC, semtimedop, /proc/PID/syscall and the namespaces
# are an ARM kernel's.
#
#   tests/arm-system/run.sh [BUILD_DIR [REGEX]]     (default: build/armhf and
#                                                    the cases listed in
#                                                    tests/arm-system/cases)
#
# Every case whose CTest name matches REGEX and whose command starts with
# tests/sandbox.sh runs in the guest as CTest runs it (the same command line,
# its own IPC, PID and mount namespaces, the same time limit), SHM_ARM_JOBS (3)
# at a time; a small qemu-arm stand-in drops the "-L DIR" the cross commands
# carry. The guest prints a line a case and powers itself off; this script
# ends with "N passed, M failed" and fails on a failed case, a guest that
# never reported (crash) and at SHM_ARM_TIME_LIMIT seconds (360: a hang).
#
# Needs qemu-system-arm, cpio and the armhf packages that
# scripts/install-deps.sh downloads to SHM_ARM_CACHE (default
# ~/.cache/libshm/arm-system). The image, the console log and the case list
# are left in BUILD_DIR/arm-system.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build/armhf}" && pwd)
regex=${2:-$(grep -v '^#' "$here/cases" | grep . | paste -sd '|')}
cache=${SHM_ARM_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/libshm/arm-system}
limit=${SHM_ARM_TIME_LIMIT:-360}
jobs=${SHM_ARM_JOBS:-3}
triplet=arm-linux-gnueabihf
started=$SECONDS

deb() {  # the newest cached armhf package NAME (a glob)
    local found
    found=$(compgen -G "$cache/debs/$1_*_armhf.deb" | sort -V | tail -1) || true
    [ -n "$found" ] || { echo "arm-system: no $1 package in $cache/debs: run scripts/install-deps.sh" >&2; return 1; }
    echo "$found"
}
unpacked() {  # DEB [MEMBER...]: the package unpacked once into the cache (only MEMBERs, if given)
    local dir=$cache/unpacked/$(basename "$1" .deb)
    if [ ! -d "$dir" ]; then
        rm -rf "$dir.part" && mkdir -p "$dir.part"
        dpkg-deb --fsys-tarfile "$1" | tar -x -C "$dir.part" --wildcards "${@:2}"
        mv "$dir.part" "$dir"
    fi
    echo "$dir"
}
for tool in qemu-system-arm cpio file python3 $triplet-strip; do
    command -v $tool >/dev/null || { echo "arm-system: $tool is missing: run scripts/install-deps.sh" >&2; exit 1; }
done
[ -f "$build/CTestTestfile.cmake" ] || { echo "arm-system: $build is not a build tree (cmake --preset armhf)" >&2; exit 1; }

work=$build/arm-system
guest=$work/root
rm -rf "$work"
mkdir -p "$guest"/{bin,sbin,usr/bin,usr/sbin,lib/$triplet,lib/modules,etc,proc,sys,dev,root,tmp,flash,arm-system}
chmod 1777 "$guest/tmp"

# The case list, made on the host from CTest's own.
list=$(ctest --test-dir "$build" --show-only=json-v1 | python3 "$here/cases.py" "$regex")
printf 'JOBS=%s\n%s\n' "$jobs" "$list" >"$guest/arm-system/cases.sh"

# The kernel and its overlay module; busybox, bash (with libtinfo) and unshare.
kernel=$(unpacked "$(deb 'linux-image-*-armmp')" './boot/vmlinuz-*' '*/overlay.ko')
cp "$kernel"/boot/vmlinuz-* "$work/vmlinuz"
cp "$(find "$kernel" -name overlay.ko)" "$guest/lib/modules/"
cp "$(unpacked "$(deb busybox-static)")/bin/busybox" "$guest/bin/"
cp "$(unpacked "$(deb bash)")/bin/bash" "$guest/bin/"
cp -a "$(unpacked "$(deb libtinfo6)")"/lib/$triplet/libtinfo.so.6* "$guest/lib/$triplet/"
cp "$(unpacked "$(deb util-linux)")/usr/bin/unshare" "$guest/usr/bin/"
# The C and C++ runtime the cross toolchain links against (no static archives,
# no sanitizer runtimes).
find /usr/$triplet/lib -maxdepth 1 \( -name '*.so*' -a ! -name 'lib*san.so*' \) \( -type f -o -type l \) \
    -exec cp -a {} "$guest/lib/$triplet/" \;
ln -s $triplet/ld-linux-armhf.so.3 "$guest/lib/ld-linux-armhf.so.3"
printf 'root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n' >"$guest/etc/passwd"
printf 'root:x:0:\nnogroup:x:65534:\n' >"$guest/etc/group"
printf 'passwd: files\ngroup: files\n' >"$guest/etc/nsswitch.conf"
install -m 755 "$here/init" "$guest/init"
install -m 755 "$here/qemu-arm" "$guest/usr/bin/qemu-arm"

# The build's ARM programs and libraries at their own paths (debug information
# stripped: the image stays small), and the source tree (scripts, expected
# outputs, unit files the cases read; 5 MB).
(cd "$build" && find . -path ./arm-system -prune -o -name CMakeFiles -prune -o -type f -print0 |
    xargs -0 file -N -F '|' | sed -n 's/^\.\/\(.*\)| ELF 32-bit LSB \(pie \)\?\(executable\|shared object\), ARM.*/\1/p') |
    while read -r file; do
        mkdir -p "$guest$build/$(dirname "$file")"
        $triplet-strip --strip-debug -o "$guest$build/$file" "$build/$file"
    done
(cd "$build" && find . -path ./arm-system -prune -o -type l -print) | while read -r link; do
    mkdir -p "$guest$build/$(dirname "$link")" && cp -a "$build/$link" "$guest$build/$link"
done
(cd "$build" && find . -path ./arm-system -prune -o -name CMakeFiles -prune -o -type d -print) |
    while read -r dir; do mkdir -p "$guest$build/$dir"; done
mkdir -p "$guest$root"
(cd "$root" && find . \( -path ./build -o -path ./.git -o -path ".${build#"$root"}" \) -prune -o -print0 |
    cpio -0 -pdm --quiet "$guest$root")

(cd "$guest" && find . | cpio -o -H newc -R 0:0 --quiet) >"$work/initramfs.cpio"
cases=$(grep -c '^t ' "$guest/arm-system/cases.sh")
echo "arm-system: $cases cases, image $(($(stat -c %s "$work/initramfs.cpio") / 1024)) KiB, made in $((SECONDS - started)) s; booting (limit $limit s)"

micros() { local t=$EPOCHREALTIME; echo $((10#${t/./})); }
tenths() { printf '%d.%d' $(($1 / 1000000)) $(($1 / 100000 % 10)); }
booted=$(micros)
rc=0
timeout -k 10 "$limit" qemu-system-arm -M virt -cpu cortex-a15 -smp 2 -m 512 -nographic -no-reboot -nic none \
    -kernel "$work/vmlinuz" -initrd "$work/initramfs.cpio" -append "console=ttyAMA0 panic=-1 loglevel=2" \
    </dev/null | while IFS= read -r line; do
        line=${line%$'\r'}
        printf '%s\n' "$line"
        [[ $line != "arm-system: guest up"* ]] || echo "arm-system: init started $(tenths $(($(micros) - booted))) s after qemu-system-arm"
    done | tee "$work/console.log" || rc=$?
echo "arm-system: qemu-system-arm ran $(tenths $(($(micros) - booted))) s"
result=$(sed -n 's/^arm-system: \([0-9]* passed, [0-9]* failed\), [0-9]* skipped$/\1/p' "$work/console.log" | tail -1)
if [ -z "$result" ]; then
    [ "$rc" -ne 124 ] && [ "$rc" -ne 137 ] || echo "arm-system: the guest did not finish within $limit s (SHM_ARM_TIME_LIMIT)"
    echo "arm-system: the guest reported no result (console: $work/console.log)"
    echo "0 passed, 1 failed"
    exit 1
fi
echo "$result"
[[ $result == *" 0 failed" ]]
