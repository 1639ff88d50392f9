#include "ElfScn.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "ElfDesc.h"
#include "ErrHndr.h"
#include "FileDesc.h"
#include "Globe.h"
#include "Registry.h"

using namespace tamo;

Elf_Scn::Elf_Scn(Elf* owner, uint16_t index) : m_lMagicNum(SCN_MAGIC_NUM), m_index(index), m_pElf(owner) {}

Elf_Scn::~Elf_Scn() {
    destroy();
    m_lMagicNum = 0;
}

void Elf_Scn::destroy() {
    m_vData.clear();
}

DataDesc* DataList::make(Elf_Scn* owner) {
    if (m_kept) return new DataDesc(owner);
    auto* d = ::new (static_cast<void*>(m_store)) DataDesc(owner, /*kept=*/true);
    m_kept = true;
    return d;
}

void DataList::link(DataDesc* d) {
    (m_tail ? m_tail->m_pNext : m_head) = d;
    m_tail = d;
}

void DataList::drop(DataDesc* d) {
    if (d == kept()) {
        d->~DataDesc();
        m_kept = false;
    } else {
        delete d;
    }
}

void DataList::clear() {
    for (DataDesc* d = m_head; d;) {
        DataDesc* next = d->m_pNext;
        drop(d);
        d = next;
    }
    m_head = m_tail = nullptr;
    if (m_kept) drop(reinterpret_cast<DataDesc*>(m_store));  // made but never linked
}

size_t DataList::keptOffset() { return offsetof(Elf_Scn, m_vData) + offsetof(DataList, m_store); }

bool Elf_Scn::liveData(const void* p) noexcept {
    // A kept descriptor lies at a fixed distance after its section
    // descriptor, which the pool knows; the others are registered.
    const uintptr_t at = reinterpret_cast<uintptr_t>(p);
    if (at >= DataList::keptOffset()) {
        const auto* scn = reinterpret_cast<const Elf_Scn*>(at - DataList::keptOffset());
        if (SlabPool<Elf_Scn>::live(scn) && scn->m_vData.kept() == p) return true;
    }
    return Registry::live(HandleClass::Data, p);
}

bool Elf_Scn::charge(uint64_t n) {
    if (!m_pElf->chargeSectionBytes(n)) return false;
    m_charged += n;
    return true;
}

uint8_t* Elf_Scn::placeBytes(const Elf32_Shdr& sh, bool& inImage, size_t& readable, int64_t& readFrom) {
    Elf* elf = m_pElf;
    const uint64_t off = sh.sh_offset;
    const uint64_t size = sh.sh_size;
    const bool image = elf->m_kind == ELF_K_ELF && elf->onImage();

    if (image && !elf->m_pFile->m_pImage) {
        SETERR(ERR_IMAGE_BASE);
        return nullptr;
    }
    if (!image && elf->m_kind == ELF_K_AR && !elf->isMember()) {
        SETERR(ERR_DESC_TYPE);
        return nullptr;
    }
    if (size == 0) {
        // An empty section needs no bytes wherever its offset points: it
        // reads as an empty block (inside the image when the offset is).
        inImage = image && off <= elf->m_pFile->m_imageSize;
        if (inImage) {
            readable = static_cast<size_t>(elf->m_pFile->m_imageSize - off);
            return reinterpret_cast<uint8_t*>(elf->m_pFile->m_pImage + off);
        }
        auto* buf = static_cast<uint8_t*>(m_gc.allocate(1));
        if (!buf) return nullptr;
        buf[0] = 0;
        readable = 1;
        return buf;
    }

    if (image) {
        char* base = elf->m_pFile->m_pImage;
        const uint64_t imageSize = elf->m_pFile->m_imageSize;
        if (off > imageSize || size > imageSize - off) {
            SETERR(ERR_IMAGE_BASE);
            return nullptr;
        }
        if (!charge(size)) return nullptr;
        if (off < sizeof(Elf32_Ehdr) && elf->headerInImage()) {
            // Bytes over the ELF header, which the descriptor works on in
            // the image: converting them there would change the header under
            // it. The section gets its own copy.
            auto* buf = static_cast<uint8_t*>(m_gc.allocate(static_cast<size_t>(size) + 1));
            if (!buf) return nullptr;
            std::memcpy(buf, base + off, static_cast<size_t>(size));
            buf[size] = 0;
            inImage = false;
            readable = static_cast<size_t>(size) + 1;
            return buf;
        }
        inImage = true;
        readable = static_cast<size_t>(imageSize - off);
        return reinterpret_cast<uint8_t*>(base + off);
    }

    // Sizes come from what the file holds, never from the header alone.
    uint64_t limit = elf->contentLimit();
    if (off > limit || size > limit - off) limit = elf->contentLimit(true);
    if (off > limit || size > limit - off || size >= SIZE_MAX) {
        SETERR(ERR_READ);
        return nullptr;
    }
    if (!charge(size)) return nullptr;

    // One byte more than the section, always NUL, so that no string found in
    // it runs past the buffer. The bytes are read later, when it is known how
    // they are converted, so that each chunk is converted while in cache.
    auto* buf = static_cast<uint8_t*>(m_gc.allocate(static_cast<size_t>(size) + 1));
    if (!buf) return nullptr;
    readFrom = elf->baseOffset() + static_cast<int64_t>(off);
    buf[size] = 0;
    inImage = false;
    readable = static_cast<size_t>(size) + 1;
    return buf;
}

