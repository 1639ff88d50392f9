#include "Entry.h"

using namespace tamo;

extern "C" Elf32_Ehdr* tamo_elf32_getehdr(Elf* elf) {
    if (!checkElf(elf)) return nullptr;
    return elf->m_pEhdr;
}

extern "C" Elf32_Ehdr* tamo_elf32_newehdr(Elf* elf) {
    return guarded<Elf32_Ehdr*>(nullptr, [&]() -> Elf32_Ehdr* {
        if (!checkElf(elf)) return nullptr;
        return elf->new_header();
    });
}
