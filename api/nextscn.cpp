#include "Entry.h"

using namespace tamo;

extern "C" Elf_Scn* tamo_elf_nextscn(Elf* elf, Elf_Scn* scn) {
    return guarded<Elf_Scn*>(nullptr, [&]() -> Elf_Scn* {
        if (!checkElf(elf)) return nullptr;
        if (scn && !validScn(scn)) {
            SETERR(ERR_SCN_MAGIC);
            return nullptr;
        }
        const size_t index = scn ? static_cast<size_t>(scn->m_index) + 1 : 1;
        Elf_Scn* next = elf->get_scn(index);
        if (!next) SETERR(ERR_NO_SUCH_SCN);
        return next;
    });
}
