#include "ArSymTab.h"

#include <algorithm>

#include "ArDesc.h"
#include "Cursor.h"
#include "ErrHndr.h"
#include "FileDesc.h"

using namespace tamo;

namespace tamo {
uint32_t elfHash(const char* name) {
    uint32_t h = 0;
    for (auto* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
        h = (h << 4) + *p;
        const uint32_t g = h & 0xf0000000u;
        if (g) h ^= g >> 24;
        h &= ~g;
    }
    return h;
}
}  // namespace tamo

long ArSymTab::initialize(long offset, long size) {
    const FileDesc* file = m_pOwner->m_pFile;
    // The table must fit in the archive; nothing is allocated before that is
    // known.
    if (size < 0 || offset < 0 || static_cast<int64_t>(offset) + size > file->m_lFileSize) {
        SETERR(ERR_AR_SYMTAB_INIT);
        return -1;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    if (preadFully(file->m_iFd, bytes.data(), bytes.size(), offset) != static_cast<ssize_t>(bytes.size())) {
        SETERR(ERR_READ);
        return -1;
    }
    Cursor c(bytes.data(), bytes.size(), static_cast<ByteOrder>(file->m_encoding));
    const uint32_t n = c.u32();
    if (c.failed() || n > c.remaining() / 4) {
        SETERR(ERR_AR_SYMTAB_INIT);
        return -1;
    }
    // The N names must all end inside the table: counted before anything
    // sized by N is allocated.
    const uint8_t* namesStart = c.here() + 4 * static_cast<size_t>(n);
    const size_t namesSize = c.remaining() - 4 * static_cast<size_t>(n);
    if (static_cast<size_t>(std::count(namesStart, namesStart + namesSize, 0)) < n) {
        SETERR(ERR_AR_SYMTAB_INIT);
        return -1;
    }
    std::vector<uint32_t> offsets(n);
    for (uint32_t& o : offsets) o = c.u32();

    // Names: a copy of the rest of the table; the count above makes every
    // name end inside it.
    m_names.assign(c.here(), c.here() + c.remaining());
    Cursor names(reinterpret_cast<const uint8_t*>(m_names.data()), m_names.size());
    // One record more than the table holds, with a null name, ends the
    // array for callers that walk it to a terminator.
    m_entries.resize(static_cast<size_t>(n) + 1);
    m_entries[n] = Elf_Arsym{nullptr, 0, ~0u};
    for (uint32_t i = 0; i < n; ++i) {
        const char* name = names.cstr();
        m_entries[i].as_name = const_cast<char*>(name);
        m_entries[i].as_off = offsets[i];
        m_entries[i].as_hash = elfHash(name);
    }
    m_count = n;
    return offset + size;
}

int ArSymTab::swap(char* src, char* dst, Elf_Type type) {
    if (type != ELF_T_BYTE) {
        SETERR(ERR_DESC_TYPE);
        return -1;
    }
    UnsignedUnitSwap(src, dst, 4);
    return 4;
}
