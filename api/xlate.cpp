#include <cstring>

#include "Entry.h"

using namespace tamo;

namespace {

Elf_Data* performXlate(Elf_Data* dst, Elf_Data* src, unsigned int encode, bool toFile) {
    if (!src || !validData(src)) {
        SETERR(ERR_DATA_MAGIC);
        return nullptr;
    }
    if (!dst) {
        SETERR(ERR_NULL_PARAM);
        return nullptr;
    }
    if (dst->d_size < src->d_size) {
        SETERR(ERR_XLATE_SIZE);
        return nullptr;
    }
    if (encode != ELFDATA2LSB && encode != ELFDATA2MSB) {
        SETERR(ERR_ENCODING);
        return nullptr;
    }
    DataDesc* s = DataDesc::of(src);
    if (!s->m_pScn) {
        SETERR(ERR_NO_SCN);
        return nullptr;
    }
    if (!s->m_pScn->m_pElf) {
        SETERR(ERR_NO_ELF);
        return nullptr;
    }
    if (!s->m_pScn->m_pElf->m_pEhdr) {
        SETERR(ERR_NO_EHDR);
        return nullptr;
    }
    if (encode == Elf::DEFAULT_ENCODING) {
        if (dst->d_buf != src->d_buf && src->d_size) {
            if (!dst->d_buf || !src->d_buf) {
                SETERR(ERR_NULL_PARAM);
                return nullptr;
            }
            std::memmove(dst->d_buf, src->d_buf, src->d_size);
        }
    } else {
        if (src->d_size && (!dst->d_buf || !src->d_buf)) {
            SETERR(ERR_NULL_PARAM);
            return nullptr;
        }
        const int r = s->swap(static_cast<char*>(src->d_buf), static_cast<char*>(dst->d_buf), src->d_type, toFile,
                              /*force=*/true);
        if (r <= 0) return nullptr;
    }
    dst->d_size = src->d_size;
    dst->d_type = src->d_type;
    return dst;
}

}  // namespace

extern "C" Elf_Data* tamo_elf32_xlatetof(Elf_Data* dst, Elf_Data* src, unsigned int encode) {
    return guarded<Elf_Data*>(nullptr, [&] { return performXlate(dst, src, encode, true); });
}

extern "C" Elf_Data* tamo_elf32_xlatetom(Elf_Data* dst, Elf_Data* src, unsigned int encode) {
    return guarded<Elf_Data*>(nullptr, [&] { return performXlate(dst, src, encode, false); });
}
