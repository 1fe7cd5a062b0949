#!/bin/sh
# Renders every built man page with all of groff's warnings enabled and fails
# when groff has anything to say:
#
#   sh man/check-render.sh GROFF BUILT_MAN_DIR
#
# Link pages (".so man3/PAGE") are skipped: groff would resolve them relative
# to the working directory, and the pages they point to are checked anyway.
set -eu

if [ $# -ne 2 ] || [ ! -d "$2" ]; then
    echo "usage: $0 GROFF BUILT_MAN_DIR" >&2
    exit 2
fi
groff=$1 dir=$2
failed=0 count=0
for page in "$dir"/man[1-9]/*.[1-9]; do
    [ -f "$page" ] || continue
    head -c 4 "$page" | grep -q '^\.so ' && continue
    count=$((count + 1))
    # -t: the pages' tables need tbl. -z: no output, only the diagnostics.
    messages=$("$groff" -t -ww -man -z "$page" 2>&1) || { failed=1; echo "$page: groff failed"; }
    if [ -n "$messages" ]; then
        echo "$page:"
        echo "$messages" | sed 's/^/    /'
        failed=1
    fi
done
if [ "$count" -eq 0 ]; then
    echo "no built man pages in $dir"
    exit 1
fi
[ "$failed" -eq 0 ] || { echo "FAILED"; exit 1; }
echo "ok: $count pages render without warnings"
