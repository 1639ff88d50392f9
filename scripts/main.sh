#!/bin/sh
# Builds the library and runs the example program: the library's version and
# error messages, then a real big-endian object and an archive read through
# the library.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh cmake make g++ clang binutils
cmake -S . -B build/main -DCMAKE_BUILD_TYPE=Release -DTAMO_BUILD_TESTS=OFF -DTAMO_BUILD_BENCH=OFF >/dev/null
cmake --build build/main -j"$(nproc)" >/dev/null
demo=build/main/tools/tamoelf_demo
"$demo"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/sample.c" <<'C'
struct point { int x, y; };
int counter = 3;
int area(const struct point *a, const struct point *b) { return (b->x - a->x) * (b->y - a->y) + counter; }
C
clang --target=powerpc-linux-gnu -fno-addrsig -c "$work/sample.c" -o "$work/sample.o"
(cd "$work" && ar rcs lib.a sample.o && printf '!<sola>\n' | dd of=lib.a conv=notrunc status=none)
"$demo" "$work/sample.o" "$work/lib.a"
