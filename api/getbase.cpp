#include "ArMember.h"
#include "Entry.h"

using namespace tamo;

extern "C" off_t tamo_elf_getbase(Elf* elf) {
    if (!checkElf(elf)) return -1;
    if (elf->m_kind == ELF_K_ELF) return 0;
    if (elf->m_kind == ELF_K_AR && elf->isArchive()) return 0;
    if (elf->m_kind == ELF_K_AR && elf->isMember()) return static_cast<off_t>(elf->m_pMember->m_dataOffset);
    SETERR(ERR_KIND);
    return -1;
}
