#include "ElfDesc.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "ArDesc.h"
#include "ElfScn.h"
#include "ErrHndr.h"
#include "Globe.h"
#include "Registry.h"

using namespace tamo;

namespace {

constexpr uint64_t kPlacementSlack = 1u << 20;

}  // namespace

Elf::Elf(std::unique_ptr<FileDesc> f, Elf_Cmd cmd)
    : m_lMagicNum(ELF_MAGIC_NUM), m_pFile(f.get()), m_kind(ELF_K_ELF), m_cmd(cmd), m_ownedFile(std::move(f)) {
    Registry::add(HandleClass::Elf, this);
    m_pFile->m_pElf = this;
}

Elf::Elf(std::unique_ptr<FileDesc> f, std::unique_ptr<ArDesc> ar, Elf_Cmd cmd)
    : m_lMagicNum(ELF_MAGIC_NUM),
      m_pFile(f.get()),
      m_pAr(ar.get()),
      m_kind(ELF_K_AR),
      m_cmd(cmd),
      m_ownedFile(std::move(f)),
      m_ownedAr(std::move(ar)) {
    Registry::add(HandleClass::Elf, this);
    m_pAr->m_pElf = this;
    m_pFile->m_pElf = this;
}

Elf::Elf(ArMember* member, Elf_Cmd cmd)
    : m_lMagicNum(ELF_MAGIC_NUM), m_pFile(member->m_pOwner->m_pFile), m_pMember(member), m_kind(ELF_K_AR), m_cmd(cmd) {
    Registry::add(HandleClass::Elf, this);
    member->m_pElf = this;
}

Elf::~Elf() {
    Registry::remove(HandleClass::Elf, this);
    m_lMagicNum = 0;
}

int Elf::defaultReadSwapController(Elf32_Shdr*, const char*) { return 1; }

int Elf::initialize() {
    if (m_cmd != ELF_C_READ && m_cmd != ELF_C_WRITE && m_cmd != ELF_C_RDWR) {
        SETERR(ERR_ACCESS);
        return -1;
    }
    if (m_cmd == ELF_C_WRITE) {
        if (m_kind == ELF_K_AR) {
            SETERR(ERR_WRITE_ARCHIVE);
            return -1;
        }
        return 0;
    }
    if (m_cmd == ELF_C_RDWR && m_kind == ELF_K_AR) {
        SETERR(ERR_WRITE_ARCHIVE);
        return -1;
    }
    if (m_cmd == ELF_C_READ && isArchive()) return 0;
    if (init_ElfHdr() < 0 || init_ScnTab() < 0) return -1;
    return 1;
}

int64_t Elf::baseOffset() const { return m_pMember ? m_pMember->m_dataOffset : 0; }

uint64_t Elf::contentLimit(bool fresh) {
    if (onImage()) return m_pFile->m_imageSize;
    if (m_pMember) return m_pMember->size();
    if (!m_pFile) return 0;
    const int64_t size = fresh ? m_pFile->currentSize() : m_pFile->m_lFileSize;
    return size < 0 ? 0 : static_cast<uint64_t>(size);
}

bool Elf::chargeSectionBytes(uint64_t n) {
    // Sections of a well-formed file do not overlap, so together they hold
    // at most the input's bytes. A bound of a few times that stops a hostile
    // table of overlapping sections from multiplying memory and work.
    auto fits = [this, n](uint64_t limit) {
        const uint64_t budget = 4 * limit + kPlacementSlack;
        return n <= budget && m_placedBytes <= budget - n;
    };
    if (!fits(contentLimit()) && !fits(contentLimit(true))) {
        SETERR(ERR_NOMEM);
        return false;
    }
    m_placedBytes += n;
    return true;
}

