// Archives of both magics: members, member headers, the symbol table,
// walking with tamo_elf_next / tamo_elf_rand, tear-down in either order,
// and the codes of malformed archives.
#include <unistd.h>

#include "ArDesc.h"
#include "ElfDesc.h"
#include "ReadSupport.h"

using namespace testkit;

namespace {

class Archive : public ::testing::TestWithParam<Order> {
protected:
    void SetUp() override { initLibrary(); }

    // Opens the archive `bytes` through a file of its own.
    Elf* openArchive(const Bytes& bytes) {
        m_file = std::make_unique<MemFile>(bytes);
        return tamo_elf_begin(m_file->fd(), ELF_C_READ, nullptr);
    }
    int fd() const { return m_file->fd(); }

private:
    std::unique_ptr<MemFile> m_file;
};

TEST_P(Archive, WalkMembersAndHeaders) {
    SampleArchive s(GetParam());
    Elf* ar = openArchive(s.ar.build());
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    EXPECT_EQ(tamo_elf_kind(ar), ELF_K_AR);
    EXPECT_EQ(tamo_elf_getbase(ar), 0);
    EXPECT_EQ(tamo_elf32_getehdr(ar), nullptr);
    EXPECT_EQ(lseek(fd(), 0, SEEK_CUR), s.ar.headerOffset(0)) << "positioned at the first member";

    size_t i = 0;
    Elf_Cmd cmd = ELF_C_READ;
    while (cmd == ELF_C_READ) {
        Elf* m = tamo_elf_begin(fd(), ELF_C_READ, ar);
        if (i == 4) {
            // The "//" member holds no ELF object.
            EXPECT_EQ(m, nullptr);
            EXPECT_EQ(tamo_elf_errno(), 6);
            break;
        }
        ASSERT_NE(m, nullptr) << i << " " << tamo_elf_errmsg(tamo_elf_errno());
        EXPECT_EQ(tamo_elf_kind(m), ELF_K_AR);
        EXPECT_EQ(tamo_elf_getbase(m), static_cast<off_t>(s.ar.dataOffset(i)));
        Elf_Arhdr* h = tamo_elf_getarhdr(m);
        ASSERT_NE(h, nullptr);
        EXPECT_STREQ(h->ar_name, s.names[i].c_str());
        EXPECT_EQ(std::string(h->ar_rawname), ArchiveBuilder::nameField(s.names[i]));
        EXPECT_EQ(h->ar_date, 1700000000);
        EXPECT_EQ(h->ar_uid, 501);
        EXPECT_EQ(h->ar_gid, 20);
        EXPECT_EQ(h->ar_mode, 644);
        // The member's object, read relative to its data offset.
        Elf32_Ehdr* eh = tamo_elf32_getehdr(m);
        ASSERT_NE(eh, nullptr);
        EXPECT_EQ(eh->e_ident[EI_DATA], static_cast<int>(GetParam()));
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(m, 1), nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(static_cast<uint32_t*>(d->d_buf)[0], 0x100u * (i + 1));
        EXPECT_EQ(h->ar_size, static_cast<int32_t>(s.sizes[i]));
        cmd = tamo_elf_next(m);
        EXPECT_EQ(tamo_elf_end(m), 0);
        ++i;
    }
    EXPECT_EQ(i, 4u);

    // The last member: no next one.
    ASSERT_EQ(tamo_elf_rand(ar, s.ar.headerOffset(4)), s.ar.headerOffset(4));
    tamo_elf_errno();
    // A member whose contents are not ELF cannot be opened; the archive stays usable.
    EXPECT_EQ(tamo_elf_begin(fd(), ELF_C_READ, ar), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 6);
    ASSERT_EQ(tamo_elf_rand(ar, s.ar.headerOffset(3)), s.ar.headerOffset(3));
    Elf* fourth = tamo_elf_begin(fd(), ELF_C_READ, ar);
    ASSERT_NE(fourth, nullptr);
    EXPECT_EQ(tamo_elf_next(fourth), ELF_C_READ);
    EXPECT_EQ(lseek(fd(), 0, SEEK_CUR), s.ar.headerOffset(4));
    tamo_elf_end(fourth);
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

TEST_P(Archive, SymbolTable) {
    SampleArchive s(GetParam());
    Elf* ar = openArchive(s.ar.build());
    ASSERT_NE(ar, nullptr);
    size_t count = 0;
    Elf_Arsym* syms = tamo_elf_getarsym(ar, &count);
    ASSERT_NE(syms, nullptr);
    ASSERT_EQ(count, 3u);
    const char* names[] = {"f", "main", "counter"};
    const size_t members[] = {0, 2, 3};
    const uint32_t hashes[] = {0x66, 0x737fe, 0xa6c5aa2};  // System V ELF hash
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_STREQ(syms[i].as_name, names[i]);
        EXPECT_EQ(syms[i].as_off, s.ar.headerOffset(members[i]));
        EXPECT_EQ(syms[i].as_hash, hashes[i]) << names[i];
    }
    EXPECT_EQ(tamo_elf_getarsym(ar, nullptr), syms);
    // A symbol's offset leads to its member.
    ASSERT_EQ(tamo_elf_rand(ar, syms[1].as_off), syms[1].as_off);
    Elf* m = tamo_elf_begin(fd(), ELF_C_READ, ar);
    ASSERT_NE(m, nullptr);
    EXPECT_STREQ(tamo_elf_getarhdr(m)->ar_name, "hello.o");
    // Not on a member.
    count = 9;
    EXPECT_EQ(tamo_elf_getarsym(m, &count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(tamo_elf_errno(), 60);
    tamo_elf_end(ar);  // takes the member with it
}

TEST_P(Archive, NoSymbolTable) {
    SampleArchive s(GetParam(), false);
    Elf* ar = openArchive(s.ar.build());
    ASSERT_NE(ar, nullptr);
    EXPECT_EQ(lseek(fd(), 0, SEEK_CUR), 8);
    size_t count = 9;
    EXPECT_EQ(tamo_elf_getarsym(ar, &count), nullptr);
    EXPECT_EQ(count, 9u);
    EXPECT_EQ(tamo_elf_errno(), 15);
    Elf* first = tamo_elf_begin(fd(), ELF_C_READ, ar);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(tamo_elf_getarhdr(first)->ar_name, "abc");
    tamo_elf_end(first);
    tamo_elf_end(ar);
}

TEST_P(Archive, EmptySymbolTableAndOddTableSize) {
    ArchiveBuilder b(GetParam());
    b.oddSymbolTable = true;  // the next header starts right after the table
    b.symbolTableField = "/   ";
    b.addMember({.name = "m.o", .data = memberObject(GetParam(), 7)});
    Bytes bytes = b.build();
    EXPECT_EQ(b.headerOffset(0), 8u + 48u + 5u);
    MemFile f(bytes);
    Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    size_t count = 5;
    EXPECT_NE(tamo_elf_getarsym(ar, &count), nullptr);
    EXPECT_EQ(count, 0u);
    Elf* m = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(tamo_elf_getbase(m), static_cast<off_t>(b.dataOffset(0)));
    tamo_elf_end(m);
    tamo_elf_end(ar);
}

TEST_P(Archive, MembersAreMadeOnceAndEndInEitherOrder) {
    SampleArchive s(GetParam());
    Bytes bytes = s.ar.build();
    for (int variant = 0; variant < 3; ++variant) {
        MemFile f(bytes);
        Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(ar, nullptr);
        Elf* m1 = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
        ASSERT_NE(m1, nullptr);
        EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_READ, ar), m1) << "the same member, the same descriptor";
        EXPECT_EQ(tamo_elf_end(m1), 1);
        ASSERT_EQ(tamo_elf_next(m1), ELF_C_READ);
        Elf* m2 = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
        ASSERT_NE(m2, nullptr);
        EXPECT_NE(m2, m1);
        EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_READ, m2), nullptr) << "a member is no archive";
        EXPECT_EQ(tamo_elf_errno(), 60);
        if (variant == 0) {  // members first
            EXPECT_EQ(tamo_elf_end(m1), 0);
            EXPECT_EQ(tamo_elf_end(m2), 0);
            EXPECT_EQ(tamo_elf_end(ar), 0);
        } else if (variant == 1) {  // archive first: the members go with it
            EXPECT_EQ(tamo_elf_end(ar), 0);
            EXPECT_EQ(tamo_elf_end(m1), -1);
            EXPECT_EQ(tamo_elf_errno(), 70);
        } else {  // a member ended, made again, then the archive
            EXPECT_EQ(tamo_elf_end(m2), 0);
            ASSERT_EQ(tamo_elf_rand(ar, s.ar.headerOffset(1)), s.ar.headerOffset(1));
            Elf* again = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
            ASSERT_NE(again, nullptr);
            EXPECT_STREQ(tamo_elf_getarhdr(again)->ar_name, "abcd");
            EXPECT_EQ(tamo_elf_end(ar), 0);
        }
    }
}

