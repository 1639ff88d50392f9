#include "Entry.h"

using namespace tamo;

// Layout and writing are not built yet: every command that would lay out or
// write fails with code 29; the argument checks are in place.
extern "C" off_t tamo_elf_update(Elf* elf, Elf_Cmd cmd) {
    if (!checkElf(elf)) return -1;
    if (static_cast<unsigned int>(cmd) > ELF_C_RDWR) {
        SETERR(ERR_ELF_CMD);
        return -1;
    }
    if (cmd != ELF_C_NULL && cmd != ELF_C_WRITE) return 0;
    if (cmd == ELF_C_WRITE && elf->m_cmd == ELF_C_READ) {
        SETERR(ERR_WRITE_DENIED);
        return -1;
    }
    SETERR(ERR_UPDATE);
    return -1;
}
