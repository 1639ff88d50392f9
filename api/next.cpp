#include "ArDesc.h"
#include "Entry.h"

using namespace tamo;

extern "C" Elf_Cmd tamo_elf_next(Elf* elf) {
    if (!elf) return ELF_C_NULL;
    if (!validElf(elf)) {
        SETERR(ERR_ELF_MAGIC);
        return ELF_C_NULL;
    }
    if (elf->m_kind != ELF_K_AR) return ELF_C_NULL;
    const ArMember* next;
    if (elf->m_pAr) {
        next = elf->m_pAr->get_member(static_cast<const ArMember*>(nullptr));
    } else {
        if (!elf->m_pMember) {
            SETERR(ERR_KIND);
            return ELF_C_NULL;
        }
        if (!elf->m_pMember->m_pOwner) {
            SETERR(ERR_AR_GET_DESC);
            return ELF_C_NULL;
        }
        next = elf->m_pMember->m_pOwner->get_member(elf->m_pMember);
    }
    if (!next) {
        SETERR(ERR_AR_GET_MEMBER);
        return ELF_C_NULL;
    }
    if (!seekSet(elf->fd(), next->headerOffset(), "elf_next")) return ELF_C_NULL;
    return ELF_C_READ;
}
