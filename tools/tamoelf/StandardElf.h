// Relocatable objects read and written byte for byte by the tool, for what
// the library does not handle: standard ELF32 (40-byte section headers,
// 16-byte symbols), which `import` reads and `export` writes, and the raw
// view of this format's objects that `export` starts from. Headers come out
// in host order; section contents stay as stored.
#pragma once

#include <string>
#include <vector>

#include "Common.h"

namespace tool {

enum class ObjectFormat {
    Standard,  // 40-byte section headers, 16-byte symbols
    Tamo,      // this format: 44-byte section headers, 20-byte symbols
};

struct RawSection {
    Elf32_Shdr header{};  // host order (sh_extra 0 for a standard object)
    std::string name;
    Bytes bytes;  // as stored; none for SHT_NOBITS and SHT_NULL
};

struct RawObject {
    bool big = false;
    Elf32_Ehdr header{};               // host order
    std::vector<RawSection> sections;  // by index, section 0 included
};

// Reads an object of the given format. Throws Failure naming `name` and the
// place: not ELF, ELF64, another header size, program headers, extended
// section numbering, a table or a section past the end of the file, an
// alignment that is not a power of two or is above 64 KiB.
RawObject readRawObject(const Bytes& file, ObjectFormat format, const std::string& name);

// The object's symbols re-sized: 16-byte entries become 20 bytes with
// st_extra 0, or 20-byte ones 16 (st_extra dropped). Symbol tables' sh_size
// and sh_entsize follow.
void resizeSymbols(RawObject& object, ObjectFormat to);

// Writes a standard ELF32 object: the ELF header, each section's bytes in
// index order at its alignment, then the section header table.
Bytes writeStandardObject(const RawObject& object);

}  // namespace tool
