#include "ArMember.h"
#include "Entry.h"

using namespace tamo;

extern "C" Elf_Arhdr* tamo_elf_getarhdr(Elf* elf) {
    if (!elf) {
        SETERR(ERR_NO_ARHDR);
        return nullptr;
    }
    if (!validElf(elf)) {
        SETERR(ERR_ELF_MAGIC);
        return nullptr;
    }
    if (!elf->m_pMember) {
        SETERR(ERR_NO_ARHDR);
        return nullptr;
    }
    return elf->m_pMember->header();
}
