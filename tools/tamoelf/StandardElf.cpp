#include "StandardElf.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tool {

namespace {

constexpr size_t kEhdrSize = 52;
constexpr uint32_t kMaxAlign = 65536;

size_t headerSize(ObjectFormat f) {
    return f == ObjectFormat::Standard ? 40 : 44;
}
size_t symbolSize(ObjectFormat f) {
    return f == ObjectFormat::Standard ? 16 : 20;
}

// The records are laid out in memory as in the file (the headers' fields
// have no padding between them); only the byte order of their fields
// differs. Fields after e_ident by offset and width:
constexpr std::pair<uint8_t, uint8_t> kEhdrFields[] = {{16, 2}, {18, 2}, {20, 4}, {24, 4}, {28, 4}, {32, 4}, {36, 4},
                                                      {40, 2}, {42, 2}, {44, 2}, {46, 2}, {48, 2}, {50, 2}};
static_assert(sizeof(Elf32_Ehdr) == kEhdrSize && sizeof(Elf32_Shdr) == 44);

// Reverses the fields of a record from or to `big` on this host.
template <size_t N>
void orderFields(uint8_t* p, const std::pair<uint8_t, uint8_t> (&fields)[N], bool big) {
    if (big == (kHostOrder == ELFDATA2MSB)) return;
    for (const auto& [at, width] : fields) std::reverse(p + at, p + at + width);
}
void orderWords(uint8_t* p, size_t words, bool big) {
    if (big == (kHostOrder == ELFDATA2MSB)) return;
    for (size_t i = 0; i < words; ++i) std::reverse(p + 4 * i, p + 4 * i + 4);
}

Elf32_Ehdr loadEhdr(const Bytes& f, bool big) {
    Elf32_Ehdr h;
    std::memcpy(&h, f.data(), sizeof h);
    orderFields(reinterpret_cast<uint8_t*>(&h), kEhdrFields, big);
    return h;
}

void storeEhdr(uint8_t* p, Elf32_Ehdr h, bool big) {
    orderFields(reinterpret_cast<uint8_t*>(&h), kEhdrFields, big);
    std::memcpy(p, &h, sizeof h);
}

// A section header of 40 (standard) or 44 bytes.
Elf32_Shdr loadShdr(const uint8_t* p, bool big, bool withExtra) {
    Elf32_Shdr s{};
    std::memcpy(&s, p, withExtra ? 44 : 40);
    orderWords(reinterpret_cast<uint8_t*>(&s), 11, big);
    return s;
}

void storeShdr(uint8_t* p, Elf32_Shdr s, bool big) {
    orderWords(reinterpret_cast<uint8_t*>(&s), 10, big);
    std::memcpy(p, &s, 40);
}

bool isSymbolTable(const Elf32_Shdr& s) {
    return s.sh_type == SHT_SYMTAB || s.sh_type == SHT_DYNSYM;
}

bool hasBytes(const Elf32_Shdr& s) {
    return s.sh_type != SHT_NOBITS && s.sh_type != SHT_NULL;
}

}  // namespace

