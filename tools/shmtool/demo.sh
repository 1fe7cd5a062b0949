#!/bin/sh
# The tool's tour on a private store: run it inside tests/sandbox.sh, which
# gives it its own IPC namespace, so the machine's real store is never seen.
#   tests/sandbox.sh tools/shmtool/demo.sh build/default/tools/shmtool/shmtool
set -e
tool=${1:?path to shmtool}
echo '$ shmtool poke 26 0 48656c6c6f2c2073746f726521'
"$tool" poke 26 0 48656c6c6f2c2073746f726521
echo '$ shmtool poke 6 0 0102030405'
"$tool" poke 6 0 0102030405
echo '$ shmtool dump 26 0 32'
"$tool" dump 26 0 32
echo '$ shmtool dump 6'
"$tool" dump 6
echo '$ shmtool info'
"$tool" info
