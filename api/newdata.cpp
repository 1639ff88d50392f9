#include "Entry.h"

using namespace tamo;

extern "C" Elf_Data* tamo_elf_newdata(Elf_Scn* scn) {
    return guarded<Elf_Data*>(nullptr, [&]() -> Elf_Data* {
        if (!checkScn(scn)) return nullptr;
        DataDesc* d = scn->new_data();
        return d ? d->data() : nullptr;
    });
}
