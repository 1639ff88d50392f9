#include <unistd.h>

#include <cerrno>

#include "Entry.h"

using namespace tamo;

extern "C" size_t tamo_elf_rand(Elf* elf, size_t offset) {
    if (!checkElf(elf)) return 0;
    if (elf->m_kind != ELF_K_AR || !elf->m_pAr) {
        SETERR(ERR_FILE_TYPE);
        return 0;
    }
    if (!elf->m_pFile) {
        SETERR(ERR_NO_FILEDESC);
        return 0;
    }
    const auto target = static_cast<off_t>(offset);
    if (target < 0 || static_cast<size_t>(target) != offset) {
        report_lseek_err(EINVAL, "elf_rand");
        return 0;
    }
    const off_t got = ::lseek(elf->fd(), target, SEEK_SET);
    if (got != target) {
        report_lseek_err(got == static_cast<off_t>(-1) ? errno : EINVAL, "elf_rand");
        return 0;
    }
    return offset;
}
