#include "Entry.h"

using namespace tamo;

extern "C" int tamo_elf_setswapbehavior(Elf_Scn* scn, int behavior) {
    if (behavior < 1 || behavior > 4) {
        SETERR(ERR_SWAP_BEHAVIOR);
        return -1;
    }
    if (!scn) {
        SETERR(ERR_NULL_PARAM);
        return -1;
    }
    if (!liveScn(scn)) {
        SETERR(ERR_SCN_MAGIC);
        return -1;
    }
    scn->m_swapBehavior = static_cast<uint32_t>(behavior);
    return 0;
}

extern "C" Elf_ReadSwapController tamo_elf_setreadswapcontroller(Elf* elf, Elf_ReadSwapController controller) {
    // No error is reported here; a pointer that is not a live descriptor is
    // left alone and null returned.
    if (!liveElf(elf)) return nullptr;
    Elf_ReadSwapController previous = elf->m_ctrl;
    elf->m_ctrl = controller ? controller : &Elf::defaultReadSwapController;
    return previous;
}
