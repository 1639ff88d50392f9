#!/bin/sh
# Builds the benchmarks (Release) and runs the four whose figures the README
# gives: reading through a file id against read(2), writing against memcpy
# plus write(2), the time per section at 1,000 and 65,535 sections, and
# .debug_info conversion against memcpy. Each prints its ratios, measured in
# the same run; run it on a machine that is otherwise idle.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh cmake make g++ clang libbenchmark-dev
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DTAMO_BUILD_BENCH=ON -DTAMO_BUILD_TOOLS=OFF \
    >/dev/null
cmake --build build/bench -j"$(nproc)" --target bench_fdread bench_write bench_sections bench_dwarf >/dev/null
for b in bench_fdread bench_write bench_sections bench_dwarf; do
    echo "== $b"
    build/bench/bench/$b --benchmark_color=false 2>&1 | grep -v -E '^(Run on|CPU Caches|  L[123]|Load Average|\*\*\*)'
done
