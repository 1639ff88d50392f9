#include "Entry.h"

using namespace tamo;

namespace {

// Steps 3 to 5 shared by the five functions: the flags must name DIRTY or
// LAYOUT, the command must be SET or CLR, and DIRTY applies to `dirty`.
bool applyDirty(int& dirty, Elf_Cmd cmd, unsigned int flags) {
    if (!(flags & (ELF_F_DIRTY | ELF_F_LAYOUT))) {
        SETERR(ERR_FLAGS);
        return false;
    }
    if (cmd != ELF_C_CLR && cmd != ELF_C_SET) {
        SETERR(ERR_FLAG_CMD);
        return false;
    }
    if (flags & ELF_F_DIRTY) dirty = cmd == ELF_C_SET ? TRUEVAL : FALSEVAL;
    return true;
}

// For holders without a layout flag: LAYOUT fails after DIRTY took effect.
unsigned int flagWithoutLayout(int& dirty, Elf_Cmd cmd, unsigned int flags, ErrNo layoutCode) {
    if (!applyDirty(dirty, cmd, flags)) return 0;
    if (flags & ELF_F_LAYOUT) {
        SETERR(layoutCode);
        return 0;
    }
    return flags;
}

}  // namespace

extern "C" unsigned int tamo_elf_flagelf(Elf* elf, Elf_Cmd cmd, unsigned int flags) {
    if (!checkElf(elf)) return 0;
    if (!applyDirty(elf->m_bDirty, cmd, flags)) return 0;
    if (flags & ELF_F_LAYOUT) elf->m_bLayout = cmd == ELF_C_SET ? TRUEVAL : FALSEVAL;
    return flags;
}

extern "C" unsigned int tamo_elf_flagehdr(Elf* elf, Elf_Cmd cmd, unsigned int flags) {
    if (!elf) {
        SETERR(ERR_NULL_PARAM);
        return 0;
    }
    if (!liveElf(elf)) {
        SETERR(ERR_ELF_MAGIC);
        return 0;
    }
    return flagWithoutLayout(elf->m_bDirty, cmd, flags, ERR_FLAG_EHDR_LAYOUT);
}

extern "C" unsigned int tamo_elf_flagscn(Elf_Scn* scn, Elf_Cmd cmd, unsigned int flags) {
    if (!scn) {
        SETERR(ERR_NULL_PARAM);
        return 0;
    }
    if (!liveScn(scn)) {
        SETERR(ERR_SCN_MAGIC);
        return 0;
    }
    return flagWithoutLayout(scn->m_bDirty, cmd, flags, ERR_FLAG_SCN_LAYOUT);
}

extern "C" unsigned int tamo_elf_flagshdr(Elf_Scn* scn, Elf_Cmd cmd, unsigned int flags) {
    return tamo_elf_flagscn(scn, cmd, flags);
}

extern "C" unsigned int tamo_elf_flagdata(Elf_Data* data, Elf_Cmd cmd, unsigned int flags) {
    if (!data) {
        SETERR(ERR_NULL_PARAM);
        return 0;
    }
    if (!liveData(data)) {
        SETERR(ERR_DATA_MAGIC);
        return 0;
    }
    return flagWithoutLayout(DataDesc::of(data)->m_bDirty, cmd, flags, ERR_FLAG_DATA_LAYOUT);
}