int Elf::init_ElfHdr() {
    if (m_kind == ELF_K_ELF && onImage()) {
        char* base = m_pFile->m_pImage;
        if (!base) {
            SETERR(ERR_IMAGE_BASE);
            return -1;
        }
        if (m_pFile->m_imageSize < sizeof(Elf32_Ehdr)) {
            SETERR(ERR_KIND);
            return -1;
        }
        if (reinterpret_cast<uintptr_t>(base) % alignof(Elf32_Ehdr) == 0) {
            m_pEhdr = reinterpret_cast<Elf32_Ehdr*>(base);
        } else {
            // A header record cannot live at a misaligned address: work on a
            // copy; the image itself keeps its bytes.
            m_ownedEhdr = std::make_unique<Elf32_Ehdr>();
            std::memcpy(m_ownedEhdr.get(), base, sizeof(Elf32_Ehdr));
            m_pEhdr = m_ownedEhdr.get();
        }
    } else {
        int64_t base;
        if (m_kind == ELF_K_ELF)
            base = 0;
        else if (m_pMember)
            base = m_pMember->m_dataOffset;
        else {
            SETERR(ERR_KIND);
            return -1;
        }
        if (!seekSet(fd(), base, "init_ElfHdr")) return -1;
        m_ownedEhdr = std::make_unique<Elf32_Ehdr>();
        m_pEhdr = m_ownedEhdr.get();
        size_t want = sizeof(Elf32_Ehdr);
        if (m_pMember) want = std::min<size_t>(want, m_pMember->size());
        if (readFully(fd(), m_pEhdr, want) < 0) {
            SETERR(ERR_READ);
            return -1;
        }
        if (std::memcmp(m_pEhdr->e_ident, "\177ELF", 4) != 0) {
            SETERR(ERR_KIND);
            return -1;
        }
    }

    // The byte order comes from e_version (1 reads 01 00 00 00 or
    // 00 00 00 01), whatever e_ident[EI_DATA] claims.
    const auto* raw = reinterpret_cast<const uint8_t*>(m_pEhdr);
    const int sum = static_cast<int8_t>(raw[20]) + static_cast<int8_t>(raw[21]);
    const uint8_t encoding = sum == 0 ? ELFDATA2MSB : ELFDATA2LSB;
    m_pEhdr->e_ident[EI_DATA] = encoding;
    if (onImage() && m_ownedEhdr) m_pFile->m_pImage[EI_DATA] = static_cast<char>(encoding);

    if (encoding != DEFAULT_ENCODING) {
        const bool inImage = onImage() && !m_ownedEhdr;
        if (inImage && !reserveImageUndo()) return -1;
        swap(reinterpret_cast<char*>(m_pEhdr), reinterpret_cast<char*>(m_pEhdr), ELF_T_EHDR);
        if (inImage)
            recordImageConversion(reinterpret_cast<uint8_t*>(m_pEhdr), sizeof(Elf32_Ehdr), ELF_T_EHDR, 1, nullptr);
    }
    return 1;
}

