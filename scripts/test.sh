#!/bin/bash
# Builds and runs every test in three flavours: g++ (the build users get), a
# 32-bit build, and clang++ with AddressSanitizer and
# UndefinedBehaviorSanitizer, whose build also has the libFuzzer targets:
# each of them then runs for a few seconds from the stored corpus and the
# replayed findings (the fuzz smoke). Every flavour runs even when an earlier
# one failed; the script exits non-zero when any configure, build, test or
# fuzz run failed, naming it and showing what went wrong. Logs stay in
# build/logs.
#
# The g++ flavour builds each source file on its own, so that every file
# keeps compiling by itself; the others build the library and the tool as a
# few combined files (CMake's unity builds), which takes a third of the time.
# The sanitized flavour's debug information is line tables only: enough for
# the sanitizers' reports, and its build is the longest of the three.
set -u -o pipefail
cd "$(dirname "$0")/.."
scripts/packages.sh cmake make g++ clang llvm binutils libgtest-dev libbenchmark-dev g++-multilib libcli11-dev \
    nlohmann-json3-dev ninja-build || exit 1
jobs=$(nproc)
logs=build/logs
mkdir -p "$logs"
passed=0
failed=0
broken=""

run() {  # run <flavour> <cmake options...>
    flavour=$1
    shift
    log=$logs/$flavour
    start=$(date +%s)
    generator=()
    # A build directory keeps the generator it was made with.
    [ -f "build/$flavour/CMakeCache.txt" ] || generator=(-G Ninja)
    if ! cmake -S . -B "build/$flavour" "${generator[@]}" -DTAMO_WERROR=ON "$@" >"$log.configure" 2>&1; then
        echo "== $flavour: configure FAILED"
        tail -n 30 "$log.configure"
        broken="$broken $flavour"
        return
    fi
    if ! cmake --build "build/$flavour" -j"$jobs" >"$log.build" 2>&1; then
        echo "== $flavour: build FAILED"
        grep -E -A5 'error|Error ' "$log.build" | head -n 60
        broken="$broken $flavour"
        return
    fi
    built=$(date +%s)
    ctest --test-dir "build/$flavour" -j"$jobs" --output-on-failure >"$log.test" 2>&1
    status=$?
    summary=$(grep -E '^[0-9]+% tests passed' "$log.test" | tail -n 1)
    total=$(echo "$summary" | sed -n 's/.* out of \([0-9][0-9]*\).*/\1/p')
    nfailed=$(echo "$summary" | sed -n 's/.*, \([0-9][0-9]*\) tests* failed.*/\1/p')
    if [ -z "$total" ] || [ -z "$nfailed" ]; then
        echo "== $flavour: tests did not run"
        tail -n 30 "$log.test"
        broken="$broken $flavour"
        return
    fi
    passed=$((passed + total - nfailed))
    failed=$((failed + nfailed))
    if [ "$status" -ne 0 ] || [ "$nfailed" -ne 0 ]; then
        echo "== $flavour: $nfailed of $total tests FAILED"
        # The output of the failing tests, without the lines of those that
        # passed or merely started.
        grep -v -E '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed|^ +Start +[0-9]+: ' "$log.test" | tail -n 200
        broken="$broken $flavour"
    else
        echo "== $flavour: $total tests passed (build $((built - start)) s, tests $(($(date +%s) - built)) s)"
    fi
}

# 32-bit test programs run directly where the kernel allows it, and under
# qemu's user-mode emulator where it does not.
m32_emulator() {
    probe=$logs/m32-probe
    printf 'int main(void) { return 0; }\n' >"$probe.c"
    if gcc -m32 "$probe.c" -o "$probe" >/dev/null 2>&1 && "$probe" >/dev/null 2>&1; then
        return
    fi
    scripts/packages.sh qemu-user >&2 || return
    echo "-DCMAKE_CROSSCOMPILING_EMULATOR=$(command -v qemu-i386)"
}

run gcc -DCMAKE_BUILD_TYPE=Release
# shellcheck disable=SC2046
run m32 -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 -DTAMO_BUILD_BENCH=OFF \
    -DCMAKE_UNITY_BUILD=ON $(m32_emulator)
CC=clang CXX=clang++ run clang -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAMO_SANITIZE=ON -DTAMO_BUILD_FUZZ=ON \
    -DTAMO_BUILD_BENCH=OFF -DCMAKE_UNITY_BUILD=ON "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -gline-tables-only -DNDEBUG" \
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -gline-tables-only -DNDEBUG"

# The fuzz smoke: every target a few seconds under the sanitizers.
fuzz_smoke() {
    case " $broken " in *" clang "*) return ;; esac
    smoke=0
    for t in image fd archive write rdwr dwarf interop survey; do
        target=build/clang/fuzz/fuzz_$t
        [ -x "$target" ] || continue
        work=$(mktemp -d)
        mkdir -p "fuzz/corpus/$t"
        if "$target" "$work" "fuzz/corpus/$t" "tests/regressions/$t" -max_total_time=5 -timeout=10 \
            -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$logs/fuzz_$t-" >"$logs/fuzz_$t" 2>&1; then
            passed=$((passed + 1))
        else
            echo "== fuzz smoke: fuzz_$t FAILED"
            grep -E -A30 'ERROR|==[0-9]+==|runtime error|deadly signal' "$logs/fuzz_$t" | head -n 60
            failed=$((failed + 1))
            smoke=1
        fi
        rm -rf "$work"
    done
    if [ "$smoke" -ne 0 ]; then
        broken="$broken fuzz-smoke"
    else
        echo "== fuzz smoke: no finding"
    fi
}
fuzz_start=$(date +%s)
fuzz_smoke
echo "== fuzz smoke took $(($(date +%s) - fuzz_start)) s"

echo "$passed passed, $failed failed"
if [ -n "$broken" ]; then
    echo "FAILED:$broken"
    exit 1
fi
