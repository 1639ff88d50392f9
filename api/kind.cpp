#include "Entry.h"

using namespace tamo;

extern "C" Elf_Kind tamo_elf_kind(Elf* elf) {
    if (!checkElf(elf)) return ELF_K_NONE;
    return elf->m_kind;
}