int Elf::init_ScnTab() {
    const size_t n = m_pEhdr->e_shnum;
    const uint64_t off = m_pEhdr->e_shoff;
    if (n == 0) return 1;

    const size_t entry = sizeof(Elf32_Shdr);
    // Records are read one after another, min(e_shentsize, 44) bytes each
    // (standard objects have 40-byte entries); the rest of a record is zero.
    const size_t stride = std::min<size_t>(m_pEhdr->e_shentsize, entry);
    std::vector<uint8_t> read;
    const uint8_t* from = nullptr;
    size_t got = 0;

    if (m_kind == ELF_K_ELF && onImage()) {
        const char* base = m_pFile->m_pImage;
        if (!base || off > m_pFile->m_imageSize || stride * n > m_pFile->m_imageSize - off) {
            SETERR(ERR_IMAGE_BASE);
            return -1;
        }
        from = reinterpret_cast<const uint8_t*>(base + off);
        got = stride * n;
    } else {
        int64_t start;
        if (m_kind == ELF_K_ELF)
            start = static_cast<int64_t>(off);
        else if (m_pMember)
            start = static_cast<int64_t>(m_pMember->m_dataOffset + off);
        else {
            SETERR(ERR_KIND);
            return -1;
        }
        if (!seekSet(fd(), start, "init_ScnTab")) return -1;
        size_t want = stride * n;
        if (m_pMember) {
            // A member's table ends with the member: what lies beyond is not read.
            const uint64_t size = m_pMember->size();
            want = off >= size ? 0 : static_cast<size_t>(std::min<uint64_t>(want, size - off));
        }
        // Read in pieces, so that a header claiming more records than the
        // file holds costs no more memory than the file has.
        constexpr size_t kPiece = size_t{64} << 10;
        while (got < want) {
            const size_t piece = std::min(kPiece, want - got);
            read.resize(got + piece);
            const ssize_t r = readFully(fd(), read.data() + got, piece);
            if (r < 0) {
                SETERR(ERR_READ);
                return -1;
            }
            got += static_cast<size_t>(r);
            if (static_cast<size_t>(r) < piece) break;
        }
        from = read.data();
    }
    // Records past what the file holds read as zero; they are made only when
    // asked for (get_shdr).
    const size_t held = stride ? std::min(n, (got + stride - 1) / stride) : 0;
    m_fileShdrs = std::make_unique<Elf32_Shdr[]>(held);  // zeroed
    m_nFileShdrs = n;
    m_nHeldShdrs = held;
    auto* table = reinterpret_cast<uint8_t*>(m_fileShdrs.get());
    if (stride == entry) {
        if (got) std::memcpy(table, from, got);
    } else {
        for (size_t i = 0; i < held; ++i)
            std::memcpy(table + i * entry, from + i * stride, std::min(stride, got - i * stride));
    }
    if (foreign()) swapBlock(reinterpret_cast<char*>(table), reinterpret_cast<char*>(table), ELF_T_SHDR, held, false);
    return 1;
}

Elf32_Shdr* Elf::get_shdr(size_t index) const {
    if (index >= m_nHeldShdrs && index < m_nFileShdrs) {
        // A record the file claims but does not hold: made (zeroed) now,
        // since the caller may change it.
        const size_t k = index - m_nHeldShdrs;
        try {
            if (m_madeShdrs.empty())
                m_madeShdrs.resize((m_nFileShdrs - m_nHeldShdrs + kMadeShdrPage - 1) / kMadeShdrPage);
            std::unique_ptr<Elf32_Shdr[]>& page = m_madeShdrs[k / kMadeShdrPage];
            if (!page) page.reset(new Elf32_Shdr[kMadeShdrPage]());
            return &page[k % kMadeShdrPage];
        } catch (const std::bad_alloc&) {
            SETERR(ERR_NOMEM);
            return nullptr;
        }
    }
    if (const Elf32_Shdr* sh = peekShdr(index)) return const_cast<Elf32_Shdr*>(sh);
    SETERR(ERR_NO_SUCH_SCN);
    return nullptr;
}

const Elf32_Shdr* Elf::peekShdr(size_t index) const {
    static const Elf32_Shdr zero{};
    if (index < m_nHeldShdrs) return &m_fileShdrs[index];
    if (index < m_nFileShdrs) {
        const size_t k = index - m_nHeldShdrs, page = k / kMadeShdrPage;
        return page < m_madeShdrs.size() && m_madeShdrs[page] ? &m_madeShdrs[page][k % kMadeShdrPage] : &zero;
    }
    if (index < shdrCount()) return &m_newShdrs[index - m_nFileShdrs];
    return nullptr;
}

Elf_Scn* Elf::get_scn(size_t index) {
    if (index >= shdrCount()) {
        SETERR(ERR_NO_SUCH_SCN);
        return nullptr;
    }
    // A descriptor whose data are still being read is handed out as it is
    // (without data): a nested request made while converting it must not make
    // a second descriptor on the same bytes.
    if (Elf_Scn* existing = scnAt(index)) return existing;
    if (m_fdState == ELF_C_FDDONE || m_fdState == ELF_C_FDREAD) {
        SETERR(ERR_FDCNTL);
        return nullptr;
    }
    return makeScn(index);
}

void Elf::ScnRelease::operator()(Elf_Scn* scn) const noexcept {
    scn->m_pElf->m_scnPool.release(scn);
}

