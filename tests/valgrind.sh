#!/bin/bash
# Runs test cases of an unsanitized build under valgrind memcheck, each case in
# its own sandboxed process (a fresh private store), and fails on any error.
#   bash tests/valgrind.sh BUILD_DIR TEST_PROGRAM...
set -uo pipefail
cd "$(dirname "$0")/.."
build=$1
shift
# Cases run side by side, as many at a time as there are processors; a
# failing case prints its name and the end of valgrind's report.
run_case() {  # run_case BINARY PROGRAM CASE
    local out
    if ! out=$(tests/sandbox.sh valgrind --tool=memcheck --error-exitcode=99 --track-origins=yes \
            --trace-children=no -q "$1" --gtest_filter="$3" 2>&1); then
        printf 'valgrind: %s %s FAILED\n%s\n' "$2" "$3" "$(tail -30 <<<"$out")"
    fi
}
export -f run_case
list=$(for program in "$@"; do
    binary=$build/tests/$program
    # Suite lines end in '.', case lines are indented; value-parameter
    # comments after '#' are dropped.
    "$binary" --gtest_list_tests | awk -v b="$binary" -v p="$program" '/^[^ ]/ {suite=$1} /^  / {print b, p, suite $1}'
done)
[ -n "$list" ] || { echo "valgrind: no test cases listed"; exit 1; }
ran=$(wc -l <<<"$list")
report=$(xargs -P "$(nproc)" -L 1 bash -c 'run_case "$@"' _ <<<"$list")
failed=$(grep -c '^valgrind: .* FAILED$' <<<"$report" || true)
[ -z "$report" ] || echo "$report"
echo "valgrind: $ran cases, $failed failed"
[ "$failed" -eq 0 ]
