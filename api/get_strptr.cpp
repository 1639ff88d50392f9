#include "Entry.h"

using namespace tamo;

extern "C" char* tamo_elf_strptr(Elf* elf, size_t section, size_t offset) {
    return guarded<char*>(nullptr, [&]() -> char* {
        if (!elf) {
            SETERR(ERR_NULL_PARAM);
            return nullptr;
        }
        if (section == 0) {
            SETERR(ERR_SCN_INDEX);
            return nullptr;
        }
        if (!validElf(elf)) {
            SETERR(ERR_ELF_MAGIC);
            return nullptr;
        }
        return elf->strptr(section, offset);
    });
}
