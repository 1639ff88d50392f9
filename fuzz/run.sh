#!/bin/bash
# Builds the fuzz targets with ASan+UBSan, writes the seed corpora, and runs
# each target for the given number of seconds, FUZZ_JOBS (default 2) at a time,
# starting from the minimised corpus kept in fuzz/corpus and the seeds.
# Usage: [FUZZ_JOBS=N] [FUZZ_BUILD=0] fuzz/run.sh SECONDS [TARGET...]   (targets: image fd archive write rdwr dwarf interop survey)
# fuzz/minimise.sh folds what a run found back into fuzz/corpus.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=${*:-"image fd archive write rdwr dwarf interop survey"}
parallel=${FUZZ_JOBS:-2}
build=build/fuzz
# FUZZ_BUILD=0 runs the targets as last built (a long campaign beside work on the sources).
if [ "${FUZZ_BUILD:-1}" != 0 ]; then
    CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAMO_SANITIZE=ON -DTAMO_BUILD_FUZZ=ON \
        -DBUILD_TESTING=OFF -DTAMO_BUILD_BENCH=OFF -DTAMO_BUILD_TOOLS=ON >/dev/null
    cmake --build "$build" -j"$(nproc)" --target make_corpus $(for t in $targets; do printf 'fuzz_%s ' "$t"; done) >/dev/null
fi
# Compiler objects of both byte orders, DWARF 2 to 5 with every section the
# walkers know, seed the DWARF and interoperation targets.
objects="$build/objects"
mkdir -p "$objects"
for target in powerpc powerpcle; do
    for v in 2 4 5; do
        n=0
        for flags in "-O0 -gpubnames -gdwarf-aranges -fdebug-macro" \
                     "-O2 -ggnu-pubnames -fno-asynchronous-unwind-tables -fno-unwind-tables -fdebug-types-section"; do
            n=$((n + 1))
            for src in c cpp; do
                clang --target=$target-linux-gnu -fno-addrsig -c -gdwarf-$v $flags "tests/data/dwarf_sample.$src" \
                    -o "$objects/$target-$src-v$v-$n.o" 2>/dev/null || true
            done
        done
    done
done
"$build/fuzz/make_corpus" "$build/seeds" tests/data/*.o "$objects"/*.o >/dev/null
status=0
running=0
for t in $targets; do
    mkdir -p "$build/corpus/$t" "$build/artifacts/$t" "fuzz/corpus/$t"
    (
        "$build/fuzz/fuzz_$t" "$build/corpus/$t" "$build/seeds/$t" "fuzz/corpus/$t" -max_total_time="$seconds" -timeout=10 \
            -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t/" \
            >"$build/fuzz_$t.log" 2>&1 && echo "fuzz_$t: no finding" || { echo "fuzz_$t: FINDING, see $build/fuzz_$t.log"; exit 1; }
        grep -E '^stat::(number_of_executed_units|new_units_added)|cov: ' "$build/fuzz_$t.log" | tail -n 3
    ) &
    running=$((running + 1))
    if [ "$running" -ge "$parallel" ]; then
        wait -n || status=1
        running=$((running - 1))
    fi
done
while [ "$running" -gt 0 ]; do
    wait -n || status=1
    running=$((running - 1))
done
exit $status
