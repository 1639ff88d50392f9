// Archives of both magics: members, headers, the symbol table, walks with
// tamo_elf_next / tamo_elf_rand, tear-down order, malformed archives.
#include <unistd.h>

#include "ArDesc.h"
#include "ElfDesc.h"
#include "ReadSupport.h"

using namespace testkit;

namespace {

// A failed call: its result `bad` (null, 0) and the code it left.
template <class T>
::testing::AssertionResult failed(T result, int code, T bad = T{}) {
    const int got = tamo_elf_errno();
    if (result == bad && got == code) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "result " << result << ", code " << got << " (" << code << " expected)";
}

// The name in the member header of `m`, or "(none)".
const char* nameOf(Elf* m) {
    Elf_Arhdr* h = m ? tamo_elf_getarhdr(m) : nullptr;
    return h ? h->ar_name : "(none)";
}

class Archive : public ::testing::TestWithParam<Order> {
protected:
    // Opens the archive `bytes` through a file of its own.
    Elf* openArchive(const Bytes& bytes) {
        initLibrary();
        m_file = std::make_unique<MemFile>(bytes);
        return tamo_elf_begin(fd(), ELF_C_READ, nullptr);
    }
    int fd() const { return m_file->fd(); }
    off_t pos() const { return lseek(fd(), 0, SEEK_CUR); }
    // The member at the archive's position, and the one whose header is at `off`.
    Elf* member(Elf* ar) { return tamo_elf_begin(fd(), ELF_C_READ, ar); }
    Elf* memberAt(Elf* ar, size_t off) {
        EXPECT_EQ(tamo_elf_rand(ar, off), off);
        return member(ar);
    }

    SampleArchive s{GetParam()};
    const Bytes sample = s.ar.build();

private:
    std::unique_ptr<MemFile> m_file;
};

TEST_P(Archive, WalkMembersHeadersSymbolsAndRand) {
    Elf* ar = openArchive(sample);
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    EXPECT_EQ(std::make_tuple(tamo_elf_kind(ar), tamo_elf_getbase(ar), tamo_elf32_getehdr(ar)),
              std::make_tuple(ELF_K_AR, off_t{0}, static_cast<Elf32_Ehdr*>(nullptr)));
    EXPECT_EQ(pos(), s.ar.headerOffset(0)) << "positioned at the first member";
    size_t count = 0;
    Elf_Arsym* syms = tamo_elf_getarsym(ar, &count);
    ASSERT_NE(syms, nullptr);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(tamo_elf_getarsym(ar, nullptr), syms);
    // System V ELF hashes, then a record with a null name that ends the array.
    const char* names[] = {"f", "main", "counter", nullptr};
    const uint32_t offsets[] = {s.ar.headerOffset(0), s.ar.headerOffset(2), s.ar.headerOffset(3), 0};
    const uint32_t hashes[] = {0x66, 0x737fe, 0xa6c5aa2, ~0u};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_STREQ(syms[i].as_name, names[i]) << i;
        EXPECT_EQ(std::make_pair(syms[i].as_off, syms[i].as_hash), std::make_pair(offsets[i], hashes[i])) << i;
    }
    // tamo_elf_next leads from each member to the next header.
    for (size_t i = 0; i < 4; ++i) {
        Elf* m = member(ar);
        ASSERT_NE(m, nullptr) << i << " " << tamo_elf_errmsg(tamo_elf_errno());
        Elf_Arhdr* h = tamo_elf_getarhdr(m);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(std::make_tuple(tamo_elf_kind(m), tamo_elf_getbase(m), std::string(h->ar_name),
                                  std::string(h->ar_rawname), h->ar_date, h->ar_uid, h->ar_gid, h->ar_mode, h->ar_size),
                  std::make_tuple(ELF_K_AR, static_cast<off_t>(s.ar.dataOffset(i)), s.names[i],
                                  ArchiveBuilder::nameField(s.names[i]), 1700000000, 501, 20, 644,
                                  static_cast<int32_t>(s.sizes[i])));
        // The member's object, read relative to its data offset in its order.
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(m, 1), nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(static_cast<uint32_t*>(d->d_buf)[0], 0x100u * (i + 1));
        EXPECT_EQ(tamo_elf_next(m), ELF_C_READ);
        EXPECT_EQ(pos(), s.ar.headerOffset(i + 1));
        EXPECT_EQ(tamo_elf_end(m), 0);
    }
    // The "//" member holds no ELF object; the archive stays usable.
    EXPECT_TRUE(failed(member(ar), 6));
    EXPECT_STREQ(nameOf(memberAt(ar, s.ar.headerOffset(3))), "a_longer_name");
    // A symbol's offset leads to its member, which has no table of its own.
    Elf* m = memberAt(ar, syms[1].as_off);
    EXPECT_STREQ(nameOf(m), "hello.o");
    EXPECT_EQ(member(ar), m) << "the same member, the same descriptor";
    EXPECT_EQ(tamo_elf_end(m), 1);
    count = 9;
    EXPECT_TRUE(failed(tamo_elf_getarsym(m, &count), 60));
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(failed(tamo_elf_rand(m, 8), 9));
    EXPECT_TRUE(failed(tamo_elf_newscn(m), 20));
    // Headers are found only where one starts; calls that want no archive.
    EXPECT_EQ(tamo_elf_rand(ar, 9), 9u);
    EXPECT_TRUE(failed(member(ar), 13)) << "no header at 9";
    EXPECT_TRUE(failed(tamo_elf_rand(nullptr, 8), 32));
    EXPECT_TRUE(failed(tamo_elf_getarhdr(ar), 69));
    EXPECT_TRUE(failed(tamo_elf_getarhdr(nullptr), 69));
    size_t n = 3;
    EXPECT_TRUE(failed(tamo_elf_getident(ar, &n), 44));
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tamo_elf_next(nullptr), ELF_C_NULL);
    EXPECT_EQ(tamo_elf_end(ar), 0);
    EXPECT_TRUE(failed(tamo_elf_end(m), 70, -1)) << "the members went with the archive";
    // Read-write on an archive is refused; an archive image is not read.
    lseek(fd(), 0, SEEK_SET);
    EXPECT_TRUE(failed(tamo_elf_begin(fd(), ELF_C_RDWR, nullptr), 20));
    ImageBuffer image(sample);
    EXPECT_TRUE(failed(tamo_elf_memory(image.data(), image.size()), 6));
    EXPECT_EQ(image.bytes(), sample);

    // No table: the first member follows the magic, the count is untouched.
    ar = openArchive(SampleArchive(GetParam(), false).ar.build());
    ASSERT_NE(ar, nullptr);
    EXPECT_EQ(pos(), 8);
    count = 9;
    EXPECT_TRUE(failed(tamo_elf_getarsym(ar, &count), 15));
    EXPECT_EQ(count, 9u);
    EXPECT_STREQ(nameOf(member(ar)), "abc");
    tamo_elf_end(ar);
}

