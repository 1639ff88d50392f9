// Conversion of DWARF sections between byte orders.
#pragma once

#include <cstddef>
#include <cstdint>

class Elf;

namespace tamo {

// The bytes of a .debug_abbrev section, handed to a conversion directly.
struct AbbrevBytes {
    const uint8_t* data;
    size_t size;
};

// How .debug_info is walked. OneUnit is the plain walk, one unit and one
// value after another. Chase (with AVX-512) and Windows (with SSSE3) take
// the common entries their own faster ways, several units at a time, and
// must match the plain walk byte for byte; where the processor lacks what
// they need, they take the plain walk. Fast takes Chase, else Windows, for
// sections large enough to repay preparing their tables, OneUnit below.
enum class Walk { Fast, Chase, Windows, OneUnit };

// Converts the `size` bytes of a .debug_info, .debug_types or .debug_line* section from
// src into dst (equal or disjoint). srcNative: src holds host order. The
// walk never goes past the buffer given. A .debug_info conversion reads its
// abbreviations from `abbrev` when given, else through ReadAbbrevTable(elf).
void dwarfConvert(const char* name, char* src, char* dst, size_t size, const Elf* elf, bool srcNative,
                  const AbbrevBytes* abbrev = nullptr, Walk walk = Walk::Fast);

}  // namespace tamo
