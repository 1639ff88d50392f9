#include "Entry.h"

using namespace tamo;

extern "C" Elf_Scn* tamo_elf_getscn(Elf* elf, size_t index) {
    return guarded<Elf_Scn*>(nullptr, [&]() -> Elf_Scn* {
        if (!checkElf(elf)) return nullptr;
        return elf->get_scn(index);
    });
}
