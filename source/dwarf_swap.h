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

// How .debug_info is walked. Windows converts two units at a time, taking
// the common entries through windows prepared per abbreviation, where the
// processor allows; OneUnit is the plain walk, one unit and one value after
// another, which Windows must match byte for byte. Fast takes Windows for
// sections large enough to repay preparing the windows, OneUnit below.
enum class Walk { Fast, Windows, OneUnit };

// Converts the `size` bytes of a .debug_info, .debug_types or .debug_line* section from
// src into dst (equal or disjoint). srcNative: src holds host order. The
// walk never goes past the buffer given. A .debug_info conversion reads its
// abbreviations from `abbrev` when given, else through ReadAbbrevTable(elf).
void dwarfConvert(const char* name, char* src, char* dst, size_t size, const Elf* elf, bool srcNative,
                  const AbbrevBytes* abbrev = nullptr, Walk walk = Walk::Fast);

}  // namespace tamo
