#include "DataDesc.h"

#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "ByteSwap.h"
#include "ElfDesc.h"
#include "ElfScn.h"
#include "ErrHndr.h"
#include "FileDesc.h"
#include "Globe.h"
#include "Registry.h"
#include "dwarf_swap.h"

using namespace tamo;

DataDesc::DataDesc(Elf_Scn* owner, bool kept)
    : m_data{},
      m_lMagicNum(DAT_MAGIC_NUM),
      m_bDirty(0),
      m_bInImage(false),
      m_bKept(kept),
      m_pScn(owner),
      m_pPlaced(nullptr),
      m_readable(0) {
    if (!kept) Registry::add(HandleClass::Data, this);
}

DataDesc::~DataDesc() {
    if (!m_bKept) Registry::remove(HandleClass::Data, this);
    m_lMagicNum = 0;
}

bool DataDesc::terminates(const char* p) const {
    const auto* q = reinterpret_cast<const uint8_t*>(p);
    const uint8_t* begin = static_cast<const uint8_t*>(m_data.d_buf);
    const uint8_t* end = begin + m_data.d_size;
    if (placed()) end = m_pPlaced + m_readable;
    return q >= begin && q < end && std::memchr(q, 0, static_cast<size_t>(end - q));
}

int DataDesc::initialize() {
    if (!m_data.d_buf) return 0;
    const Elf32_Shdr* sh = m_pScn->m_pShdr;
    if (!sh) {
        SETERR(ERR_GET_SHDR);
        return -1;
    }
    const Elf_Type type = scnDataType(sh->sh_type);
    m_data.d_type = type;
    if (type == ELF_T_NUM) {
        SETERR(ERR_SH_TYPE);
        return -1;
    }
    m_data.d_off = 0;
    m_data.d_align = 1;
    m_data.d_size = sh->sh_size;
    Elf* elf = m_pScn->m_pElf;
    if (!elf) {
        SETERR(ERR_NO_ELF);
        return -1;
    }
    if (!elf->m_pEhdr) {
        SETERR(ERR_NO_EHDR);
        return -1;
    }
    m_data.d_version = elf->m_pEhdr->e_version;

    // Convert in place to host order. A failure leaves its code set and the
    // bytes as they are; reading goes on.
    const SwapPlan p = plan(type, /*toFile=*/false, /*force=*/false);
    bool converted = false;
    if (m_readFrom >= 0) {
        // Fixed-size records are converted chunk by chunk as they are read.
        const bool whileReading = p.status > 0 && !p.dwarf && type != ELF_T_BYTE;
        const int64_t from = m_readFrom;
        m_readFrom = -1;
        // From the buffer the chunk was read into (the source is not
        // changed).
        auto convert = [](const uint8_t* from, uint8_t* to, size_t n, const void* plan) {
            const SwapPlan& sp = *static_cast<const SwapPlan*>(plan);
            return ByteSwap::swapBlock(reinterpret_cast<char*>(const_cast<uint8_t*>(from)),
                                       reinterpret_cast<char*>(to), sp.type, n / unitSize(sp.type), sp.srcNative) >= 0;
        };
        // Chunks are whole records, so a partial record at the end stays as
        // it is, as p.count says.
        if (!readSection(*elf->m_pFile, from, static_cast<uint8_t*>(m_data.d_buf), m_data.d_size, unitSize(type),
                         whileReading ? +convert : nullptr, &p))
            return -1;
        converted = whileReading;
    }
    if (p.status > 0 && !converted) {
        char* buf = static_cast<char*>(m_data.d_buf);
        auto* bytes = reinterpret_cast<uint8_t*>(buf);
        if (!m_bInImage || (!p.dwarf && type == ELF_T_BYTE)) {
            execute(p, buf, buf);
        } else if (elf->reserveImageUndo()) {
            // Bytes inside a caller's image must come back exactly when the
            // descriptor ends, undone in the reverse order of their changes.
            if (elf->undoByCopy(p.dwarf, type)) {
                // The copy is recorded before converting: what the DWARF
                // converter converts meanwhile must be undone before this
                // copy is put back.
                std::unique_ptr<uint8_t[]> original(new (std::nothrow) uint8_t[m_data.d_size ? m_data.d_size : 1]);
                if (!original) {
                    SETERR(ERR_NOMEM);
                } else {
                    std::memcpy(original.get(), buf, m_data.d_size);
                    elf->recordImageConversion(bytes, m_data.d_size, type, p.count, std::move(original));
                    const Elf::CopyConversion running(*elf);
                    execute(p, buf, buf);
                }
            } else if (execute(p, buf, buf) > 0) {
                elf->recordImageConversion(bytes, m_data.d_size, type, p.count, nullptr);
            }
        }
    }
    m_data.d_type = trueType[m_data.d_type];
    return m_data.d_size > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(m_data.d_size);
}

