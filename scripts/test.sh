#!/bin/sh
# Builds and runs every test: the library with g++ and with clang++, with
# AddressSanitizer and UndefinedBehaviorSanitizer, and as a 32-bit library.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh cmake make g++ clang binutils libgtest-dev libbenchmark-dev g++-multilib
jobs=$(nproc)

run() {  # run <build dir> <cmake options...>
    dir=$1
    shift
    echo "== $dir"
    cmake -S . -B "build/$dir" "$@" >/dev/null
    cmake --build "build/$dir" -j"$jobs" >/dev/null
    ctest --test-dir "build/$dir" -j"$jobs" --output-on-failure | tail -n 3
}

run gcc -DCMAKE_BUILD_TYPE=Release
run sanitize -DCMAKE_BUILD_TYPE=Debug -DTAMO_SANITIZE=ON -DTAMO_BUILD_BENCH=OFF
run m32 -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 -DTAMO_BUILD_BENCH=OFF
CC=clang CXX=clang++ run clang -DCMAKE_BUILD_TYPE=Release -DTAMO_BUILD_BENCH=OFF
echo "all tests passed"