uint8_t* Elf_Scn::reshape(uint8_t* bytes, uint32_t srcSize, uint32_t dstSize, size_t& readable) {
    const uint64_t records = m_pShdr->sh_size / srcSize;
    const uint64_t newSize = records * dstSize;
    if (!charge(newSize)) return nullptr;
    auto* out = static_cast<uint8_t*>(m_gc.allocate(static_cast<size_t>(newSize) + 1));
    if (!out) return nullptr;
    std::memset(out, 0, static_cast<size_t>(newSize) + 1);
    const uint32_t keep = srcSize < dstSize ? srcSize : dstSize;
    for (uint64_t r = 0; r < records; ++r) std::memcpy(out + r * dstSize, bytes + r * srcSize, keep);
    m_pShdr->sh_size = static_cast<Elf32_Word>(newSize);
    m_pShdr->sh_entsize = dstSize;
    readable = static_cast<size_t>(newSize) + 1;
    return out;
}

int Elf_Scn::initialize() {
    Elf32_Shdr* sh = m_pElf->get_shdr(m_index);
    if (!sh) {
        SETERR(ERR_GET_SHDR);
        return -1;
    }
    m_pShdr = sh;
    if (m_pElf->m_cmd == ELF_C_WRITE) return 0;
    if (sh->sh_type == SHT_NULL || sh->sh_type == SHT_NOBITS) return 0;

    bool inImage = false;
    size_t readable = 0;
    int64_t readFrom = -1;  // where the bytes still to be read are, if they are
    uint8_t* bytes = placeBytes(*sh, inImage, readable, readFrom);
    if (!bytes) return -1;

    const uint32_t storedType = sh->sh_type;
    const Elf32_Ehdr* ehdr = m_pElf->m_pEhdr;

    // COFF debug sections of a foreign byte order: line-number relocations
    // are converted with rescaled offsets, and line-number and symbol records
    // (8 and 20 bytes in a big-endian file) are repacked to 6 and 18 bytes.
    if (ehdr && m_index != ehdr->e_shstrndx && m_pElf->foreign()) {
        // The name comes as tamo_elf_strptr would give it: a file without a
        // section-name table (index 0) cannot name its sections.
        const char* name = nullptr;
        if (ehdr->e_shstrndx == SHN_UNDEF)
            SETERR(ERR_SCN_INDEX);
        else
            name = m_pElf->strptr(ehdr->e_shstrndx, sh->sh_name);
        if (!name) {
            if (pendingError() == ERR_NONE) SETERR(ERR_SCN_NAME_EMPTY, "Elf_Scn::initialize()");
            return -1;
        }
        const unsigned order = ehdr->e_ident[EI_DATA];
        const CoffKind kind = coffKind(name, sh->sh_type);
        if (kind == CoffKind::LineRelocations) {
            sh->sh_type = order == ELFDATA2LSB ? SHT_COFF_LNRELA_6TO8 : SHT_COFF_LNRELA_8TO6;
        } else if (kind != CoffKind::None) {
            if (readFrom >= 0 && !readSection(*m_pElf->m_pFile, readFrom, bytes, sh->sh_size)) return -1;
            readFrom = -1;
            bytes = reshape(bytes, coffFileRecord(kind, order), coffMemoryRecord(kind), readable);
            if (!bytes) return -1;
            inImage = false;
            sh->sh_type = kind == CoffKind::LineNumbers ? SHT_COFF_LINENO : SHT_COFF_SYMENT;
        }
    }

    DataDesc* data = m_vData.make(this);
    data->m_data.d_buf = bytes;
    data->m_pPlaced = bytes;
    data->m_readable = readable;
    data->m_bInImage = inImage;
    data->m_readFrom = readFrom;
    const int r = data->initialize();
    sh->sh_type = storedType;
    if (r < 0) {
        m_vData.drop(data);
        return -1;
    }
    m_vData.link(data);
    return 0;
}

DataDesc* Elf_Scn::get_data(const DataDesc* prev) const {
    if (m_vData.empty()) {
        SETERR(ERR_GETDATA_EMPTY);
        return nullptr;
    }
    if (!prev) return m_vData.front();
    // A live descriptor of this section is in its list.
    if (prev->m_pScn == this && prev->m_pNext) return prev->m_pNext;
    SETERR(ERR_NO_DATA_AT_OFFSET);
    return nullptr;
}

DataDesc* Elf_Scn::new_data() {
    if (m_pElf->m_kind == ELF_K_AR || m_pElf->onImage()) {
        SETERR(ERR_WRITE_ARCHIVE);
        return nullptr;
    }
    DataDesc* data = m_vData.make(this);
    if (data->initialize() < 0) {
        m_vData.drop(data);
        return nullptr;
    }
    data->m_data.d_type = ELF_T_BYTE;
    data->m_data.d_align = 1;
    data->m_data.d_version = EV_CURRENT;
    m_vData.link(data);
    m_bDirty = TRUEVAL;
    return data;
}
