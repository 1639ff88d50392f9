#include "Entry.h"

using namespace tamo;

extern "C" Elf_Data* tamo_elf_getdata(Elf_Scn* scn, Elf_Data* data) {
    if (!checkScn(scn)) return nullptr;
    if (data && !validData(data)) {
        SETERR(ERR_DATA_MAGIC);
        return nullptr;
    }
    DataDesc* next = scn->get_data(data ? DataDesc::of(data) : nullptr);
    if (!next) {
        SETERR(ERR_NO_DATA_AT_OFFSET);
        return nullptr;
    }
    return next->data();
}
