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
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "Builder.h"
#include "Tools.h"
#include "tamoelf.h"

using namespace testkit;

namespace {

const char* const kSources[] = {
    R"(struct point { int x, y; };
struct shape { struct point corner[4]; const char *name; union { int i; float f; } u; };
enum colour { RED, GREEN = 5, BLUE };
static int counter = 3;
int area(const struct shape *s) {
    int w = s->corner[1].x - s->corner[0].x;
    { int h = s->corner[2].y - s->corner[0].y; counter += h; return w * h; }
})",
    R"(extern int printf(const char *, ...);
double table[16];
long long big = 0x1122334455667788LL;
static const char *names[] = { "alpha", "beta", "gamma" };
int main(int argc, char **argv) {
    for (int i = 0; i < argc && i < 3; ++i) printf("%s %s\n", names[i], argv[i]);
    return (int)table[argc & 15];
})",
};

struct ReadelfSection {
    std::string name;
    std::string type;
    uint32_t offset, size;
};

std::map<int, ReadelfSection> readelfSections(const std::string& file) {
    std::map<int, ReadelfSection> out;
    std::istringstream in(run("readelf -S -W '" + file + "'"));
    const std::regex row(R"(\[\s*(\d+)\]\s+(\S+)\s+(\S+)\s+[0-9a-f]+\s+([0-9a-f]+)\s+([0-9a-f]+))");
    std::string line;
    std::smatch m;
    while (std::getline(in, line))
        if (std::regex_search(line, m, row))
            out[std::stoi(m[1])] = {m[2], m[3], static_cast<uint32_t>(std::stoul(m[4], nullptr, 16)),
                                    static_cast<uint32_t>(std::stoul(m[5], nullptr, 16))};
    return out;
}

const std::map<std::string, uint32_t> kTypes = {
    {"NULL", 0}, {"PROGBITS", 1}, {"SYMTAB", 2}, {"STRTAB", 3}, {"RELA", 4}, {"HASH", 5},
    {"DYNAMIC", 6}, {"NOTE", 7}, {"NOBITS", 8}, {"REL", 9},
};

class RealObjects : public ::testing::Test {
protected:
    void SetUp() override {
        initLibrary();
        if (!have("clang") || !have("readelf")) GTEST_SKIP() << "clang or readelf is not installed";
    }
    std::string compile(const TempDir& dir, int i, const char* target, const char* debug) {
        const std::string src = dir.path("src" + std::to_string(i) + ".c");
        std::ofstream(src) << kSources[i];
        const std::string obj = dir.path(std::string("o") + std::to_string(i) + "-" + target + debug + ".o");
        int st = 0;
        run(std::string("clang --target=") + target + " -fno-addrsig -O1 " + debug + " -c '" + src + "' -o '" + obj +
                "' 2>&1",
            &st);
        return st == 0 ? obj : std::string();
    }
};