SwapPlan DataDesc::plan(Elf_Type type, bool toFile, bool force) {
    SwapPlan p;
    p.type = type;
    if (static_cast<uint32_t>(type) >= ELF_T_NUM) {
        SETERR(ERR_DATA_TYPE);
        p.status = -1;
        return p;
    }
    Elf_Scn* scn = m_pScn;
    Elf* elf = scn ? scn->m_pElf : nullptr;
    const Elf32_Ehdr* ehdr = elf ? elf->m_pEhdr : nullptr;
    if (!scn || !elf || !ehdr || !scn->m_pShdr) {
        SETERR(!scn ? ERR_NO_SCN : !elf ? ERR_NO_ELF : ERR_NO_EHDR);
        p.status = -1;
        return p;
    }
    const bool isNames = scn->m_index == ehdr->e_shstrndx;
    p.name = isNames ? "" : elf->sectionName(*scn);

    if (!isNames && !toFile && !force) {
        Elf_ReadSwapController controller = elf->m_ctrl ? elf->m_ctrl : &Elf::defaultReadSwapController;
        const int id = controller(scn->m_pShdr, p.name);
        if (id < 1 || id > 4) {
            SETERR(ERR_SWAP_BEHAVIOR);
            p.status = -1;
            return p;
        }
        scn->m_swapBehavior = static_cast<uint32_t>(id);
    }

    if (force) {
        p.srcNative = toFile;
    } else {
        const uint32_t e = ehdr->e_ident[EI_DATA];
        const uint32_t host = Elf::DEFAULT_ENCODING;
        switch (scn->m_swapBehavior) {
        case 1:
            if (e == host) return p;
            break;
        case 2:
            if (e == ELFDATA2LSB) return p;
            break;
        case 3:
            if (e == ELFDATA2MSB) return p;
            break;
        case 4:
            return p;
        default:
            SETERR(ERR_SWAP_BEHAVIOR);
            p.status = -1;
            return p;
        }
        p.srcNative = (e == host) != toFile;
    }
    if (m_data.d_version != EV_CURRENT) {
        SETERR(ERR_VERSION_NUMBER);
        p.status = -1;
        return p;
    }
    p.count = m_data.d_size / unitSize(type);
    p.dwarf = !isNames && (std::strncmp(p.name, ".debug_line", 11) == 0 || std::strncmp(p.name, ".debug_info", 11) == 0);
    p.status = 1;
    return p;
}

long DataDesc::execute(const SwapPlan& p, char* src, char* dst, bool writing) {
    if (p.dwarf) {
        Elf* elf = m_pScn->m_pElf;
        if (writing) {
            // The abbreviations as they are, without reading (and so making)
            // sections while the image is being built.
            std::vector<uint8_t> scratch;
            AbbrevBytes abbrev{nullptr, 0};
            abbrev.data = elf->peekSection(".debug_abbrev", abbrev.size, scratch);
            dwarfConvert(p.name, src, dst, m_data.d_size, elf, p.srcNative, &abbrev);
        } else {
            dwarfConvert(p.name, src, dst, m_data.d_size, elf, p.srcNative);
        }
        return static_cast<long>(p.count);
    }
    if (p.type == ELF_T_BYTE) {
        if (src != dst && p.count) std::memmove(dst, src, p.count);
        return static_cast<long>(p.count);
    }
    return ByteSwap::swapBlock(src, dst, p.type, p.count, p.srcNative);
}

int DataDesc::swap(char* src, char* dst, Elf_Type type, bool toFile, bool force) {
    const SwapPlan p = plan(type, toFile, force);
    if (p.status <= 0) return p.status;
    const long r = execute(p, src, dst);
    return r > INT_MAX ? INT_MAX : static_cast<int>(r);
}
