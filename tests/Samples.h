// Sample inputs shared by the tests, the benchmarks and the fuzz corpus
// generator: objects with a section of every record type, COFF debug
// sections, DWARF sections, and archives.
#pragma once

#include <string>
#include <vector>

#include "Builder.h"

namespace testkit {

// The sample object: one section of each record type the library converts.
struct Sample {
    ObjectBuilder builder;
    std::vector<Section> sections;  // index i+1 in the object
    size_t text, symtab, strtab, rela, rel, hash, dynamic, bss, sixword, offs, threeword, own12, note;

    explicit Sample(Order o) : builder(o) {
        auto add = [this](Section s) {
            sections.push_back(s);
            return builder.add(std::move(s));
        };
        text = add({.name = ".text", .type = SHT_PROGBITS, .flags = 6, .align = 4,
                    .content = raw(Bytes{0x7c, 0x08, 0x02, 0xa6, 0x94, 0x21, 0xff, 0xf0, 0x4e, 0x80, 0x00, 0x20})});
        strtab = add({.name = ".strtab", .type = SHT_STRTAB, .content = raw(std::string("\0main\0counter\0", 14))});
        std::vector<Elf32_Sym> syms = {
            {0, 0, 0, 0, 0, 0, 0},
            {1, 0x10, 0x20, 0x12, 0x01, static_cast<Elf32_Half>(text), 0xdeadbeef},
            {6, 0x1234, 4, 0x11, 0x02, 0xfff1, 7},
        };
        symtab = add({.name = ".symtab", .type = SHT_SYMTAB, .link = static_cast<uint32_t>(strtab), .info = 1,
                      .align = 4, .entsize = 20, .extra = 0x5a5a, .content = concat(syms, symFields)});
        std::vector<Elf32_Rela> relas = {{4, 0x0102, -8}, {0x10, 0x0203, 0x7fffffff}};
        rela = add({.name = ".rela.text", .type = SHT_RELA, .link = static_cast<uint32_t>(symtab),
                    .info = static_cast<uint32_t>(text), .align = 4, .entsize = 12, .content = concat(relas, relaFields)});
        rel = add({.name = ".rel.data", .type = SHT_REL, .align = 4, .entsize = 8,
                   .content = words({0x100, 0x0305, 0x104, 0x0406})});
        hash = add({.name = ".hash", .type = SHT_HASH, .align = 4, .entsize = 4, .content = words({1, 2, 0, 1, 0})});
        dynamic = add({.name = ".dynamic", .type = SHT_DYNAMIC, .align = 4, .entsize = 8,
                       .content = words({1, 0x10, 0x6ffffef5, 0x200, 0, 0})});
        bss = add({.name = ".bss", .type = SHT_NOBITS, .align = 8, .forceSize = 64});
        sixword = add({.name = ".six", .type = 13, .align = 4, .content = words({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})});
        offs = add({.name = ".offs", .type = 14, .align = 4, .content = words({0x11223344, 0x55667788})});
        threeword = add({.name = ".three", .type = 20, .align = 4, .content = words({0xa, 0xb, 0xc})});
        own12 = add({.name = ".own12", .type = 12, .content = raw(Bytes{1, 2, 3, 4, 5})});
        note = add({.name = ".note", .type = SHT_NOTE, .align = 4, .content = words({4, 4, 1}) });
    }