TEST_F(RealObjects, SectionTablesMatchReadelf) {
    TempDir dir;
    for (const char* target : {"powerpc-linux-gnu", "powerpcle-linux-gnu"}) {
        for (const char* debug : {"-gdwarf-2", "-gdwarf-4", ""}) {
            for (int i = 0; i < 2; ++i) {
                const std::string obj = compile(dir, i, target, debug);
                ASSERT_FALSE(obj.empty()) << "clang failed for " << target;
                const auto expected = readelfSections(obj);
                ASSERT_GT(expected.size(), 5u);

                const int fd = tamo_elf_open(obj.c_str(), O_RDONLY, 0);
                ASSERT_GE(fd, 0);
                Elf* elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
                ASSERT_NE(elf, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
                Elf32_Ehdr* eh = tamo_elf32_getehdr(elf);
                EXPECT_EQ(eh->e_ident[EI_DATA], std::string(target) == "powerpc-linux-gnu" ? 2 : 1);
                EXPECT_EQ(eh->e_shentsize, 40);
                EXPECT_EQ(eh->e_machine, 20);
                EXPECT_EQ(eh->e_shnum, expected.size());
                for (const auto& [index, want] : expected) {
                    if (index == 0) continue;
                    Elf_Scn* scn = tamo_elf_getscn(elf, index);
                    ASSERT_NE(scn, nullptr) << obj << " [" << index << "] " << tamo_elf_errmsg(tamo_elf_errno());
                    Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
                    const char* name = tamo_elf_strptr(elf, eh->e_shstrndx, sh->sh_name);
                    ASSERT_NE(name, nullptr);
                    EXPECT_EQ(want.name, name) << obj;
                    EXPECT_EQ(sh->sh_offset, want.offset) << name;
                    EXPECT_EQ(sh->sh_size, want.size) << name;
                    if (kTypes.count(want.type)) {
                        EXPECT_EQ(sh->sh_type, kTypes.at(want.type)) << name;
                    }
                    // The data of every section with contents can be had.
                    if (sh->sh_type != SHT_NOBITS) {
                        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
                        ASSERT_NE(d, nullptr) << name;
                        EXPECT_EQ(d->d_size, want.size);
                    }
                }
                EXPECT_EQ(tamo_elf_end(elf), 0);
                close(fd);
            }
        }
    }
}

TEST_F(RealObjects, UpdateInPlaceKeepsEverySectionsBytes) {
    // Opened for update, every section read (and so converted to host order
    // and back), marked dirty and written: the file has this format's 44-byte
    // section headers and every section's bytes as the compiler wrote them.
    TempDir dir;
    for (const char* target : {"powerpc-linux-gnu", "powerpcle-linux-gnu"}) {
        for (const char* debug : {"-g", "-gdwarf-2"}) {
            for (int i = 0; i < 2; ++i) {
                const std::string obj = compile(dir, i, target, debug);
                ASSERT_FALSE(obj.empty());
                const Bytes original = readFile(obj);
                const auto sections = readelfSections(obj);
                const int fd = tamo_elf_open(obj.c_str(), O_RDWR, 0);
                Elf* elf = tamo_elf_begin(fd, ELF_C_RDWR, nullptr);
                ASSERT_NE(elf, nullptr);
                for (size_t k = 1; k < sections.size(); ++k) ASSERT_NE(tamo_elf_getscn(elf, k), nullptr) << k;
                tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
                ASSERT_GT(tamo_elf_update(elf, ELF_C_WRITE), 0) << tamo_elf_errmsg(tamo_elf_errno());
                tamo_elf_end(elf);

                // Read back as stored (no conversion) and compare.
                lseek(fd, 0, SEEK_SET);
                elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
                ASSERT_NE(elf, nullptr);
                tamo_elf_setreadswapcontroller(elf, [](Elf32_Shdr*, const char*) { return 4; });
                EXPECT_EQ(tamo_elf32_getehdr(elf)->e_shentsize, 44);
                for (const auto& [index, want] : sections) {
                    Elf_Scn* scn = tamo_elf_getscn(elf, static_cast<size_t>(index));
                    ASSERT_NE(scn, nullptr);
                    const Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
                    EXPECT_EQ(sh->sh_size, want.size) << want.name;
                    if (index == 0 || sh->sh_type == SHT_NOBITS) continue;
                    Elf_Data* d = tamo_elf_getdata(scn, nullptr);
                    ASSERT_NE(d, nullptr) << want.name;
                    const auto* p = static_cast<const uint8_t*>(d->d_buf);
                    EXPECT_TRUE(std::equal(p, p + d->d_size, original.begin() + want.offset))
                        << target << " " << debug << " " << want.name;
                }
                tamo_elf_end(elf);
                close(fd);
            }
        }
    }
}

struct Reloc {
    uint32_t offset, info;
    int64_t addend;
    bool operator==(const Reloc&) const = default;
};

// readelf -r: every RELA section's records.
std::map<std::string, std::vector<Reloc>> readelfRelocations(const std::string& file) {
    std::map<std::string, std::vector<Reloc>> out;
    std::istringstream in(run("readelf -r -W '" + file + "'"));
    const std::regex section(R"(Relocation section '([^']+)')");
    const std::regex row(R"(^([0-9a-f]{8})\s+([0-9a-f]{8})\s+\S+.*?(?:\s([+-])\s([0-9a-f]+))?$)");
    std::string line, current;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_search(line, m, section)) {
            current = m[1];
            out[current];
        } else if (!current.empty() && std::regex_search(line, m, row)) {
            int64_t addend = m[4].matched ? static_cast<int64_t>(std::stoll(m[4], nullptr, 16)) : 0;
            if (m[3] == "-") addend = -addend;
            out[current].push_back({static_cast<uint32_t>(std::stoul(m[1], nullptr, 16)),
                                    static_cast<uint32_t>(std::stoul(m[2], nullptr, 16)), addend});
        }
    }
    return out;
}

TEST_F(RealObjects, RelocationsMatchReadelfInBothOrders) {
    TempDir dir;
    for (const char* target : {"powerpc-linux-gnu", "powerpcle-linux-gnu"}) {
        for (int i = 0; i < 2; ++i) {
            const std::string obj = compile(dir, i, target, "-gdwarf-4");
            ASSERT_FALSE(obj.empty());
            const auto expected = readelfRelocations(obj);
            ASSERT_FALSE(expected.empty());
            const int fd = tamo_elf_open(obj.c_str(), O_RDONLY, 0);
            Elf* elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
            ASSERT_NE(elf, nullptr);
            const size_t names = tamo_elf32_getehdr(elf)->e_shstrndx;
            size_t seen = 0;
            for (Elf_Scn* scn = nullptr; (scn = tamo_elf_nextscn(elf, scn)) != nullptr;) {
                Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
                if (sh->sh_type != SHT_RELA) continue;
                const std::string name = tamo_elf_strptr(elf, names, sh->sh_name);
                Elf_Data* d = tamo_elf_getdata(scn, nullptr);
                ASSERT_NE(d, nullptr);
                EXPECT_EQ(d->d_type, ELF_T_RELA);
                std::vector<Reloc> got;
                for (size_t k = 0; k < d->d_size / sizeof(Elf32_Rela); ++k) {
                    const Elf32_Rela& r = static_cast<const Elf32_Rela*>(d->d_buf)[k];
                    got.push_back({r.r_offset, r.r_info, r.r_addend});
                }
                ASSERT_TRUE(expected.count(name)) << name;
                EXPECT_EQ(got, expected.at(name)) << target << " " << name;
                ++seen;
            }
            EXPECT_EQ(seen, expected.size());
            tamo_elf_errno();
            tamo_elf_end(elf);
            close(fd);
        }
    }
}

