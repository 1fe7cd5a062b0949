#!/bin/bash
# Counts the system calls each case of syscall_probe makes between its two
# markers and compares them with the case's expected count.
#
#   count_syscalls.sh PROBE [EMULATOR ARGS...]
#
# Runs inside tests/sandbox.sh. Natively the probe runs under strace. Under
# qemu-user, strace would count the emulator's own system calls, so the
# emulator's -strace option is used instead: it logs the guest's calls, one
# line each, which is what the probe makes.
set -euo pipefail
probe=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ $# -gt 0 ]; then
    case "$(basename "$1")" in
        qemu-*) ;;
        *) echo "SKIPPED: cannot count system calls under emulator $1"; exit 77 ;;
    esac
    "$@" -strace "$probe" >"$work/cases" 2>"$work/trace" || { cat "$work/trace" >&2; exit 1; }
else
    command -v strace >/dev/null || { echo "strace is not installed"; exit 1; }
    strace -f -qq -o "$work/trace" "$probe" >"$work/cases" || { cat "$work/trace" >&2; exit 1; }
fi

# One line per system call; the first word may be a process id. A marker is
# close(-1NNN) (begin) or close(-2NNN) (end).
awk -v cases="$work/cases" '
    BEGIN {
        while ((getline line < cases) > 0) {
            split(line, f, " ")
            if (f[1] == "CASE") { expected[f[2]] = f[3]; name[f[2]] = f[4]; n++ }
        }
    }
    {
        sub(/^[0-9]+ +/, "")
        if (match($0, /^close\(-1[0-9][0-9][0-9]\)/)) {
            current = substr($0, 8, 4) - 1000; count[current] = 0; open = 1; calls[current] = ""; next
        }
        if (match($0, /^close\(-2[0-9][0-9][0-9]\)/)) { seen[substr($0, 8, 4) - 2000] = 1; open = 0; next }
        if (open && match($0, /^[a-z_0-9]+\(/)) {
            count[current]++; calls[current] = calls[current] " " substr($0, 1, RLENGTH - 1)
        }
    }
    END {
        bad = 0
        for (i = 1; i <= n; i++) {
            if (!seen[i]) { printf "FAIL %-28s markers not found in the trace\n", name[i]; bad++; continue }
            verdict = (count[i] == expected[i]) ? "ok  " : "FAIL"
            if (count[i] != expected[i]) bad++
            printf "%s %-28s %d system calls (expected %d):%s\n", verdict, name[i], count[i], expected[i], calls[i]
        }
        if (n == 0) { print "FAIL no cases"; bad++ }
        printf "%d cases, %d with a wrong count\n", n, bad
        exit bad > 0
    }' "$work/trace"
