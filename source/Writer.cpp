// Layout and writing of an ELF image (tamo_elf_update): the layout
// operations of the ELF, section and data descriptors, which place every
// section and piece and complete the headers, and the image build, which
// converts the caller's host-order headers and data straight into one
// buffer in the file's byte order.
//
// Positions are 64-bit while they are computed, so that an image that would
// pass the 32-bit format's 4 GiB is refused (code 29) before anything is
// allocated or written.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <type_traits>

#include "ByteSwap.h"
#include "DataDesc.h"
#include "ElfDesc.h"
#include "ElfScn.h"
#include "ErrHndr.h"
#include "Globals.h"
#include "Globe.h"

using namespace tamo;

namespace {

constexpr uint64_t kMaxImage = 0xffffffffu;
constexpr uint64_t kShdrSize = sizeof(Elf32_Shdr);

// Raises p to the next multiple of a when a is above 1 (any a, not only
// powers of two); false when the result passes the format's 32 bits.
bool alignUp(uint64_t& p, uint64_t a) {
    if (a > 1) {
        if (a > kMaxImage) return p == 0;
        p = (p + a - 1) - ((p + a - 1) % a);
    }
    return p <= kMaxImage;
}

bool fits32(uint64_t v) {
    return v <= kMaxImage;
}

uint8_t fillByte() {
    return static_cast<uint8_t>(g_iFill & 0xff);
}

void fill(char* buffer, uint64_t from, uint64_t to) {
    if (to > from) std::memset(buffer + from, fillByte(), static_cast<size_t>(to - from));
}

// The conversion type of a piece of a section of COFF line-number
// relocations, by the file's order (the inverse of the one reading uses).
Elf_Type lineRelocationType(unsigned order) {
    return order == ELFDATA2MSB ? ELF_T_LNRELA_6TO8 : ELF_T_LNRELA_8TO6;
}

}  // namespace

// ---------------------------------------------------------------------------
// Layout

long DataDesc::update(uint64_t& pos) {
    if (!m_pScn->m_pShdr) {
        SETERR(ERR_GET_SHDR);
        return -1;
    }
    if (static_cast<uint32_t>(m_data.d_type) < ELF_T_NUM && m_data.d_version != EV_CURRENT) {
        SETERR(ERR_VERSION_NUMBER);
        return -1;
    }
    const uint64_t size = fileSize();
    if (m_pScn->m_pElf->m_bLayout) {
        // The caller's d_off stands; it must lie inside the format's range.
        if (m_data.d_off < 0 || !fits32(static_cast<uint64_t>(m_data.d_off) + size)) {
            SETERR(ERR_UPDATE);
            return -1;
        }
        pos = std::max(pos, static_cast<uint64_t>(m_data.d_off) + size);
    } else {
        if (!alignUp(pos, m_data.d_align) || pos > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) {
            SETERR(ERR_UPDATE);
            return -1;
        }
        m_data.d_off = static_cast<off_t>(pos);
        pos += size;
        if (!fits32(pos)) {
            SETERR(ERR_UPDATE);
            return -1;
        }
    }
    return m_data.d_align > static_cast<size_t>(LONG_MAX) ? LONG_MAX : static_cast<long>(m_data.d_align);
}

uint64_t DataDesc::fileSize() const {
    const CoffKind k = m_pScn->m_coff;
    if ((k == CoffKind::LineNumbers || k == CoffKind::Symbols) && m_data.d_type == ELF_T_BYTE) {
        // Packed records in memory, the file's record size in the file; a
        // trailing partial record goes as it is.
        const uint64_t mem = coffMemoryRecord(k);
        const uint64_t file = coffFileRecord(k, m_pScn->m_pElf->m_pEhdr->e_ident[EI_DATA]);
        return m_data.d_size / mem * file + m_data.d_size % mem;
    }
    return m_data.d_size;
}