Elf_Scn* Elf::makeScn(size_t index) {
    // Slots are made up to the highest index asked for, not for every
    // section a header claims.
    if (index >= m_vScns.size()) m_vScns.resize(index + 1);
    m_vScns[index].reset(m_scnPool.make(this, static_cast<uint16_t>(index)));
    Elf_Scn* scn = m_vScns[index].get();
    int r;
    try {
        r = scn->initialize();
    } catch (...) {
        m_placedBytes -= scn->m_charged;
        m_vScns[index].reset();  // no half-made descriptor stays behind
        throw;
    }
    if (r < 0) {
        // Only what stays placed counts against the budget.
        m_placedBytes -= scn->m_charged;
        m_vScns[index].reset();
        return nullptr;
    }
    return scn;
}

int Elf::read_all() {
    if (m_fdState == ELF_C_FDDONE || m_fdState == ELF_C_FDREAD) {
        SETERR(ERR_FDCNTL);
        return -1;
    }
    if (m_cmd == ELF_C_WRITE) {
        SETERR(ERR_READ_DENIED);
        return -1;
    }
    if (m_kind == ELF_K_ELF || isMember()) {
        // The sections are read one after another with no call of the
        // caller's in between: the position is set once, at the end.
        FileDesc::Batch batch(*m_pFile);
        for (size_t i = 1; i < shdrCount(); ++i)
            if (!get_scn(i)) {
                batch.settle();
                return -1;
            }
        return batch.settle() ? 0 : -1;
    }
    if (isArchive()) {
        if (m_pAr->m_members.empty()) {
            SETERR(ERR_AR_NO_MEMBERS);
            return -1;
        }
        for (const auto& member : m_pAr->m_members) {
            Elf* elf = member->m_pElf;
            if (!elf) {
                elf = new (std::nothrow) Elf(member.get(), ELF_C_READ);
                if (!elf) {
                    SETERR(ERR_CREATE_ELF);
                    return -1;
                }
                if (elf->initialize() < 0) {
                    elf->destroy();
                    return -1;
                }
            }
            if (elf->read_all() < 0) return -1;
            elf->m_fdState = ELF_C_FDREAD;
        }
        return 0;
    }
    SETERR(ERR_ELF_KIND);
    return -1;
}

void Elf::recordImageConversion(uint8_t* p, size_t len, Elf_Type type, size_t count,
                                std::unique_ptr<uint8_t[]> original) {
    // Callers reserve room first, so this cannot fail after the bytes were
    // converted.
    m_undo.push_back(ImageUndo{p, len, type, count, std::move(original)});
}

bool Elf::reserveImageUndo() {
    try {
        if (m_undo.size() == m_undo.capacity()) m_undo.reserve(m_undo.empty() ? 16 : 2 * m_undo.capacity());
    } catch (const std::bad_alloc&) {
        SETERR(ERR_NOMEM);
        return false;
    }
    return true;
}

void Elf::restoreImage() noexcept {
    // Undo in reverse order, so that bytes converted by more than one
    // (overlapping) section come back exactly.
    for (size_t i = m_undo.size(); i-- > 0;) {
        ImageUndo& u = m_undo[i];
        if (u.original)
            std::memcpy(u.at, u.original.get(), u.len);
        else
            swapBlock(reinterpret_cast<char*>(u.at), reinterpret_cast<char*>(u.at), u.type, u.count, true);
    }
    m_undo.clear();
}

void Elf::destroy() {
    if (m_pAr) m_pAr->destroy();
    if (onImage()) restoreImage();
    for (auto& scn : m_vScns) scn.reset();  // index order
    m_vScns.clear();
    if (m_pMember) m_pMember->m_pElf = nullptr;
    delete this;
}

int Elf::swap(char* src, char* dst, Elf_Type type) {
    if (!m_pEhdr || m_pEhdr->e_ident[EI_DATA] == DEFAULT_ENCODING) return 0;
    return TypeUnitSwap(src, dst, type);
}

