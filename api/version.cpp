// tamo_elf_version: the working-version gate.
//
// Only version 1 (EV_CURRENT) exists. Setting it is what tamo_elf_begin
// requires; tamo_elf_memory and tamo_elf32_fsize work without it.
//
// The size table must hold non-zero sizes for its last type; the checks below
// are build-time invariants kept as assertions.
//
// Results:
//   version 0: 1, nothing changes
//   version 1: the previous working version (1 when none), then set to 1
//   other:     0 with code 54; the working version is unchanged

#include "Assert.h"
#include "ErrHndr.h"
#include "Globals.h"
#include "Globe.h"
#include "tamoelf.h"

using namespace tamo;

extern "C" unsigned int tamo_elf_version(unsigned int version) {
    static_assert(aryDataSize[1 - 1][ELF_T_NUM - 1][0] != 0 && aryDataSize[1 - 1][ELF_T_NUM - 1][1] != 0);
    TAMO_ASSERT(aryDataSize[1 - 1][ELF_T_NUM - 1][0], "api/version");
    TAMO_ASSERT(aryDataSize[1 - 1][ELF_T_NUM - 1][1], "api/version");
    if (version == EV_NONE) return EV_CURRENT;
    if (version > EV_CURRENT) {
        SETERR(ERR_ELF_VERSION);
        return 0;
    }
    const unsigned int previous = g_libelf_version ? g_libelf_version : EV_CURRENT;
    g_libelf_version = EV_CURRENT;
    return previous;
}
