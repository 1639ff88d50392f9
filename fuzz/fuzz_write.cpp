// Writing: a new object is made through the interface from the input (byte
// order, sections with fuzzed headers, pieces with fuzzed sizes, types,
// alignments and contents, sometimes the caller's layout and a fill byte)
// and written into a file. A written image must be what the descriptor
// describes: the headers as layout left them, every piece converted to the
// file's order at its place, the fill byte in the gaps. Read back from the
// file and as a memory image it gives the same headers and data, and
// written again it is the same image. A failed update writes nothing.
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <deque>
#include <string>
#include <vector>

#include "FuzzCommon.h"

namespace {

using fuzz::Bytes;

constexpr off_t kMaxImage = off_t{1} << 20;  // larger layouts are not built
constexpr int kOsAbi = 7;                   // e_ident[EI_OSABI], kept as set
constexpr unsigned kHost = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

// The input as a stream of fields; past its end every field is 0.
class Input {
public:
    Input(const uint8_t* p, size_t n) : m_p(p), m_n(n) {}
    uint8_t u8() { return m_i < m_n ? m_p[m_i++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | u8() << 8); }
    uint32_t u32() { return u16() | static_cast<uint32_t>(u16()) << 16; }
    // n bytes of contents, zeros past the end of the input. No content spells
    // the name of a DWARF section: their converter is not under test here.
    Bytes bytes(size_t n) {
        const size_t k = std::min(n, m_n - m_i);
        Bytes b(m_p + m_i, m_p + m_i + k);
        m_i += k;
        b.resize(n);
        while (auto* p = b.size() < 7 ? nullptr : static_cast<uint8_t*>(memmem(b.data(), b.size(), ".debug_", 7))) *p = ',';
        return b;
    }

private:
    const uint8_t* m_p;
    size_t m_n, m_i = 0;
};

// Alignments: 0 and 1 (none), powers of two and others, or a wild one.
uint32_t alignment(Input& in) {
    static constexpr uint32_t kAligns[8] = {0, 1, 3, 4, 12, 16, 2, 8};
    const uint8_t v = in.u8();
    return v == 0xff ? in.u32() : kAligns[v & 7];
}

// The type a caller sees in a section of type shType, and the one reading
// converts it as (types 16 to 19 are COFF records while converted); ELF_T_NUM
// when a section of that type cannot be read.
Elf_Type shownType(uint32_t shType) {
    static constexpr Elf_Type kTypes[21] = {
        ELF_T_BYTE, ELF_T_BYTE, ELF_T_SYM,  ELF_T_BYTE, ELF_T_RELA, ELF_T_WORD,    ELF_T_DYN,
        ELF_T_BYTE, ELF_T_BYTE, ELF_T_REL,  ELF_T_BYTE, ELF_T_SYM,  ELF_T_BYTE,    ELF_T_SIXWORD,
        ELF_T_OFF,  ELF_T_BYTE, ELF_T_BYTE, ELF_T_BYTE, ELF_T_RELA, ELF_T_RELA,    ELF_T_THREEWORD};
    return shType < 21 ? kTypes[shType] : ELF_T_NUM;
}
Elf_Type readType(uint32_t shType) {
    static constexpr Elf_Type kCoff[4] = {ELF_T_LINENO, ELF_T_SYMENT, ELF_T_LNRELA_6TO8, ELF_T_LNRELA_8TO6};
    return shType >= 16 && shType <= 19 ? kCoff[shType - 16] : shownType(shType);
}

// The widths of the fields of one unit of a type; null for the conversions
// not modelled here (COFF symbols and line-number relocations) and those
// that fail (SWORD, SPARE).
const char* fieldWidths(Elf_Type t) {
    switch (t) {
    case ELF_T_BYTE: return "\1";
    case ELF_T_HALF: return "\2";
    case ELF_T_ADDR: case ELF_T_OFF: case ELF_T_WORD: return "\4";
    case ELF_T_DYN: case ELF_T_REL: return "\4\4";
    case ELF_T_RELA: case ELF_T_THREEWORD: return "\4\4\4";
    case ELF_T_SIXWORD: return "\4\4\4\4\4\4";
    case ELF_T_PHDR: return "\4\4\4\4\4\4\4\4";
    case ELF_T_SHDR: return "\4\4\4\4\4\4\4\4\4\4\4";
    case ELF_T_SYM: return "\4\4\4\1\1\2\4";
    case ELF_T_LINENO: return "\4\2";
    case ELF_T_EHDR: return "\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\2\2\4\4\4\4\4\2\2\2\2\2\2";
    default: return nullptr;
    }
}

// Puts the whole units of type t in b into the other byte order (bytes after
// the last whole unit stay); false when the conversion is not modelled.
bool reverseUnits(Bytes& b, Elf_Type t) {
    const char* w = fieldWidths(t);
    if (!w) return false;
    size_t unit = 0;
    for (const char* f = w; *f; ++f) unit += static_cast<size_t>(*f);
    for (size_t at = 0; at + unit <= b.size();)
        for (const char* f = w; *f; at += static_cast<size_t>(*f++)) std::reverse(b.begin() + at, b.begin() + at + *f);
    return true;
}

// Whether a section of swap behaviour b is converted in a file of `order`.
bool converts(int b, unsigned order) {
    return b == ELF_SWAP_HOST ? order != kHost : b == ELF_SWAP_LITTLE ? order != ELFDATA2LSB
                              : b == ELF_SWAP_BIG  ? order != ELFDATA2MSB
                                                   : false;
}

struct Section {
    Elf_Scn* scn = nullptr;
    int behaviour = ELF_SWAP_HOST;
    std::vector<Elf_Data*> pieces;
};

class WriteCase {
public:
    WriteCase(const uint8_t* data, size_t size) : m_in(data, size), m_fd(memfd_create("fuzz-write", 0)) {}
    ~WriteCase() {
        if (m_elf) tamo_elf_end(m_elf);
        if (m_fd >= 0) close(m_fd);
    }
    void run();

private:
    void build();
    void addSection(size_t index, uint32_t& cursor);
    void addPiece(Section& s, const Elf32_Shdr& sh, uint32_t& extent, bool names);
    uint32_t place(uint32_t after) {
        const uint8_t v = m_in.u8();
        return v == 0xff ? m_in.u16() : v == 0xfe ? m_in.u32() : after + v % 32;
    }
    const Elf32_Ehdr& header() const { return *tamo_elf32_getehdr(m_elf); }
    const Elf32_Shdr& shdr(size_t i) const { return *tamo_elf32_getshdr(m_scns[i].scn); }
    bool foreign() const { return header().e_ident[EI_DATA] != kHost; }
    // Whether writing converts section i as COFF records (by the name it
    // finds in the caller's table).
    bool writerCoff(size_t i) const;
    void checkImage(const Bytes& out) const;
    void checkRead(Elf* r, const Bytes& out, bool image) const;

