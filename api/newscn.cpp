#include "Entry.h"

using namespace tamo;

extern "C" Elf_Scn* tamo_elf_newscn(Elf* elf) {
    return guarded<Elf_Scn*>(nullptr, [&]() -> Elf_Scn* {
        if (!checkElf(elf)) return nullptr;
        if (!elf->m_pEhdr) {
            SETERR(ERR_NO_EHDR);
            return nullptr;
        }
        // A new section always resets the header's byte order to the host's;
        // a caller that wants the other order sets EI_DATA afterwards.
        elf->m_pEhdr->e_ident[EI_DATA] = static_cast<unsigned char>(Elf::DEFAULT_ENCODING);
        return elf->new_scn();
    });
}
