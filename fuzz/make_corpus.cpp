// Writes the seed corpora of the fuzz targets, from the project's own sample
// builders: objects of both byte orders (every record type, COFF debug
// sections, DWARF sections, standard 40-byte section headers, malformed
// tables) and archives of both magics. Each seed ends with the byte the
// targets take as their walk seed. The write target's seeds are
// descriptions of objects in the field order fuzz_write.cpp reads them.
//
// Compiler objects given after the directory (standard ELF32) seed the
// DWARF, interoperation and survey targets: each whole (for import and
// info), in a GNU archive, and their DWARF and unwind sections. The survey
// target's seeds are whole files, without a walk seed.
//
// Usage: make_corpus <directory> [object.o...]
//   (writes <directory>/{image,fd,archive,rdwr,write,dwarf,interop,survey}/)
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "Samples.h"

using namespace testkit;

namespace {

void saveRaw(const std::string& dir, const std::string& name, const Bytes& b) {
    FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
    if (!f) return;
    std::fwrite(b.data(), 1, b.size(), f);
    std::fclose(f);
}

void save(const std::string& dir, const std::string& name, Bytes b, uint8_t seed) {
    b.push_back(seed);
    saveRaw(dir, name, b);
}

// An object for the write target: the mode byte (bit 0 big-endian, bit 4
// the caller's layout, bit 5 COFF names, bit 6 a fill byte), then sections
// and the ELF header. Names and alignments are indexes into the target's
// lists (0 .text, 2 .bss, 3 .symtab, 5 .shstrtab, 6 .rela.text, 7
// .rel.data, 8 .hash, 9 .dynamic, 12 x, 13 .lnno.text, 14 .coff.SDB, 15
// .rela.lnno.text; alignments 0, 1, 3, 4, 12, 16, 2, 8).
struct WriteSeed {
    Bytes b;
    bool layout;
    WriteSeed(uint8_t mode, size_t count, size_t namesAt) : layout(mode & 0x10) {
        put(mode, 1);
        if (mode & 0x40) put(0xab, 1);
        put(count, 1);
        put(namesAt - 1, 1);
    }
    void put(uint64_t v, unsigned width) { testkit::put(b, v, width, Order::Little); }
    // A section's header: swap behaviour 0 (none set) or 1 to 4.
    void section(uint8_t pieces, uint8_t type, uint8_t name, uint8_t align, uint8_t entsize, int behaviour = 0) {
        put(pieces | (behaviour ? 4 | (behaviour - 1) << 3 : 0), 1);
        put(type, 1);
        put(name << 3, 1);
        put(0x2, 1);  // sh_flags
        put(0, 2);    // sh_addr
        put(1, 1);    // sh_link
        put(0, 1);    // sh_info
        put(entsize, 1);
        put(0x5a5a, 4);  // sh_extra
        put(align, 1);
        put(0, 1);  // sh_offset: right after the previous section
    }
    // A block of the section type's own units, then the section's size
    // (kept only for SHT_NOBITS without blocks under the library's layout).
    void piece(const Bytes& contents, uint8_t align) {
        put(0, 1);
        put(contents.size(), 1);
        b.insert(b.end(), contents.begin(), contents.end());
        put(align, 1);
        if (layout) put(0, 1);
    }
    void namesPiece() {
        put(1, 1);
        if (layout) put(0, 1);
    }
    void size(uint16_t v) { layout ? put(0, 1) : put(v, 2); }
    Bytes header() {
        put(1, 2);    // e_type
        put(20, 2);   // e_machine
        put(0x100, 4);
        put(0, 4);
        put(0, 2);
        put(0, 1);
        put(0, 1);
        put(0, 1);
        put(1, 1);  // e_version
        return b;
    }
};

Bytes counting(size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 7 + 1);
    return b;
}

