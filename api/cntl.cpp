#include "Entry.h"

using namespace tamo;

extern "C" int tamo_elf_cntl(Elf* elf, Elf_Cmd cmd) {
    return guarded(-1, [&] {
        if (!elf) {
            SETERR(ERR_NULL_PARAM);
            return -1;
        }
        if (!liveElf(elf)) {
            SETERR(ERR_ELF_MAGIC);
            return -1;
        }
        if (cmd != ELF_C_FDDONE && cmd != ELF_C_FDREAD) {
            SETERR(ERR_CNTL_CMD);
            return -1;
        }
        if (cmd == ELF_C_FDREAD && elf->read_all() < 0) return -1;
        elf->m_fdState = cmd;
        return 0;
    });
}
