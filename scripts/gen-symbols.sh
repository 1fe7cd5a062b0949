#!/bin/bash
# Makes debian/libshm1.symbols from src/lib/libshm.exports, the one list of
# the library's exported names, so that the package's symbols file cannot
# drift from what the library exports. Every name carries the version
# LIBSHM_1.0 except dlopen, dlsym and dlclose, which the library exports
# unversioned (see src/lib/libshm.exports); each was introduced in 1.0.0.
#
#   bash scripts/gen-symbols.sh        rewrites debian/libshm1.symbols
#   bash scripts/gen-symbols.sh -      prints it instead (the CTest test
#                                      interface.symbols_file compares the two)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
exports=$root/src/lib/libshm.exports
target=${1:-$root/debian/libshm1.symbols}
since=1.0.0

generate() {
    echo "libshm.so.1 libshm1 #MINVER#"
    echo " LIBSHM_1.0@LIBSHM_1.0 $since"
    awk '/^[A-Za-z_]/ {print $1}' "$exports" |
        while read -r name; do
            case $name in
                dlopen | dlsym | dlclose) echo " $name@Base $since" ;;
                *) echo " $name@LIBSHM_1.0 $since" ;;
            esac
        done | LC_ALL=C sort
}

if [ "$target" = - ]; then
    generate
else
    generate >"$target.new"
    mv "$target.new" "$target"
fi
