#!/bin/bash
# Folds what fuzz/run.sh found (build/fuzz/corpus) into the minimised corpora
# kept in fuzz/corpus: the smallest set of inputs that covers every edge the
# two together cover, inputs of at most MAX_LEN bytes (default 16384).
# Usage: fuzz/minimise.sh [TARGET...]
set -eu
cd "$(dirname "$0")/.."
targets=${*:-"image fd archive write rdwr dwarf interop survey"}
build=build/fuzz
for t in $targets; do
    [ -x "$build/fuzz/fuzz_$t" ] || { echo "fuzz_$t: not built (run fuzz/run.sh first)"; continue; }
    merged=$(mktemp -d)
    mkdir -p "fuzz/corpus/$t" "$build/corpus/$t"
    # build/fuzz/corpus and any further working corpora (corpus2, ...).
    "$build/fuzz/fuzz_$t" -merge=1 -max_len="${MAX_LEN:-16384}" "$merged" "fuzz/corpus/$t" "$build"/corpus*/"$t" \
        >"$build/minimise_$t.log" 2>&1
    rm -rf "fuzz/corpus/$t"
    mv "$merged" "fuzz/corpus/$t"
    echo "fuzz_$t: $(ls "fuzz/corpus/$t" | wc -l) inputs, $(du -sh "fuzz/corpus/$t" | cut -f1)"
done