int Elf_Scn::update(uint64_t& pos) {
    Elf32_Shdr* sh = m_pShdr;
    if (!sh) {
        SETERR(ERR_GET_SHDR);
        return -1;
    }
    Elf* elf = m_pElf;
    const bool callerLayout = elf->m_bLayout != 0;
    m_coff = CoffKind::None;
    if (elf->foreign() && m_index != elf->m_pEhdr->e_shstrndx) m_coff = coffKind(elf->sectionName(*this), sh->sh_type);

    if (sh->sh_name == 0) {  // the null section
        sh->sh_entsize = 0;
        if (!callerLayout) sh->sh_offset = sh->sh_size = sh->sh_addralign = 0;
        return 0;
    }
    if (sh->sh_type == SHT_NULL) return 0;

    uint64_t extent = 0;
    long maxAlign = 0;
    for (const auto& d : m_vData) {
        const long a = d->update(extent);
        if (a < 0) {
            SETERR(ERR_UPDATE);
            return -1;
        }
        maxAlign = std::max(maxAlign, a);
        if (d->m_bDirty) m_bDirty = TRUEVAL;
    }
    const uint64_t align = std::max<uint64_t>(sh->sh_addralign, static_cast<uint64_t>(maxAlign));
    const bool nobits = sh->sh_type == SHT_NOBITS;

    if (callerLayout) {
        if (extent > sh->sh_size) {
            SETERR(ERR_SCN_TOO_SMALL);
            return -1;
        }
        const uint64_t end = static_cast<uint64_t>(sh->sh_offset) + (nobits ? 0 : sh->sh_size);
        pos = std::max(pos, end);
        return 0;
    }
    if (!alignUp(pos, align) || !fits32(align)) {
        SETERR(ERR_UPDATE);
        return -1;
    }
    sh->sh_offset = static_cast<Elf32_Off>(pos);
    // A SHT_NOBITS section read from a file has no piece: its size stands.
    if (!(nobits && m_vData.empty())) sh->sh_size = static_cast<Elf32_Word>(extent);
    sh->sh_addralign = static_cast<Elf32_Word>(align);
    if (!nobits) pos += extent;
    if (!fits32(pos)) {
        SETERR(ERR_UPDATE);
        return -1;
    }
    return 0;
}

bool Elf::layoutCarried(size_t index, uint64_t& pos) {
    // A section never asked for is copied from the file as it stands: a
    // SHT_NULL section (section 0) is left as it is, SHT_NOBITS takes no room
    // in the file, and under the caller's layout a section stays where its
    // header says. Its bytes are never dropped, whatever its name.
    const Elf32_Shdr& sh = *peekShdr(index);
    Carried c{index, sh.sh_offset, sh.sh_size, sh.sh_addralign, false};
    if (sh.sh_type == SHT_NULL) return true;
    const bool nobits = sh.sh_type == SHT_NOBITS;
    if (m_bLayout) {
        pos = std::max<uint64_t>(pos, static_cast<uint64_t>(sh.sh_offset) + (nobits ? 0 : sh.sh_size));
    } else {
        if (!alignUp(pos, sh.sh_addralign)) {
            SETERR(ERR_UPDATE);
            return false;
        }
        c.offset = static_cast<uint32_t>(pos);
        if (!nobits) pos += sh.sh_size;
    }
    if (!fits32(pos)) {
        SETERR(ERR_UPDATE);
        return false;
    }
    c.copies = !nobits && sh.sh_size > 0;
    m_carried.push_back(c);
    return true;
}

int64_t Elf::update() {
    if (m_kind != ELF_K_ELF || onImage()) {
        SETERR(ERR_FILE_TYPE);
        return -1;
    }
    if (!m_pEhdr) {
        SETERR(ERR_NO_EHDR_IN_FILE);
        return -1;
    }
    Elf32_Ehdr& h = *m_pEhdr;
    std::memcpy(h.e_ident, "\177ELF", 4);
    h.e_ident[EI_CLASS] = ELFCLASS32;
    unsigned char& order = h.e_ident[EI_DATA];
    if (order == ELFDATANONE) {
        order = static_cast<unsigned char>(DEFAULT_ENCODING);
    } else if (order != ELFDATA2LSB && order != ELFDATA2MSB) {
        SETERR(ERR_ENCODING);
        return -1;
    }
    h.e_ident[EI_VERSION] = EV_CURRENT;
    if (h.e_version == EV_NONE) {
        h.e_version = EV_CURRENT;
    } else if (h.e_version != EV_CURRENT) {
        SETERR(ERR_VERSION_NUMBER);
        return -1;
    }
    h.e_ehsize = static_cast<Elf32_Half>(unitSize(ELF_T_EHDR));
    const size_t n = shdrCount();
    h.e_shnum = static_cast<Elf32_Half>(n);
    h.e_shentsize = static_cast<Elf32_Half>(kShdrSize);

    // Section names decide how COFF and DWARF sections are converted: the
    // name table gets its descriptor now, so that no section changes from
    // carried to described while the image is built.
    if (h.e_shstrndx != SHN_UNDEF && h.e_shstrndx < n && !scnAt(h.e_shstrndx) && m_fdState == ELF_C_NULL) {
        ErrorStateGuard keep;
        get_scn(h.e_shstrndx);
    }

    m_carried.clear();
    uint64_t pos = h.e_ehsize;
    for (size_t i = 0; i < n; ++i) {
        if (Elf_Scn* scn = scnAt(i)) {
            if (scn->update(pos) < 0) {
                if (scn->m_bDirty) m_bDirty = TRUEVAL;
                return -1;
            }
        } else if (!layoutCarried(i, pos)) {
            return -1;
        }
    }
    if (!alignUp(pos, 4) || !fits32(pos + kShdrSize * n)) {
        SETERR(ERR_UPDATE);
        return -1;
    }
    h.e_shoff = static_cast<Elf32_Off>(pos);
    return static_cast<int64_t>(pos + kShdrSize * n);
}