TEST_P(Archive, ReadEverything) {
    ArchiveBuilder b(GetParam());
    for (uint32_t i = 0; i < 3; ++i)
        b.addMember({.name = "m" + std::to_string(i), .data = memberObject(GetParam(), i)});
    Bytes bytes = b.build();
    MemFile f(bytes);
    Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(ar, nullptr);
    Elf* m0 = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
    ASSERT_NE(m0, nullptr);
    EXPECT_EQ(tamo_elf_cntl(ar, ELF_C_FDREAD), 0);
    // Every member's descriptor is made and marked; their sections are there.
    for (uint32_t i = 0; i < 3; ++i) {
        ASSERT_EQ(tamo_elf_rand(ar, b.headerOffset(i)), b.headerOffset(i));
        Elf* m = tamo_elf_begin(f.fd(), ELF_C_READ, ar);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(tamo_elf_cntl(m, ELF_C_FDREAD), -1) << "already read";
        EXPECT_EQ(tamo_elf_errno(), 42);
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(m, 1), nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(static_cast<uint32_t*>(d->d_buf)[1], i + 1);
        tamo_elf_end(m);
    }
    EXPECT_EQ(tamo_elf_end(m0), 0) << "the loop handed m0 out once more and ended it once";
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

TEST_P(Archive, RandAndMemberChecks) {
    SampleArchive s(GetParam());
    Elf* ar = openArchive(s.ar.build());
    ASSERT_NE(ar, nullptr);
    EXPECT_EQ(tamo_elf_rand(ar, 9), 9u);
    EXPECT_EQ(tamo_elf_begin(fd(), ELF_C_READ, ar), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 13);
    EXPECT_EQ(tamo_elf_rand(nullptr, 8), 0u);
    EXPECT_EQ(tamo_elf_errno(), 32);
    EXPECT_EQ(tamo_elf_getarhdr(ar), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 69);
    EXPECT_EQ(tamo_elf_getarhdr(nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 69);
    size_t n = 3;
    EXPECT_EQ(tamo_elf_getident(ar, &n), nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tamo_elf_errno(), 44);
    EXPECT_EQ(tamo_elf_next(nullptr), ELF_C_NULL);
    tamo_elf_rand(ar, s.ar.headerOffset(0));
    Elf* m = tamo_elf_begin(fd(), ELF_C_READ, ar);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(tamo_elf_rand(m, 8), 0u);
    EXPECT_EQ(tamo_elf_errno(), 9);
    EXPECT_EQ(tamo_elf_newscn(m), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 20);
    tamo_elf_end(ar);
    // Read-write on an archive is refused.
    lseek(fd(), 0, SEEK_SET);
    EXPECT_EQ(tamo_elf_begin(fd(), ELF_C_RDWR, nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 20);
    // An archive image is not read.
    const Bytes bytes = s.ar.build();
    ImageBuffer image(bytes);
    EXPECT_EQ(tamo_elf_memory(image.data(), image.size()), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 6);
    EXPECT_EQ(image.bytes(), bytes);
}

TEST_P(Archive, NextFromTheArchiveAndPastTheLastMember) {
    ArchiveBuilder b(GetParam());
    for (uint32_t i = 0; i < 2; ++i)
        b.addMember({.name = "m" + std::to_string(i), .data = memberObject(GetParam(), i)});
    Elf* ar = openArchive(b.build());
    ASSERT_NE(ar, nullptr);
    lseek(fd(), 0, SEEK_SET);
    EXPECT_EQ(tamo_elf_next(ar), ELF_C_READ) << "the archive's own descriptor goes to the first member";
    EXPECT_EQ(lseek(fd(), 0, SEEK_CUR), b.headerOffset(0));
    ASSERT_EQ(tamo_elf_rand(ar, b.headerOffset(1)), b.headerOffset(1));
    Elf* last = tamo_elf_begin(fd(), ELF_C_READ, ar);
    ASSERT_NE(last, nullptr);
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf_next(last), ELF_C_NULL);
    EXPECT_EQ(tamo_elf_errno(), 59);
    EXPECT_EQ(tamo_elf_getbase(last), static_cast<off_t>(b.dataOffset(1)));
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

TEST_P(Archive, SpecialHeaderFields) {
    ArchiveBuilder b(GetParam());
    b.withSymbolTable = false;
    // A date field that starts with four spaces joins the name field.
    b.addMember({.name = "x.o", .data = Bytes(20, 1), .dateText = "    12"});
    Bytes bytes = b.build();
    MemFile f(bytes);
    Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    ASSERT_EQ(ar->m_pAr->m_members.size(), 1u);
    const ArMember& m = *ar->m_pAr->m_members[0];
    EXPECT_EQ(m.m_header.rawName, "x.o/                ");
    EXPECT_STREQ(m.m_header.hdr.ar_name, "x.o");
    EXPECT_EQ(m.m_hdrSize, 64u);
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

INSTANTIATE_TEST_SUITE_P(Both, Archive, ::testing::Values(Order::Little, Order::Big),
                         [](const auto& info) { return std::string(name(info.param)); });

// -------------------------------------------------------------------------

struct BadArchive {
    const char* what;
    Bytes bytes;
    int code;
};

Bytes withMember(const std::string& sizeText, const Bytes& data, bool symbols = false) {
    ArchiveBuilder b(Order::Little);
    b.withSymbolTable = symbols;
    b.addMember({.name = "a.o", .data = data, .sizeText = sizeText});
    return b.build();
}

TEST(ArchiveErrors, CodesOfMalformedArchives) {
    initLibrary();
    std::vector<BadArchive> rows;
    // The end of the file inside a header's name field keeps its own code.
    rows.push_back({"magic only", Bytes{'!', '<', 'e', 'l', 'f', 'a', '>', '\n'}, 16});
    rows.push_back({"member past the end", withMember("1000", Bytes(10, 1)), 11});
    rows.push_back({"negative size", withMember("-5", Bytes(10, 1)), 11});
    rows.push_back({"size that runs into the next field", withMember("9999999999", Bytes(10, 1)), 11});
    {
        // No '/' in the name field before the end of the file.
        Bytes b = {'!', '<', 's', 'o', 'l', 'a', '>', '\n'};
        Bytes member(ArchiveBuilder::header(ArchiveBuilder::nameField("a.o"), "0", 0, 0, 644, "4").size(), 'z');
        b.insert(b.end(), member.begin(), member.end());
        rows.push_back({"name field without a slash", b, 16});
        Bytes c = withMember("4", Bytes(4, 1));
        for (int i = 0; i < 60; ++i) c.push_back('q');
        rows.push_back({"second member without a slash", c, 16});
        // A second header cut inside its fixed part (here only its trailer
        // is missing): read as far as it goes, then its member's size runs
        // past the end of the archive.
        for (size_t keep : {58u, 50u}) {
            Bytes d = withMember("4", Bytes(4, 1));
            std::string cut = ArchiveBuilder::header(ArchiveBuilder::nameField("b.o"), "0", 0, 0, 644, "4");
            cut.resize(keep);
            d.insert(d.end(), cut.begin(), cut.end());
            rows.push_back({"header cut inside its fixed part", d, 11});
        }
    }
    {
        // A symbol table that claims more symbols than it holds.
        ArchiveBuilder b(Order::Big);
        b.addMember({.name = "a.o", .data = Bytes(10, 1)});
        b.addSymbol("s", 0);
        Bytes bytes = b.build();
        bytes[8 + 60 + 3] = 0x50;  // N = 0x50 in the big-endian count
        rows.push_back({"symbol count too large", bytes, 10});
        Bytes noNul = b.build();
        noNul[8 + 60 + 8] = 'x';  // the only name loses its NUL...
        noNul[8 + 60 + 9] = 'y';
        rows.push_back({"symbol name without a NUL", noNul, 10});
        Bytes big = b.build();
        std::string huge = ArchiveBuilder::header(ArchiveBuilder::nameField(""), "0", 0, 0, 0, "2000000000");
        std::copy(huge.begin(), huge.end(), big.begin() + 8);
        rows.push_back({"symbol table past the end", big, 10});
    }
    {
        ArchiveBuilder b(Order::Little);
        b.addSymbol("s", 0);
        b.addMember({.name = "a.o", .data = Bytes(2, 0)});
        Bytes only = b.build();
        only.resize(8 + 60 + 4 + 4 + 2);  // the table and nothing else
        rows.push_back({"no members", only, 12});
    }
    for (const BadArchive& r : rows) {
        MemFile f(r.bytes);
        tamo_elf_errno();
        EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_READ, nullptr), nullptr) << r.what;
        EXPECT_EQ(tamo_elf_errno(), r.code) << r.what;
    }
}

TEST(ArchiveErrors, ShortHeadersThatAreNoError) {
    initLibrary();
    // The member list stops when fewer than 45 bytes remain, so a trailing
    // fragment of a header is no error; nor is a last header without its
    // trailer whose member is empty.
    Bytes fragment = withMember("4", Bytes(4, 1));
    for (int i = 0; i < 44; ++i) fragment.push_back(' ');
    Bytes noTrailer = withMember("4", Bytes(4, 1));
    std::string h = ArchiveBuilder::header(ArchiveBuilder::nameField("b.o"), "0", 0, 0, 644, "0");
    noTrailer.insert(noTrailer.end(), h.begin(), h.end() - 2);
    for (const Bytes& bytes : {fragment, noTrailer}) {
        MemFile f(bytes);
        Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
        tamo_elf_end(ar);
    }
}

TEST(ArchiveErrors, SymbolArrayEndsWithANullName) {
    // Code written for other libelf interfaces walks the array to a record
    // whose name is null.
    initLibrary();
    for (size_t symbols : {0u, 3u}) {
        ArchiveBuilder b(Order::Big);
        b.addMember({.name = "a.o", .data = memberObject(Order::Big, 1)});
        for (size_t i = 0; i < symbols; ++i) b.addSymbol(std::string(i + 1, 's'), 0);
        MemFile f(b.build());
        Elf* ar = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(ar, nullptr);
        size_t count = 99;
        Elf_Arsym* syms = tamo_elf_getarsym(ar, &count);
        ASSERT_NE(syms, nullptr);
        EXPECT_EQ(count, symbols);
        size_t walked = 0;
        while (syms[walked].as_name) ++walked;
        EXPECT_EQ(walked, symbols);
        EXPECT_EQ(syms[walked].as_off, 0u);
        EXPECT_EQ(syms[walked].as_hash, 0xffffffffu);
        tamo_elf_end(ar);
    }
}

}  // namespace
