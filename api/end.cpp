#include "Entry.h"

using namespace tamo;

extern "C" int tamo_elf_end(Elf* elf) {
    if (!checkElf(elf)) return -1;
    if (elf->m_activation > 1) return --elf->m_activation;
    elf->destroy();
    return 0;
}
