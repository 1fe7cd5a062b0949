#!/bin/bash
# The library's interface as built, one check per call (the CTest tests of
# tests/interface/CMakeLists.txt):
#
#   check.sh exports NM LIBRARY EXPORTS         the dynamic symbols are exactly the names in EXPORTS
#   check.sh needed --sanitize=LIST READELF LIBRARY
#                                               NEEDED is libc only
#   check.sh static-init --sanitize=LIST OBJDUMP OBJECT...
#                                               no object of the library carries a static initialiser
#   check.sh symbols-file SOURCE_DIR            debian/libshm1.symbols is what scripts/gen-symbols.sh makes
#   check.sh abi SOURCE_DIR LIBRARY --width=WIDTH
#                                               the ABI matches abi/libshm-WIDTH.abi
#
# LIST is the build's sanitizers (SHM_SANITIZE), empty for a plain build;
# WIDTH is x86_64, i386 or empty for a target without a baseline. A check that
# cannot run in this build exits 77 (CTest: skipped), saying why.
set -euo pipefail

skip() { echo "skipped: $*"; exit 77; }

exports() {
    local nm=$1 library=$2 list=$3
    if ! diff <("$nm" -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | grep -v '^LIBSHM_' | sort -u) \
              <(grep -E '^[A-Za-z_]' "$list" | sort -u); then
        echo "$library: dynamic symbols differ from $list (<: exported but not listed, >: listed but not exported)"
        return 1
    fi
}

needed() {
    local sanitize=${1#--sanitize=} readelf=$2 library=$3
    [ -z "$sanitize" ] || skip "a sanitized library needs its sanitizer runtimes"
    local found
    found=$("$readelf" -d "$library" | awk '/NEEDED/ {print $NF}' | tr -d '[]' | sort | tr '\n' ' ')
    [ "$found" = "libc.so.6 " ] || { echo "$library: NEEDED is '$found', not libc.so.6 alone"; return 1; }
}

static_init() {  # nothing of the library runs when it is loaded
    local sanitize=${1#--sanitize=} objdump=$2
    shift 2
    [ -z "$sanitize" ] || skip "sanitizers give every object a constructor"
    [ $# -gt 0 ] || { echo "no objects given"; return 1; }
    local headers
    headers=$("$objdump" -h "$@") || { echo "objdump failed"; return 1; }
    if grep -E 'init_array|\.ctors' <<<"$headers"; then
        echo "an object of the library carries a static initialiser (see the sections above)"
        return 1
    fi
}

symbols_file() {
    local root=$1
    if ! diff <(bash "$root/scripts/gen-symbols.sh" -) "$root/debian/libshm1.symbols"; then
        echo "debian/libshm1.symbols differs from src/lib/libshm.exports (<: generated, >: committed);"
        echo "run: bash scripts/gen-symbols.sh"
        return 1
    fi
}

abi() {
    local root=$1 library=$2 width=${3#--width=}
    [ -n "$width" ] || skip "no ABI baseline for this target (abi/ holds x86_64 and i386)"
    command -v abidiff >/dev/null && command -v abidw >/dev/null || skip "abidw/abidiff not installed (Debian abigail-tools)"
    local sections
    sections=$(readelf -S "$library")
    grep -q '\.debug_info' <<<"$sections" || skip "$library has no debug information to compare types with"
    bash "$root/abi/check.sh" check "$library" "$width"
}

check=${1:?"usage: check.sh exports|needed|static-init|symbols-file|abi ARGS..."}
shift
case $check in
    exports) exports "$@" ;;
    needed) needed "$@" ;;
    static-init) static_init "$@" ;;
    symbols-file) symbols_file "$@" ;;
    abi) abi "$@" ;;
    *) echo "check.sh: unknown check '$check'"; exit 2 ;;
esac
