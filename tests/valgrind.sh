#!/bin/bash
# Runs test cases of an unsanitized build under valgrind memcheck, each case in
# its own sandboxed process (a fresh private store), and fails on any error.
#   bash tests/valgrind.sh BUILD_DIR TEST_PROGRAM...
set -uo pipefail
cd "$(dirname "$0")/.."
build=$1
shift
failed=0 ran=0
for program in "$@"; do
    binary=$build/tests/$program
    # Suite lines end in '.', case lines are indented; value-parameter
    # comments after '#' are dropped.
    cases=$("$binary" --gtest_list_tests | awk '/^[^ ]/ {suite=$1} /^  / {print suite $1}')
    for name in $cases; do
        ran=$((ran + 1))
        if ! out=$(tests/sandbox.sh valgrind --tool=memcheck --error-exitcode=99 --track-origins=yes \
                --trace-children=no -q "$binary" --gtest_filter="$name" 2>&1); then
            echo "valgrind: $program $name FAILED"
            tail -30 <<<"$out"
            failed=$((failed + 1))
        fi
    done
done
echo "valgrind: $ran cases, $failed failed"
[ "$failed" -eq 0 ]
