#include "Entry.h"

using namespace tamo;

extern "C" Elf32_Shdr* tamo_elf32_getshdr(Elf_Scn* scn) {
    if (!checkScn(scn)) return nullptr;
    if (!scn->m_pShdr) {
        SETERR(ERR_GET_SHDR);
        return nullptr;
    }
    if (!scn->m_pElf) {
        SETERR(ERR_NO_ELF);
        return nullptr;
    }
    if (!scn->m_pElf->m_pEhdr) {
        SETERR(ERR_NO_EHDR);
        return nullptr;
    }
    return scn->m_pShdr;
}