    Bytes build() { return builder.build(); }
    size_t names() const { return builder.namesIndex(); }
    const Section& section(size_t index) const { return sections.at(index - 1); }
};


// COFF line-number and symbol records (8- and 20-byte records when big-endian).
struct CoffObject {
    ObjectBuilder b;
    std::vector<Section> sections;  // index i+1 in the object
    size_t lnno, sdb, sdbSuffix, rela, relaTyped;
    size_t add(Section s) {
        sections.push_back(s);
        return b.add(std::move(s));
    }
    explicit CoffObject(Order o) : b(o) {
        Fields lines;  // two 8-byte records and 4 trailing bytes
        for (uint32_t i = 0; i < 2; ++i) {
            lines.push_back({4, 0x1000 + i});
            lines.push_back({2, 10 + i});
            lines.push_back({2, 0xabcd});
        }
        lines.push_back({4, 0x99999999});
        lnno = add({.name = ".lnno.text", .type = 15, .content = lines});
        Fields sym;  // a function symbol with one auxiliary entry, 20 bytes each
        for (char c : std::string("func\0\0\0\0", 8)) sym.push_back({1, static_cast<uint8_t>(c)});
        sym.insert(sym.end(), {{4, 0x400}, {2, 1}, {2, 0x20}, {1, 2}, {1, 1}, {2, 0}});
        sym.insert(sym.end(), {{4, 7}, {4, 0x30}, {4, 0x2000}, {4, 12}, {2, 0}, {2, 0}});
        sdb = add({.name = ".coff.SDB", .type = 15, .content = sym});
        sdbSuffix = add({.name = ".coff.SDBx", .type = 15, .content = sym});
        Fields relas = {{4, 16}, {4, 0x101}, {4, 0}, {4, 17}, {4, 0x102}, {4, 4}};
        rela = add({.name = ".rela.lnno.text", .type = SHT_PROGBITS, .content = relas});
        relaTyped = add({.name = ".rela.lnno.data", .type = SHT_RELA, .content = relas});
    }
};


// A small object whose one word section tells members apart.
inline Bytes memberObject(Order o, uint32_t tag) {
    ObjectBuilder b(o);
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = words({tag, tag + 1})});
    return b.build();
}

// An archive of objects with names of 3, 4, 8 and 13 characters, an odd
// member size, a "//" member and (optionally) a symbol table.
struct SampleArchive {
    ArchiveBuilder ar;
    std::vector<std::string> names = {"abc", "abcd", "hello.o", "a_longer_name"};
    std::vector<size_t> sizes;
    explicit SampleArchive(Order o, bool symbols = true) : ar(o) {
        ar.withSymbolTable = symbols;
        for (size_t i = 0; i < names.size(); ++i) {
            Bytes obj = memberObject(o, static_cast<uint32_t>(0x100 * (i + 1)));
            if (i == 1) obj.push_back(0);  // an odd size
            sizes.push_back(obj.size());
            ar.addMember({.name = names[i], .data = obj, .date = 1700000000, .uid = 501, .gid = 20, .mode = 644});
        }
        ar.addMember({.name = "", .data = Bytes{'x', 'y', 'z'}, .rawName = "//              "});
        ar.addSymbol("f", 0);
        ar.addSymbol("main", 2);
        ar.addSymbol("counter", 3);
    }
};


// DWARF sections: a compilation unit, its abbreviations and a line program.
inline Bytes dwarfObject(Order o) {
    ObjectBuilder b(o);
    b.add({.name = ".debug_abbrev", .type = SHT_PROGBITS,
           .content = raw(Bytes{1, 0x11, 1, 0x03, 0x08, 0x10, 0x06, 0, 0, 2, 0x34, 0, 0x02, 0x09, 0x0b, 0x0b, 0, 0, 0})});
    b.add({.name = ".debug_info", .type = SHT_PROGBITS,
           .content = Fields{{4, 24}, {2, 2}, {4, 0}, {1, 4}, {1, 1}, {1, 'a'}, {1, 0}, {4, 0x10}, {1, 2}, {1, 2},
                             {1, 0x91}, {1, 0x7c}, {1, 7}, {1, 0}, {1, 0}, {1, 0}, {1, 0}, {1, 0}}});
    b.add({.name = ".debug_line", .type = SHT_PROGBITS,
           .content = Fields{{4, 38}, {2, 2}, {4, 21}, {1, 4}, {1, 1}, {1, 0xfb}, {1, 14}, {1, 10}, {1, 0}, {1, 1},
                             {1, 1}, {1, 1}, {1, 1}, {1, 0}, {1, 0}, {1, 0}, {1, 1}, {1, 0}, {1, 'a'}, {1, 0}, {1, 0},
                             {1, 0}, {1, 0}, {1, 0}, {1, 0}, {1, 5}, {1, 2}, {4, 0x1000}, {1, 0x13}, {1, 0}, {1, 1},
                             {1, 1}}});
    b.add({.name = ".symtab", .type = SHT_SYMTAB, .align = 4, .content = words({0, 0, 0, 0, 0})});
    return b.build();
}

}  // namespace testkit