    Input m_in;
    int m_fd;
    Elf* m_elf = nullptr;
    bool m_layout = false;
    uint8_t m_fill = 0;
    Bytes m_names{0};
    std::vector<uint32_t> m_nameStarts;
    size_t m_namesIndex = 0;
    std::vector<Section> m_scns;         // by index; [0] is the null section
    std::deque<Bytes> m_bodies, m_kept;  // the caller's buffers, and copies
    Elf32_Ehdr m_set{};                  // the header fields as the caller set them
};

void WriteCase::build() {
    // mode: bit 0 byte order, bits 1-2 odd header (1 EI_DATA 0, 2 no or no
    // such name table, 3 EI_DATA 3), bit 4 the caller's layout, bit 5 COFF
    // names, bit 6 a fill byte.
    const uint8_t mode = m_in.u8();
    const unsigned odd = mode >> 1 & 3;
    m_layout = mode & 0x10;
    m_fill = (mode & 0x40) ? m_in.u8() : 0;
    tamo_elf_fill(m_fill | (mode & 0x80) << 1);  // only the low byte counts

    static const char* const kNames[] = {".text", ".data",   ".bss",  ".symtab", ".strtab", ".shstrtab", ".rela.text",
                                         ".rel.data", ".hash", ".dynamic", ".note", ".comment", "x"};
    static const char* const kCoffNames[] = {".lnno.text", ".coff.SDB", ".rela.lnno.text"};
    auto addName = [this](const char* s) {
        m_nameStarts.push_back(static_cast<uint32_t>(m_names.size()));
        m_names.insert(m_names.end(), s, s + std::strlen(s) + 1);
    };
    for (const char* s : kNames) addName(s);
    if (mode & 0x20)
        for (const char* s : kCoffNames) addName(s);

    const size_t count = m_in.u8() % 12;  // sections after the null one
    m_namesIndex = count ? 1 + m_in.u8() % count : 0;
    m_elf = tamo_elf_begin(m_fd, ELF_C_WRITE, nullptr);
    if (!m_elf || !tamo_elf32_newehdr(m_elf)) __builtin_trap();  // a new file always gets a header
    if (m_layout) tamo_elf_flagelf(m_elf, ELF_C_SET, ELF_F_LAYOUT);
    m_scns.resize(count ? count + 1 : 0);
    uint32_t cursor = sizeof(Elf32_Ehdr);
    for (size_t i = 1; i <= count; ++i) addSection(i, cursor);
    if (count) m_scns[0].scn = tamo_elf_getscn(m_elf, 0);

    // After the sections: a new section resets the byte order to the host's.
    Elf32_Ehdr& h = *tamo_elf32_getehdr(m_elf);
    h.e_type = m_in.u16();
    h.e_machine = m_in.u16();
    h.e_entry = m_in.u32();
    h.e_flags = m_in.u32();
    h.e_phoff = m_in.u16();
    h.e_phentsize = m_in.u8();
    h.e_phnum = m_in.u8();
    h.e_ident[kOsAbi] = m_in.u8();
    const uint8_t v = m_in.u8();
    h.e_version = v < 0xf8 ? v & 1 : v;  // 0 stands for the current version
    h.e_ident[EI_DATA] = static_cast<unsigned char>(odd == 1 ? ELFDATANONE : odd == 3 ? 3 : 1 + (mode & 1));
    h.e_shstrndx = static_cast<Elf32_Half>(odd != 2 ? m_namesIndex : (mode & 1) ? count + 1 : 0);
    m_set = h;
}

void WriteCase::addSection(size_t index, uint32_t& cursor) {
    Section& s = m_scns[index];
    s.scn = tamo_elf_newscn(m_elf);
    if (!s.scn) __builtin_trap();
    Elf32_Shdr& sh = *tamo_elf32_getshdr(s.scn);
    const uint8_t control = m_in.u8();  // bits 0-1 pieces, bit 2 a swap behaviour (bits 3-4)
    const uint8_t type = m_in.u8();
    static constexpr uint32_t kOddTypes[8] = {21, 22, 100, 0x60000000, 0x6ffffff6, 0x70000000, 0x7fffffff, 0xffffffff};
    sh.sh_type = index == m_namesIndex ? SHT_STRTAB : type < 0xf0 ? type % 21 : kOddTypes[type & 7];
    // Names: a name's start, a place inside the table (0 is the null
    // section), or anywhere.
    const uint8_t name = m_in.u8();
    sh.sh_name = name >= 0xf8 ? m_in.u32() : (name & 7) == 7 ? name >> 3 : m_nameStarts[(name >> 3) % m_nameStarts.size()];
    sh.sh_flags = m_in.u8();
    sh.sh_addr = m_in.u16();
    sh.sh_link = m_in.u8();
    sh.sh_info = m_in.u8();
    sh.sh_entsize = m_in.u8();
    sh.sh_extra = m_in.u32();
    sh.sh_addralign = alignment(m_in);
    if (control & 4) {
        s.behaviour = 1 + (control >> 3 & 3);
        tamo_elf_setswapbehavior(s.scn, s.behaviour);
    }
    // Under the caller's layout sections follow each other with small gaps,
    // or go anywhere; under the library's only the offset of a SHT_NULL
    // section and the size of a SHT_NOBITS section without pieces stand.
    sh.sh_offset = place(cursor);
    uint32_t extent = 0;
    const size_t pieces = index == m_namesIndex ? 1 : control & 3;
    for (size_t k = 0; k < pieces; ++k) addPiece(s, sh, extent, index == m_namesIndex);
    sh.sh_size = m_layout ? place(extent) : m_in.u16();
    cursor = sh.sh_offset + (sh.sh_type == SHT_NOBITS ? 0 : sh.sh_size);
}

void WriteCase::addPiece(Section& s, const Elf32_Shdr& sh, uint32_t& extent, bool names) {
    Elf_Data* d = tamo_elf_newdata(s.scn);
    if (!d) __builtin_trap();
    s.pieces.push_back(d);
    // kind: below 0xe0 the section type's own, else any type (20 is none);
    // 0xdd a negative offset, 0xde no buffer, 0xdf a fuzzed version. The
    // section-name table is one block of bytes.
    const uint8_t kind = names ? 0 : m_in.u8();
    d->d_type = names ? ELF_T_BYTE : kind < 0xe0 ? shownType(sh.sh_type) : static_cast<Elf_Type>(kind % 21);
    size_t size = names ? 0 : m_in.u8();
    if (size == 0xff) size = m_in.u16() % 8192;
    m_bodies.push_back(names ? m_names : m_in.bytes(size));
    m_kept.push_back(m_bodies.back());
    // An empty block has a buffer too, unless the kind says none.
    static uint8_t none;
    d->d_buf = kind == 0xde ? nullptr : m_bodies.back().empty() ? &none : m_bodies.back().data();
    d->d_size = m_bodies.back().size();
    d->d_align = alignment(m_in);
    if (kind == 0xdf) d->d_version = m_in.u8() % 3;
    if (m_layout) {
        d->d_off = kind == 0xdd ? -1 : static_cast<off_t>(place(extent));
        if (d->d_off >= 0) extent = std::max<uint32_t>(extent, static_cast<uint32_t>(d->d_off + d->d_size));
    }
}

bool WriteCase::writerCoff(size_t i) const {
    const Elf32_Shdr& sh = shdr(i);
    if (!foreign() || i == header().e_shstrndx || m_namesIndex == 0 || header().e_shstrndx != m_namesIndex ||
        sh.sh_name >= m_names.size())
        return false;
    return fuzz::coffName(reinterpret_cast<const char*>(m_names.data()) + sh.sh_name, sh.sh_type);
}

// The image byte for byte: each piece converted into the file's order at
// the section's offset plus its own, the fill byte in the gaps of the
// library's layout (the caller's layout writes none but the one before the
// section table), the headers in the file's order. -1: not modelled.
void WriteCase::checkImage(const Bytes& out) const {
    const Elf32_Ehdr& h = header();
    const unsigned order = h.e_ident[EI_DATA];
    std::vector<int> want(out.size(), m_layout ? 0 : m_fill);
    uint64_t pos = sizeof(Elf32_Ehdr);
    for (size_t i = 0; i < m_scns.size(); ++i) {
        const Section& s = m_scns[i];
        const Elf32_Shdr& sh = shdr(i);
        if (s.pieces.empty() || sh.sh_type == SHT_NULL || sh.sh_type == SHT_NOBITS) continue;
        if (writerCoff(i)) {
            if (uint64_t{sh.sh_offset} + sh.sh_size > out.size()) __builtin_trap();
            std::fill(want.begin() + sh.sh_offset, want.begin() + sh.sh_offset + sh.sh_size, -1);
        } else {
            for (const Elf_Data* d : s.pieces) {
                const uint64_t at = uint64_t{sh.sh_offset} + static_cast<uint64_t>(d->d_off);
                if (d->d_off < 0 || at + d->d_size > out.size()) __builtin_trap();  // outside the image
                Bytes b(static_cast<const uint8_t*>(d->d_buf), static_cast<const uint8_t*>(d->d_buf) + d->d_size);
                const bool known = !converts(s.behaviour, order) || reverseUnits(b, d->d_type);
                for (size_t k = 0; k < b.size(); ++k) want[at + k] = known ? b[k] : -1;
            }
        }
        pos = uint64_t{sh.sh_offset} + sh.sh_size;
    }
    if (pos > h.e_shoff || uint64_t{h.e_shoff} + sizeof(Elf32_Shdr) * m_scns.size() != out.size()) __builtin_trap();
    std::fill(want.begin() + pos, want.begin() + h.e_shoff, m_fill);
    auto put = [&](const void* rec, size_t at, size_t len, Elf_Type t) {
        Bytes b(static_cast<const uint8_t*>(rec), static_cast<const uint8_t*>(rec) + len);
        if (order != kHost) reverseUnits(b, t);
        std::copy(b.begin(), b.end(), want.begin() + at);
    };
    put(&h, 0, sizeof h, ELF_T_EHDR);
    for (size_t i = 0; i < m_scns.size(); ++i)
        put(&shdr(i), h.e_shoff + sizeof(Elf32_Shdr) * i, sizeof(Elf32_Shdr), ELF_T_SHDR);
    for (size_t k = 0; k < out.size(); ++k)
        if (want[k] >= 0 && want[k] != out[k]) __builtin_trap();  // the image is not what was described
}

// Reading the image back (through the file, or as a memory image) gives the
// header and section headers of the writer's descriptor, and each section's
// bytes converted to host order as reading converts its type; a section
// with one piece of its type's own units (whole, and at a whole number of
// units into the section) gives the caller's bytes.
void WriteCase::checkRead(Elf* r, const Bytes& out, bool image) const {
    if (!r || tamo_elf_kind(r) != ELF_K_ELF) __builtin_trap();
    const Elf32_Ehdr& h = header();
    const Elf32_Ehdr* rh = tamo_elf32_getehdr(r);
    if (!rh || std::memcmp(rh, &h, sizeof h) != 0) __builtin_trap();
    const bool foreign = this->foreign();
    const size_t names = h.e_shstrndx;
    // A memory image is converted in place: bytes that reading converted
    // already (the ELF header, earlier sections) do not read as written.
    std::vector<std::pair<uint64_t, uint64_t>> converted;
    if (image && foreign) converted.emplace_back(0, sizeof(Elf32_Ehdr));
    for (size_t i = 0; i < m_scns.size(); ++i) {
        const Elf32_Shdr& w = shdr(i);
        // The name, kept: in a memory image reading the section may convert
        // the bytes it points at.
        const char* found = foreign && i != names ? tamo_elf_strptr(r, names, w.sh_name) : "";
        const std::string kept = found ? found : "";
        const char* name = found ? kept.c_str() : nullptr;
        Elf_Scn* scn = tamo_elf_getscn(r, i);
        if (!scn) {
            // Legitimate: no type to read as, no name to convert by, or the
            // caller's layout (overlapping sections past the budget; a null
            // section that need not lie in the image).
            const int code = tamo_elf_errno();
            if (readType(w.sh_type) == ELF_T_NUM || !name || (m_layout && (code == 4 || w.sh_name == 0))) continue;
            __builtin_trap();
        }
        // COFF records by the name reading finds: line-number relocations of
        // any type come as RELA, line numbers and symbols repacked.
        const bool relocations = name && std::strncmp(name, ".rela.lnno.", 11) == 0;
        const bool repacked = name && !relocations && fuzz::coffName(name, w.sh_type);
        const bool coff = relocations || repacked || writerCoff(i);
        Elf32_Shdr got = *tamo_elf32_getshdr(scn);
        if (repacked) got.sh_size = w.sh_size, got.sh_entsize = w.sh_entsize;
        if (std::memcmp(&got, &w, sizeof got) != 0) __builtin_trap();  // a header changed on the way
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        if (w.sh_type == SHT_NULL || w.sh_type == SHT_NOBITS) {
            if (d) __builtin_trap();
            continue;
        }
        if (!d || tamo_elf_getdata(scn, d) || d->d_off != 0 ||
            d->d_type != (relocations ? ELF_T_RELA : shownType(w.sh_type)) ||
            (d->d_size != w.sh_size && !repacked))
            __builtin_trap();
        const uint64_t begin = w.sh_offset, end = begin + w.sh_size;
        if (begin == end) continue;  // an empty block, wherever its offset points
        if (end > out.size()) __builtin_trap();  // read from outside the image
        const bool overlaps = std::any_of(converted.begin(), converted.end(),
                                          [&](const auto& c) { return begin < c.second && c.first < end; });
        if (image && foreign) converted.emplace_back(begin, end);
        if (coff || overlaps) continue;
        Bytes want(out.begin() + static_cast<ptrdiff_t>(begin), out.begin() + static_cast<ptrdiff_t>(end));
        const auto* got8 = static_cast<const uint8_t*>(d->d_buf);
        if ((!foreign || reverseUnits(want, readType(w.sh_type))) &&
            (want.size() != d->d_size || (!want.empty() && std::memcmp(want.data(), got8, want.size()) != 0)))
            __builtin_trap();  // not the bytes written
        const Section& s = m_scns[i];
        if (s.pieces.size() != 1) continue;
        const Elf_Data& p = *s.pieces[0];
        const size_t unit = tamo_elf32_fsize(p.d_type, 1, EV_CURRENT);
        if (p.d_type == readType(w.sh_type) && unit && p.d_size % unit == 0 && p.d_size &&
            converts(s.behaviour, h.e_ident[EI_DATA]) == foreign && p.d_off >= 0 && p.d_off % unit == 0 &&
            static_cast<uint64_t>(p.d_off) + p.d_size <= d->d_size &&
            std::memcmp(got8 + p.d_off, p.d_buf, p.d_size) != 0)
            __builtin_trap();  // not the caller's bytes
    }
}

void WriteCase::run() {
    if (m_fd < 0) return;
    build();
    // The layout first: an image larger than kMaxImage is not built.
    const off_t laid = tamo_elf_update(m_elf, ELF_C_NULL);
    if (laid > kMaxImage) return;
    tamo_elf_errno();
    const off_t written = tamo_elf_update(m_elf, ELF_C_WRITE);
    const int code = tamo_elf_errno();
    if (!std::equal(m_bodies.begin(), m_bodies.end(), m_kept.begin())) __builtin_trap();  // the caller's bytes changed
    if (written < 0) {
        if (code == 0) __builtin_trap();                     // a failure without a code
        if (fuzz::fileSize(m_fd) != 0) __builtin_trap();             // a failed update wrote something
        return;
    }
    if (written != laid) __builtin_trap();
    const Elf32_Ehdr& h = header();
    Elf32_Ehdr set = m_set;
    if (set.e_ident[EI_DATA] == ELFDATANONE) set.e_ident[EI_DATA] = static_cast<unsigned char>(kHost);
    if (h.e_type != set.e_type || h.e_machine != set.e_machine || h.e_entry != set.e_entry || h.e_flags != set.e_flags ||
        h.e_phoff != set.e_phoff || h.e_phentsize != set.e_phentsize || h.e_phnum != set.e_phnum ||
        h.e_shstrndx != set.e_shstrndx || h.e_ident[EI_DATA] != set.e_ident[EI_DATA] ||
        h.e_ident[kOsAbi] != set.e_ident[kOsAbi] || h.e_shnum != m_scns.size())
        __builtin_trap();  // layout changed what the caller set
    const Bytes out = fuzz::fileBytes(m_fd);
    if (out.size() != static_cast<size_t>(written)) __builtin_trap();
    checkImage(out);

    lseek(m_fd, 0, SEEK_SET);  // writing leaves the file at its end
    Elf* r = tamo_elf_begin(m_fd, ELF_C_READ, nullptr);
    checkRead(r, out, false);
    tamo_elf_end(r);
    Bytes copy = out;
    r = tamo_elf_memory(reinterpret_cast<char*>(copy.data()), copy.size());
    checkRead(r, out, true);
    tamo_elf_end(r);
    if (copy != out) __builtin_trap();  // the image did not come back

    // Written again, the same image.
    tamo_elf_flagelf(m_elf, ELF_C_SET, ELF_F_DIRTY);
    if (tamo_elf_update(m_elf, ELF_C_WRITE) != written || fuzz::fileBytes(m_fd) != out) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::once();
    WriteCase(data, size).run();
    tamo_elf_errno();
    return 0;
}
