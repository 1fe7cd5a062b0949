#!/bin/sh
# Runs the examples in order on one private store (inside tests/sandbox.sh)
# and checks what they print. SHM_RUN is the emulator of a cross build, if any.
#   run.sh PUBLISHER READER SDC_PAIR CONSUMER
set -eu
publisher=$1 reader=$2 pair=$3 consumer=$4
run() { ${SHM_RUN:-} "$@"; }
fail() { echo "FAIL: $*" >&2; exit 1; }

if run "$reader" >/dev/null 2>&1; then fail "reader succeeded before anything was published"; fi
run "$publisher"
out=$(run "$reader")
echo "$out"
for line in "system id 61, generation 5, platform type 2" "16G or later: 1, AMD: 1, ngm chassis: 1" \
            "blade slot 3" "start-up complete: yes"; do
    printf '%s\n' "$out" | grep -qxF "$line" || fail "reader did not print: $line"
done
out=$(run "$pair")
echo "$out"
[ "$out" = "$(printf 'record %d\n' 1 2 3 4 5)" ] || fail "sdc_pair did not deliver records 1 to 5 in order"
out=$(run "$consumer")
echo "$out"
expected='platform type 2, system id 61, generation 5
progress word 0x00402063
record A
record B
(the ring was cleared: what it holds now follows)
record C
(overrun: at least 524288 bytes were overwritten before they were read)
75712 bytes
slot freed'
[ "$out" = "$expected" ] || fail "consumer did not print what was expected"
echo "examples: ok"