class RealArchives : public RealObjects {
protected:
    void SetUp() override {
        RealObjects::SetUp();
        if (IsSkipped()) return;
        if (!have("ar") || !have("nm")) GTEST_SKIP() << "ar or nm is not installed";
    }
};

TEST_F(RealArchives, MembersAndSymbolsMatchBinutils) {
    TempDir dir;
    std::vector<std::string> objs;
    // Member names of 15 characters at most: GNU ar puts longer names in a
    // table whose header this format does not read.
    for (int i = 0; i < 2; ++i) {
        const std::string obj = compile(dir, i, "powerpc-linux-gnu", "-gdwarf-2");
        ASSERT_FALSE(obj.empty());
        const std::string shortName = dir.path("m" + std::to_string(i) + ".o");
        ASSERT_EQ(rename(obj.c_str(), shortName.c_str()), 0);
        objs.push_back(shortName);
    }
    // A third member with an odd size.
    {
        const std::string odd = dir.path("odd_size.o");
        Bytes b = readFile(objs[0]);
        b.push_back(0);
        std::ofstream(odd, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
        objs.push_back(odd);
    }
    const std::string archive = dir.path("lib.a");
    int st = 0;
    std::string cmd = "cd '" + dir.path("") + "' && ar rcs lib.a";
    for (const auto& o : objs) cmd += " '" + o.substr(o.rfind('/') + 1) + "'";
    run(cmd, &st);
    ASSERT_EQ(st, 0);

    // What binutils says.
    std::vector<std::pair<std::string, long>> members;  // name, size
    {
        std::istringstream in(run("ar tv '" + archive + "'"));
        const std::regex row(R"(^\S+\s+\S+\s+(\d+)\s+.*\s(\S+)$)");
        std::string line;
        std::smatch m;
        while (std::getline(in, line))
            if (std::regex_search(line, m, row)) members.emplace_back(m[2], std::stol(m[1]));
    }
    std::vector<std::pair<std::string, std::string>> armap;  // symbol, member
    {
        std::istringstream in(run("nm --print-armap '" + archive + "'"));
        const std::regex row(R"(^(\S+) in (\S+)$)");
        std::string line;
        std::smatch m;
        while (std::getline(in, line) && line != "Archive index:") {
        }
        while (std::getline(in, line) && !line.empty())
            if (std::regex_search(line, m, row)) armap.emplace_back(m[1], m[2]);
    }
    ASSERT_EQ(members.size(), 3u);
    ASSERT_FALSE(armap.empty());

    Bytes bytes = readFile(archive);
    ASSERT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "!<arch>\n");
    const std::string magic = "!<sola>\n";
    std::copy(magic.begin(), magic.end(), bytes.begin());
    MemFile f(bytes);
    Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());

    std::map<uint32_t, std::string> byOffset;
    size_t i = 0;
    for (Elf_Cmd cmd2 = ELF_C_READ; cmd2 == ELF_C_READ; ++i) {
        const off_t header = lseek(f.fd(), 0, SEEK_CUR);
        Elf* m = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
        ASSERT_NE(m, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
        Elf_Arhdr* h = tamo_elf_getarhdr(m);
        ASSERT_LT(i, members.size());
        EXPECT_EQ(members[i].first, h->ar_name);
        EXPECT_EQ(members[i].second, h->ar_size);
        EXPECT_EQ(h->ar_mode, 644) << "the octal digits GNU writes, read as decimal";
        byOffset[static_cast<uint32_t>(header)] = h->ar_name;
        // Each member is a big-endian object that reads completely.
        EXPECT_EQ(tamo_elf_cntl(m, ELF_C_FDREAD), 0) << h->ar_name << " " << tamo_elf_errmsg(tamo_elf_errno());
        cmd2 = tamo_elf_next(m);
        tamo_elf_end(m);
    }
    EXPECT_EQ(i, members.size());

    size_t count = 0;
    Elf_Arsym* syms = tamo_elf_getarsym(ar, &count);
    ASSERT_NE(syms, nullptr);
    ASSERT_EQ(count, armap.size());
    for (size_t k = 0; k < count; ++k) {
        EXPECT_EQ(armap[k].first, syms[k].as_name);
        ASSERT_TRUE(byOffset.count(syms[k].as_off)) << syms[k].as_name;
        EXPECT_EQ(armap[k].second, byOffset[syms[k].as_off]) << syms[k].as_name;
    }
    tamo_elf_end(ar);
}

}  // namespace
