// Conversion of DWARF sections between byte orders.
#pragma once

#include <cstddef>

class Elf;

namespace tamo {

// Converts the `size` bytes of a .debug_info or .debug_line* section from
// src into dst (equal or disjoint). srcNative: src holds host order. The
// walk never goes past the buffer given.
void dwarfConvert(const char* name, char* src, char* dst, size_t size, const Elf* elf, bool srcNative);

}  // namespace tamo
