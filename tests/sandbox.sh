#!/bin/bash
# Runs one program in a throw-away world: private IPC, PID and mount
# namespaces, the root file system seen through an overlay whose writes land
# in a tmpfs, private /etc, /dev, /tmp and /flash. Nothing the program
# creates (marker files, /dev/log sockets, recovery files, System V objects)
# reaches the machine, and everything vanishes when the program ends.
#
#   tests/sandbox.sh PROGRAM [ARGS...]
#
# The program runs with the caller's working directory. As root the
# namespaces are made directly; otherwise a user namespace maps the caller
# to root inside it.
set -euo pipefail

if [ "${1:-}" != "--inside" ]; then
    userns=()
    [ "$(id -u)" -eq 0 ] || userns=(--user --map-root-user)
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/shm-sandbox.XXXXXX")
    rc=0
    unshare "${userns[@]}" --ipc --mount --pid --fork --kill-child -- \
        /bin/bash "$0" --inside "$scratch" "$PWD" "$@" || rc=$?
    rmdir "$scratch" 2>/dev/null || true
    exit $rc
fi

shift
scratch=$1 cwd=$2
shift 2

mount --make-rprivate /
# Everything below lives in this tmpfs, which exists only in this namespace.
mount -t tmpfs sandbox "$scratch"
mkdir -p "$scratch"/{root,rootup,rootwk,devup,devwk,tmpup,tmpwk}
root=$scratch/root

mount -t overlay overlay -o lowerdir=/,upperdir="$scratch/rootup",workdir="$scratch/rootwk" "$root"
# The root overlay shows only the root file system; bring back the other
# mounts the program may need (a build tree on its own file system, say).
while read -r _ mnt _; do
    case "$mnt" in
        /|/proc|/proc/*|/sys|/sys/*|/dev|/dev/*|/tmp|/tmp/*|"$scratch"|"$scratch"/*) continue ;;
    esac
    mnt=$(printf '%b' "$mnt")
    [ -d "$mnt" ] && [ -d "$root$mnt" ] && mount --rbind "$mnt" "$root$mnt" 2>/dev/null || true
done < /proc/mounts

mount -t proc proc "$root/proc"
mount --rbind /sys "$root/sys"
# An overlay, not a bind: a socket bound at /dev/log must not reach the host.
mount -t overlay overlay -o lowerdir=/dev,upperdir="$scratch/devup",workdir="$scratch/devwk" "$root/dev"
for sub in pts shm; do
    [ -d "/dev/$sub" ] && mount --rbind "/dev/$sub" "$root/dev/$sub" 2>/dev/null || true
done
# /tmp keeps what the host has there (a build tree, say) but writes stay here.
mount -t overlay overlay -o lowerdir=/tmp,upperdir="$scratch/tmpup",workdir="$scratch/tmpwk" "$root/tmp"
mkdir -p "$root/flash/data0" "$root/etc"

cd "$root"
exec chroot "$root" /bin/sh -c 'cd "$1" && shift && exec "$@"' sandbox "$cwd" "$@"