char* Elf::strptr(size_t section, size_t offset) {
    Elf_Scn* scn = get_scn(section);
    if (!scn) return nullptr;
    const Elf32_Shdr* sh = scn->m_pShdr;
    if (!sh) {
        SETERR(ERR_GET_SHDR);
        return nullptr;
    }
    if (sh->sh_type != SHT_STRTAB || offset > sh->sh_size) {
        SETERR(ERR_STRTAB_TYPE);
        return nullptr;
    }
    for (const auto& d : scn->m_vData) {
        const Elf_Data& data = d->m_data;
        if (data.d_off < 0) continue;
        const uint64_t start = static_cast<uint64_t>(data.d_off);
        if (start + data.d_size < offset) continue;
        if (offset < start || !data.d_buf) break;
        char* p = static_cast<char*>(data.d_buf) + (offset - start);
        // A caller's own block is trusted; in bytes the library placed the
        // string must end before them (a string at the very end of a memory
        // image would run past it).
        if (d->placed() && !d->terminates(p)) break;
        return p;
    }
    SETERR(ERR_NO_DATA_AT_OFFSET);
    return nullptr;
}

const char* Elf::sectionName(const Elf_Scn& scn) {
    ErrorStateGuard keep;
    if (!m_pEhdr || !scn.m_pShdr) return "";
    const size_t index = m_pEhdr->e_shstrndx;
    if (index == SHN_UNDEF || index >= shdrCount()) return "";  // no section-name table
    Elf_Scn* names = get_scn(index);
    if (!names || names->m_vData.empty()) return "";
    const DataDesc& d = *names->m_vData.front();
    const size_t off = scn.m_pShdr->sh_name;
    if (!d.m_data.d_buf || off >= d.m_data.d_size) return "";
    const char* p = static_cast<const char*>(d.m_data.d_buf) + off;
    return d.terminates(p) ? p : "";
}

Elf32_Ehdr* Elf::new_header() {
    if (isArchive()) {
        SETERR(ERR_DESC_TYPE);
        return nullptr;
    }
    if (m_cmd == ELF_C_READ) {
        SETERR(ERR_ACCESS);
        return nullptr;
    }
    if (m_pEhdr) {
        // A header made here has class 0 until layout fills it in; one read
        // from a file must say ELFCLASS32.
        const unsigned char cls = m_pEhdr->e_ident[EI_CLASS];
        if (cls != ELFCLASS32 && !(m_bEhdrMade && cls == 0)) {
            SETERR(ERR_EI_CLASS);
            return nullptr;
        }
        return m_pEhdr;
    }
    m_ownedEhdr = std::make_unique<Elf32_Ehdr>();
    m_pEhdr = m_ownedEhdr.get();
    m_pEhdr->e_ident[EI_DATA] = static_cast<unsigned char>(DEFAULT_ENCODING);
    m_bEhdrMade = true;
    m_bDirty = TRUEVAL;
    return m_pEhdr;
}

Elf_Scn* Elf::new_scn() {
    if (m_kind == ELF_K_AR || onImage()) {
        SETERR(ERR_WRITE_ARCHIVE);
        return nullptr;
    }
    if (!m_pEhdr) {
        SETERR(ERR_NO_EHDR);
        return nullptr;
    }
    auto make = [this](size_t index) {
        m_newShdrs.emplace_back();  // zeroed header
        m_vScns.resize(shdrCount());
        return makeScn(index);
    };
    if (shdrCount() == 0) {
        if (!make(0)) {
            m_pEhdr->e_shnum = 1;
            return nullptr;
        }
        m_pEhdr->e_shnum = 1;
    }
    const size_t index = shdrCount();
    if (index > 0xfffe) {  // e_shnum is 16 bits
        SETERR(ERR_NEW_SCN);
        return nullptr;
    }
    Elf_Scn* scn = make(index);
    if (!scn) return nullptr;
    m_pEhdr->e_shnum = static_cast<Elf32_Half>(m_pEhdr->e_shnum + 1);
    scn->m_bDirty = TRUEVAL;
    m_bDirty = TRUEVAL;
    return scn;
}