TEST_P(Archive, MembersAreMadeOnceAndEndBeforeTheArchive) {
    Elf* ar = openArchive(sample);
    ASSERT_NE(ar, nullptr);
    Elf* m1 = member(ar);
    ASSERT_NE(m1, nullptr);
    EXPECT_EQ(member(ar), m1) << "the same member, the same descriptor";
    EXPECT_EQ(tamo_elf_end(m1), 1);
    ASSERT_EQ(tamo_elf_next(m1), ELF_C_READ);
    Elf* m2 = member(ar);
    ASSERT_NE(m2, nullptr);
    EXPECT_NE(m2, m1);
    EXPECT_TRUE(failed(tamo_elf_begin(fd(), ELF_C_READ, m2), 60)) << "a member is no archive";
    EXPECT_EQ(tamo_elf_end(m1), 0);
    EXPECT_EQ(tamo_elf_end(m2), 0);
    EXPECT_STREQ(nameOf(memberAt(ar, s.ar.headerOffset(1))), "abcd") << "made again";
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

TEST_P(Archive, ReadEverythingAndWalkPastTheLastMember) {
    ArchiveBuilder b(GetParam());
    for (uint32_t i = 0; i < 3; ++i)
        b.addMember({.name = "m" + std::to_string(i), .data = memberObject(GetParam(), i)});
    Elf* ar = openArchive(b.build());
    ASSERT_NE(ar, nullptr);
    lseek(fd(), 0, SEEK_SET);
    EXPECT_EQ(tamo_elf_next(ar), ELF_C_READ) << "the archive's own descriptor goes to the first member";
    EXPECT_EQ(pos(), b.headerOffset(0));
    Elf* m0 = member(ar);
    ASSERT_NE(m0, nullptr);
    EXPECT_EQ(tamo_elf_cntl(ar, ELF_C_FDREAD), 0);
    // Every member's descriptor is made and marked; their sections are there.
    for (uint32_t i = 0; i < 3; ++i) {
        Elf* m = memberAt(ar, b.headerOffset(i));
        ASSERT_NE(m, nullptr);
        EXPECT_TRUE(failed(tamo_elf_cntl(m, ELF_C_FDREAD), 42, -1)) << "already read";
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(m, 1), nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(static_cast<uint32_t*>(d->d_buf)[1], i + 1);
        EXPECT_EQ(tamo_elf_next(m), i < 2 ? ELF_C_READ : ELF_C_NULL);
        EXPECT_EQ(tamo_elf_errno(), i < 2 ? 0 : 59);
        tamo_elf_end(m);
    }
    EXPECT_EQ(tamo_elf_end(m0), 0) << "the loop handed m0 out once more and ended it once";
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

TEST_P(Archive, UnusualHeaderFields) {
    // An empty symbol table under the short name field, of odd size (the next
    // header follows at once), and a date field of leading spaces joins the name.
    ArchiveBuilder b(GetParam());
    b.oddSymbolTable = true;
    b.symbolTableField = "/   ";
    b.addMember({.name = "m.o", .data = memberObject(GetParam(), 7)});
    b.addMember({.name = "x.o", .data = Bytes(20, 1), .dateText = "    12"});
    Elf* ar = openArchive(b.build());
    ASSERT_NE(ar, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    size_t count = 5;
    Elf_Arsym* syms = tamo_elf_getarsym(ar, &count);
    ASSERT_NE(syms, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(syms[0].as_name, nullptr);
    EXPECT_EQ(tamo_elf_getbase(member(ar)), static_cast<off_t>(b.dataOffset(0)));
    ASSERT_EQ(ar->m_pAr->m_members.size(), 2u);
    const ArMember& x = *ar->m_pAr->m_members[1];
    EXPECT_EQ(x.m_header.rawName, "x.o/                ");
    EXPECT_STREQ(x.m_header.hdr.ar_name, "x.o");
    EXPECT_EQ(x.m_hdrSize, 64u);
    EXPECT_EQ(tamo_elf_end(ar), 0);
}

INSTANTIATE_TEST_SUITE_P(Both, Archive, ::testing::Values(Order::Little, Order::Big),
                         [](const auto& info) { return std::string(name(info.param)); });

// An archive of one member "a.o" whose size field reads `sizeText`, then `tail`.
Bytes withMember(const std::string& sizeText, size_t size, const std::string& tail = "") {
    ArchiveBuilder b(Order::Little);
    b.withSymbolTable = false;
    b.addMember({.name = "a.o", .data = Bytes(size, 1), .sizeText = sizeText});
    Bytes out = b.build();
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
}

TEST(ArchiveErrors, CodesOfMalformedArchives) {
    auto bytesOf = [](const std::string& s) { return Bytes(s.begin(), s.end()); };
    auto header = [](const std::string& name, const std::string& size, int mode = 644) {
        return ArchiveBuilder::header(ArchiveBuilder::nameField(name), "0", 0, 0, mode, size);
    };
    std::vector<std::tuple<const char*, Bytes, int>> rows = {
        // Code 0: the archive opens. The end of the file in a name field has its own code.
        {"magic only", bytesOf("!<elfa>\n"), 16},
        {"name field without a slash", bytesOf("!<sola>\n" + std::string(60, 'z')), 16},
        {"second member without a slash", withMember("4", 4, std::string(60, 'q')), 16},
        {"member past the end", withMember("1000", 10), 11},
        {"negative size", withMember("-5", 10), 11},
        {"size that runs into the next field", withMember("9999999999", 10), 11},
        // A header cut inside its fixed part is read as far as it goes.
        {"header cut inside its fixed part", withMember("4", 4, header("b.o", "4").substr(0, 58)), 11},
        {"header cut shorter", withMember("4", 4, header("b.o", "4").substr(0, 50)), 11},
        // Under 45 bytes left end the member list; an empty last member needs no trailer.
        {"trailing fragment", withMember("4", 4, std::string(44, ' ')), 0},
        {"last header without its trailer", withMember("4", 4, header("b.o", "0").substr(0, 58)), 0},
    };
    for (Order o : {Order::Little, Order::Big}) {
        // A symbol table of one name before one member, damaged.
        ArchiveBuilder b(o);
        b.addMember({.name = "a.o", .data = Bytes(10, 1)});
        b.addSymbol("s", 0);
        Bytes tooMany = b.build(), noNul = tooMany, pastEnd = tooMany, tableOnly = tooMany;
        tooMany[8 + 60 + (o == Order::Big ? 3 : 0)] = 0x50;  // the count's low byte
        noNul[8 + 60 + 8] = noNul[8 + 60 + 9] = 'x';         // the only name loses its NUL
        std::ranges::copy(header("", "2000000000", 0), pastEnd.begin() + 8);
        tableOnly.resize(8 + 60 + 10);
        rows.insert(rows.end(), {{"symbol count too large", tooMany, 10},
                                 {"symbol name without a NUL", noNul, 10},
                                 {"symbol table past the end", pastEnd, 10},
                                 {"no members", tableOnly, 12}});
    }
    initLibrary();
    for (const auto& [what, bytes, code] : rows) {
        tamo_elf_errno();
        Opened o(bytes, Access::File);
        EXPECT_EQ(std::make_pair(o.elf() != nullptr, tamo_elf_errno()), std::make_pair(code == 0, code)) << what;
    }
}

}  // namespace
