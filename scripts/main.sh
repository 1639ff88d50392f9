#!/bin/sh
# The main job: builds the library and the tamoelf tool, then shows them on
# a shipped sample: what the big-endian sample object holds, its conversion
# to little-endian and back (byte for byte the same file), and the same for
# the sample archive.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh cmake make g++ libcli11-dev nlohmann-json3-dev
cmake -S . -B build/main -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DTAMO_BUILD_BENCH=OFF >/dev/null
cmake --build build/main -j"$(nproc)" >/dev/null
tool=build/main/tools/tamoelf
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "\$ tamoelf info samples/sample-big.o"
"$tool" info samples/sample-big.o
for sample in sample-big.o sample-big.a; do
    echo
    echo "\$ tamoelf convert --to little samples/$sample little"
    "$tool" convert --to little "samples/$sample" "$work/little"
    echo "\$ tamoelf convert --to big little back"
    "$tool" convert --to big "$work/little" "$work/back"
    echo "\$ tamoelf check little back"
    "$tool" check "$work/little" "$work/back"
    if cmp -s "samples/$sample" "$work/back"; then
        echo "round trip: samples/$sample came back byte for byte"
    else
        echo "round trip: samples/$sample did NOT come back" >&2
        exit 1
    fi
done
