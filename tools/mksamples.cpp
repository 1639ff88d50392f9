// Makes the sample files shipped in samples/: objects of this format in both
// byte orders, written through the library's writing interface from
// host-order contents, and an archive of them in each order with a symbol
// table. The output is deterministic (no dates, no addresses).
//
// Usage: mksamples DIR
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "Archive.h"
#include "Common.h"
#include "Convert.h"

namespace {

using tool::Bytes;

// Host-order contents, field by field.
struct Out {
    Bytes b;
    Out& u8(uint8_t v) {
        b.push_back(v);
        return *this;
    }
    Out& u16(uint16_t v) {
        b.resize(b.size() + 2);
        std::memcpy(&b[b.size() - 2], &v, 2);
        return *this;
    }
    Out& u32(uint32_t v) {
        b.resize(b.size() + 4);
        std::memcpy(&b[b.size() - 4], &v, 4);
        return *this;
    }
    Out& str(const std::string& s) {
        b.insert(b.end(), s.begin(), s.end());
        b.push_back(0);
        return *this;
    }
    Out& uleb(uint32_t v) {
        do {
            const uint8_t byte = v & 0x7f;
            v >>= 7;
            b.push_back(static_cast<uint8_t>(byte | (v ? 0x80 : 0)));
        } while (v);
        return *this;
    }
    Out& sleb(int32_t v) {
        for (bool more = true; more;) {
            const uint8_t byte = v & 0x7f;
            v >>= 7;
            more = !((v == 0 && !(byte & 0x40)) || (v == -1 && (byte & 0x40)));
            b.push_back(static_cast<uint8_t>(byte | (more ? 0x80 : 0)));
        }
        return *this;
    }
    Out& bytes(std::initializer_list<uint8_t> v) {
        b.insert(b.end(), v);
        return *this;
    }
};

// Names in a string table, by offset.
struct Strings {
    std::string table = std::string(1, '\0');
    uint32_t add(const std::string& s) {
        const uint32_t at = static_cast<uint32_t>(table.size());
        table += s;
        table += '\0';
        return at;
    }
};

struct Part {
    std::string name;
    uint32_t type, flags = 0, link = 0, info = 0, align = 1, entsize = 0, extra = 0;
    Elf_Type dataType = ELF_T_BYTE;
    Bytes data;
};

struct Symbol {
    std::string name;
    uint32_t value, size;
    uint8_t info;
    uint16_t shndx;
    uint32_t extra;
};

// The object's sections, in index order (1 on).
std::vector<Part> sampleParts(const std::string& unit, const std::string& function, uint32_t seed,
                              std::vector<std::string>& globals) {
    std::vector<Part> parts;
    enum { kText = 1, kData, kBss, kStr, kSym, kRela, kLnno, kRelaLnno, kSdb, kAbbrev, kInfo, kLine, kDebugStr };
    Out text;
    text.bytes({0x94, 0x21, 0xff, 0xf0, 0x7c, 0x08, 0x02, 0xa6, 0x38, 0x60, 0x00, static_cast<uint8_t>(seed), 0x4e,
                0x80, 0x00, 0x20});
    parts.push_back({".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR, 0, 0, 4, 0, 0, ELF_T_BYTE, text.b});
    parts.push_back({".data", SHT_PROGBITS, SHF_ALLOC | SHF_WRITE, 0, 0, 4, 0, 0, ELF_T_BYTE,
                     Bytes{0, 0, 0, static_cast<uint8_t>(seed), 0x12, 0x34, 0x56, 0x78}});
    parts.push_back({".bss", SHT_NOBITS, SHF_ALLOC | SHF_WRITE, 0, 0, 8, 0, 0, ELF_T_BYTE, Bytes(64)});

    Strings names;
    const std::vector<Symbol> symbols = {
        {"", 0, 0, 0, 0, 0},
        {unit, 0, 0, ELF32_ST_INFO(STB_LOCAL, STT_FILE), SHN_ABS, 0},
        {"", 0, 0, ELF32_ST_INFO(STB_LOCAL, STT_SECTION), kText, 0},
        {"counter", 4, 4, ELF32_ST_INFO(STB_LOCAL, STT_OBJECT), kData, 0x11110000u + seed},
        {function, 0, 16, ELF32_ST_INFO(STB_GLOBAL, STT_FUNC), kText, 0x22220000u + seed},
        {"table_" + function, 0, 4, ELF32_ST_INFO(STB_GLOBAL, STT_OBJECT), kData, 0},
        {"scratch", 0, 64, ELF32_ST_INFO(STB_WEAK, STT_OBJECT), kBss, 0},
        {"printf", 0, 0, ELF32_ST_INFO(STB_GLOBAL, STT_NOTYPE), SHN_UNDEF, 0},
    };
    Out sym;
    for (const Symbol& s : symbols) {
        sym.u32(s.name.empty() ? 0 : names.add(s.name)).u32(s.value).u32(s.size).u8(s.info).u8(0).u16(s.shndx);
        sym.u32(s.extra);
        if (ELF32_ST_BIND(s.info) != STB_LOCAL && s.shndx != SHN_UNDEF) globals.push_back(s.name);
    }
    parts.push_back(
        {".strtab", SHT_STRTAB, 0, 0, 0, 1, 0, 0, ELF_T_BYTE, Bytes(names.table.begin(), names.table.end())});
    parts.push_back({".symtab", SHT_SYMTAB, 0, kStr, 4, 4, 20, 0x5a5a, ELF_T_SYM, sym.b});
    Out rela;
    rela.u32(10).u32(ELF32_R_INFO(4, 6)).u32(static_cast<uint32_t>(-8));
    rela.u32(12).u32(ELF32_R_INFO(7, 10)).u32(0);
    rela.u32(4).u32(ELF32_R_INFO(2, 1)).u32(0x100 + seed);
    parts.push_back({".rela.text", SHT_RELA, SHF_INFO_LINK, kSym, kText, 4, 12, 0, ELF_T_RELA, rela.b});

    // COFF debug records: line numbers (6 bytes) and symbols with auxiliary
    // entries (18 bytes), and relocations against the line numbers.
    Out lnno;
    lnno.u32(4).u16(0);  // a function's entry: symbol index, line 0
    for (uint16_t l = 1; l <= 4; ++l) lnno.u32(4u * l).u16(static_cast<uint16_t>(10 + l + seed));
    parts.push_back({".lnno.text", 15, 0, 0, 0, 1, 6, 0, ELF_T_BYTE, lnno.b});
    Out lnrela;
    lnrela.u32(6).u32(ELF32_R_INFO(4, 1)).u32(0);
    lnrela.u32(18).u32(ELF32_R_INFO(2, 1)).u32(8);
    parts.push_back({".rela.lnno.text", SHT_RELA, 0, kSym, kLnno, 4, 12, 0, ELF_T_RELA, lnrela.b});
    Out sdb;
    auto name8 = [&](const std::string& s) {
        char n[8] = {};
        std::memcpy(n, s.data(), std::min<size_t>(8, s.size()));
        for (char c : n) sdb.u8(static_cast<uint8_t>(c));
    };
    name8(".file");
    sdb.u32(0).u16(static_cast<uint16_t>(-2)).u16(0).u8(103).u8(1);  // file, one auxiliary entry
    name8(unit);
    sdb.bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    name8(function.substr(0, 8));
    sdb.u32(0).u16(1).u16(0x20 | 4).u8(2).u8(1);         // function returning int, external
    sdb.u32(7).u32(16).u32(0).u32(12).u16(0);            // tag index, size, line pointer, end index
    sdb.u32(0).u32(4).u32(4).u16(2).u16(4).u8(3).u8(0);  // named by a string-table offset
    parts.push_back({".coff.SDB", 15, 0, 0, 0, 1, 18, 0, ELF_T_BYTE, sdb.b});

    // DWARF 4: a compile unit with a subprogram, a variable and a base type;
    // a line program; strings.
    Out abbrev;
    abbrev.uleb(1)
        .uleb(0x11)
        .u8(1)  // compile_unit, children
        .uleb(0x25)
        .uleb(0x0e)
        .uleb(0x03)
        .uleb(0x08)
        .uleb(0x10)
        .uleb(0x17)
        .uleb(0x11)
        .uleb(0x01)
        .uleb(0x12)
        .uleb(0x06)
        .uleb(0)
        .uleb(0);
    abbrev.uleb(2)
        .uleb(0x2e)
        .u8(1)  // subprogram, children
        .uleb(0x03)
        .uleb(0x08)
        .uleb(0x11)
        .uleb(0x01)
        .uleb(0x12)
        .uleb(0x06)
        .uleb(0x40)
        .uleb(0x18)
        .uleb(0x49)
        .uleb(0x13)
        .uleb(0x3f)
        .uleb(0x19)
        .uleb(0)
        .uleb(0);
    abbrev.uleb(3)
        .uleb(0x34)
        .u8(0)  // variable
        .uleb(0x03)
        .uleb(0x08)
        .uleb(0x02)
        .uleb(0x18)
        .uleb(0x49)
        .uleb(0x13)
        .uleb(0x3a)
        .uleb(0x0b)
        .uleb(0x3b)
        .uleb(0x05)
        .uleb(0)
        .uleb(0);
    abbrev.uleb(4)
        .uleb(0x24)
        .u8(0)  // base_type
        .uleb(0x03)
        .uleb(0x08)
        .uleb(0x3e)
        .uleb(0x0b)
        .uleb(0x0b)
        .uleb(0x0b)
        .uleb(0)
        .uleb(0);
    abbrev.uleb(0);
    parts.push_back({".debug_abbrev", SHT_PROGBITS, 0, 0, 0, 1, 0, 0, ELF_T_BYTE, abbrev.b});
    Out body;
    std::vector<size_t> typeRefs;  // DW_FORM_ref4 values to point at the base type
    body.uleb(1).u32(0).str(unit).u32(0).u32(0).u32(16);
    body.uleb(2).str(function).u32(0).u32(16).uleb(1).u8(0x6f);  // frame_base: DW_OP_reg31
    typeRefs.push_back(body.b.size());
    body.u32(0);
    body.uleb(3).str("n").uleb(2).u8(0x91).sleb(-8);  // location: DW_OP_fbreg -8
    typeRefs.push_back(body.b.size());
    body.u32(0).u8(1).u16(static_cast<uint16_t>(20 + seed));
    body.u8(0);                                                         // end of the subprogram's children
    const uint32_t typeAt = 11 + static_cast<uint32_t>(body.b.size());  // from the unit's start
    body.uleb(4).str("int").u8(5).u8(4);
    body.u8(0);  // end of the unit's children
    for (size_t at : typeRefs) std::memcpy(&body.b[at], &typeAt, 4);
    Out info;
    info.u32(static_cast<uint32_t>(body.b.size() + 7)).u16(4).u32(0).u8(4);
    info.b.insert(info.b.end(), body.b.begin(), body.b.end());
    parts.push_back({".debug_info", SHT_PROGBITS, 0, 0, 0, 1, 0, 0, ELF_T_BYTE, info.b});
    Out program;
    program.u8(0).uleb(5).u8(2).u32(0);                         // set_address 0
    program.u8(3).sleb(10 + static_cast<int32_t>(seed)).u8(1);  // advance_line, copy
    program.u8(9).u16(8).u8(1);                                 // fixed_advance_pc 8, copy
    program.u8(0x4b);                                           // a special opcode
    program.u8(2).uleb(4).u8(0).uleb(1).u8(1);                  // advance_pc 4, end_sequence
    Out header;
    header.u8(4).u8(1).u8(1).u8(static_cast<uint8_t>(-5)).u8(14).u8(13);
    header.bytes({0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1});
    header.str("src").u8(0);
    header.str(unit).uleb(1).uleb(0).uleb(0).u8(0);
    Out line;
    line.u32(static_cast<uint32_t>(2 + 4 + header.b.size() + program.b.size())).u16(4);
    line.u32(static_cast<uint32_t>(header.b.size()));
    line.b.insert(line.b.end(), header.b.begin(), header.b.end());
    line.b.insert(line.b.end(), program.b.begin(), program.b.end());
    parts.push_back({".debug_line", SHT_PROGBITS, 0, 0, 0, 1, 0, 0, ELF_T_BYTE, line.b});
    Out dstr;
    dstr.str("tamoelf sample generator");
    parts.push_back({".debug_str", SHT_PROGBITS, SHF_MERGE | SHF_STRINGS, 0, 0, 1, 1, 0, ELF_T_BYTE, dstr.b});
    return parts;
}

// Writes an object through the library; returns its bytes.
Bytes writeObject(const std::vector<Part>& parts, unsigned order) {
    const int fd = memfd_create("sample", 0);
    Elf* elf = tamo_elf_begin(fd, ELF_C_WRITE, nullptr);
    Elf32_Ehdr* h = tamo_elf32_newehdr(elf);
    h->e_type = ET_REL;
    h->e_machine = EM_PPC;
    Strings shstr;
    for (const Part& p : parts) {
        Elf_Scn* scn = tamo_elf_newscn(elf);
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        *sh = Elf32_Shdr{shstr.add(p.name), p.type, p.flags, 0, 0, 0, p.link, p.info, p.align, p.entsize, p.extra};
        if (p.type == SHT_NOBITS) {
            sh->sh_size = static_cast<Elf32_Word>(p.data.size());
            continue;
        }
        Elf_Data* d = tamo_elf_newdata(scn);
        d->d_buf = const_cast<uint8_t*>(p.data.data());
        d->d_size = p.data.size();
        d->d_type = p.dataType;
    }
    const uint32_t namesName = shstr.add(".shstrtab");
    Elf_Scn* scn = tamo_elf_newscn(elf);
    *tamo_elf32_getshdr(scn) = Elf32_Shdr{namesName, SHT_STRTAB, 0, 0, 0, 0, 0, 0, 1, 0, 0};
    Elf_Data* d = tamo_elf_newdata(scn);
    d->d_buf = shstr.table.data();
    d->d_size = shstr.table.size();
    h = tamo_elf32_getehdr(elf);
    h->e_shstrndx = static_cast<Elf32_Half>(tamo_elf_ndxscn(scn));
    h->e_ident[EI_DATA] = static_cast<unsigned char>(order);
    if (tamo_elf_update(elf, ELF_C_WRITE) < 0) {
        std::fprintf(stderr, "mksamples: %s\n", tamo_elf_errmsg(tamo_elf_errno()));
        std::exit(1);
    }
    tamo_elf_end(elf);
    Bytes out(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
    if (pread(fd, out.data(), out.size(), 0) != static_cast<ssize_t>(out.size())) std::exit(1);
    close(fd);
    return out;
}

void save(const std::string& path, const Bytes& b) {
    tool::OutputFile f(path);
    f.write(b);
    f.commit();
}

// An archive member header: name field, date 0, uid 0, gid 0, mode 644.
Bytes memberHeader(const std::string& name) {
    std::string field = name + "/";
    field.resize(field.size() < 16 ? 16 : (field.size() + 3) / 4 * 4, ' ');
    field += "0           0     0     644     " + std::string(10, ' ') + "`\n";
    return Bytes(field.begin(), field.end());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: mksamples DIR\n");
        return 2;
    }
    tamo_elf_version(EV_CURRENT);
    const std::string dir = argv[1];
    // The big-endian objects are laid out by the library; the little-endian
    // ones are those converted by `tamoelf convert` (same layout, COFF
    // records two bytes shorter), so that converting either way and back
    // gives the file again.
    std::vector<std::string> mainGlobals, utilGlobals;
    const Bytes mainBig = writeObject(sampleParts("sample.c", "main", 1, mainGlobals), ELFDATA2MSB);
    const Bytes utilBig = writeObject(sampleParts("util.c", "util_add", 2, utilGlobals), ELFDATA2MSB);
    tool::Notes notes;
    const Bytes mainLittle = tool::convertObject(mainBig, ELFDATA2LSB, "sample.o", notes);
    const Bytes utilLittle = tool::convertObject(utilBig, ELFDATA2LSB, "util.o", notes);

    tool::ArchiveLayout layout;
    for (const char* name : {"sample.o", "util.o"}) {
        tool::ArchiveMember m;
        m.header = memberHeader(name);
        m.name = name;
        layout.members.push_back(m);
    }
    std::vector<tool::ArchiveSymbol> symbols;
    for (const std::string& g : mainGlobals) symbols.push_back({g, 0});
    for (const std::string& g : utilGlobals) symbols.push_back({g, 1});
    save(dir + "/sample-big.o", mainBig);
    save(dir + "/sample-little.o", mainLittle);
    save(dir + "/sample-big.a", tool::writeArchive(layout, true, {mainBig, utilBig}, &symbols));
    save(dir + "/sample-little.a", tool::writeArchive(layout, false, {mainLittle, utilLittle}, &symbols));
    return 0;
}
