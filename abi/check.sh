#!/bin/bash
# The library's ABI against the committed baselines: abi/libshm-x86_64.abi for
# the 64-bit build (build/default) and abi/libshm-i386.abi for the 32-bit one
# (build/m32). Any difference abidiff reports (a removed, added or changed
# function or variable, a changed type or layout) fails, with abidiff's
# report. An intentional change regenerates the baselines in the same commit:
#   bash abi/check.sh update
# One library of any build directory against the baseline of its width
# (x86_64 or i386), as the CTest test interface.abi runs it:
#   bash abi/check.sh check LIBRARY WIDTH
set -uo pipefail
mode=${1:-check}
if [ $# -ge 3 ]; then
    targets=("$(realpath "$2"):$3")
else
    targets=(build/default/libshm.so.1:x86_64 build/m32/libshm.so.1:i386)
fi
cd "$(dirname "$0")/.."
status=0
for target in "${targets[@]}"; do
    library=${target%:*} baseline=abi/libshm-${target##*:}.abi
    [ -f "$library" ] || { echo "abi: $library missing (build its preset first)"; status=1; continue; }
    # Only what the public header declares counts; the library's own types
    # stay out of the description.
    if [ "$mode" = update ]; then
        abidw --headers-dir include --drop-private-types --no-corpus-path --no-comp-dir-path \
            --out-file "$baseline" "$library" || status=1
        echo "abi: wrote $baseline"
        continue
    fi
    if report=$(abidiff --headers-dir2 include --drop-private-types --no-unreferenced-symbols "$baseline" "$library"); then
        echo "abi: $library matches $baseline"
    else
        echo "abi: $library differs from $baseline:"
        echo "$report"
        status=1
    fi
done
exit $status