// ---------------------------------------------------------------------------
// The image

long DataDesc::write2buff(char* buffer, uint64_t imageSize, uint64_t sectionOffset, uint64_t& secPos) {
    Elf_Scn* scn = m_pScn;
    Elf* elf = scn->m_pElf;
    if (m_data.d_off < 0) {
        SETERR(ERR_ALIGN);
        return -1;
    }
    const uint64_t off = static_cast<uint64_t>(m_data.d_off);
    if (!elf->m_bLayout) {
        if (off < secPos) {
            SETERR(ERR_ALIGN);
            return -1;
        }
        fill(buffer, sectionOffset + secPos, sectionOffset + off);
    }
    const uint64_t size = fileSize();
    if (sectionOffset + off > imageSize || size > imageSize - (sectionOffset + off)) {
        SETERR(ERR_WRITE_BUFFER);
        return -1;
    }
    if (m_data.d_size && !m_data.d_buf) {
        SETERR(ERR_NULL_PARAM);
        return -1;
    }
    if (m_data.d_size == 0) {  // nothing to convert or copy, whatever d_buf is
        secPos = off;
        return 0;
    }
    char* dst = buffer + sectionOffset + off;
    char* src = static_cast<char*>(m_data.d_buf);
    const unsigned order = elf->m_pEhdr->e_ident[EI_DATA];
    const CoffKind coff = scn->m_coff;

    if ((coff == CoffKind::LineNumbers || coff == CoffKind::Symbols) && m_data.d_type == ELF_T_BYTE) {
        // COFF records, as reading left them: packed, in host order where
        // they were converted. Repacked to the file's record size and
        // converted under the section's swap behaviour.
        const Elf_Type type = coff == CoffKind::LineNumbers ? ELF_T_LINENO : ELF_T_SYMENT;
        const SwapPlan p = plan(type, /*toFile=*/true, /*force=*/false);
        if (p.status < 0) return -1;
        const size_t mem = coffMemoryRecord(coff);
        const size_t records = m_data.d_size / mem;
        const size_t file = coffFileRecord(coff, order);
        if (records && ByteSwap::reshapeBlock(src, dst, type, records, mem, file, p.status > 0, p.srcNative) < 0)
            return -1;
        if (m_data.d_size % mem) std::memcpy(dst + records * file, src + records * mem, m_data.d_size % mem);
    } else {
        Elf_Type type = m_data.d_type;
        if (coff == CoffKind::LineRelocations && type == ELF_T_RELA) type = lineRelocationType(order);
        const SwapPlan p = plan(type, /*toFile=*/true, /*force=*/false);
        if (p.status < 0) return -1;
        size_t done = 0;
        if (p.status > 0) {
            if (execute(p, src, dst, /*writing=*/true) < 0) return -1;
            done = p.dwarf ? m_data.d_size : p.count * unitSize(type);
        }
        // Whatever was not converted (everything, or the bytes after the
        // last whole unit) goes as it is.
        if (m_data.d_size > done) std::memcpy(dst + done, src + done, m_data.d_size - done);
    }
    secPos = off + size;
    return m_data.d_size > static_cast<size_t>(LONG_MAX) ? LONG_MAX : static_cast<long>(m_data.d_size);
}

