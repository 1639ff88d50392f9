#include "ErrHndr.h"
#include "Globe.h"
#include "tamoelf.h"

using namespace tamo;

extern "C" size_t tamo_elf32_fsize(Elf_Type type, size_t count, unsigned int version) {
    if (version != EV_CURRENT) {
        SETERR(ERR_VERSION_NUMBER);
        return 0;
    }
    if (static_cast<unsigned int>(type) >= ELF_T_NUM) {
        SETERR(ERR_DATA_TYPE);
        return 0;
    }
    // A 32-bit product, as the format's sizes are.
    return static_cast<uint32_t>(aryDataSize[version - 1][type][1] * static_cast<uint32_t>(count));
}
