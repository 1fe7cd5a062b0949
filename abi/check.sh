#!/bin/bash
# The library's ABI against the committed baselines: abi/libshm-x86_64.abi for
# the 64-bit build (build/default) and abi/libshm-i386.abi for the 32-bit one
# (build/m32). Any difference abidiff reports (a removed, added or changed
# function or variable, a changed type or layout) fails, with abidiff's
# report. An intentional change regenerates the baselines in the same commit:
#   bash abi/check.sh update
set -uo pipefail
cd "$(dirname "$0")/.."
mode=${1:-check}
status=0
for pair in default:x86_64 m32:i386; do
    build=build/${pair%%:*} baseline=abi/libshm-${pair##*:}.abi
    library=$build/libshm.so.1
    [ -f "$library" ] || { echo "abi: $library missing (build the ${pair%%:*} preset first)"; status=1; continue; }
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
