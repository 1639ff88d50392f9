#!/bin/sh
# Installs the library into a scratch prefix and builds two clients against
# it: a C program through pkg-config, and a CMake project through
# find_package(tamoelf) and tamoelf::tamoelf. Both run (through EMULATOR
# when one is given, as for 32-bit clients on a host that cannot run them).
# Usage: check_install.sh BUILD_DIR C_COMPILER "C_FLAGS" [EMULATOR]
set -eu
build=$1
cc=$2
cflags=$3
emulator=${4:-}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null

cat >"$tmp/client.c" <<'C'
#include <stdio.h>
#include <tamoelf.h>
int main(void) {
    if (tamo_elf_version(EV_CURRENT) != EV_CURRENT) return 1;
    if (tamo_elf_begin(-1, ELF_C_READ, NULL) != NULL || tamo_elf_errno() != 1) return 2;
    printf("client: %s\n", tamo_elf_errmsg(80));
    return 0;
}
C

pc=$(find "$tmp/prefix" -name tamoelf.pc)
pcdir=$(dirname "$pc")
libdir=$(dirname "$pcdir")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs tamoelf)
# shellcheck disable=SC2086
"$cc" $cflags "$tmp/client.c" $flags -o "$tmp/client-pc"
# shellcheck disable=SC2086
LD_LIBRARY_PATH="$libdir" $emulator "$tmp/client-pc"

mkdir "$tmp/cmake-client"
cp "$tmp/client.c" "$tmp/cmake-client/"
cat >"$tmp/cmake-client/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.20)
project(client C)
find_package(tamoelf 1 REQUIRED)
add_executable(client client.c)
target_link_libraries(client PRIVATE tamoelf::tamoelf)
CM
CC="$cc" cmake -S "$tmp/cmake-client" -B "$tmp/cmake-build" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
    -DCMAKE_C_FLAGS="$cflags" >/dev/null
cmake --build "$tmp/cmake-build" >/dev/null
# shellcheck disable=SC2086
$emulator "$tmp/cmake-build/client"
echo "installed library usable through pkg-config and find_package"