RawObject readRawObject(const Bytes& f, ObjectFormat format, const std::string& name) {
    if (f.size() < EI_NIDENT || std::memcmp(f.data(), "\177ELF", 4) != 0) throw Failure(name + ": not an ELF object");
    constexpr unsigned char kClass64 = 2;  // ELFCLASS64
    if (f[EI_CLASS] == kClass64) throw Failure(name + ": a 64-bit ELF object; this format holds 32-bit objects only");
    if (f[EI_CLASS] != ELFCLASS32) throw Failure(name + ": ELF class " + std::to_string(f[EI_CLASS]) + " not known");
    if (f[EI_DATA] != ELFDATA2LSB && f[EI_DATA] != ELFDATA2MSB)
        throw Failure(name + ": byte order " + std::to_string(f[EI_DATA]) + " not known");
    if (f.size() < kEhdrSize) throw Failure(name + ": the ELF header is cut short");
    RawObject o;
    o.big = f[EI_DATA] == ELFDATA2MSB;
    o.header = loadEhdr(f, o.big);
    const Elf32_Ehdr& h = o.header;
    const size_t entry = headerSize(format);
    if (h.e_type != ET_REL)
        throw Failure(name + ": not a relocatable object (ELF type " + std::to_string(h.e_type) +
                      "): program headers and dynamic linking cannot be carried");
    if (h.e_phnum != 0) throw Failure(name + ": has program headers, which cannot be carried");
    // (This format has no extended numbering: its writers store e_shoff
    // even when there are no sections.)
    if (format == ObjectFormat::Standard && h.e_shnum == 0 && h.e_shoff != 0)
        throw Failure(name + ": extended section numbering (65,280 sections or more) cannot be carried");
    if (h.e_shnum != 0 && h.e_shentsize != entry)
        throw Failure(name + ": section headers of " + std::to_string(h.e_shentsize) + " bytes, not " +
                      std::to_string(entry) +
                      (format == ObjectFormat::Standard ? " (is it already of this format?)"
                                                        : " (a standard ELF32 object: use import)"));
    if (uint64_t{h.e_shoff} + uint64_t{entry} * h.e_shnum > f.size())
        throw Failure(name + ": the section header table (" + std::to_string(h.e_shnum) + " entries at offset " +
                      std::to_string(h.e_shoff) + ") runs past the end of the file");
    if (h.e_shnum != 0 && h.e_shstrndx >= h.e_shnum)
        throw Failure(name + ": the section name table's index " + std::to_string(h.e_shstrndx) +
                      " is not a section's");

    o.sections.resize(h.e_shnum);
    for (size_t i = 0; i < h.e_shnum; ++i) {
        RawSection& s = o.sections[i];
        s.header = loadShdr(&f[h.e_shoff + i * entry], o.big, format == ObjectFormat::Tamo);
        if (!hasBytes(s.header)) continue;
        if (uint64_t{s.header.sh_offset} + s.header.sh_size > f.size())
            throw Failure(name + ": section [" + std::to_string(i) + "]'s bytes (" +
                          std::to_string(s.header.sh_size) + " at offset " + std::to_string(s.header.sh_offset) +
                          ") lie past the end of the file");
        s.bytes.assign(f.begin() + s.header.sh_offset, f.begin() + s.header.sh_offset + s.header.sh_size);
    }
    // Section 0's size and link carry extended numbering.
    if (h.e_shnum && (o.sections[0].header.sh_size != 0 || o.sections[0].header.sh_link != 0))
        throw Failure(name + ": section 0 holds extended numbering, which cannot be carried");
    if (h.e_shnum) {
        const Bytes& names = o.sections[h.e_shstrndx].bytes;
        for (size_t i = 1; i < o.sections.size(); ++i) o.sections[i].name = stringIn(names, o.sections[i].header.sh_name);
    }
    for (size_t i = 0; i < o.sections.size(); ++i) {
        const Elf32_Shdr& s = o.sections[i].header;
        // Alignments are 0 or powers of two; those above 64 KiB (which no
        // relocatable object needs) would only pad the output.
        if ((s.sh_addralign & (s.sh_addralign - 1)) != 0 || s.sh_addralign > kMaxAlign)
            throw Failure(name + ": section [" + std::to_string(i) + "] " + o.sections[i].name + ": alignment " +
                          std::to_string(s.sh_addralign) +
                          (s.sh_addralign > kMaxAlign && !(s.sh_addralign & (s.sh_addralign - 1))
                               ? ", more than the 65536 the tool lays out"
                               : ", not a power of two"));
        if (isSymbolTable(s) && s.sh_size % symbolSize(format) != 0)
            throw Failure(name + ": symbol table [" + std::to_string(i) + "] " + o.sections[i].name + " of " +
                          std::to_string(s.sh_size) + " bytes is not whole " + std::to_string(symbolSize(format)) +
                          "-byte symbols");
    }
    return o;
}

void resizeSymbols(RawObject& o, ObjectFormat to) {
    const size_t from = to == ObjectFormat::Standard ? 20 : 16, size = symbolSize(to);
    for (RawSection& s : o.sections) {
        if (!isSymbolTable(s.header)) continue;
        const size_t count = s.bytes.size() / from;
        Bytes out(count * size, 0);
        for (size_t k = 0; k < count; ++k) std::memcpy(&out[k * size], &s.bytes[k * from], 16);
        s.bytes = std::move(out);
        s.header.sh_size = static_cast<Elf32_Word>(s.bytes.size());
        s.header.sh_entsize = static_cast<Elf32_Word>(size);
    }
}

Bytes writeStandardObject(const RawObject& o) {
    // Offsets first, checked against the format's 4 GiB.
    std::vector<uint32_t> offsets(o.sections.size(), 0);
    uint64_t pos = kEhdrSize;
    for (size_t i = 1; i < o.sections.size(); ++i) {
        const RawSection& s = o.sections[i];
        const uint64_t align = s.header.sh_addralign > 1 ? s.header.sh_addralign : 1;
        pos = (pos + align - 1) / align * align;
        offsets[i] = static_cast<uint32_t>(pos);
        if (hasBytes(s.header)) pos += s.bytes.size();
        if (pos > UINT32_MAX) throw Failure("the object would pass the format's 4 GiB");
    }
    const uint64_t tableAt = o.sections.empty() ? 0 : (pos + 3) / 4 * 4;
    const uint64_t total = o.sections.empty() ? pos : tableAt + 40 * o.sections.size();
    if (total > UINT32_MAX) throw Failure("the object would pass the format's 4 GiB");

    Bytes out(static_cast<size_t>(total), 0);
    Elf32_Ehdr h = o.header;
    h.e_ehsize = kEhdrSize;
    h.e_shentsize = o.sections.empty() ? 0 : 40;
    h.e_shoff = static_cast<Elf32_Off>(tableAt);
    h.e_shnum = static_cast<Elf32_Half>(o.sections.size());
    h.e_phoff = 0;
    h.e_phentsize = 0;
    storeEhdr(out.data(), h, o.big);
    for (size_t i = 0; i < o.sections.size(); ++i) {
        const RawSection& s = o.sections[i];
        Elf32_Shdr sh = s.header;
        if (i != 0) {
            sh.sh_offset = offsets[i];
            if (hasBytes(sh)) {
                sh.sh_size = static_cast<Elf32_Word>(s.bytes.size());
                if (!s.bytes.empty()) std::memcpy(&out[offsets[i]], s.bytes.data(), s.bytes.size());
            }
        }
        storeShdr(&out[tableAt + 40 * i], sh, o.big);
    }
    return out;
}

}  // namespace tool
