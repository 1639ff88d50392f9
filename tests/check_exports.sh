#!/bin/sh
# Checks that the shared library exports exactly the interface (and nothing
# of the C++ runtime or of its internal classes) and carries its SONAME.
set -eu
lib=$1
expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^TAMOELF_1$' | sort)
if [ "$actual" != "$(sort "$expected")" ]; then
    echo "exported symbols differ from $expected:"
    echo "$actual" | diff "$expected" - || true
    exit 1
fi
soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [ "$soname" != "libtamoelf.so.1" ]; then
    echo "SONAME is '$soname', expected libtamoelf.so.1"
    exit 1
fi
echo "exports and SONAME as expected"