int64_t Elf_Scn::write2buff(char* buffer, uint64_t size, uint64_t& pos) {
    const Elf32_Shdr& sh = *m_pShdr;
    if (m_vData.empty() || sh.sh_type == SHT_NULL || sh.sh_type == SHT_NOBITS) return 0;
    if (pos > sh.sh_offset) {
        SETERR(ERR_ALIGN);
        return -1;
    }
    if (!m_pElf->m_bLayout) fill(buffer, pos, sh.sh_offset);
    uint64_t secPos = 0;
    for (const auto& d : m_vData)
        if (d->write2buff(buffer, size, sh.sh_offset, secPos) < 0) return -1;
    pos = static_cast<uint64_t>(sh.sh_offset) + sh.sh_size;
    return sh.sh_size;
}

bool Elf::copyCarried(const Carried& c, char* buffer, uint64_t size, uint64_t& pos) {
    if (!c.copies) return true;
    if (pos > c.offset) {
        SETERR(ERR_ALIGN);
        return false;
    }
    if (static_cast<uint64_t>(c.offset) + c.size > size) {
        SETERR(ERR_WRITE_BUFFER);
        return false;
    }
    if (!m_bLayout) fill(buffer, pos, c.offset);
    // The bytes are copied as they stand in the file, already in its order.
    const Elf32_Shdr& sh = *get_shdr(c.index);
    if (!seekSet(fd(), baseOffset() + static_cast<int64_t>(sh.sh_offset), "write2buff")) return false;
    if (readFully(fd(), buffer + c.offset, c.size) != static_cast<ssize_t>(c.size)) {
        SETERR(ERR_READ);
        return false;
    }
    pos = static_cast<uint64_t>(c.offset) + c.size;
    return true;
}

int64_t Elf::write2buff(char* buffer, uint64_t size) {
    if (!m_bDirty) return 0;
    if (m_kind == ELF_K_AR || onImage()) {
        SETERR(ERR_WRITE_ARCHIVE);
        return -1;
    }
    if (m_fdState == ELF_C_FDDONE || m_fdState == ELF_C_FDREAD) {
        SETERR(ERR_FDCNTL);
        return -1;
    }
    const Elf32_Ehdr& h = *m_pEhdr;
    const size_t n = shdrCount();
    if (size < unitSize(ELF_T_EHDR) || h.e_shoff > size || kShdrSize * n > size - h.e_shoff) {
        SETERR(ERR_WRITE_BUFFER);
        return -1;
    }
    // Under the caller's layout the library writes nothing into gaps: in a
    // file opened for update they keep the bytes the file has there.
    if (m_bLayout && m_cmd == ELF_C_RDWR) {
        const int64_t have = std::min<int64_t>(static_cast<int64_t>(size), m_pFile->currentSize());
        if (have > 0 && preadFully(fd(), buffer, static_cast<size_t>(have), 0) < 0) {
            SETERR(ERR_READ);
            return -1;
        }
    }

    std::memcpy(buffer, &h, sizeof h);
    swap(buffer, buffer, ELF_T_EHDR);
    uint64_t pos = sizeof h;
    auto carried = m_carried.begin();
    for (size_t i = 0; i < n; ++i) {
        if (carried != m_carried.end() && carried->index == i) {
            if (!copyCarried(*carried++, buffer, size, pos)) return -1;
        } else if (Elf_Scn* scn = scnAt(i)) {
            if (scn->write2buff(buffer, size, pos) < 0) return -1;
        }
    }
    if (pos > h.e_shoff) {
        SETERR(ERR_WRITE_BUFFER);
        return -1;
    }
    fill(buffer, pos, h.e_shoff);

    // The section header table, with the places of the carried sections.
    char* table = buffer + h.e_shoff;
    if (m_nHeldShdrs) std::memcpy(table, m_fileShdrs.get(), kShdrSize * m_nHeldShdrs);
    for (size_t i = m_nHeldShdrs; i < n; ++i) std::memcpy(table + kShdrSize * i, peekShdr(i), kShdrSize);
    for (const Carried& c : m_carried) {
        auto* rec = reinterpret_cast<Elf32_Shdr*>(table + kShdrSize * c.index);
        Elf32_Shdr copy;
        std::memcpy(&copy, rec, sizeof copy);
        copy.sh_offset = c.offset;
        copy.sh_size = c.size;
        copy.sh_addralign = c.align;
        std::memcpy(rec, &copy, sizeof copy);
    }
    if (foreign()) swapBlock(table, table, ELF_T_SHDR, n, /*srcNative=*/true);
    return static_cast<int64_t>(size);
}

