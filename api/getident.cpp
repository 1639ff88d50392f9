#include "Entry.h"

using namespace tamo;

extern "C" char* tamo_elf_getident(Elf* elf, size_t* count) {
    if (!elf) {
        if (count) *count = 0;
        SETERR(ERR_NULL_PARAM);
        return nullptr;
    }
    if (!checkElf(elf)) return nullptr;
    if (!elf->m_pEhdr) {
        if (count) *count = 0;
        SETERR(ERR_NO_EHDR);
        return nullptr;
    }
    if (count) *count = EI_NIDENT;
    return reinterpret_cast<char*>(elf->m_pEhdr->e_ident);
}
