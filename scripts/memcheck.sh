#!/bin/sh
# Runs every test program of a build (default build/gcc, made by
# scripts/test.sh) under valgrind memcheck: any memory error, or a definite or
# indirect leak, fails. Programs the tests start themselves (the tool) run
# unchecked, unless MEMCHECK_CHILDREN=1: then they run under memcheck too,
# through the shell that starts them (about 15 minutes more; the shell's own
# leaks show in the logs).
# Usage: [MEMCHECK_CHILDREN=1] scripts/memcheck.sh [BUILD_DIR]
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh valgrind
build=${1:-build/gcc}
children=""
[ "${MEMCHECK_CHILDREN:-0}" = 1 ] && children="--trace-children=yes --trace-children-skip=/usr/*"
status=0
for t in "$build"/tests/test_*; do
    [ -f "$t" ] && [ -x "$t" ] || continue
    name=$(basename "$t")
    # shellcheck disable=SC2086
    if valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
        --show-leak-kinds=definite,indirect $children "$t" --gtest_brief=1 >"$build/memcheck_$name.log" 2>&1; then
        echo "$name: clean"
    else
        echo "$name: FAILED, see $build/memcheck_$name.log"
        status=1
    fi
done
exit $status