void Elf::commitWrite() {
    for (const Carried& c : m_carried) {
        Elf32_Shdr* sh = get_shdr(c.index);
        sh->sh_offset = c.offset;
        sh->sh_size = c.size;
        sh->sh_addralign = c.align;
    }
    m_carried.clear();
    for (size_t i = 0; i < shdrCount(); ++i)
        if (Elf_Scn* scn = scnAt(i)) scn->m_bDirty = FALSEVAL;
    m_bDirty = FALSEVAL;
}

char* Elf::imageBuffer(uint64_t size) {
    bool fresh = false;
    if (size > std::numeric_limits<size_t>::max() || !m_image.reserve(static_cast<size_t>(size), fresh)) {
        m_image.reset();
        SETERR(ERR_NOMEM);
        return nullptr;
    }
    // The library's layout writes every byte of the image; the caller's
    // leaves gaps, which must not show an earlier image.
    if (!fresh && m_bLayout) std::memset(m_image.data(), 0, static_cast<size_t>(size));
    return m_image.data();
}

int Elf::writeImage(const char* buffer, uint64_t size) {
    const int id = fd();
    m_pFile->forgetReadAhead();
    if (!seekSet(id, 0, "elf_update")) return -1;
    for (uint64_t done = 0; done < size;) {
        const ssize_t w = ::write(id, buffer + done, static_cast<size_t>(size - done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            report_write_err(w < 0 ? errno : ENOSPC, "elf_update");
            return -1;
        }
        done += static_cast<uint64_t>(w);
    }
    // The file holds exactly the image: a longer one is cut.
    struct stat st;
    if (::fstat(id, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) > size &&
        ::ftruncate(id, static_cast<off_t>(size)) != 0) {
        report_write_err(errno, "elf_update");
        return -1;
    }
    m_pFile->m_lFileSize = static_cast<int64_t>(size);
    return 0;
}

// ---------------------------------------------------------------------------
// Section bytes for conversions made while writing

const char* Elf::peekName(size_t index) {
    if (!m_pEhdr) return "";
    const Elf32_Shdr* sh = peekShdr(index);
    const size_t names = m_pEhdr->e_shstrndx;
    const Elf_Scn* table = names < shdrCount() ? scnAt(names) : nullptr;
    if (!sh || !table || table->m_vData.empty()) return "";
    const DataDesc& d = *table->m_vData.front();
    if (!d.m_data.d_buf || sh->sh_name >= d.m_data.d_size) return "";
    const char* p = static_cast<const char*>(d.m_data.d_buf) + sh->sh_name;
    return d.terminates(p) ? p : "";
}

const uint8_t* Elf::peekSection(const char* name, size_t& size, std::vector<uint8_t>& scratch) {
    size = 0;
    for (size_t i = 1; i < shdrCount(); ++i) {
        if (std::strcmp(peekName(i), name) != 0) continue;
        if (const Elf_Scn* scn = scnAt(i)) {
            if (scn->m_vData.empty() || !scn->m_vData.front()->m_data.d_buf) return nullptr;
            const Elf_Data& d = scn->m_vData.front()->m_data;
            size = d.d_size;
            return static_cast<const uint8_t*>(d.d_buf);
        }
        // Never read: its bytes as the file holds them (abbreviations have no
        // byte order), within what the file has.
        const Elf32_Shdr& sh = *peekShdr(i);
        const uint64_t limit = contentLimit(true);
        if (m_cmd == ELF_C_WRITE || sh.sh_type == SHT_NOBITS || sh.sh_offset > limit ||
            sh.sh_size > limit - sh.sh_offset)
            return nullptr;
        try {
            scratch.resize(sh.sh_size);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        if (preadFully(fd(), scratch.data(), scratch.size(), baseOffset() + static_cast<int64_t>(sh.sh_offset)) !=
            static_cast<ssize_t>(scratch.size()))
            return nullptr;
        size = scratch.size();
        return scratch.data();
    }
    return nullptr;
}
