#!/bin/sh
# Builds the fuzz targets with ASan+UBSan, writes the seed corpora, and runs
# each target for the given number of seconds, two at a time.
# Usage: fuzz/run.sh SECONDS [TARGET...]   (targets: image fd archive)
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=${*:-"image fd archive"}
build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAMO_SANITIZE=ON -DTAMO_BUILD_FUZZ=ON \
    -DTAMO_BUILD_TESTS=OFF -DTAMO_BUILD_BENCH=OFF -DTAMO_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
"$build/fuzz/make_corpus" "$build/seeds" >/dev/null
status=0
for t in $targets; do
    mkdir -p "$build/corpus/$t" "$build/artifacts/$t"
    (
        "$build/fuzz/fuzz_$t" "$build/corpus/$t" "$build/seeds/$t" -max_total_time="$seconds" -timeout=10 \
            -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t/" \
            >"$build/fuzz_$t.log" 2>&1 && echo "fuzz_$t: no finding" || { echo "fuzz_$t: FINDING, see $build/fuzz_$t.log"; exit 1; }
        grep -E '^stat::(number_of_executed_units|new_units_added)|cov: ' "$build/fuzz_$t.log" | tail -n 3
    ) &
    # two at a time
    if [ "$(jobs -p | wc -l)" -ge 2 ]; then wait -n || status=1; fi
done
while [ "$(jobs -p | wc -l)" -gt 0 ]; do wait -n || status=1; done
exit $status