// A section of most kinds: code, symbols, relocations, hash words, dynamic
// entries, six-, one- and three-word records, SHT_NOBITS, names.
Bytes writeObject(uint8_t mode) {
    WriteSeed w(mode, 9, 9);
    w.section(1, SHT_PROGBITS, 0, 3, 0);
    w.piece(counting(13), 1);
    w.size(0);
    w.section(1, SHT_SYMTAB, 3, 3, 20);
    w.piece(counting(40), 3);
    w.size(0);
    w.section(2, SHT_RELA, 6, 3, 12, 1);
    w.piece(counting(12), 3);
    w.piece(counting(24), 4);
    w.size(0);
    w.section(1, SHT_HASH, 8, 3, 4, 4);
    w.piece(counting(20), 3);
    w.size(0);
    w.section(1, SHT_DYNAMIC, 9, 3, 8);
    w.piece(counting(16), 3);
    w.size(0);
    w.section(0, SHT_NOBITS, 2, 5, 0);
    w.size(64);
    w.section(1, 13, 12, 7, 24);
    w.piece(counting(48), 5);
    w.size(0);
    w.section(3, 20, 12, 2, 12);
    w.piece(counting(12), 1);
    w.piece(counting(4), 1);
    w.piece(counting(24), 6);
    w.size(0);
    w.section(0, SHT_STRTAB, 5, 1, 0);
    w.namesPiece();
    w.size(0);
    return w.header();
}

// COFF line numbers, symbols and their relocations.
Bytes writeCoff(uint8_t mode) {
    WriteSeed w(mode | 0x20, 4, 4);
    w.section(1, 15, 13, 1, 0);
    w.piece(counting(14), 1);
    w.size(0);
    w.section(1, 15, 14, 1, 0);
    w.piece(counting(36), 1);
    w.size(0);
    w.section(1, SHT_RELA, 15, 3, 12);
    w.piece(counting(24), 3);
    w.size(0);
    w.section(0, SHT_STRTAB, 5, 1, 0);
    w.namesPiece();
    w.size(0);
    return w.header();
}

// The sections of a standard ELF32 object (40-byte section headers), by
// name; empty when it is not one.
std::map<std::string, Bytes> standardSections(const Bytes& f) {
    std::map<std::string, Bytes> out;
    if (f.size() < 52 || f[0] != 0x7f || f[4] != 1) return out;
    const bool big = f[5] == 2;
    auto u16 = [&](size_t at) { return static_cast<uint32_t>(big ? f[at] << 8 | f[at + 1] : f[at + 1] << 8 | f[at]); };
    auto u32 = [&](size_t at) {
        return big ? uint32_t{f[at]} << 24 | uint32_t{f[at + 1]} << 16 | uint32_t{f[at + 2]} << 8 | f[at + 3]
                   : uint32_t{f[at + 3]} << 24 | uint32_t{f[at + 2]} << 16 | uint32_t{f[at + 1]} << 8 | f[at];
    };
    const uint64_t shoff = u32(32), n = u16(48), names = u16(50);
    if (u16(46) != 40 || shoff + 40 * n > f.size() || names >= n) return out;
    auto bytesOf = [&](size_t i) {
        const size_t h = shoff + 40 * i;
        const uint64_t off = u32(h + 16), size = u32(h + 20);
        return off + size <= f.size() && u32(h + 4) != SHT_NOBITS ? Bytes(f.begin() + off, f.begin() + off + size)
                                                                  : Bytes();
    };
    const Bytes table = bytesOf(names);
    for (size_t i = 1; i < n; ++i) {
        const uint32_t at = u32(shoff + 40 * i);
        if (at < table.size()) out[reinterpret_cast<const char*>(table.data() + at)] = bytesOf(i);
    }
    return out;
}

