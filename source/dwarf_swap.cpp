// The DWARF section dispatcher.
//
// The walks of .debug_info (by abbreviation and form) and of .debug_line
// (header and opcode stream) are not built yet: the dispatcher reads the
// abbreviation tables, guards against the nested call that reading them can
// cause, and hands the section's bytes on unconverted.

#include "dwarf_swap.h"

#include <cstring>

#include "DwarfAbbrev.h"
#include "tamoelf.h"

namespace tamo {

namespace {
// True while the abbreviation tables are being read; a .debug_info
// conversion started by that reading (through the section walk) does nothing.
bool bInHere = false;

struct InHereScope {
    InHereScope() { bInHere = true; }
    ~InHereScope() { bInHere = false; }
};
}  // namespace

void dwarfConvert(const char* name, char* src, char* dst, size_t size, const Elf* elf, bool /*srcNative*/,
                  const AbbrevBytes* abbrev) {
    if (std::strcmp(name, ".debug_info") == 0) {
        if (bInHere) return;
        if (abbrev) {
            parseAbbrevTables(abbrev->data, abbrev->size);
        } else {
            InHereScope scope;
            ReadAbbrevTable(const_cast<Elf*>(elf));
        }
    }
    if (src != dst && size) std::memmove(dst, src, size);
    CDwarfAbbrevTable::releaseAll();
}

}  // namespace tamo

extern "C" void endian_swap_dwarf_section(const char* name, char* src, char* dst, const Elf* elf,
                                          const Elf32_Shdr* shdr, bool bSrcNative) {
    if (!name || !src || !dst || !shdr) return;
    tamo::dwarfConvert(name, src, dst, shdr->sh_size, elf, bSrcNative);
}
