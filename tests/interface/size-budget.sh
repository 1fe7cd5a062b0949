#!/bin/bash
# The firmware build's size budget (CTest interface.size_budget):
#
#   size-budget.sh STRIP FILE BUDGET [FILE BUDGET]...
#
# Strips a copy of each FILE with STRIP, as `cmake --install --strip` does,
# and prints its size as built and stripped beside its BUDGET (bytes). Exits 1
# when any stripped size is over its budget, after printing every size.
set -euo pipefail

[ $# -ge 3 ] && [ $(($# % 2)) -eq 1 ] || { echo "usage: size-budget.sh STRIP FILE BUDGET [FILE BUDGET]..." >&2; exit 2; }
strip=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

status=0
printf '%-18s %10s %10s %10s %10s  %s\n' file built stripped budget headroom verdict
while [ $# -gt 0 ]; do
    file=$1 budget=$2
    shift 2
    copy=$work/$(basename "$file")
    cp "$file" "$copy"
    "$strip" "$copy"
    built=$(stat -c %s "$file") stripped=$(stat -c %s "$copy")
    if [ "$stripped" -le "$budget" ]; then
        verdict=within
    else
        verdict=OVER
        status=1
    fi
    printf '%-18s %10d %10d %10d %10d  %s\n' "$(basename "$file")" "$built" "$stripped" "$budget" \
        $((budget - stripped)) "$verdict"
done
exit $status