// Seeds of the DWARF target (mode, .debug_abbrev's size, .debug_abbrev, the
// section) and of the interoperation target (choice byte, then the input).
void seedFromObject(const std::string& root, const std::string& tag, const Bytes& object) {
    const auto sections = standardSections(object);
    if (sections.empty()) return;
    const bool big = object[5] == 2;
    const auto abbrev = sections.find(".debug_abbrev");
    const Bytes noAbbrev;
    const Bytes& a = abbrev == sections.end() ? noAbbrev : abbrev->second;
    const std::pair<const char*, uint8_t> dwarf[] = {{".debug_line", 0}, {".debug_info", 1}, {".debug_types", 2}};
    for (const auto& [name, mode] : dwarf) {
        const auto it = sections.find(name);
        if (it == sections.end()) continue;
        Bytes seed = {static_cast<uint8_t>(mode | (big ? 0 : 0x80)), static_cast<uint8_t>(a.size()),
                      static_cast<uint8_t>(a.size() >> 8)};
        seed.insert(seed.end(), a.begin(), a.end());
        seed.insert(seed.end(), it->second.begin(), it->second.end());
        saveRaw(root + "/dwarf", tag + name, seed);
    }
    Bytes whole = {0};
    whole.insert(whole.end(), object.begin(), object.end());
    saveRaw(root + "/interop", tag + "-object", whole);
    saveRaw(root + "/survey", tag, object);
    // A GNU archive of the object.
    std::string header = "member.o/       0           0     0     644     ";
    std::string size = std::to_string(object.size());
    size.resize(10, ' ');
    header += size + "`\n";
    Bytes archive = {4, '!', '<', 'a', 'r', 'c', 'h', '>', '\n'};
    archive.insert(archive.end(), header.begin(), header.end());
    archive.insert(archive.end(), object.begin(), object.end());
    saveRaw(root + "/interop", tag + "-archive", archive);
    // The walkers' sections, in the order of fuzz_interop.cpp's list.
    const char* const walked[] = {".group", ".note", ".debug_aranges", ".debug_pubnames", ".debug_gnu_pubnames",
                                  ".debug_loc", ".debug_frame", ".eh_frame", ".debug_str_offsets", ".debug_addr",
                                  ".debug_rnglists", ".debug_loclists", ".debug_names", ".debug_macro"};
    for (uint8_t k = 0; k < std::size(walked); ++k) {
        const auto it = sections.find(walked[k]);
        if (it == sections.end()) continue;
        Bytes seed = {static_cast<uint8_t>(5 + 2 * k + (big ? 1 : 0))};
        seed.insert(seed.end(), it->second.begin(), it->second.end());
        saveRaw(root + "/interop", tag + walked[k], seed);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <directory> [object.o...]\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    for (const char* sub : {"", "/image", "/fd", "/archive", "/rdwr", "/write", "/dwarf", "/interop", "/survey"})
        mkdir((root + sub).c_str(), 0755);
    for (int i = 2; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        const Bytes object((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::string tag = argv[i];
        tag = tag.substr(tag.rfind('/') + 1);
        seedFromObject(root, tag, object);
    }

    int k = 0;
    for (Order o : {Order::Little, Order::Big}) {
        const std::string tag = name(o);
        std::vector<std::pair<std::string, Bytes>> objects;
        Sample s(o);
        objects.emplace_back("sample", s.build());
        s.builder.shentsize = 40;
        objects.emplace_back("sample40", s.build());
        objects.emplace_back("coff", CoffObject(o).b.build());
        objects.emplace_back("dwarf", dwarfObject(o));
        Sample t(o);
        t.builder.shnumOverride = 200;
        objects.emplace_back("shnum_too_big", t.build());
        for (auto& [what, bytes] : objects) {
            saveRaw(root + "/survey", tag + "-" + what, bytes);
            for (uint8_t seed : {0, 7, 0x85}) {
                save(root + "/image", tag + "-" + what + "-" + std::to_string(seed), bytes, seed);
                save(root + "/fd", tag + "-" + what + "-" + std::to_string(seed), bytes, seed);
            }
        }
        // Updating in place (the DWARF converter is not under test there):
        // nothing read, some, all; a changed byte, a changed header field,
        // the caller's layout.
        for (auto& [what, bytes] : objects)
            if (what != "dwarf")
                for (uint8_t seed : {0x00, 0x02, 0x03, 0x13, 0x21, 0x42, 0x53})
                    save(root + "/rdwr", tag + "-" + what + "-" + std::to_string(seed), bytes, seed);
        save(root + "/rdwr", tag + "-member-0", memberObject(o, 7), 0);
        const uint8_t big = o == Order::Big;
        saveRaw(root + "/write", tag + "-object", writeObject(big));
        saveRaw(root + "/write", tag + "-object-layout", writeObject(big | 0x10));
        saveRaw(root + "/write", tag + "-object-fill", writeObject(big | 0x40));
        saveRaw(root + "/write", tag + "-coff", writeCoff(big));
        SampleArchive withSymbols(o, true);
        SampleArchive without(o, false);
        save(root + "/archive", tag + "-archive", withSymbols.ar.build(), 0);
        save(root + "/archive", tag + "-archive-ends", withSymbols.ar.build(), 0x18);
        save(root + "/archive", tag + "-archive-nosyms", without.ar.build(), 0x10);
        saveRaw(root + "/survey", tag + "-archive", withSymbols.ar.build());
        saveRaw(root + "/survey", tag + "-archive-nosyms", without.ar.build());
        ++k;
    }
    std::printf("corpora written to %s (%d byte orders)\n", root.c_str(), k);
    return 0;
}
