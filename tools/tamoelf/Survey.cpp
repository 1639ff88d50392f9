#include "Survey.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <type_traits>

namespace tool {

namespace {

std::string sectionWhere(size_t index, const std::string& name) {
    return "section [" + std::to_string(index) + "]" + (name.empty() ? "" : " " + name);
}

Problem libraryProblem(const std::string& where, const std::string& note) {
    const LibraryError e = takeLibraryError();
    return {where, e.code, e.message, e.context, note};
}

Problem toolProblem(const std::string& where, const std::string& message, const std::string& note = "") {
    return {where, 0, message, "", note};
}

bool bigEndian(const Elf32_Ehdr& h) {
    return h.e_ident[EI_DATA] == ELFDATA2MSB;
}

// The distance between section headers as the library reads them.
unsigned headerStride(const Elf32_Ehdr& h) {
    return std::min<unsigned>(h.e_shentsize, sizeof(Elf32_Shdr));
}

// A section header as the object's bytes hold it, for a section the library
// does not hand out.
bool storedHeader(const Bytes& b, const Elf32_Ehdr& h, size_t index, Elf32_Shdr& out) {
    const size_t stride = headerStride(h);
    const uint64_t at = h.e_shoff + uint64_t{stride} * index;
    if (stride < 4 || at + stride > b.size()) return false;
    uint32_t words[11] = {};
    for (size_t w = 0; w < stride / 4; ++w) words[w] = load32(&b[at + 4 * w], bigEndian(h));
    std::memcpy(&out, words, sizeof out);
    return true;
}

std::string stringAt(Elf* elf, size_t table, uint32_t offset) {
    const char* s = tamo_elf_strptr(elf, table, offset);
    if (!s) {
        clearLibraryError();
        return "";
    }
    return s;
}

void readSymbols(Object& o, Elf* elf, const Section& s, const Bytes& bytes) {
    // This format's symbols are 20 bytes and arrive in host order; a
    // standard object's are 16 bytes, read from its bytes in its order.
    const bool standard = s.header.sh_entsize == 16 || (o.standard && s.header.sh_entsize != 20);
    const size_t unit = standard ? 16 : 20;
    const uint8_t* p = nullptr;
    size_t size = 0;
    if (standard) {
        if (s.header.sh_offset > bytes.size() || s.header.sh_size > bytes.size() - s.header.sh_offset) return;
        p = bytes.data() + s.header.sh_offset;
        size = s.header.sh_size;
    } else {
        p = s.data.data();
        size = s.data.size();
    }
    for (size_t i = 0; i + unit <= size; i += unit) {
        Symbol y;
        y.table = s.name;
        y.index = i / unit;
        const bool big = standard && bigEndian(o.header);
        const uint8_t* r = p + i;
        Elf32_Sym sym{};
        if (standard) {
            sym.st_name = load32(r, big);
            sym.st_value = load32(r + 4, big);
            sym.st_size = load32(r + 8, big);
            sym.st_info = r[12];
            sym.st_other = r[13];
            sym.st_shndx = load16(r + 14, big);
        } else {
            std::memcpy(&sym, r, sizeof sym);
        }
        y.value = sym.st_value;
        y.size = sym.st_size;
        y.info = sym.st_info;
        y.other = sym.st_other;
        y.shndx = sym.st_shndx;
        y.extra = sym.st_extra;
        y.name = stringAt(elf, s.header.sh_link, sym.st_name);
        if (sym.st_shndx == SHN_UNDEF)
            y.section = "UND";
        else if (sym.st_shndx == SHN_ABS)
            y.section = "ABS";
        else if (sym.st_shndx == SHN_COMMON)
            y.section = "COM";
        else if (const Section* t = o.section(sym.st_shndx))
            y.section = t->name;
        else
            y.section = "[" + std::to_string(sym.st_shndx) + "]";
        o.symbols.push_back(std::move(y));
    }
}

void readRelocations(Object& o, const Section& s) {
    const bool rela = s.header.sh_type == SHT_RELA;
    const size_t unit = rela ? 12 : 8;
    const Section* symtab = o.section(s.header.sh_link);
    for (size_t i = 0; i + unit <= s.data.size(); i += unit) {
        Relocation r;
        r.section = s.name;
        r.rela = rela;
        std::memcpy(&r.offset, &s.data[i], 4);
        std::memcpy(&r.info, &s.data[i + 4], 4);
        if (rela) std::memcpy(&r.addend, &s.data[i + 8], 4);
        const uint32_t sym = ELF32_R_SYM(r.info);
        if (symtab && sym) {
            for (const Symbol& y : o.symbols)
                if (y.table == symtab->name && y.index == sym) {
                    r.symbol = y.name.empty() && (y.info & 0xf) == STT_SECTION ? y.section : y.name;
                    break;
                }
        }
        o.relocations.push_back(std::move(r));
    }
}

void readCoff(Object& o, const Section& s) {
    if (s.name.starts_with(".lnno.")) {
        for (size_t i = 0; i + 6 <= s.data.size(); i += 6) {
            CoffLine l;
            l.section = s.name;
            std::memcpy(&l.address, &s.data[i], 4);
            std::memcpy(&l.line, &s.data[i + 4], 2);
            o.lines.push_back(l);
        }
        return;
    }
    unsigned auxLeft = 0;
    for (size_t i = 0; i + 18 <= s.data.size(); i += 18) {
        const uint8_t* r = &s.data[i];
        CoffEntry e;
        e.section = s.name;
        e.index = i / 18;
        if (auxLeft) {
            e.auxiliary = true;
            e.bytes.assign(r, r + 18);
            --auxLeft;
        } else {
            uint32_t zeroes;
            std::memcpy(&zeroes, r, 4);
            if (zeroes == 0) {
                uint32_t offset;
                std::memcpy(&offset, r + 4, 4);
                e.name = "(string at " + std::to_string(offset) + ")";
            } else {
                e.name.assign(reinterpret_cast<const char*>(r), strnlen(reinterpret_cast<const char*>(r), 8));
            }
            std::memcpy(&e.value, r + 8, 4);
            std::memcpy(&e.section_number, r + 12, 2);
            std::memcpy(&e.type, r + 14, 2);
            e.storage_class = r[16];
            e.aux_count = r[17];
            auxLeft = e.aux_count;
        }
        o.coff.push_back(std::move(e));
    }
}

uint32_t word(const Bytes& d, size_t at) {
    uint32_t v;
    std::memcpy(&v, &d[at], 4);
    return v;
}
uint16_t half(const Bytes& d, size_t at) {
    uint16_t v;
    std::memcpy(&v, &d[at], 2);
    return v;
}

// One line per unit or program, from the data as the library converted them.
void readDwarf(Object& o, const Section& s, bool line) {
    const Bytes& d = s.data;
    for (size_t at = 0; at + 6 <= d.size();) {
        DwarfUnit u;
        u.section = sectionWhere(s.index, s.name);
        u.line = line;
        u.offset = static_cast<uint32_t>(at);
        u.length = word(d, at);
        u.version = half(d, at + 4);
        if (u.length >= 0xfffffff0u) {
            u.note = "64-bit DWARF or a reserved length: not converted";
            o.dwarf.push_back(u);
            break;
        }
        if (u.version < 2 || u.version > 5) {
            u.note = "a version outside 2 to 5: not converted";
            o.dwarf.push_back(u);
            break;
        }
        if (u.length > d.size() - at - 4) {
            u.note = "runs past the end of the section: not converted";
            o.dwarf.push_back(u);
            break;
        }
        size_t p = at + 6;
        if (line) {
            if (u.version >= 5 && p + 2 <= d.size()) {
                u.address_size = d[p];
                p += 2;
            }
            if (p + 4 <= at + 4 + u.length) u.header_length = word(d, p);
        } else if (u.version >= 5 && p + 6 <= at + 4 + u.length) {
            u.unit_type = d[p];
            u.address_size = d[p + 1];
            u.abbrev_offset = word(d, p + 2);
        } else if (p + 5 <= at + 4 + u.length) {
            u.abbrev_offset = word(d, p);
            u.address_size = d[p + 4];
            u.unit_type = 1;
        }
        o.dwarf.push_back(u);
        at += 4 + static_cast<size_t>(u.length);
    }
}

// Converts a data block to the other byte order and back; it must come back.
bool roundTrips(Elf_Data* data) {
    Bytes out(data->d_size + 1), back(data->d_size + 1);
    Elf_Data there{out.data(), ELF_T_BYTE, out.size(), 0, 1, EV_CURRENT};
    Elf_Data again{back.data(), ELF_T_BYTE, back.size(), 0, 1, EV_CURRENT};
    const unsigned other = kHostOrder == ELFDATA2LSB ? ELFDATA2MSB : ELFDATA2LSB;
    if (!tamo_elf32_xlatetof(&there, data, other)) return data->d_size == 0 || (clearLibraryError(), false);
    // Back as the library sees it: a block it handed out, holding the
    // converted bytes.
    Bytes saved(static_cast<uint8_t*>(data->d_buf), static_cast<uint8_t*>(data->d_buf) + data->d_size);
    std::memcpy(data->d_buf, out.data(), data->d_size);
    const bool ok = tamo_elf32_xlatetom(&again, data, other) != nullptr;
    std::memcpy(data->d_buf, saved.data(), saved.size());
    if (!ok) clearLibraryError();
    return ok && std::equal(saved.begin(), saved.end(), back.begin());
}

// Converts a section the tool walks itself to the other byte order and back,
// reporting where the walk stopped; it must come back.
void walkBothWays(Object& o, Elf* elf, const Section& s) {
    const bool big = bigEndian(o.header);
    Bytes work = s.data;
    std::vector<WalkProblem> found;
    auto walk = [&](bool fromBig) {
        if (s.layout == Layout::Types) {
            Elf32_Shdr extent = s.header;
            extent.sh_size = static_cast<Elf32_Word>(work.size());
            auto* p = reinterpret_cast<char*>(work.data());
            endian_swap_dwarf_section(".debug_types", p, p, elf, &extent, fromBig == (kHostOrder == ELFDATA2MSB));
            return std::vector<WalkProblem>{};
        }
        return convertSection(s.layout, work.data(), work.size(), fromBig);
    };
    found = walk(big);
    walk(!big);
    for (const WalkProblem& p : found)
        o.problems.push_back(toolProblem(sectionWhere(s.index, s.name), "at offset " + std::to_string(p.offset) + ": " + p.what,
                                         "convert leaves that part as it stands"));
    if (work != s.data)
        o.problems.push_back(
            toolProblem(sectionWhere(s.index, s.name), "its data did not come back from the other byte order"));
}

}  // namespace

const Section* Object::section(size_t index) const {
    return index < sections.size() && sections[index].index == index ? &sections[index] : nullptr;
}

void Object::dropContent() {
    // Assigning {} would keep the vectors' capacity.
    auto release = [](auto& v) { std::decay_t<decltype(v)>().swap(v); };
    release(sections);
    release(symbols);
    release(relocations);
    release(lines);
    release(coff);
    release(dwarf);
}

bool Survey::clean() const {
    if (!archive) return object.problems.empty();
    if (!ar.problems.empty()) return false;
    for (const Member& m : ar.members)
        if (!m.object.problems.empty()) return false;
    return true;
}

Object surveyObject(Elf* elf, const std::string& file, const Bytes& bytes, bool convert) {
    Object o;
    o.file = file;
    o.size = bytes.size();
    const Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
    if (!h) {
        o.problems.push_back(libraryProblem("ELF header", "nothing more could be read"));
        return o;
    }
    o.header = *h;
    o.standard = h->e_shentsize == 40;
    tamo_elf_setreadswapcontroller(elf, toolReadSwapController);
    if (bytes.size() < sizeof(Elf32_Ehdr))
        o.problems.push_back(toolProblem(
            "ELF header", "the file is cut short: " + std::to_string(bytes.size()) + " bytes of a 52-byte header",
            "the library reads the missing bytes as zeros"));
    // Headers of which the file holds no byte read as zeros: null sections,
    // which are not listed one by one (a 140-byte member may claim 65,535).
    const unsigned stride = headerStride(*h);
    const uint64_t tableEnd = h->e_shoff + uint64_t{stride} * h->e_shnum;
    size_t held = h->e_shnum;
    if (stride == 0 || h->e_shoff >= bytes.size())
        held = 0;
    else if (tableEnd > bytes.size())
        held = static_cast<size_t>((bytes.size() - h->e_shoff + stride - 1) / stride);
    const std::string unlisted = held == h->e_shnum ? ""
                                 : held + 1 == h->e_shnum
                                     ? "; section [" + std::to_string(held) + "], all zeros, is not listed"
                                     : "; sections [" + std::to_string(held) + "] to [" +
                                           std::to_string(h->e_shnum - 1) + "], all zeros, are not listed";
    if (h->e_shnum && stride == 0)
        o.problems.push_back(toolProblem("section header table",
                                         "entries of 0 bytes (e_shentsize) for " + std::to_string(h->e_shnum) +
                                             " sections",
                                         "the library reads them as zeros" + unlisted));
    else if (h->e_shnum && h->e_shentsize != 44 && h->e_shentsize != 40)
        o.problems.push_back(toolProblem("section header table",
                                         "entries of " + std::to_string(h->e_shentsize) +
                                             " bytes (e_shentsize; this format's are 44, standard ELF32's 40)",
                                         "the library reads min(e_shentsize, 44) bytes of each, as many bytes apart"));
    if (h->e_shnum && stride != 0 && tableEnd > bytes.size())
        o.problems.push_back(toolProblem("section header table",
                                         "the table (" + std::to_string(h->e_shnum) + " entries at offset " +
                                             std::to_string(h->e_shoff) + ") runs past the end of the file (" +
                                             std::to_string(bytes.size()) + " bytes)",
                                         "the library reads the missing bytes as zeros" + unlisted));

    o.sections.reserve(held);  // at most one per header the file holds
    for (size_t i = 0; i < held; ++i) {
        Section s;
        s.index = i;
        Elf_Scn* scn = tamo_elf_getscn(elf, i);
        if (!scn) {
            Problem p = libraryProblem(sectionWhere(i, ""), "skipped");
            if (storedHeader(bytes, o.header, i, s.header)) s.name = stringAt(elf, h->e_shstrndx, s.header.sh_name);
            p.where = sectionWhere(i, s.name);
            o.problems.push_back(std::move(p));
            o.sections.push_back(std::move(s));
            continue;
        }
        s.header = *tamo_elf32_getshdr(scn);
        if (i != 0) s.name = stringAt(elf, h->e_shstrndx, s.header.sh_name);
        s.layout = i == 0 ? Layout::NoOrder : layoutOf(s.name, s.header.sh_type, s.header.sh_flags);
        if (s.layout == Layout::Unknown && !o.standard)
            o.notes.push_back(toolProblem(sectionWhere(i, s.name), "a layout the tool does not know",
                                          "convert copies it as it stands"));
        if (s.header.sh_type != SHT_NOBITS && s.header.sh_type != SHT_NULL &&
            (s.header.sh_offset > bytes.size() || s.header.sh_size > bytes.size() - s.header.sh_offset))
            o.problems.push_back(toolProblem(sectionWhere(i, s.name), "the section runs past the end of the file"));
        for (Elf_Data* d = tamo_elf_getdata(scn, nullptr); d; d = tamo_elf_getdata(scn, d)) {
            s.read = true;
            s.type = d->d_type;
            const auto* p = static_cast<const uint8_t*>(d->d_buf);
            if (p) s.data.insert(s.data.end(), p, p + d->d_size);
            if (convert && !roundTrips(d))
                o.problems.push_back(
                    toolProblem(sectionWhere(i, s.name), "its data did not come back from the other byte order"));
        }
        clearLibraryError();  // the end of the data list
        if (convert && s.read && toolConverts(s.layout) && !o.standard) walkBothWays(o, elf, s);
        o.sections.push_back(std::move(s));
    }
    clearLibraryError();

    for (const Section& s : o.sections)
        if (s.header.sh_type == SHT_SYMTAB || s.header.sh_type == SHT_DYNSYM) readSymbols(o, elf, s, bytes);
    for (const Section& s : o.sections) {
        if (!s.read) continue;
        if (s.header.sh_type == SHT_RELA || s.header.sh_type == SHT_REL) readRelocations(o, s);
        if (s.header.sh_type == 15 && (s.name.starts_with(".lnno.") || s.name == ".coff.SDB")) readCoff(o, s);
        if (s.name == ".debug_info") readDwarf(o, s, false);
        if (s.name.starts_with(".debug_line") && s.name != ".debug_line_str") readDwarf(o, s, true);
    }
    return o;
}

namespace {

Survey surveyArchive(const std::string& path, const Bytes& bytes, int fd, bool convert, Keep keep,
                     const SurveyEvents& events) {
    Survey r;
    r.archive = true;
    Archive& a = r.ar;
    a.file = path;
    auto announce = [&] {
        if (events.archive) events.archive(a);
    };
    ArchiveLayout layout;
    bool laidOut = true;
    try {
        layout = parseArchive(bytes);
        a.big = layout.big;
        a.hasSymbolTable = layout.hasSymbolTable;
    } catch (const Failure& f) {
        laidOut = false;
        a.big = std::memcmp(bytes.data(), "!<sola>\n", 8) == 0;
        a.problems.push_back(toolProblem("archive", f.what()));
    }
    Elf* ar = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    if (!ar) {
        a.problems.push_back(libraryProblem("archive", "its members could not be read"));
        announce();
        return r;
    }
    if (!laidOut) {
        tamo_elf_end(ar);
        announce();
        return r;
    }
    size_t count = 0;
    if (Elf_Arsym* syms = tamo_elf_getarsym(ar, &count)) {
        for (size_t i = 0; i < count; ++i) a.symbols.push_back({syms[i].as_name, syms[i].as_off, ""});
    }
    clearLibraryError();
    // The members' headers first, then each member's object: the listing
    // of the members comes before the objects, and only one object is held
    // at a time when the caller keeps only problems.
    auto open = [&](const ArchiveMember& lm) -> Elf* {
        return tamo_elf_rand(ar, lm.headerOffset) == lm.headerOffset ? tamo_elf_begin(fd, ELF_C_READ, ar) : nullptr;
    };
    for (const ArchiveMember& lm : layout.members) {
        Member m;
        m.layout = lm;
        m.name = lm.name;
        const std::string where = "member " + lm.name + " at offset " + std::to_string(lm.headerOffset);
        if (tamo_elf_rand(ar, lm.headerOffset) != lm.headerOffset) {
            m.object.problems.push_back(libraryProblem(where, "skipped"));
            a.members.push_back(std::move(m));
            continue;
        }
        Elf* e = tamo_elf_begin(fd, ELF_C_READ, ar);
        if (!e) {
            Problem p = libraryProblem(where, "not read as an object; skipped");
            m.object.problems.push_back(p);
            m.object.file = path + "(" + lm.name + ")";
            a.members.push_back(std::move(m));
            continue;
        }
        if (const Elf_Arhdr* h = tamo_elf_getarhdr(e)) {
            m.name = h->ar_name;
            m.date = h->ar_date;
            m.uid = h->ar_uid;
            m.gid = h->ar_gid;
            m.mode = h->ar_mode;
            m.size = h->ar_size;
        }
        m.isObject = true;
        tamo_elf_end(e);
        a.members.push_back(std::move(m));
    }
    for (ArchiveSymbolEntry& s : a.symbols)
        for (const Member& m : a.members)
            if (m.layout.headerOffset == s.offset) s.member = m.name;
    for (const ArchiveSymbolEntry& s : a.symbols)
        if (s.member.empty())
            a.problems.push_back(toolProblem(
                "archive symbol table",
                "symbol " + s.name + " names offset " + std::to_string(s.offset) + ", where no member starts"));
    announce();
    for (Member& m : a.members) {
        const ArchiveMember& lm = m.layout;
        if (m.isObject) {
            if (Elf* e = open(lm)) {
                const Bytes data(bytes.begin() + lm.dataOffset, bytes.begin() + lm.dataOffset + lm.size);
                m.object = surveyObject(e, path + "(" + m.name + ")", data, convert);
                tamo_elf_end(e);
            } else {  // read a moment ago
                m.isObject = false;
                m.object.problems.push_back(libraryProblem(
                    "member " + lm.name + " at offset " + std::to_string(lm.headerOffset), "not read again; skipped"));
            }
        }
        if (events.member) events.member(m);
        if (keep == Keep::Problems) m.object.dropContent();
    }
    tamo_elf_end(ar);
    clearLibraryError();
    return r;
}

}  // namespace

Survey surveyFile(const std::string& path, bool convert, Keep keep, const SurveyEvents& events) {
    const Bytes bytes = readFile(path);
    const int fd = tamo_elf_open(path.c_str(), O_RDONLY, 0);
    if (fd < 0) throw Failure(path + ": " + takeLibraryError().describe());
    struct Closer {
        int fd;
        ~Closer() { tamo_elf_close(fd); }
    } closer{fd};
    if (isArchive(bytes)) return surveyArchive(path, bytes, fd, convert, keep, events);
    Survey r;
    r.object.file = path;
    r.object.size = bytes.size();
    Elf* elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    if (!elf) {
        r.object.problems.push_back(libraryProblem("file", "not read"));
        return r;
    }
    r.object = surveyObject(elf, path, bytes, convert);
    tamo_elf_end(elf);
    return r;
}

std::string sectionTypeName(uint32_t type) {
    static const char* const names[] = {"NULL",    "PROGBITS", "SYMTAB", "STRTAB", "RELA",   "HASH",   "DYNAMIC",
                                        "NOTE",    "NOBITS",   "REL",    "SHLIB",  "DYNSYM", "TYPE12", "SIXWORD",
                                        "OFFSETS", "COFF",     "TYPE16", "TYPE17", "TYPE18", "TYPE19", "THREEWORD"};
    if (type < std::size(names)) return names[type];
    return "0x" + hex(type);
}

std::string machineName(unsigned machine) {
    static const std::map<unsigned, const char*> names = {
        {0, "None"},       {2, "SPARC"}, {3, "Intel 80386"}, {8, "MIPS"},    {18, "SPARC32+"}, {20, "PowerPC"},
        {21, "PowerPC64"}, {40, "ARM"},  {43, "SPARC v9"},   {62, "x86-64"}, {183, "AArch64"}, {243, "RISC-V"}};
    auto it = names.find(machine);
    return it == names.end() ? "machine " + std::to_string(machine) : it->second;
}

}  // namespace tool
