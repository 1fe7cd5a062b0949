#!/bin/bash
# Runs the probe and counts the system calls each of its rows makes between
# its markers, close(-1NNN) and close(-2NNN), against the row's expected
# count (-1: not counted). The probe itself checks the rows' heap blocks.
#
#   count_syscalls.sh PROBE [EMULATOR ARGS...]
#
# Runs inside tests/sandbox.sh (its files go to the sandbox's own /tmp),
# natively under strace. Under qemu-user, strace would count the emulator's
# own calls, so its -strace option logs the guest's instead; under any other
# emulator only the heap blocks are checked.
set -uo pipefail
probe=$1
shift
status=0
if [ $# -eq 0 ]; then
    strace -f -qq -o /tmp/trace "$probe" >/tmp/cases || status=1
elif [[ "$(basename "$1")" == qemu-* ]]; then
    "$@" -strace "$probe" >/tmp/cases 2>/tmp/trace || status=1
else
    "$@" "$probe" || exit 1
    echo "SKIPPED: cannot count system calls under emulator $1"
    exit 77
fi

# One line per system call; the first word may be a process id.
awk '
    BEGIN {
        while ((getline line < "/tmp/cases") > 0)
            if (split(line, f, " ") == 5 && f[1] == "CASE") { want[f[2]] = f[3]; row[f[2]] = f[5] " heap " f[4]; n++ }
            else { print line; wrong[n] = wrong[n] || line ~ /^FAIL/ }
    }
    { sub(/^[0-9]+ +/, "") }
    /^close\(-1[0-9]+\)/ { r = substr($0, 8, 4) - 1000; seen[r] = 1; next }
    /^close\(-2[0-9]+\)/ { r = 0; next }
    r && match($0, /^[a-z_0-9]+\(/) { count[r]++; calls[r] = calls[r] " " substr($0, 1, RLENGTH - 1) }
    END {
        for (i = 1; i <= n; i++) {
            bad += !(ok = seen[i] && !wrong[i] && (want[i] < 0 || count[i] == want[i]))
            printf "%s %-45s %d system calls (expected %d):%s\n", ok ? "ok  " : "FAIL", row[i], count[i], want[i], calls[i]
        }
        printf "%d rows, %d wrong\n", n, bad
        exit n == 0 || bad > 0
    }' /tmp/trace || status=1
exit $status
