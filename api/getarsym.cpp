#include "ArDesc.h"
#include "Entry.h"

using namespace tamo;

extern "C" Elf_Arsym* tamo_elf_getarsym(Elf* elf, size_t* count) {
    if (!checkElf(elf)) return nullptr;
    if (!elf->m_pAr) {
        if (count) *count = 0;
        SETERR(ERR_AR_GET_DESC);
        return nullptr;
    }
    ArSymTab* table = elf->m_pAr->m_pSymTab.get();
    if (!table) {
        SETERR(ERR_AR_NO_SYMTAB);
        return nullptr;
    }
    if (count) *count = table->count();
    return table->entries();
}
