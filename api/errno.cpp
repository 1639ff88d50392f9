#include "ErrHndr.h"
#include "tamoelf.h"

using namespace tamo;

extern "C" int tamo_elf_errno(void) {
    const int code = errHandler.m_code;
    errHandler.m_code = ERR_NONE;
    return code;
}

extern "C" const char* elf_lastmsg_poster(void) { return errHandler.m_poster; }
