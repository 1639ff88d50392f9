#include "ErrHndr.h"
#include "tamoelf.h"

using namespace tamo;

extern "C" const char* tamo_elf_errmsg(int code) {
    const auto index = static_cast<unsigned int>(code);
    return ErrHndr::m_sErrmsgs[index <= ERR_SWAP_BEHAVIOR ? index : 0];
}
