#include "Entry.h"

using namespace tamo;

extern "C" size_t tamo_elf_ndxscn(Elf_Scn* scn) {
    if (!checkScn(scn)) return 0;
    return scn->m_index;
}
