// Real compiler output and real archives, checked against binutils.
//
// Objects come from clang for 32-bit PowerPC in both byte orders; they have
// standard 40-byte section headers, read through a file id at a stride of
// e_shentsize. Archives come from GNU ar, with the magic replaced by this
// format's big-endian one: GNU's member header is the 16-byte-name form and
// its symbol table is big-endian. Tests skip (saying so) when the tools are
// missing.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <regex>
#include <sstream>
#include <tuple>

#include "Builder.h"
#include "Tools.h"
#include "tamoelf.h"

using namespace testkit;

namespace {

// The sources compiled, in tests/data.
const char* const kSources[] = {"real_shapes.c", "real_main.c"};

// The capture groups of every line of a command's output that the pattern
// matches (groups that took no part are empty).
std::vector<std::vector<std::string>> matches(const std::string& cmd, const char* pattern) {
    std::vector<std::vector<std::string>> out;
    std::istringstream in(run(cmd));
    const std::regex re(pattern);
    std::smatch m;
    for (std::string line; std::getline(in, line);)
        if (std::regex_search(line, m, re)) out.emplace_back(m.begin(), m.end());
    return out;
}

uint32_t hex(const std::string& s) { return static_cast<uint32_t>(std::stoul(s, nullptr, 16)); }

struct ReadelfSection {
    std::string name, type;
    uint32_t offset, size;
};

// readelf -S: the section table by index.
std::map<size_t, ReadelfSection> readelfSections(const std::string& file) {
    std::map<size_t, ReadelfSection> out;
    for (const auto& g : matches("readelf -S -W '" + file + "'",
                                 R"(\[\s*(\d+)\]\s+(\S+)\s+(\S+)\s+[0-9a-f]+\s+([0-9a-f]+)\s+([0-9a-f]+))"))
        out[std::stoul(g[1])] = {g[2], g[3], hex(g[4]), hex(g[5])};
    return out;
}

const std::map<std::string, uint32_t> kTypes = {
    {"NULL", 0}, {"PROGBITS", 1}, {"SYMTAB", 2}, {"STRTAB", 3}, {"RELA", 4},
    {"HASH", 5}, {"DYNAMIC", 6},  {"NOTE", 7},   {"NOBITS", 8}, {"REL", 9},
};

using Reloc = std::tuple<uint32_t, uint32_t, int64_t>;  // offset, info, addend

// readelf -r: every RELA section's records, by section name.
std::map<std::string, std::vector<Reloc>> readelfRelocations(const std::string& file) {
    std::map<std::string, std::vector<Reloc>> out;
    std::string current;
    for (const auto& g : matches("readelf -r -W '" + file + "'",
                                 R"(Relocation section '([^']+)'|)"
                                 R"(^([0-9a-f]{8})\s+([0-9a-f]{8})\s+\S+.*?(?:\s([+-])\s([0-9a-f]+))?$)")) {
        if (!g[1].empty()) {
            out[current = g[1]];
        } else if (!current.empty()) {
            const int64_t addend = g[5].empty() ? 0 : std::stoll(g[5], nullptr, 16);
            out[current].emplace_back(hex(g[2]), hex(g[3]), g[4] == "-" ? -addend : addend);
        }
    }
    return out;
}

class RealObjects : public ::testing::Test {
protected:
    void SetUp() override {
        initLibrary();
        if (!have("clang") || !have("readelf")) GTEST_SKIP() << "clang or readelf is not installed";
    }
    // Source i compiled for target: the object's path, or empty.
    std::string compile(int i, const char* target, const char* debug) {
        const std::string src = std::string(TAMO_TEST_DATA "/") + kSources[i];
        const std::string obj = dir.path(std::string("o") + std::to_string(i) + "-" + target + debug + ".o");
        const std::string options = std::string(" --target=") + target + " -fno-addrsig -O1 " + debug;
        int st = 0;
        run("clang" + options + " -c '" + src + "' -o '" + obj + "' 2>&1", &st);
        return st == 0 ? obj : std::string();
    }
    // An object read, then updated in place, against what readelf says of it.
    void checkObject(const char* target, const char* debug, int i);
    TempDir dir;
};

void RealObjects::checkObject(const char* target, const char* debug, int i) {
    const std::string obj = compile(i, target, debug);
    ASSERT_FALSE(obj.empty()) << "clang failed for " << target;
    SCOPED_TRACE(obj);
    const auto sections = readelfSections(obj);
    const auto relocations = readelfRelocations(obj);
    const Bytes original = readFile(obj);

    // Read: the headers, every section's data, and the records of every RELA
    // section.
    int fd = tamo_elf_open(obj.c_str(), O_RDONLY, 0);
    Elf* elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    ASSERT_NE(elf, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    Elf32_Ehdr* eh = tamo_elf32_getehdr(elf);
    EXPECT_EQ(eh->e_ident[EI_DATA], std::string(target) == "powerpc-linux-gnu" ? 2 : 1);
    EXPECT_EQ(eh->e_shentsize, 40);
    EXPECT_EQ(eh->e_machine, 20);
    EXPECT_EQ(eh->e_shnum, sections.size());
    size_t relaSections = 0;
    for (const auto& [index, want] : sections) {
        if (index == 0) continue;
        Elf_Scn* scn = tamo_elf_getscn(elf, index);
        ASSERT_NE(scn, nullptr) << "[" << index << "] " << tamo_elf_errmsg(tamo_elf_errno());
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        const char* name = tamo_elf_strptr(elf, eh->e_shstrndx, sh->sh_name);
        ASSERT_STREQ(name, want.name.c_str());
        EXPECT_EQ(sh->sh_offset, want.offset) << name;
        EXPECT_EQ(sh->sh_size, want.size) << name;
        if (kTypes.count(want.type)) {
            EXPECT_EQ(sh->sh_type, kTypes.at(want.type)) << name;
        }
        if (sh->sh_type == SHT_NOBITS) continue;
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        ASSERT_NE(d, nullptr) << name;
        EXPECT_EQ(d->d_size, want.size) << name;
        if (sh->sh_type != SHT_RELA) continue;
        EXPECT_EQ(d->d_type, ELF_T_RELA);
        const auto* r = static_cast<const Elf32_Rela*>(d->d_buf);
        std::vector<Reloc> got;
        for (size_t k = 0; k < d->d_size / sizeof *r; ++k) got.emplace_back(r[k].r_offset, r[k].r_info, r[k].r_addend);
        ASSERT_TRUE(relocations.count(name)) << name;
        EXPECT_EQ(got, relocations.at(name)) << name;
        ++relaSections;
    }
    EXPECT_EQ(relaSections, relocations.size());
    tamo_elf_end(elf);
    close(fd);

    // Opened for update, every section read (and so converted to host order
    // and back), marked dirty and written: the file has this format's 44-byte
    // section headers and every section's bytes as the compiler wrote them
    // (read back unconverted).
    fd = tamo_elf_open(obj.c_str(), O_RDWR, 0);
    elf = tamo_elf_begin(fd, ELF_C_RDWR, nullptr);
    ASSERT_NE(elf, nullptr);
    for (size_t k = 1; k < sections.size(); ++k) ASSERT_NE(tamo_elf_getscn(elf, k), nullptr) << k;
    tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
    ASSERT_GT(tamo_elf_update(elf, ELF_C_WRITE), 0) << tamo_elf_errmsg(tamo_elf_errno());
    tamo_elf_end(elf);
    lseek(fd, 0, SEEK_SET);
    elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    ASSERT_NE(elf, nullptr);
    tamo_elf_setreadswapcontroller(elf, [](Elf32_Shdr*, const char*) { return 4; });
    EXPECT_EQ(tamo_elf32_getehdr(elf)->e_shentsize, 44);
    for (const auto& [index, want] : sections) {
        Elf_Scn* scn = tamo_elf_getscn(elf, index);
        ASSERT_NE(scn, nullptr);
        const Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        EXPECT_EQ(sh->sh_size, want.size) << want.name;
        if (index == 0 || sh->sh_type == SHT_NOBITS) continue;
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        ASSERT_NE(d, nullptr) << want.name;
        const auto* p = static_cast<const uint8_t*>(d->d_buf);
        EXPECT_TRUE(std::equal(p, p + d->d_size, original.begin() + want.offset)) << want.name;
    }
    tamo_elf_end(elf);
    close(fd);
}

TEST_F(RealObjects, ReadAndUpdatedInPlaceAsReadelfSays) {
    for (const char* target : {"powerpc-linux-gnu", "powerpcle-linux-gnu"})
        for (const char* debug : {"-gdwarf-2", "-gdwarf-4", "-g", ""})
            for (int i = 0; i < 2; ++i) checkObject(target, debug, i);
}

TEST_F(RealObjects, ArchiveMembersAndSymbolsMatchBinutils) {
    if (!have("ar") || !have("nm")) GTEST_SKIP() << "ar or nm is not installed";
    // Member names of 15 characters at most (GNU ar puts longer names in a
    // table whose header this format does not read), and a third member of
    // odd size: m0.o and one byte more.
    for (int i = 0; i < 2; ++i) {
        const std::string obj = compile(i, "powerpc-linux-gnu", "-gdwarf-2");
        ASSERT_FALSE(obj.empty());
        ASSERT_EQ(rename(obj.c_str(), dir.path("m" + std::to_string(i) + ".o").c_str()), 0);
    }
    int st = 0;
    run("cd '" + dir.path("") + "' && cp m0.o odd_size.o && echo >>odd_size.o && ar rcs lib.a m0.o m1.o odd_size.o",
        &st);
    ASSERT_EQ(st, 0);

    // What binutils says: each member's size and name, and the index's
    // symbol and member names.
    const std::string archive = dir.path("lib.a");
    const auto members = matches("ar tv '" + archive + "'", R"(^\S+\s+\S+\s+(\d+)\s+.*\s(\S+)$)");
    const auto armap = matches("nm --print-armap '" + archive + "'", R"(^(\S+) in (\S+)$)");
    ASSERT_EQ(members.size(), 3u);

    Bytes bytes = readFile(archive);
    ASSERT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "!<arch>\n");
    std::copy_n("!<sola>\n", 8, bytes.begin());
    MemFile f(bytes);
    Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    std::map<uint32_t, std::string> byOffset;  // of the member header
    size_t i = 0;
    for (Elf_Cmd next = ELF_C_READ; next == ELF_C_READ; ++i) {
        const off_t header = lseek(f.fd(), 0, SEEK_CUR);
        Elf* m = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
        ASSERT_NE(m, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
        Elf_Arhdr* h = tamo_elf_getarhdr(m);
        ASSERT_LT(i, members.size());
        EXPECT_EQ(members[i][2], h->ar_name);
        EXPECT_EQ(std::stol(members[i][1]), h->ar_size);
        EXPECT_EQ(h->ar_mode, 644) << "the octal digits GNU writes, read as decimal";
        byOffset[static_cast<uint32_t>(header)] = h->ar_name;
        // Each member is a big-endian object that reads completely.
        EXPECT_EQ(tamo_elf_cntl(m, ELF_C_FDREAD), 0) << h->ar_name << " " << tamo_elf_errmsg(tamo_elf_errno());
        next = tamo_elf_next(m);
        tamo_elf_end(m);
    }
    EXPECT_EQ(i, members.size());

    size_t count = 0;
    Elf_Arsym* syms = tamo_elf_getarsym(ar, &count);
    ASSERT_NE(syms, nullptr);
    ASSERT_EQ(count, armap.size());
    for (size_t k = 0; k < count; ++k) {
        EXPECT_EQ(armap[k][1], syms[k].as_name);
        EXPECT_EQ(armap[k][2], byOffset[syms[k].as_off]) << syms[k].as_name;
    }
    tamo_elf_end(ar);
}

}  // namespace
